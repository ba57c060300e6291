#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// A line on a terminal that shows how far a long work is; nothing when standard error is no terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::string title);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /// @param note of what has come of it so far; may be empty
    void Show(std::size_t done, std::size_t total, const std::string &note);

private:
    using Clock = std::chrono::steady_clock;

    std::string m_sTitle;
    bool m_bIsTerminal;
    Clock::time_point m_tStart = Clock::now();
    Clock::time_point m_tShown;
};
