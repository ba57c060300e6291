# shellcheck shell=dash source=board/guest/board.sh source=board/guest/updates.sh
# What comes of the example updates on small pages; the simulator, which judges them, has to give the same.
. /board.sh
. /updates.sh

cp /updates/device/bin/bootvars /bin

# carry_out UPDATE BAD
carry_out() {
    new_flash id_bytes=0x20,0x33 overridesize=9 ${2:+badblocks=$2}
    cp -r "/updates/$1" /tmp/update
    run flashrig /tmp/update
    nanddump -q --noecc --oob --bb=dumpbad -f flash /dev/mtd0
    tell "$1" "$2" "$status"
    remove_flash || true
    rm -rf /tmp/update /tmp/progress
}

each_update carry_out
