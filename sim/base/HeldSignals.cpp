#include "base/HeldSignals.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>

HeldSignals::HeldSignals() : m_before() {
    sigset_t held;
    sigemptyset(&held);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) {
        // Held back, an ignored one (nohup) would come all the same.
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN)
            sigaddset(&held, signal);
    }
    sigprocmask(SIG_BLOCK, &held, &m_before);
    m_fd = ScopedFd(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (m_fd.Get() < 0) {
        sigprocmask(SIG_SETMASK, &m_before, nullptr);
        throw std::runtime_error(std::string("can't hold back signals: ") + strerror(errno));
    }
}

HeldSignals::~HeldSignals() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }

bool HeldSignals::HasCome() const {
    pollfd wait = {m_fd.Get(), POLLIN, 0};
    return poll(&wait, 1, 0) > 0;
}
