# Toolchain of x86-64 devices.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TRIPLET x86_64-linux-gnu)
set(EMULATOR qemu-x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/device.cmake)
