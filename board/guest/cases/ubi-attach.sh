# shellcheck shell=dash source=board/guest/board.sh
# What the kernel makes of intact and damaged UBI images: attached or not, reserve, volumes. The simulator's reader has
# to say the same of each.
. /board.sh

# The list has four partitions; bad blocks are those of the chip.
new_flash parts=128,48,16,200 badblocks=130,131,145,192,292
modprobe ubi

# print_device: what the attached device is.
print_device() {
    (
        cd /sys/class/ubi/ubi0 || exit
        echo "attached total=$(cat total_eraseblocks) bad=$(cat bad_peb_count) reserved=$(cat reserved_for_bad)" \
            "available=$(cat avail_eraseblocks) volumes=$(cat volumes_count)"
    )
    for id in $(find /sys/class/ubi/ -name 'ubi0_*' | sed 's/.*_//' | sort -n); do
        (
            cd "/sys/class/ubi/ubi0_$id" || exit
            echo "volume $id $(cat name) $(cat type) reserved=$(cat reserved_ebs) alignment=$(cat alignment)" \
                "leb=$(cat usable_eb_size) bytes=$(cat data_bytes) marker=$(cat upd_marker) corrupted=$(cat corrupted)"
        )
    done
}

while read -r name image partition mode patches; do
    device=/dev/mtd$partition
    cp "/ubi/$image.ubi" image
    for patch in $patches; do
        # shellcheck disable=SC2059
        printf "\\${patch#*:}" | dd of=image bs=1 seek="${patch%:*}" conv=notrunc 2>/dev/null
    done
    # Around bad blocks it complains and goes on.
    flash_erase -q "$device" 0 0 2>/dev/null
    noecc=
    [ "$mode" = ecc ] || noecc=-n
    # shellcheck disable=SC2086
    [ ! -s image ] || nandwrite -q -p $noecc "$device" image >/dev/null 2>&1
    echo "image $name"
    if ubiattach -d 0 -p "$device" >out 2>err; then
        print_device
        ubidetach -d 0 >/dev/null
    else
        sed -n 's/.*error \([0-9]*\) (.*/refused \1/p' err
    fi
done </ubi/cases
