# Toolchain of the device: 32-bit ARM with hardware floating point.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TRIPLET arm-linux-gnueabihf)
set(EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/device.cmake)
