#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// Shows the progress of a long run on standard error: on a terminal in one line that is rewritten and disappears in
/// the end, elsewhere as a plain line now and then.
class ProgressBar {
public:
    explicit ProgressBar(std::string title);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /// Shows that `done` of `total` steps are done, the rate, the remaining time and a note on the result so far, which
    /// may be empty. Shows something ten times a second at most on a terminal, and every 30 seconds elsewhere.
    void Show(std::size_t done, std::size_t total, const std::string &note);

private:
    using Clock = std::chrono::steady_clock;

    std::string m_sTitle;
    bool m_bIsTerminal;
    Clock::time_point m_tStart = Clock::now();
    Clock::time_point m_tShown;
};

/// @return "3 of 40, 1.5/s, 25 s left": the progress after some seconds.
std::string ProgressText(std::size_t done, std::size_t total, double seconds);
