# shellcheck shell=dash source=board/guest/board.sh source=board/guest/updates.sh
# Example updates on small pages; the simulator, which judges them, must give the same results.
. /board.sh
. /updates.sh

cp /updates/device/bin/bootvars /bin

# run_update UPDATE BAD VERDICT
run_update() {
    new_flash id_bytes=0x20,0x33 overridesize=9 ${2:+badblocks=$2}
    cp -r "/updates/$1" /tmp/update
    run flashrig /tmp/update
    nanddump -q --noecc --oob --bb=dumpbad -f flash /dev/mtd0
    print_result "$1" "$2" "$status"
    remove_flash
    rm -rf /tmp/update /tmp/progress
}

each_update run_update
