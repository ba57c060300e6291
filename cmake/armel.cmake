# Toolchain of older devices: 32-bit ARM with software floating point.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TRIPLET arm-linux-gnueabi)
set(EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/device.cmake)
