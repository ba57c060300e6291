# shellcheck shell=dash source=board/guest/board.sh source=board/guest/geometries.sh
# The kernel's results for random requests, on whole chips and on partitions.
. /board.sh
. /geometries.sh

# make_requests NAME PARAMETERS SIZES BAD DEVICE START
make_requests() {
    # shellcheck disable=SC2086
    new_flash $2 badblocks="$4"
    echo "chip $1"
    random-requests "/dev/$5" "$seed" "${requests:-2000}"
    digest device "/dev/$5"
    remove_flash
    seed=$((seed + 1))
}

seed=${seed:-1}
each_geometry make_requests
