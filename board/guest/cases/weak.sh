# shellcheck shell=dash source=board/guest/board.sh
# A page or block that fails ends a write; after a failed erase the script continues.
# The simulated chip programs a weak page, and erases a weak block, before it reports the failure.
. /board.sh
# Both fail from the second time on: page 2 of block 33, which is page 2114 of the chip, and block 48.
new_flash weakpages=2114:1 weakblocks=48:1

mkdir update
noise 9 $((2 * block)) >update/image
fill 0x400000 18
fill 0x800000 18
update <<SCRIPT
write 400000 60000 image
erase 4c0000 20000
SCRIPT
says err <<TEXT
write update/image to flash address 400000
erase complete
 offset=400000 size=60000
error : write page return -1
TEXT
flash_erase -q /dev/mtd0 0x800000 3
head -c $((block + 3 * page)) update/image | nandwrite -q -n -s 0x800000 /dev/mtd0 -
same_cells 0x400000 0x800000 16

update <<SCRIPT
erase 5e0000 60000
write 5e0000 60000 image
erase 400000 20000
SCRIPT
says err <<TEXT
error : erase failed at 600000
erase complete
 offset=5e0000 size=60000
write update/image to flash address 5e0000
error : erase failed at 600000
erase complete
 offset=5e0000 size=60000
TEXT
flash_erase -q /dev/mtd0 0x9e0000 2
same_cells 0x400000 0x800000 18
