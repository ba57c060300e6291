# What the toolchains of the devices share: Debian's cross compiler for TRIPLET, qemu's EMULATOR for the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${TRIPLET}-g++)
set(CMAKE_SIZE ${TRIPLET}-size)
set(CMAKE_FIND_ROOT_PATH /usr/${TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${EMULATOR} -L /usr/${TRIPLET})
# A device needs libc alone: the program contains what it uses of the C++ and compiler libraries, and nothing else.
set(CMAKE_CXX_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc -Wl,--gc-sections,-O1 -s")
