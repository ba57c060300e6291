#include "mtd/StopPlace.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kNoLimit = -1;

} // namespace

void StopPlace::Clear() {
    m_nth = 0;
    m_phase = static_cast<std::uint32_t>(Phase::Running);
}

void StopPlace::GoOnTo(RequestKind kind, std::uint64_t nth) {
    m_kind = static_cast<std::uint32_t>(kind);
    m_nth = nth;
    Enter(Phase::Running);
}

void StopPlace::Branch(int error) {
    m_error = static_cast<std::uint32_t>(error);
    Enter(Phase::Branching);
}

bool StopPlace::Await(Phase phase, int milliseconds) const {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (Phase now = Now(); now != phase; now = Now()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
            return false;
        WaitWhile(now, static_cast<int>(left));
    }
    return true;
}

bool StopPlace::IsAt(RequestKind kind, std::uint64_t nth) const {
    return m_nth == nth && m_kind == static_cast<std::uint32_t>(kind);
}

void StopPlace::EndBranch(int status) {
    m_status = static_cast<std::uint32_t>(status);
    Enter(Phase::BranchEnded);
}

bool StopPlace::AwaitOrder() const {
    Phase now = Now();
    for (; now == Phase::Stopped || now == Phase::BranchEnded; now = Now())
        WaitWhile(now, kNoLimit);
    return now == Phase::Branching;
}

void StopPlace::Enter(Phase phase) {
    m_phase = static_cast<std::uint32_t>(phase);
    syscall(SYS_futex, &m_phase, FUTEX_WAKE, std::numeric_limits<int>::max(), nullptr, nullptr, 0);
}

/// Waits until the phase changes, or a little less.
void StopPlace::WaitWhile(Phase phase, int milliseconds) const {
    constexpr long kSecond = 1000;
    constexpr long kNanoseconds = 1'000'000;
    const timespec limit = {milliseconds / kSecond, milliseconds % kSecond * kNanoseconds};
    syscall(SYS_futex, &m_phase, FUTEX_WAIT, static_cast<std::uint32_t>(phase),
            milliseconds == kNoLimit ? nullptr : &limit, nullptr, 0);
}
