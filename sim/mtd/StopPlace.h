#pragma once

#include "mtd/Requests.h"

#include <atomic>
#include <cstdint>

/// Where the updater stops in a run, and what it is to do there. Tool and updater share the memory.
///
/// The updater waits before a request. At the tool's order a branch goes on from there: a copy of the process, for
/// which the request fails. The updater waits for the end of the branch, then for the next order.
class StopPlace {
public:
    enum class Phase : std::uint32_t { Running, Stopped, Branching, BranchEnded };

    /// Sets that a run stops nowhere.
    void Clear();

    /// Orders the updater, which stands at a stop or has not begun, to run up to a request.
    /// @param nth of its kind in the run, from 1
    void GoOnTo(RequestKind kind, std::uint64_t nth);
    /// Orders a branch.
    /// @param error errno value with which the request fails in the branch
    void Branch(int error);
    /// Waits until a phase has come.
    /// @return false when it has not come in time.
    bool Await(Phase phase, int milliseconds) const;
    /// @return the status with which the branch ended, as waitpid gives it.
    int BranchStatus() const { return static_cast<int>(m_status.load()); }

    /// @return whether the updater is to stop before a request.
    bool IsAt(RequestKind kind, std::uint64_t nth) const;
    /// Says that the updater has stopped.
    void Arrive() { Enter(Phase::Stopped); }
    /// Says how the branch has ended.
    void EndBranch(int status);
    /// Waits for an order.
    /// @return whether it is that of a branch.
    bool AwaitOrder() const;
    int Error() const { return static_cast<int>(m_error.load()); }

private:
    using Word = std::atomic<std::uint32_t>;
    static_assert(Word::is_always_lock_free, "processes share it");

    Phase Now() const { return static_cast<Phase>(m_phase.load()); }
    void Enter(Phase phase);
    void WaitWhile(Phase phase, int milliseconds) const;

    Word m_phase;
    Word m_kind;
    Word m_error;
    Word m_status;
    std::atomic<std::uint64_t> m_nth; ///< 0 for nowhere
};
