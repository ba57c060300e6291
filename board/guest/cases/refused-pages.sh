# shellcheck shell=dash source=board/guest/board.sh
# A chip that refuses raw pages without OOB bytes fails the first page of a write.
. /board.sh
new_flash
rmmod rawwrite

mkdir update
noise 0 4096 >update/image
fill 0x400000 3
fill 0x800000 3
update <<SCRIPT
write 420000 20000 image
SCRIPT
says err <<TEXT
write update/image to flash address 420000
erase complete
 offset=420000 size=20000
error : write page return -1
TEXT
flash_erase -q /dev/mtd0 0x820000 1
same_cells 0x400000 0x800000 3
