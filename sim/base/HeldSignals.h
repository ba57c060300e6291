#pragma once

#include "base/ScopedFd.h"

#include <csignal>

/// Holds back the signals that ask a program to end (SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM) while it exists, so
/// that nothing is left half done. A signal that arrived meanwhile takes effect afterwards. Ignored signals (nohup)
/// stay ignored.
class HeldSignals {
public:
    /// @throws SystemError
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    /// A descriptor that polls as readable once a signal has arrived. Reading from it would take the signal away.
    int Descriptor() const { return m_fd.Get(); }

    /// @return whether a signal has arrived.
    bool HasCome() const;

    /// The same for code that is handed no HeldSignals: whether this process holds back a signal that has arrived.
    static bool IsAnyPending();

private:
    sigset_t m_before;
    ScopedFd m_fd;
};
