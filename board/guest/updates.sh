# shellcheck shell=dash
# The example updates that run on both board and simulator, each on a new chip, and how their results are printed.

# each_update COMMAND...: runs the command for each update, with the update's folder, the chip's bad blocks and the
# expected verdict.
each_update() {
    # A new chip has no environment for the setenv of this update, which is a warning.
    "$@" clean 1,130 findings
    "$@" traps/lines 29,510 findings
    "$@" traps/long-line "" findings
    "$@" traps/long-script "" findings
    "$@" traps/stop "" findings
}

# The bytes of an erase block with its OOB.
raw_block=$((32 * (512 + 16)))

# print_result UPDATE BAD STATUS: prints the exit status of a run, its output in the files out and err, and the digest
# of each block in the file flash, a dump of the chip. Erased blocks are left out, and so are bad ones: their contents
# are undefined.
print_result() {
    echo "update $1: exit status $3"
    sed 's/^/out: /' out
    sed 's/^/err: /' err
    digest dump $raw_block <flash | awk -v bad=",$2," '!index(bad, "," $2 ",")'
}
