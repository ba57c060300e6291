# shellcheck shell=dash source=board/guest/board.sh
# An image with OOB bytes, dumped elsewhere on the chip, reads back with its ECC after a bad block.
. /board.sh
new_flash badblocks=34,66

mkdir update
fill 0xc00000 3
cells 0xc00000 3 >update/image
fill 0x400000 7 1
fill 0x800000 7 1
update <<SCRIPT
writeoob 420000 80000 image
SCRIPT
says err <<TEXT
write update/image to flash address 420000
warning : skip bad block at 440000
erase complete
 offset=420000 size=80000
warning : skip bad block at 440000
warning : file read datasize = 0, pending to pagesize = 2048
write file complete
 read size = 405504
TEXT
noise 0 $((3 * block)) >sent
nanddump -q --bb=skipbad -s 0x420000 -l $((3 * block)) /dev/mtd0 | cmp - sent
no_ecc_events
flash_erase -q /dev/mtd0 0x820000 4
nandwrite -q -n -o -s 0x820000 /dev/mtd0 update/image
same_cells 0x400000 0x800000 7
