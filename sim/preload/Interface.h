#pragma once

/// What the preload library and the tool that starts programs with it agree on.

/// Environment variables. Without the first two every call goes to libc untouched.
constexpr const char *kChipVariable = "FLASHSIM_CHIP";       ///< path of the chip's file
constexpr const char *kStateVariable = "FLASHSIM_STATE";     ///< path of the run state
constexpr const char *kProgramVariable = "FLASHSIM_PROGRAM"; ///< file name of the program whose calls are traced
