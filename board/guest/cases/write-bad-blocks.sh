# shellcheck shell=dash source=board/guest/board.sh
# A write skips bad blocks at the start, in the middle and at the end of its range.
. /board.sh
new_flash badblocks=33,36,38,65,68,70

mkdir update
noise 5 $((3 * block)) >update/image
fill 0x400000 9 3
update <<SCRIPT
write 420000 c0000 image
SCRIPT
says err <<TEXT
write update/image to flash address 420000
warning : skip bad block at 420000
warning : skip bad block at 480000
warning : skip bad block at 4c0000
erase complete
 offset=420000 size=c0000
warning : skip bad block at 420000
warning : skip bad block at 480000
warning : skip bad block at 4c0000
write file complete
 read size = 393216
TEXT
data 0x420000 $((3 * block)) | cmp - update/image

fill 0x800000 9 3
flash_erase -q /dev/mtd0 0x820000 6
nandwrite -q -n -s 0x820000 /dev/mtd0 update/image
same_cells 0x400000 0x800000 9
