#pragma once

#include "verdict/Finding.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

/// What the board's kernel and its tools find on the chip after a run, and what the kernel logged since the run began.
struct BoardFinds {
    struct File {
        std::string path; ///< in the volume, "bin/app"
        std::string sum;  ///< SHA-256 in hexadecimal
    };
    struct Volume {
        std::string name;
        std::string refusal; ///< why the volume was not mounted as UBIFS; empty when it was
        std::vector<File> files;
    };
    struct Partition {
        int device = -1;     ///< number of the MTD device
        std::string refusal; ///< why UBI did not attach; empty when it did
        std::vector<Volume> volumes;
    };
    struct Environment {
        std::int64_t offset = 0; ///< bytes on the chip
        std::int64_t size = 0;
        std::string refusal; ///< what fw_printenv said when it failed
        std::vector<std::string> variables;
    };
    struct Counters {
        int device = -1;
        std::uint32_t corrected = 0, failed = 0, badBlocks = 0;
    };

    std::vector<Partition> partitions;
    std::vector<Environment> environments;
    std::vector<Counters> counters; ///< of each MTD device since the chip was made
    std::vector<std::string> kernelLog;
    double bootSeconds = 0; ///< from the start of the board to that of the update
};

/// A line of --expect.
struct ExpectedFile {
    std::string sum;
    std::string volume;
    std::string path; ///< in the volume
};

/// Reads lines as sha256sum prints them: "SUM  VOLUME/PATH".
/// @throws std::invalid_argument with one line about the first line that is wrong
std::vector<ExpectedFile> ReadExpectedFiles(const std::string &path);

/// Reads the lines of board/guest/rehearse about partitions and environments; lines of other forms are passed over.
void ReadFound(const std::string &text, BoardFinds &finds);

/// @return lines for people.
std::string FindsText(const BoardFinds &finds);

/// The field "board" of a report:
///
///   bootSeconds   from the start of the board to that of the update
///   counters      each: device (number), corrected, failed, badBlocks
///   environments  those of setenv lines, each: offset (bytes on the chip), size, valid, reason (why not), variables
///   ubi           MTD devices that begin as UBI, each: device, attached, reason; volumes, each: name, mounted, reason;
///                 files, each: path, sha256
///   kernelLog     lines since the update began
nlohmann::ordered_json DescribeFinds(const BoardFinds &finds);

/// A script line that changed a variable, and the environment's place in bytes on the chip.
struct SetRange {
    UpdateLine line;
    std::int64_t offset;
    std::int64_t size;
};

/// @return findings about environments that fw_printenv can't read and about files that are not as expected.
std::vector<Finding> JudgeFinds(const BoardFinds &finds, const std::vector<SetRange> &lines,
                                const std::vector<ExpectedFile> &expected);
