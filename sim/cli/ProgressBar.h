#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// A line that shows the progress of a long run on standard error. Prints nothing when that is not a terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::string title);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /// Shows that `done` of `total` steps are done, the remaining time and a note on the result so far, which may be
    /// empty. Updates the line ten times a second at most.
    void Show(std::size_t done, std::size_t total, const std::string &note);

private:
    using Clock = std::chrono::steady_clock;

    std::string m_sTitle;
    bool m_bIsTerminal;
    Clock::time_point m_tStart = Clock::now();
    Clock::time_point m_tShown;
};
