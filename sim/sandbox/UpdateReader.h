#pragma once

#include <cstddef>
#include <string>

/// Longest script that is read, in bytes. The updater refuses scripts far shorter than that.
constexpr std::size_t kMostScript = std::size_t{1} << 20;

/// Largest file whose bytes are read: more than the chips that an updater with 32-bit offsets serves take for an image.
constexpr std::size_t kMostContents = std::size_t{1} << 30;

/// Describes an unpacked update as RunSandbox's reply has it, from the second line on. Only regular files are read, and
/// none beyond a limit: a FIFO or a link to an endless device neither blocks nor fills memory.
/// @param update path of the folder; the script in the root folder counts when it has none
std::string DescribeUpdate(const std::string &update);
