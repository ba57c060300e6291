# shellcheck shell=dash disable=SC2034
# Functions of the cases. The chip has 2048 blocks of 64 pages.

page=2048
block=131072

# new_flash [PARAMETER...]: an erased chip; its parameters are those of the kernel's nandsim.
# The kernel's table gets the name by which the updater knows the whole flash.
new_flash() {
    modprobe nandsim id_bytes=0x20,0xaa,0x00,0x15 "$@"
    modprobe rawwrite
    name_whole_flash mtd0
}

# name_whole_flash DEVICE: /proc/mtd shows the name for that device.
name_whole_flash() {
    sed "/^$1:/s/\"NAND.*\"/\"all\"/" /proc/mtd >/tmp/mtd
    mount --bind /tmp/mtd /proc/mtd
}

# remove_flash: removes the mounts of a case, its UBI device and its flash; fails when the flash is still there.
remove_flash() {
    tail -n "+$((${own_mounts:?} + 1))" /proc/mounts | tac | while read -r _ place _; do
        umount "$place" || umount -l "$place"
    done
    [ ! -e /sys/class/ubi/ubi0 ] || ubidetach -d 0
    for module in rawwrite flashlog nandsim; do
        rmmod $module || true
    done
    ! grep -q ^nandsim /proc/modules
} >/dev/null 2>&1

# run COMMAND...: writes its output to the files out and err, and its exit status to $status.
run() {
    status=0
    "$@" >out 2>err || status=$?
}

# update: runs the updater on the folder update with the script on standard input; the exit status must be 0.
# The second argument disables the notify script.
update() {
    mkdir -p update
    cat >update/flashrig.script
    run flashrig update quiet
    [ "$status" -eq 0 ]
}

# says FILE: the file holds standard input, byte for byte.
says() { diff - "$1"; }

# noise START COUNT: a piece of 4 MiB of noise that is the same on every board.
noise() { tail -c "+$(($1 + 1))" /noise | head -c "$2"; }

# fill OFFSET BLOCKS [BAD]: programs the good blocks of a range with noise and its ECC; BAD of the blocks are bad.
fill() {
    flash_erase -q /dev/mtd0 "$1" "$2"
    noise 0 $((($2 - ${3:-0}) * block)) | nandwrite -q -s "$1" /dev/mtd0 - >/dev/null
}

# cells OFFSET BLOCKS: the cells of a range with OOB bytes and bad blocks, uncorrected.
cells() { nanddump -q --noecc --oob --bb=dumpbad -s "$1" -l $(($2 * block)) /dev/mtd0; }

# same_cells OFFSET OTHER BLOCKS: two ranges of the chip are equal in every cell.
same_cells() {
    cells "$1" "$3" >cells.one
    cells "$2" "$3" >cells.two
    cmp cells.one cells.two
}

# data OFFSET BYTES: the data of the good blocks of a range, uncorrected.
data() { nanddump -q --noecc --omitoob --bb=skipbad -s "$1" -l "$2" /dev/mtd0; }

# no_ecc_events: since the chip was made, the kernel has corrected no bit and found no uncorrectable page.
no_ecc_events() { [ "$(cat /sys/class/mtd/mtd0/corrected_bits /sys/class/mtd/mtd0/ecc_failures)" = "$(printf '0\n0')" ]; }

# The applications that an update stops, and one that it does not stop.
applications="HeartGuard lens_steward linkpilot flow_core FlowRunner toolkitd SignalHub remote_rx port_mux Panel-Face webnest"
bystander=bystander

# occupy_opt: makes a unit in use. /opt is UBIFS on mtd9, parts of it are mounted elsewhere, the applications run, and
# two more processes have /opt as working folder; one of them ignores SIGTERM. mtd10 has the name of the whole flash.
occupy_opt() {
    new_flash parts=8,8,8,8,8,8,8,8,8,200
    umount /proc/mtd
    name_whole_flash mtd10
    modprobe ubifs
    ubiformat -q -y -f /opt.old.ubi /dev/mtd9
    ubiattach -p /dev/mtd9 >/dev/null
    mount -t ubifs ubi0:opt /opt
    mkdir -p /opt/user /opt/suite /usr/local/lib
    mount -t tmpfs user /opt/user
    mount -t tmpfs suite /opt/suite
    mount --bind /opt/lib /usr/local/lib
    mkdir -p applications
    for name in $applications $bystander; do
        printf '#!/bin/sh\nwhile :; do sleep 1; done\n' >"applications/$name"
        chmod +x "applications/$name"
        ("applications/$name" &)
    done
    (cd /opt && sh -c 'echo $$ >/tmp/case/polite; exec sleep 1000' &)
    (cd /opt && sh -c 'echo $$ >/tmp/case/deaf; trap "" TERM; exec sleep 1000' &)
    sleep 1
}

# opt_is_free: mounts and processes are gone, except for the bystander.
opt_is_free() {
    sleep 1
    for name in $applications; do
        [ -z "$(pidof "$name")" ]
    done
    pidof $bystander >/dev/null
    [ "$(grep -cE ' /opt| /usr/local/lib' /proc/mounts)" -eq 0 ]
    [ ! -e /sys/class/ubi/ubi0 ]
    for holder in polite deaf; do
        grep -qx "####$(cat /tmp/case/$holder)###" out
        [ ! -e "/proc/$(cat /tmp/case/$holder)" ]
    done
}
