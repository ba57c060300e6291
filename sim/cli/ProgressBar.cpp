#include "cli/ProgressBar.h"

#include "base/Text.h"

#include <cmath>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t kCells = 30;
constexpr std::chrono::milliseconds kBetweenShows(100);
constexpr std::chrono::milliseconds kBetweenLines(30000);
constexpr const char *kClearLine = "\r\033[K";

/// @return "45 s", "12 min", "3 h 5 min".
std::string DurationText(double seconds) {
    constexpr long long kMinute = 60;
    constexpr long long kHour = 3600;
    const long long whole = std::llround(seconds);
    if (whole < 2 * kMinute)
        return FormatText("%lld s", whole);
    if (whole < 2 * kHour)
        return FormatText("%lld min", whole / kMinute);
    return FormatText("%lld h %lld min", whole / kHour, whole % kHour / kMinute);
}

} // namespace

std::string ProgressText(std::size_t done, std::size_t total, double seconds) {
    std::string text = std::to_string(done) + " of " + std::to_string(total);
    // A rate of nothing says nothing.
    if (done == 0 || seconds <= 0)
        return text;
    constexpr double kFast = 10;
    const double rate = static_cast<double>(done) / seconds;
    return text + FormatText(", %.*f/s, ", rate < kFast ? 1 : 0, rate) +
           DurationText(static_cast<double>(total - done) / rate) + " left";
}

ProgressBar::ProgressBar(std::string title)
    : m_sTitle(std::move(title)), m_bIsTerminal(isatty(STDERR_FILENO) == 1), m_tShown(m_tStart) {}

ProgressBar::~ProgressBar() {
    if (m_bIsTerminal)
        fputs(kClearLine, stderr);
}

void ProgressBar::Show(std::size_t done, std::size_t total, const std::string &note) {
    const Clock::time_point now = Clock::now();
    const bool isLast = m_bIsTerminal && done == total;
    if (total == 0 || (now - m_tShown < (m_bIsTerminal ? kBetweenShows : kBetweenLines) && !isLast))
        return;
    m_tShown = now;
    const std::size_t full = kCells * done / total;
    const std::string bar = " [" + std::string(full, '#') + std::string(kCells - full, '.') + "] ";
    const std::chrono::duration<double> passed = now - m_tStart;
    fprintf(stderr, "%s%s%s%s%s%s%s", m_bIsTerminal ? kClearLine : "", m_sTitle.c_str(),
            m_bIsTerminal ? bar.c_str() : ": ", ProgressText(done, total, passed.count()).c_str(),
            note.empty() ? "" : ", ", note.c_str(), m_bIsTerminal ? "" : "\n");
    fflush(stderr);
}
