# shellcheck shell=dash source=board/guest/board.sh
# The long form changes a variable in an environment on the chip: entries, zero tail, CRC, and the ECC of each page.
. /board.sh
new_flash badblocks=65,67

# environment SIZE ENTRY...: the block of that size that holds the entries. gzip ends with the CRC-32 of what it
# packed, least significant byte first, and the length.
environment() {
    size=$1
    shift
    { printf '%s\0' "$@" && cat /dev/zero; } | head -c $((size - 4)) >area
    gzip -c area | tail -c 8 | head -c 4
    cat area
}

# The block on the flash has an invalid CRC, which does not matter.
fill 0x400000 3
fill 0xc00000 3
flash_erase -q /dev/mtd0 0x420000 1
environment $block bootdelay=3 rootfs=mtd4 console=ttyS0 | tr '\001-\037' '\377' |
    nandwrite -q -s 0x420000 /dev/mtd0 - >/dev/null
update <<SCRIPT
setenv 420000 20000 rootfs mtd5
setenv 420000 20000 bootcount 1=2
SCRIPT
says err <<TEXT
write rootfs = mtd5 to env
write bootcount = 1=2 to env
TEXT
environment $block bootdelay=3 rootfs=mtd5 console=ttyS0 bootcount=1=2 >expected
flash_erase -q /dev/mtd0 0xc20000 1
nandwrite -q -s 0xc20000 /dev/mtd0 expected
same_cells 0x400000 0xc00000 3
nanddump -q -s 0x420000 -l $block /dev/mtd0 | cmp - expected

# Block 64 is good and 65 is bad: the second half is lost. The range of the last line is block 67 alone.
flash_erase -q /dev/mtd0 0x800000 1
environment $((2 * block)) a=1 b=2 | head -c $block | nandwrite -q -s 0x800000 /dev/mtd0 - >/dev/null
update <<SCRIPT
setenv 800000 40000 a 3
setenv 860000 20000 a 3
SCRIPT
says err <<TEXT
warning : skip bad block at 820000
write a = 3 to env
warning : skip bad block at 860000
write a = 3 to env
TEXT
environment $((2 * block)) a=3 b=2 | head -c $block >expected
nanddump -q -s 0x800000 -l $block /dev/mtd0 | cmp - expected

# A range that passes the chip's end can't be read, so nothing is erased.
fill 0xffe0000 1
cells 0xffe0000 1 >before
update <<SCRIPT
setenv ffe0000 40000 a 3
SCRIPT
says err <<TEXT
error : read failed at 10000000
write a = 3 to env
TEXT
cells 0xffe0000 1 | cmp - before
no_ecc_events
