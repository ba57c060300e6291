# shellcheck shell=dash source=board/guest/board.sh
# Output and effects of mtd-utils and libubootenv for a list of commands, on large and on small pages.
. /board.sh

# The commands show the device's name.
# run_on CHIP PAGE BLOCK PARAMETER...
run_on() {
    inputs=/inputs/$1
    shift
    page=$1
    block=$2
    shift 2
    modprobe nandsim "$@" badblocks=5,20
    modprobe flashlog
    echo "remove 0" >/sys/module/flashlog/parameters/control
    echo "add 0 $((32 * block)) all" >/sys/module/flashlog/parameters/control
    /run-commands "$inputs" "$page" "$block"
    remove_flash
}

mkdir -p /var/lock
run_on large 2048 131072 id_bytes=0x20,0xf1,0x00,0x15 overridesize=5
run_on small 512 16384 id_bytes=0x20,0x33 overridesize=5
