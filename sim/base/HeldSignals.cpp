#include "base/HeldSignals.h"

#include "base/SystemError.h"

#include <algorithm>
#include <iterator>
#include <poll.h>
#include <sys/signalfd.h>

namespace {

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM};

} // namespace

HeldSignals::HeldSignals() : m_before() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : kSignals) {
        // Held back, an ignored signal (nohup) would arrive all the same.
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN)
            sigaddset(&held, signal);
    }
    sigprocmask(SIG_BLOCK, &held, &m_before);
    m_fd = ScopedFd(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (m_fd.Get() < 0) {
        const SystemError failure("can't hold back signals");
        sigprocmask(SIG_SETMASK, &m_before, nullptr);
        throw failure;
    }
}

HeldSignals::~HeldSignals() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }

bool HeldSignals::HasCome() const {
    pollfd wait = {m_fd.Get(), POLLIN, 0};
    return poll(&wait, 1, 0) > 0;
}

bool HeldSignals::IsAnyPending() {
    sigset_t pending;
    sigpending(&pending);
    return std::any_of(std::begin(kSignals), std::end(kSignals),
                       [&pending](int signal) { return sigismember(&pending, signal) == 1; });
}
