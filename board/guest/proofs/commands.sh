# shellcheck shell=dash source=board/guest/board.sh
# Output and effects of mtd-utils and libubootenv for a list of commands, on large and on small pages.
. /board.sh

mkdir -p /var/lock
new_flash id_bytes=0x20,0xf1,0x00,0x15 overridesize=5 badblocks=5,20
/run-commands /inputs/large 2048 131072
remove_flash
new_flash id_bytes=0x20,0x33 overridesize=5 badblocks=5,20
/run-commands /inputs/small 512 16384
