# shellcheck shell=dash source=board/guest/board.sh
# An erase changes the good blocks of its range only. A range that is not whole blocks is not erased; a range that
# passes the chip's end is erased up to the end.
. /board.sh
new_flash badblocks=34,66

fill 0x400000 6 1
fill 0x800000 6 1
update <<SCRIPT
erase 420000 60000
SCRIPT
says err <<TEXT
warning : skip bad block at 440000
erase complete
 offset=420000 size=60000
TEXT
cells 0x420000 1 >erased
cells 0x460000 1 >>erased
[ "$(tr -d '\377' <erased | wc -c)" -eq 0 ]
flash_erase -q /dev/mtd0 0x820000 3
same_cells 0x400000 0x800000 6

update <<SCRIPT
erase 400800 20000
erase 400000 800
erase 400000 0
SCRIPT
says err <<TEXT
error : invalid offset=4196352, blocksize = 131072
error : invalid size=2048, blocksize = 131072
erase complete
 offset=400000 size=0
TEXT
same_cells 0x400000 0x800000 6

fill 0xffe0000 1
update <<SCRIPT
erase ffe0000 40000
SCRIPT
says err <<TEXT
error : fail to check bad block at 10000000
erase complete
 offset=ffe0000 size=40000
TEXT
[ "$(cells 0xffe0000 1 | tr -d '\377' | wc -c)" -eq 0 ]
