#pragma once

#include "base/ScopedFd.h"

#include <csignal>

/// Holds back the signals that ask a program to end (SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM) for its own length
/// of time, so that nothing is left half done or lying about. What has come by its end does then what it always does.
class HeldSignals {
public:
    /// @throws std::runtime_error with one line.
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    /// A descriptor that polls as readable once one has come. Reading from it would take the signal away.
    int Descriptor() const { return m_fd.Get(); }

    /// @return whether one has come.
    bool HasCome() const;

private:
    sigset_t m_before;
    ScopedFd m_fd;
};
