#include "base/Workers.h"

#include "base/ScopedFd.h"
#include "base/SystemError.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <new>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// A message begins with the job's number, or with this one when its text is a complaint.
constexpr std::uint64_t kComplaint = UINT64_MAX;
constexpr std::size_t kMessageLimit = 65536 + sizeof kComplaint;

/// The number of the next job, in memory that all workers share.
class JobCounter {
public:
    JobCounter() : m_memory(mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED)
            throw SystemError("can't share memory");
        m_counter = new (m_memory) Counter(0);
    }
    ~JobCounter() { munmap(m_memory, sizeof(Counter)); }
    JobCounter(const JobCounter &) = delete;
    JobCounter &operator=(const JobCounter &) = delete;

    std::uint64_t Take() { return (*m_counter)++; }

private:
    using Counter = std::atomic<std::uint64_t>;
    static_assert(Counter::is_always_lock_free, "processes share it");
    void *m_memory;
    Counter *m_counter;
};

void Send(int channel, std::uint64_t number, const std::string &text) {
    std::string message(reinterpret_cast<const char *>(&number), sizeof number);
    message.append(text, 0, kMessageLimit - sizeof number);
    if (send(channel, message.data(), message.size(), MSG_NOSIGNAL) < 0)
        _exit(1);
}

/// A worker's whole life.
[[noreturn]] void Work(int channel, std::size_t count, JobCounter &jobs, const std::function<WorkerJob()> &setUp) {
    try {
        const WorkerJob job = setUp();
        for (std::uint64_t number = jobs.Take(); number < count; number = jobs.Take())
            Send(channel, number, job(number));
    } catch (const std::exception &failure) {
        Send(channel, kComplaint, failure.what());
    }
    // What its parent owns is not a worker's to give back.
    _exit(0);
}

/// A worker process, seen from the caller.
class Worker {
public:
    Worker(std::size_t count, JobCounter &jobs, const std::function<WorkerJob()> &setUp) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
            throw SystemError("can't make a channel");
        m_channel = ScopedFd(ends[0]);
        const ScopedFd own(ends[1]);
        const pid_t parent = getpid();
        m_nPid = fork();
        if (m_nPid < 0)
            throw SystemError("can't start a worker");
        if (m_nPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(1);
            Work(own.Get(), count, jobs, setUp);
        }
    }
    Worker(Worker &&other) noexcept : m_channel(std::move(other.m_channel)), m_nPid(std::exchange(other.m_nPid, -1)) {}
    Worker &operator=(Worker &&) = delete;
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    ~Worker() {
        if (m_nPid <= 0)
            return;
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }

    int Channel() const { return m_channel.Get(); }

    /// Takes a message that has come; closes the channel after the last one.
    /// @return whether there was one.
    bool Receive(std::uint64_t &number, std::string &text) {
        char message[kMessageLimit];
        const ssize_t length = recv(m_channel.Get(), message, sizeof message, 0);
        if (length < static_cast<ssize_t>(sizeof number)) {
            m_channel.Close();
            return false;
        }
        std::memcpy(&number, message, sizeof number);
        text.assign(message + sizeof number, static_cast<std::size_t>(length) - sizeof number);
        return true;
    }

private:
    ScopedFd m_channel;
    pid_t m_nPid = -1;
};

} // namespace

unsigned CoreCount() {
    cpu_set_t cores;
    return sched_getaffinity(0, sizeof cores, &cores) == 0 ? static_cast<unsigned>(CPU_COUNT(&cores)) : 1;
}

bool DoInWorkers(std::size_t count, unsigned workers, const HeldSignals &signals,
                 const std::function<WorkerJob(unsigned worker)> &setUp,
                 const std::function<void(std::size_t number, const std::string &result)> &take) {
    JobCounter jobs;
    std::vector<Worker> crew;
    for (unsigned i = 0; i < std::min<std::size_t>(workers, count); ++i)
        crew.emplace_back(count, jobs, [&] { return setUp(i); });
    for (std::size_t done = 0; done < count;) {
        std::vector<pollfd> waits = {{signals.Descriptor(), POLLIN, 0}};
        for (const Worker &worker : crew)
            waits.push_back({worker.Channel(), POLLIN, 0});
        if (poll(waits.data(), waits.size(), -1) < 0)
            throw SystemError("can't follow the workers");
        if (waits[0].revents != 0)
            return false;
        bool isAnyLeft = false;
        for (std::size_t i = 0; i < crew.size(); ++i) {
            std::uint64_t number = 0;
            std::string text;
            if (waits[i + 1].revents != 0 && crew[i].Receive(number, text)) {
                // A signal to the terminal's processes reaches workers too.
                if (number == kComplaint && signals.HasCome())
                    return false;
                if (number == kComplaint)
                    throw std::runtime_error(text);
                take(static_cast<std::size_t>(number), text);
                ++done;
            }
            isAnyLeft = isAnyLeft || crew[i].Channel() >= 0;
        }
        if (!isAnyLeft && done < count)
            throw std::runtime_error("a worker process ended without a word");
    }
    return true;
}
