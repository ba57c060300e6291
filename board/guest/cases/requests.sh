# shellcheck shell=dash source=board/guest/board.sh
# The kernel's results for a list of requests; the simulator's must be the same.
. /board.sh
new_flash badblocks=5
requests /dev/mtd0
