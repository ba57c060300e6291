#pragma once

#include "verdict/Finding.h"

/// A message of the updater about a failed command, by the start of the message.
struct Failure {
    const char *start;
    FindingId finding;
    const char *meaning;
};

constexpr const char *kErrorMark = "error : ";
constexpr Failure kFailures[] = {
    {"error : invalid offset=", FindingId::Misaligned, "the line does nothing"},
    {"error : invalid size=", FindingId::Misaligned, "the line does nothing"},
    {"error : fail to check bad block at ", FindingId::CheckFailed, "earlier blocks are done"},
    {"error : erase failed at ", FindingId::EraseFailed, "earlier blocks are done"},
    {"error : write page return ", FindingId::WriteFailed, "earlier pages are done"},
    {"error : read failed at ", FindingId::ReadFailed, "nothing is changed"},
    {"error : file readsize = ", FindingId::UnreadableFile, "the range is erased and stays empty"},
    {"error : file outruns the erased range at ", FindingId::OutrunsRange, "the rest of the image is lost"},
    {"error : environment of ", FindingId::EnvironmentFull, "nothing is changed"},
    {"error : command too long: ", FindingId::CommandTooLong, "nothing is run"},
    {"error : unknown flash geometry", FindingId::NoGeometry, "nothing is done"},
    {"error : std::", FindingId::Failed, "the command stops there"},
    {"error : popen() failed!", FindingId::Failed, "the command stops there"},
    {"dev ", FindingId::NoDevice, "applications are stopped and file systems unmounted already"},
    {"/", FindingId::UnreadableFile, "applications are stopped and file systems unmounted already"},
    {"", FindingId::Failed, "the command stops there"},
};
