// Runs the updater on the board and records what the simulator's preload library records: the requests to MTD devices
// of the updater and of all programs that it starts, its shell commands, its own output and what it reads from flash.
// Works from outside, with ptrace, so the updater may be a static program.
//
// record FOLDER ROOT PAGESIZE SECONDS console|pipe PROGRAM [ARGUMENT...]
// ROOT becomes the root of PROGRAM. FOLDER gets:
//   out, err   standard output and standard error of all programs
//   trace      lines of a run's trace and, after a byte 1, lines of its record
//   changes    the lines of /proc/flashlog about changes
//   end        "status N", the status as waitpid gives it; "overdue" after SECONDS; "cut PLACE" where power was lost
#include "base/Text.h"
#include "mtd/Requests.h"
#include "mtd/Trace.h"
#include "mtd/UpdaterRecord.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <mtd/mtd-user.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned kMtdMajor = 90;
constexpr std::size_t kMostOutput = (std::size_t{16} << 20) + 1; ///< one more than the simulator keeps
constexpr std::size_t kMostText = 65536;
constexpr char kRecordMark = '\1';

// Places in the registers.
constexpr std::size_t kNumber = 7;
constexpr std::size_t kResult = 0;
constexpr std::size_t kFirst = 17; ///< the first argument, which the result replaces in register 0

/// The system calls that stop a traced process; all others go on at full speed.
constexpr unsigned kWatched[] = {SYS_execve,  SYS_open,    SYS_openat, SYS_close,     SYS_dup2,     SYS_dup3,
                                 SYS_read,    SYS_pread64, SYS_write,  SYS_writev,    SYS_pwrite64, SYS_lseek,
                                 SYS__llseek, SYS_ioctl,   SYS_fsync,  SYS_fdatasync, SYS_wait4};

[[noreturn]] void Fail(const std::string &what) {
    std::fprintf(stderr, "record: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(125);
}

volatile std::sig_atomic_t isOverdue = 0;

/// A traced process, or one of its threads.
struct Process {
    bool isProgram = false;     ///< it runs the program under test
    bool isInside = false;      ///< in a system call whose result is of interest
    std::map<int, int> devices; ///< MTD devices of descriptors, or -1 for other files, as far as known
    long number = -1;
    std::array<unsigned long, 6> arguments = {};
    std::string text; ///< the request's line so far
    RequestKind kind = RequestKind::Open;
    int device = -1;          ///< number of the MTD device of the call
    std::uint64_t place = 0;  ///< of a read, in the device
    std::string executed;     ///< name of the program that execve starts
    std::string shellCommand; ///< of a shell that the program runs with system()
};

class Recorder {
public:
    Recorder(std::string folder, std::string program, std::uint32_t pageSize)
        : m_folder(std::move(folder)), m_program(std::move(program)), m_pageSize(pageSize),
          m_trace(std::fopen((m_folder + "/trace").c_str(), "w")),
          m_changes(std::fopen((m_folder + "/changes").c_str(), "w")), m_log(open("/proc/flashlog", O_RDONLY)) {
        if (m_trace == nullptr || m_changes == nullptr || m_log < 0)
            Fail(m_folder);
    }

    /// Follows all processes until the first one has ended.
    /// @return its status
    int Follow(pid_t first) {
        m_first = first;
        int status = 0;
        waitpid(first, &status, 0);
        const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                             PTRACE_O_TRACEEXEC | PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
        ptrace(PTRACE_SETOPTIONS, first, nullptr, options);
        ptrace(PTRACE_CONT, first, nullptr, nullptr);
        while (true) {
            const pid_t pid = waitpid(-1, &status, __WALL);
            if (isOverdue != 0)
                kill(first, SIGKILL);
            if (pid < 0 && errno == EINTR)
                continue;
            if (pid < 0)
                Fail("wait");
            if (WIFSTOPPED(status)) {
                Stopped(pid, status);
                continue;
            }
            DrainLog(pid);
            m_processes.erase(pid);
            if (pid == first)
                break;
        }
        return status;
    }

    void Finish(int status) {
        DrainLog(m_first);
        std::fclose(m_trace);
        std::fclose(m_changes);
        std::ofstream end(m_folder + "/end");
        end << "status " << status << "\n";
        if (isOverdue != 0)
            end << "overdue\n";
        if (!m_cut.empty())
            end << "cut " << m_cut << "\n";
    }

private:
    void Trace(const std::string &line) { std::fprintf(m_trace, "%s\n", line.c_str()); }
    void Record(const std::string &line) { std::fprintf(m_trace, "%c%s\n", kRecordMark, line.c_str()); }

    void Stopped(pid_t pid, int status) {
        const int signal = WSTOPSIG(status);
        const int event = status >> 16;
        long deliver = 0;
        if (event == PTRACE_EVENT_SECCOMP) {
            Process &process = m_processes[pid];
            process.isInside = Enter(pid, process);
        } else if (signal == (SIGTRAP | 0x80)) {
            Process &process = m_processes[pid];
            process.isInside = false;
            Leave(pid, process);
        } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
            unsigned long child = 0;
            ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child);
            m_processes[static_cast<pid_t>(child)].isProgram = m_processes[pid].isProgram;
            m_parents[static_cast<pid_t>(child)] = pid;
        } else if (event == PTRACE_EVENT_EXEC) {
            m_processes[pid].isProgram = m_processes[pid].executed == m_program;
            m_processes[pid].devices.clear();
        } else if (event == 0 && !(signal == SIGSTOP && m_started.insert({pid, true}).second && pid != m_first)) {
            deliver = signal;
        }
        ptrace(m_processes[pid].isInside ? PTRACE_SYSCALL : PTRACE_CONT, pid, nullptr, deliver);
    }

    /// @return whether the result of the system call is of interest.
    bool Enter(pid_t pid, Process &process) {
        user_regs registers = {};
        ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
        process.number = static_cast<long>(registers.uregs[kNumber]);
        process.arguments[0] = registers.uregs[kFirst];
        for (std::size_t i = 1; i < process.arguments.size(); ++i)
            process.arguments[i] = registers.uregs[i];
        process.text.clear();
        process.device = -1;
        const auto &a = process.arguments;
        const int fd = static_cast<int>(a[0]);
        switch (process.number) {
        case SYS_execve:
            Execute(pid, process);
            return false;
        case SYS_open:
        case SYS_openat:
        case SYS_wait4:
            return true;
        case SYS_dup2:
        case SYS_dup3:
            process.devices.erase(static_cast<int>(a[1]));
            return false;
        case SYS_writev:
            return process.isProgram && IsOutput(fd);
        case SYS_read:
        case SYS_pread64:
        case SYS_write:
        case SYS_pwrite64:
        case SYS_lseek:
        case SYS__llseek:
        case SYS_ioctl:
        case SYS_close:
        case SYS_fsync:
        case SYS_fdatasync:
            process.device = DeviceOf(pid, process, fd);
            if (process.number == SYS_close)
                process.devices.erase(fd);
            break;
        default:
            return false;
        }
        if (process.device < 0)
            return process.number == SYS_write && process.isProgram && IsOutput(fd);
        Describe(pid, process);
        return true;
    }

    static bool IsOutput(int fd) { return fd == STDOUT_FILENO || fd == STDERR_FILENO; }

    /// @return the number of the MTD device that a descriptor belongs to, or -1.
    static int DeviceOf(pid_t pid, Process &process, int fd) {
        const auto known = process.devices.find(fd);
        if (known != process.devices.end())
            return known->second;
        int number = -1;
        FindDevice("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd), number);
        return process.devices[fd] = number;
    }

    /// Writes the line of a request to an MTD device.
    void Describe(pid_t pid, Process &process) {
        const auto &a = process.arguments;
        const auto set = [&](RequestKind kind, const std::string &text) {
            process.kind = kind;
            process.text = text;
        };
        const std::string device = "mtd" + std::to_string(process.device);
        std::uint64_t place = 0;
        if (process.number == SYS_pread64 || process.number == SYS_pwrite64)
            place = a[4] | std::uint64_t{a[5]} << 32;
        else if (process.number == SYS_read)
            place = Position(pid, static_cast<int>(a[0]));
        process.place = place;
        const auto transfer = [&](RequestKind kind, const char *name, bool hasPlace) {
            set(kind, name + (" " + device) + (hasPlace ? FormatText(" offset=0x%" PRIx64, place) : "") +
                          " length=" + std::to_string(a[2]));
        };
        switch (process.number) {
        case SYS_read:
            transfer(RequestKind::Read, "read", false);
            break;
        case SYS_pread64:
            transfer(RequestKind::Read, "pread", true);
            break;
        case SYS_write:
            transfer(RequestKind::Write, "write", false);
            break;
        case SYS_pwrite64:
            transfer(RequestKind::Write, "pwrite", true);
            break;
        case SYS_lseek:
            Seek(process, static_cast<long>(a[1]), static_cast<int>(a[2]));
            break;
        case SYS__llseek:
            Seek(process, static_cast<std::int64_t>(std::uint64_t{a[1]} << 32 | a[2]), static_cast<int>(a[4]));
            break;
        case SYS_close:
            set(RequestKind::Close, "close " + device);
            break;
        case SYS_fsync:
        case SYS_fdatasync:
            set(RequestKind::Fsync, "fsync " + device);
            break;
        case SYS_ioctl: {
            std::array<char, 256> argument = {};
            RequestKind kind;
            if (!FindRequest(a[1], kind)) {
                process.device = -1;
                break;
            }
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the number of a mode, or null
            const void *shown = reinterpret_cast<const void *>(a[2]);
            if (a[2] != 0 && kind != RequestKind::FileMode) {
                Peek(pid, a[2], argument.data(), std::min<std::size_t>(_IOC_SIZE(a[1]), argument.size()));
                shown = argument.data();
            }
            set(kind, RequestText(kind, process.device, shown));
            break;
        }
        default:
            break;
        }
        if (process.device >= 0)
            m_current[pid] = RequestName(process.kind);
    }

    static void Seek(Process &process, std::int64_t offset, int whence) {
        process.kind = RequestKind::Lseek;
        const char *from = whence == SEEK_CUR ? " whence=SEEK_CUR" : whence == SEEK_END ? " whence=SEEK_END" : "";
        const std::uint64_t distance =
            offset < 0 ? 0 - static_cast<std::uint64_t>(offset) : static_cast<std::uint64_t>(offset);
        process.text =
            FormatText("lseek mtd%d offset=%s0x%" PRIx64 "%s", process.device, offset < 0 ? "-" : "", distance, from);
    }

    void Leave(pid_t pid, Process &process) {
        user_regs registers = {};
        ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
        const auto result = static_cast<std::int32_t>(registers.uregs[kResult]);
        const auto &a = process.arguments;
        if (process.device >= 0) {
            if (process.kind != RequestKind::Lseek && process.kind != RequestKind::GetBadBlock)
                DrainLog(pid);
            std::int64_t shown = result;
            if (process.number == SYS__llseek && result == 0)
                Peek(pid, a[3], &shown, sizeof shown);
            Trace(process.text + ResultText(shown, process.kind == RequestKind::Lseek ? Base::Hex : Base::Decimal));
            if (process.kind == RequestKind::Read && process.isProgram && result > 0)
                Record(RecordLine(RecordKind::Read, Bytes(pid, a[1], static_cast<std::size_t>(result)).data(),
                                  static_cast<std::size_t>(result), OffsetOf(process.device) + process.place));
            return;
        }
        switch (process.number) {
        case SYS_open:
            Opened(pid, a[0], static_cast<int>(a[1]), result);
            break;
        case SYS_openat:
            Opened(pid, a[1], static_cast<int>(a[2]), result);
            break;
        case SYS_write:
            if (process.isProgram)
                Printed(static_cast<int>(a[0]), Bytes(pid, a[1], static_cast<std::size_t>(std::max(result, 0))));
            break;
        case SYS_writev:
            if (process.isProgram && result > 0)
                PrintedParts(pid, a[0], a[1], a[2], static_cast<std::size_t>(result));
            break;
        case SYS_wait4: {
            const auto shell = m_shells.find(result);
            if (result <= 0 || shell == m_shells.end() || a[1] == 0)
                break;
            int status = 0;
            Peek(pid, a[1], &status, sizeof status);
            m_shells.erase(shell);
            Trace(ShellReturnText(status));
            break;
        }
        default:
            break;
        }
    }

    void Opened(pid_t pid, unsigned long address, int flags, std::int32_t result) {
        if (result < 0 && -result == EINTR)
            return;
        const std::string process = "/proc/" + std::to_string(pid);
        int device = -1;
        const std::string path = Text(pid, address);
        if (result >= 0)
            m_processes[pid].devices.erase(result);
        const bool isDevice = result >= 0 ? FindDevice(process + "/fd/" + std::to_string(result), device)
                                          : path.rfind("/dev/", 0) == 0 && FindDevice(process + "/root" + path, device);
        if (isDevice)
            Trace(FormatText("open mtd%d flags=%s", device, OpenFlagsText(LibcFlags(flags)).c_str()) +
                  ResultText(result));
    }

    /// The C library of 32 bits adds this flag to those of the program.
    static int LibcFlags(int flags) { return flags & ~0400000; }

    void Printed(int fd, const std::string &text) {
        if (text.empty() || !IsOutput(fd))
            return;
        Record(RecordLine(fd == STDOUT_FILENO ? RecordKind::Out : RecordKind::Err, text.data(), text.size()));
    }

    void PrintedParts(pid_t pid, unsigned long fd, unsigned long address, unsigned long count, std::size_t left) {
        for (unsigned long i = 0; i < count && left > 0; ++i) {
            unsigned long part[2] = {};
            Peek(pid, address + i * sizeof part, part, sizeof part);
            const std::size_t length = std::min<std::size_t>(part[1], left);
            Printed(static_cast<int>(fd), Bytes(pid, part[0], length));
            left -= length;
        }
    }

    /// Notes which program is about to start, and a shell command as the program's own.
    void Execute(pid_t pid, Process &process) {
        const std::vector<std::string> words = Words(pid, process.arguments[1]);
        const std::string path = Text(pid, process.arguments[0]);
        if (access(("/proc/" + std::to_string(pid) + "/root" + path).c_str(), X_OK) != 0)
            return;
        const std::string name = words.empty() ? path : words[0];
        process.executed = name.substr(name.rfind('/') + 1);
        if (!process.isProgram)
            return;
        if (path != "/bin/sh" || words.size() < 3 || words[1] != "-c") {
            Trace("execv " + QuotedText(path.c_str()));
            return;
        }
        const pid_t parent = m_parents[pid];
        const auto output = [](pid_t it) { return Link("/proc/" + std::to_string(it) + "/fd/1"); };
        const bool isRead = output(pid) != output(parent);
        Trace(isRead ? "popen " + QuotedText(words.back().c_str()) : ShellCallText(words.back().c_str()));
        if (!isRead)
            m_shells[pid] = true;
    }

    /// Takes the chip's log: notes go to the trace, changes to a file of their own.
    void DrainLog(pid_t pid) {
        char buffer[4096];
        for (ssize_t count = 0; (count = read(m_log, buffer, sizeof buffer - 1)) > 0;) {
            buffer[count] = '\0';
            for (char *line = strtok(buffer, "\n"); line != nullptr; line = strtok(nullptr, "\n")) {
                const std::uint64_t offset = std::strtoull(line + 2, nullptr, 10) * m_pageSize;
                if (line[0] == 'U' || line[0] == 'R')
                    Trace(PageNoteText(offset,
                                       line[0] == 'U' ? "programmed over unerased bits" : "read without valid ECC"));
                if (line[0] == 'C') {
                    m_cut = (m_current.count(pid) != 0 ? m_current[pid] : "?") + FormatText(" at 0x%" PRIx64, offset);
                    Trace("power cut during " + m_cut);
                    kill(m_first, SIGKILL);
                }
                std::fprintf(m_changes, "%s\n", line);
            }
        }
    }

    static std::string Link(const std::string &path) {
        char target[4096];
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        return {target, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

    /// @return whether a path leads to an MTD device.
    static bool FindDevice(const std::string &path, int &number) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode) || major(status.st_rdev) != kMtdMajor)
            return false;
        number = static_cast<int>(minor(status.st_rdev) / 2);
        return true;
    }

    /// @return where a device begins on the chip.
    std::uint64_t OffsetOf(int device) {
        const auto known = m_offsets.find(device);
        if (known != m_offsets.end())
            return known->second;
        std::uint64_t offset = 0;
        std::ifstream("/sys/class/mtd/mtd" + std::to_string(device) + "/offset") >> offset;
        return m_offsets[device] = offset;
    }

    static std::uint64_t Position(pid_t pid, int fd) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd));
        std::string word;
        std::uint64_t position = 0;
        file >> word >> position;
        return position;
    }

    /// Reads memory of a process; what can't be read stays as it is.
    static std::size_t Peek(pid_t pid, unsigned long address, void *to, std::size_t length) {
        const iovec local = {to, length};
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
        const iovec remote = {reinterpret_cast<void *>(address), length};
        return static_cast<std::size_t>(std::max<ssize_t>(process_vm_readv(pid, &local, 1, &remote, 1, 0), 0));
    }

    static std::string Bytes(pid_t pid, unsigned long address, std::size_t length) {
        std::string bytes(length, '\0');
        bytes.resize(Peek(pid, address, bytes.data(), length));
        return bytes;
    }

    static std::string Text(pid_t pid, unsigned long address) {
        constexpr unsigned long kPage = 4096;
        std::string text;
        while (address != 0 && text.size() < kMostText) {
            const std::string part = Bytes(pid, address, kPage - address % kPage);
            text += part.substr(0, part.find('\0'));
            if (part.empty() || part.find('\0') != std::string::npos)
                break;
            address += part.size();
        }
        return text;
    }

    static std::vector<std::string> Words(pid_t pid, unsigned long address) {
        std::vector<std::string> words;
        for (unsigned long word = 0; address != 0 && words.size() < 1000; address += sizeof word) {
            if (Peek(pid, address, &word, sizeof word) != sizeof word || word == 0)
                break;
            words.push_back(Text(pid, word));
        }
        return words;
    }

    const std::string m_folder;
    const std::string m_program;
    const std::uint32_t m_pageSize;
    std::FILE *m_trace;
    std::FILE *m_changes;
    int m_log;
    pid_t m_first = -1;
    std::map<pid_t, Process> m_processes;
    std::map<pid_t, pid_t> m_parents;
    std::map<pid_t, bool> m_started; ///< those whose first stop has come
    std::map<pid_t, bool> m_shells;  ///< shells of system() that run
    std::map<pid_t, std::string> m_current;
    std::map<int, std::uint64_t> m_offsets;
    std::string m_cut;
};

/// Copies both streams into files until a signal says that the run has ended, and then what is still there.
[[noreturn]] void Pump(const std::string &folder, int out, int err) {
    static volatile std::sig_atomic_t isEnding = 0;
    signal(SIGTERM, [](int) { isEnding = 1; });
    struct {
        int source;
        int file;
        std::size_t kept;
    } streams[] = {{out, open((folder + "/out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644), 0},
                   {err, open((folder + "/err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644), 0}};
    while (true) {
        pollfd waits[] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
        const bool isLast = isEnding != 0;
        poll(waits, 2, isLast ? 0 : 100);
        bool isIdle = true;
        for (std::size_t i = 0; i < 2; ++i) {
            if ((waits[i].revents & POLLIN) == 0)
                continue;
            char buffer[65536];
            const ssize_t count = read(streams[i].source, buffer, sizeof buffer);
            if (count <= 0)
                continue;
            isIdle = false;
            const std::size_t room = std::min(static_cast<std::size_t>(count), kMostOutput - streams[i].kept);
            if (write(streams[i].file, buffer, room) < 0)
                _exit(1);
            streams[i].kept += room;
        }
        if (isLast && isIdle)
            _exit(0);
        if (isIdle && ((waits[0].revents | waits[1].revents) & (POLLHUP | POLLERR)) != 0)
            usleep(10000);
    }
}

/// Opens a stream of the run.
/// @param ends reader and writer
void OpenStream(bool isConsole, int (&ends)[2]) {
    if (!isConsole) {
        if (pipe2(ends, O_CLOEXEC) != 0)
            Fail("pipe");
        return;
    }
    ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (ends[0] < 0 || unlockpt(ends[0]) != 0)
        Fail("console");
    ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios mode = {};
    if (ends[1] < 0 || tcgetattr(ends[1], &mode) != 0)
        Fail("console");
    cfmakeraw(&mode);
    tcsetattr(ends[1], TCSANOW, &mode);
}

/// Makes the watched system calls of this process and of its children stop for the tracer.
bool WatchCalls() {
    constexpr std::size_t kCount = std::size(kWatched);
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (std::size_t i = 0; i < kCount; ++i)
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kWatched[i], static_cast<__u8>(kCount - i), 0));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc < 7) {
        std::fputs("usage: record FOLDER ROOT PAGESIZE SECONDS console|pipe PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    const std::string folder = argv[1];
    int out[2], err[2];
    OpenStream(std::strcmp(argv[5], "console") == 0, out);
    OpenStream(false, err);
    const pid_t pump = fork();
    if (pump == 0)
        Pump(folder, out[0], err[0]);
    const std::string program = argv[6];
    Recorder recorder(folder, program.substr(program.rfind('/') + 1),
                      static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10)));
    const pid_t first = fork();
    if (first == 0) {
        const int none = open("/dev/null", O_RDONLY);
        setsid();
        if (dup2(none, STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 || dup2(err[1], STDERR_FILENO) < 0 ||
            chroot(argv[2]) != 0 || chdir("/") != 0)
            _exit(126);
        close(none);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        if (!WatchCalls())
            _exit(126);
        execv(argv[6], argv + 6);
        std::fprintf(stderr, "record: can't run %s: %s\n", argv[6], std::strerror(errno));
        _exit(127);
    }
    struct sigaction alarmed = {};
    alarmed.sa_handler = [](int) { isOverdue = 1; };
    sigaction(SIGALRM, &alarmed, nullptr);
    alarm(static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)));
    const int status = recorder.Follow(first);
    close(out[1]);
    close(err[1]);
    kill(pump, SIGTERM);
    waitpid(pump, nullptr, __WALL);
    recorder.Finish(status);
    return 0;
}
