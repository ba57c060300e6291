#pragma once

#include "mtd/Requests.h"
#include "mtd/UpdaterRecord.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A traced run in its order: changes of the chip, and when other things happened among them. A time is the number of
/// page programs and block erases that were made before.
struct RunTimeline {
    struct Output {
        std::size_t time;
        bool isError;
        std::string text; ///< part of what the updater itself printed
    };
    struct Command {
        std::size_t time;
        std::string command; ///< for a shell
    };
    struct BadMark {
        std::size_t time;
        std::uint32_t block;
    };

    /// @param text SimState::WholeText
    explicit RunTimeline(const std::string &text);

    std::vector<RunChange> changes; ///< programs and erases
    std::vector<BadMark> badMarks;  ///< blocks that became bad
    std::vector<Output> outputs;
    std::vector<Command> commands;
    std::array<std::vector<std::size_t>, kRequestKinds> requests; ///< for each kind: the times of its requests
};
