# shellcheck shell=dash
# The example updates that board and simulator both carry out, each on a fresh chip, and how they tell what came of it.

# each_update COMMAND...: runs it for each update, with the update's folder, the chip's bad blocks and the verdict.
each_update() {
    "$@" clean 1,130 clean
    "$@" traps/lines 29,510 findings
    "$@" traps/long-line "" findings
    "$@" traps/long-script "" findings
    "$@" traps/stop "" findings
}

# The chip's erase blocks, the bytes of one with its OOB, and the checksum of an erased one.
blocks=512
raw_block=$((32 * (512 + 16)))
blank=$(head -c $raw_block /dev/zero | tr '\0' '\377' | md5sum)

# tell UPDATE BAD STATUS: what a run said in the files out and err, how it ended, and a line for each block that isn't
# blank in the file flash, the chip's cells. Nobody knows what bad blocks hold.
tell() {
    echo "update $1 ended with $3"
    sed 's/^/out: /' out
    sed 's/^/err: /' err
    for block in $(seq -w 0 $((blocks - 1))); do
        dd of="block.$block" bs=$raw_block count=1 2>/dev/null
    done <flash
    md5sum block.* | awk -v bad=",$2," -v blank="${blank%% *}" '$1 != blank && !index(bad, "," NR - 1 ",")'
    rm block.*
}
