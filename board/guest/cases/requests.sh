# shellcheck shell=dash source=board/guest/board.sh
# What the kernel gives for a list of requests; the simulator has to give the same.
. /board.sh
new_flash badblocks=5
requests /dev/mtd0
