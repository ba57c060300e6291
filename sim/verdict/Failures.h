#pragma once

/// What the updater says when a command fails, by the message's start.
struct Failure {
    const char *start;
    const char *kind;
    const char *meaning;
    const char *change;
};

constexpr const char *kErrorMark = "error : ";
constexpr const char *kNothingToChange = "nothing in the update: replace the chip, or run again";
constexpr Failure kFailures[] = {
    {"error : invalid offset=", "misaligned", "nothing of it is done", "let offset and size be whole erase blocks"},
    {"error : invalid size=", "misaligned", "nothing of it is done", "let offset and size be whole erase blocks"},
    {"error : fail to check bad block at ", "check-failed", "the blocks before it are done", kNothingToChange},
    {"error : erase failed at ", "erase-failed", "the blocks before it are done", kNothingToChange},
    {"error : write page return ", "write-failed", "the pages before it are done", kNothingToChange},
    {"error : read failed at ", "read-failed", "nothing is changed", kNothingToChange},
    {"error : file readsize = ", "unreadable-file", "the range is erased and stays so", "let it be a readable file"},
    {"error : file outruns the erased range at ", "outruns-range", "the rest of the image is written nowhere",
     "make the range hold the image and some bad blocks"},
    {"error : environment of ", "environment-full", "nothing is changed", "shorten the variables of that block"},
    {"error : command too long: ", "command-too-long", "nothing is run",
     "keep name and value to 237 characters in all"},
    {"error : unknown flash geometry", "no-geometry", "nothing is done", "run it on a device that tells its page size"},
    {"error : std::", "failed", "the command ends there", "see what the message names"},
    {"error : popen() failed!", "failed", "the command ends there", "see what the message names"},
    {"dev ", "no-device", "applications and mounts are gone already", "name a device that is there"},
    {"/", "unreadable-file", "applications and mounts are gone already", "let it be a readable file"},
    {"", "failed", "the command ends there", "see what the message names"},
};
