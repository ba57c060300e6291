#include "cli/ProgressBar.h"

#include <cstdio>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t kCells = 30;
constexpr std::chrono::milliseconds kBetween(100);
constexpr const char *kClearLine = "\r\033[K";

} // namespace

ProgressBar::ProgressBar(std::string title)
    : m_sTitle(std::move(title)), m_bIsTerminal(isatty(STDERR_FILENO) == 1), m_tShown(m_tStart) {}

ProgressBar::~ProgressBar() {
    if (m_bIsTerminal)
        fputs(kClearLine, stderr);
}

void ProgressBar::Show(std::size_t done, std::size_t total, const std::string &note) {
    const Clock::time_point now = Clock::now();
    if (!m_bIsTerminal || total == 0 || (now - m_tShown < kBetween && done < total))
        return;
    m_tShown = now;
    const std::size_t full = kCells * done / total;
    const std::chrono::duration<double> passed = now - m_tStart;
    const double left = passed.count() * static_cast<double>(total - done) / static_cast<double>(done + 1);
    fprintf(stderr, "%s%s [%s%s] %zu of %zu, %.0f s left%s%s", kClearLine, m_sTitle.c_str(),
            std::string(full, '#').c_str(), std::string(kCells - full, '.').c_str(), done, total, left,
            note.empty() ? "" : ", ", note.c_str());
    fflush(stderr);
}
