# shellcheck shell=dash
# The chips for random requests on both board and simulator.

# each_geometry COMMAND...: runs the command for each chip and device, with a name, nandsim's parameters, flashsim's
# sizes, the bad blocks, the device and where it starts in bytes.
each_geometry() {
    "$@" small "id_bytes=0x20,0x33 overridesize=6" 1M,16K,512,16 3,12 mtd0 0
    "$@" small-part "id_bytes=0x20,0x33 overridesize=6 parts=2" 1M,16K,512,16 5,14 mtd1 32K
    "$@" large "id_bytes=0x20,0xf1,0x00,0x15 overridesize=5" 4M,128K,2K,64 3,9 mtd0 0
    "$@" large-part "id_bytes=0x20,0xf1,0x00,0x15 overridesize=5 parts=2" 4M,128K,2K,64 5,11 mtd1 256K
    "$@" largest "id_bytes=0x20,0xf1,0x00,0x26 overridesize=5" 8M,256K,4K,128 6,15 mtd0 0
}
