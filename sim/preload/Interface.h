#pragma once

/// What the preload library and the tool that starts programs with it agree on.

/// Environment variables. Without the first two every call goes to libc untouched.
constexpr const char *kChipVariable = "FLASHSIM_CHIP";       ///< path of the chip's file
constexpr const char *kStateVariable = "FLASHSIM_STATE";     ///< path of the run state
constexpr const char *kProgramVariable = "FLASHSIM_PROGRAM"; ///< file name of the program whose calls are traced
/// Set when the devices have nodes in the file system; without, the path "/dev/mtd<N>" alone names a device.
constexpr const char *kNodesVariable = "FLASHSIM_NODES";

/// Places in the sandbox.
constexpr const char *kPreloadPlace = "/.flashsim/libflashsim.so";
constexpr const char *kChipPlace = "/.flashsim/chip";
constexpr const char *kStatePlace = "/.flashsim/state";

/// Files that represent something of the kernel's have one of these modification times, in seconds; the nanoseconds
/// hold a number. The marks survive links, bind mounts and chroot.
///
/// A device node is a character device 0:0, which a user may make and nobody can open: static programs and raw system
/// calls fail. Its number is the minor number, 2N for /dev/mtdN and 2N + 1 for /dev/mtdNro.
constexpr long kNodeStamp = 0x4D544431;
/// A sysfs file with live content: the place of its device among the run's, times kSysfsPlaces, plus its own place in
/// kSysfsFiles.
constexpr long kSysfsStamp = 0x4D544432;
constexpr long kSysfsPlaces = 64;
/// A descriptor of a device, as programs inherit it: the number of its open file description.
constexpr long kDescriptorStamp = 0x4D544433;

constexpr unsigned kMtdMajor = 90;

/// Exit status of a program whose simulation can't be opened.
constexpr int kBrokenSetup = 125;

/// The system's program that runs in place of an update's ubiformat for another processor.
constexpr const char *kUbiformatPlace = "/usr/sbin/ubiformat";
