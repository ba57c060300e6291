SUMMARY = "Firmware updater for raw NAND flash"
require flashrig.inc

# The C++ library is linked in: a device needs libc alone.
CXXFLAGS += "-ffunction-sections -fdata-sections"
LDFLAGS += "-static-libstdc++ -static-libgcc -Wl,--gc-sections"

# What a ubiformat line calls.
RRECOMMENDS:${PN} = "mtd-utils psmisc procps"
