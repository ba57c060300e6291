#include "ProcessUtil.h"

#include "UFile.h"
#include "UTextUtil.h"
#include "UTypeUtil.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Supervises the other applications and would restart them, so it is stopped first.
constexpr const char *kSupervisor = "HeartGuard";

constexpr const char *kStopList[] = {
    "linkpilot", "flow_core", "FlowRunner", "toolkitd", "SignalHub", "remote_rx", "port_mux", "Panel-Face", "webnest",
};

/// Inner mounts first: an outer file system is busy while an inner one is mounted.
constexpr const char *kMountList[] = {
    "/opt/user", "/usr/local/lib", "/lib/modules", "/opt/suite", "/opt",
};

constexpr const char *kStopSteward = "killall lens_steward";
constexpr const char *kListMounts = "grep /opt /proc/mounts";
constexpr const char *kListHolders = "fuser -m /opt";
constexpr const char *kKillHolders = "fuser -k -m /opt";
constexpr const char *kRemoveUbiBlock = "ubiblock -r /dev/ubi0_0";
constexpr const char *kDetachUbi = "ubidetach -p /dev/mtd9";

constexpr std::size_t kPipeChunk = 128;
constexpr std::size_t kPidLine = 32;

struct ClosePipe {
    void operator()(FILE *pipe) const { pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, ClosePipe>;

Pipe OpenPipe(const std::string &command) { return Pipe(popen(command.c_str(), "r")); }

void StopByName(const std::string &name) { KillProcess(GetProcessIdByName(name), nullptr); }

bool IsMounted() {
    if (!ShellCmd(kListMounts).empty())
        return true;
    PrintLine("target in no mount");
    return false;
}

/// @return false for a field that is not a number or out of range. Runs of blanks between ids give empty fields.
bool ReadProcessId(const std::string &field, int &id) {
    try {
        id = std::stoi(field);
        return true;
    } catch (const std::logic_error &) {
        return false;
    }
}

/// @return the parent's id, or 0 when there is none.
int ParentOf(int id) {
    // "<id> (<name>) <state> <parent> ...": the name may hold anything, parentheses too.
    const std::string status = UFile::ReadFile(("/proc/" + std::to_string(id) + "/stat").c_str());
    const std::size_t nameEnd = status.rfind(')');
    if (nameEnd == std::string::npos)
        return 0;
    std::vector<std::string> fields;
    UTextUtil::Split(status.c_str() + nameEnd + 1, " ", fields);
    return fields.size() < 2 ? 0 : UTextUtil::ToInt(fields[1].c_str(), 10);
}

/// False for process groups (negative ids), init, this process and its ancestors.
bool MayBeStopped(int id) {
    if (id < 0 || id == 1)
        return false;
    for (int own = getpid(); own > 0; own = ParentOf(own)) {
        if (id == own)
            return false;
    }
    return true;
}

} // namespace

bool CommandFits(const std::string &command) {
    if (command.size() <= kCommandLimit)
        return true;
    fprintf(stderr, "error : command too long: %s\n", command.c_str());
    return false;
}

bool RunCommand(const std::string &command) {
    if (!CommandFits(command))
        return false;
    [[maybe_unused]] const int status = system(command.c_str());
    return true;
}

void PrintLine(const char *text) {
    puts(text);
    fflush(stdout);
}

std::string ShellCmd(const char *command) {
    const Pipe pipe = OpenPipe(command);
    if (pipe == nullptr)
        throw std::runtime_error("popen() failed!");
    std::string output;
    char chunk[kPipeChunk];
    while (fgets(chunk, sizeof chunk, pipe.get()) != nullptr)
        output += chunk;
    return output;
}

int GetProcessIdByName(const std::string &name) {
    char line[kPidLine] = {};
    const Pipe pipe = OpenPipe("pidof " + name);
    if (pipe == nullptr || fgets(line, sizeof line, pipe.get()) == nullptr)
        return 0;
    trim(line);
    printf("[%s]\n", line);
    const unsigned long id = std::strtoul(line, nullptr, 10);
    // A number out of range must not wrap into a process id: -1 would be every process.
    return id > INT_MAX ? 0 : static_cast<int>(id);
}

int KillProcess(int id, int *status) {
    // kill with id 0 would signal our own process group.
    if (id == 0)
        return 0;
    if (kill(id, SIGTERM) == -1)
        return 0;
    int waited = 0;
    if (waitpid(id, &waited, 0) != id)
        return 0;
    if (status != nullptr)
        *status = WEXITSTATUS(waited);
    return 1;
}

int ExecuteCommand(char *const *arguments, bool wait) {
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        _exit(execv(arguments[0], arguments + 1));
    }
    if (wait) {
        int status = -1;
        if (child > 0)
            waitpid(child, &status, 0);
        printf("execute %s status %d\n", arguments[0], status);
    }
    return 1;
}

int PrepareUBI() {
    PrepareProcess2();
    PrepareProcess();
    return PrepareMtd();
}

int PrepareProcess2() {
    StopByName(kSupervisor);
    ShellCmd(kStopSteward);
    for (const char *name : kStopList)
        StopByName(name);
    return 1;
}

int PrepareProcess() {
    if (!IsMounted())
        return 0;
    StopByName(kSupervisor);
    std::string holders = ShellCmd(kListHolders);
    if (holders.empty()) {
        PrintLine("no process exist");
        return 0;
    }
    holders = StdStringTrim(holders);
    std::vector<std::string> fields;
    StdStringSplit(holders, " ", &fields);
    for (const std::string &field : fields) {
        printf("####%s###\n", field.c_str());
        int id = 0;
        if (ReadProcessId(field, id) && MayBeStopped(id))
            KillProcess(id, nullptr);
    }
    holders = ShellCmd(kListHolders);
    if (!holders.empty()) {
        // Twice: a process killed in the first pass may have started another.
        for (int pass = 0; pass < 2; ++pass) {
            ShellCmd(kKillHolders);
            sync();
        }
    }
    return 1;
}

int PrepareMtd() {
    if (!IsMounted())
        return -1;
    for (const char *point : kMountList) {
        umount(point);
        sync();
    }
    sync();
    for (const char *command : {kRemoveUbiBlock, kDetachUbi}) {
        ShellCmd(command);
        sync();
    }
    return 0;
}

void StdStringSplit(std::string &text, const std::string &delimiters, std::vector<std::string> *fields) {
    std::size_t start = 0;
    for (std::size_t end = text.find_first_of(delimiters); end != std::string::npos;
         end = text.find_first_of(delimiters, start)) {
        fields->push_back(text.substr(start, end - start));
        start = end + 1;
    }
    fields->push_back(text.substr(start));
}

int TextSplit(const char *text, const char *delimiters, std::vector<std::string> *tokens) {
    return tokens == nullptr ? -1 : UTextUtil::Split(text, delimiters, *tokens);
}
