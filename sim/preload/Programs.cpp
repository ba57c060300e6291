#include "preload/Programs.h"

#include "preload/Interface.h"
#include "preload/Next.h"
#include "preload/Simulation.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <iterator>
#include <link.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

Next<int(const char *, char *const *, char *const *)> nextExecve("execve");
Next<int(int, char *const *, char *const *)> nextFexecve("fexecve");
Next<int(pid_t *, const char *, const posix_spawn_file_actions_t *, const posix_spawnattr_t *, char *const *,
         char *const *)>
    nextPosixSpawn("posix_spawn");
Next<int(const char *, int, ...)> nextOpen("open");
Next<int(int)> nextClose("close");
Next<ssize_t(int, void *, size_t, off64_t)> nextPread64("pread64");

#if defined __x86_64__
constexpr Elf64_Half kOwnMachines[] = {EM_X86_64, EM_386};
#elif defined __aarch64__
constexpr Elf64_Half kOwnMachines[] = {EM_AARCH64, EM_ARM};
#elif defined __arm__
constexpr Elf64_Half kOwnMachines[] = {EM_ARM};
#else
#error "which machine's programs run here?"
#endif

enum class ProgramKind {
    Usual,   ///< finds the preload library, or is none: a script, or missing
    Static,  ///< runs, but without the library
    Foreign, ///< for another processor
};

/// What a program's file tells about it; both classes of ELF have the machine at the same place.
ProgramKind KindOf(int fd) {
    ElfW(Ehdr) header = {};
    if (nextPread64(fd, &header, sizeof header, off64_t{0}) < static_cast<ssize_t>(sizeof(Elf32_Ehdr)) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return ProgramKind::Usual;
    bool isOwn = false;
    for (const Elf64_Half machine : kOwnMachines)
        isOwn = isOwn || header.e_machine == machine;
    if (!isOwn)
        return ProgramKind::Foreign;
    // The library is there in one class alone.
    constexpr unsigned char kClass = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    if (header.e_ident[EI_CLASS] != kClass)
        return ProgramKind::Static;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) part = {};
        const auto place = static_cast<off64_t>(header.e_phoff + std::uint64_t{i} * header.e_phentsize);
        if (nextPread64(fd, &part, sizeof part, place) < static_cast<ssize_t>(sizeof part) || part.p_type == PT_INTERP)
            return ProgramKind::Usual;
    }
    return ProgramKind::Static;
}

ProgramKind KindOf(const char *path) {
    const int fd = nextOpen(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return ProgramKind::Usual;
    const ProgramKind kind = KindOf(fd);
    nextClose(fd);
    return kind;
}

const char *BaseName(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/// The loader is a static program as well, and loads the library into the one that it runs.
bool IsLoader(const char *path) { return std::strncmp(BaseName(path), "ld", 2) == 0; }

/// Decides what runs in place of a program.
/// @param substitute gets the path of what runs
/// @return 0, or the errno value with which it can't be run
int ChooseProgram(const char *path, std::string &substitute) {
    const int error = errno;
    substitute = path;
    Simulation *simulation = FindSimulation();
    if (simulation == nullptr)
        return 0;
    const ProgramKind kind = KindOf(path);
    errno = error;
    if (kind == ProgramKind::Usual)
        return 0;
    if (kind == ProgramKind::Static) {
        if (!IsLoader(path))
            simulation->state.NoteProgram({ProgramNoteKind::StaticProgram, path, ""});
        return 0;
    }
    const char *updater = StartVariable(kProgramVariable);
    const struct {
        const char *name;
        std::string place;
        ProgramNoteKind note;
    } replacements[] = {
        {updater, std::string("/bin/") + (updater != nullptr ? updater : ""), ProgramNoteKind::UpdaterReplaced},
        {"ubiformat", kUbiformatPlace, ProgramNoteKind::UbiformatReplaced},
    };
    for (const auto &replacement : replacements) {
        const bool isThis = replacement.name != nullptr && std::strcmp(BaseName(path), replacement.name) == 0;
        if (!isThis || access(replacement.place.c_str(), X_OK) != 0 ||
            KindOf(replacement.place.c_str()) == ProgramKind::Foreign)
            continue;
        errno = error;
        simulation->state.NoteProgram({replacement.note, path, ""});
        substitute = replacement.place;
        return 0;
    }
    simulation->state.NoteProgram({ProgramNoteKind::ForeignProgram, path, ""});
    // Not the kernel's ENOEXEC, after which shells run the file as a script.
    return EOPNOTSUPP;
}

/// What every program of the simulation gets.
constexpr const char *kVariables[] = {"LD_PRELOAD", kChipVariable, kStateVariable, kProgramVariable, kNodesVariable};

/// The environment of a program that starts: that which it is to get, with the simulation's variables as they are here.
/// Libraries that it is to preload come after the simulation's.
class SimulatedEnvironment {
public:
    explicit SimulatedEnvironment(char *const given[]) {
        const bool isSimulated = FindSimulation() != nullptr;
        std::string preloaded;
        for (; given != nullptr && *given != nullptr; ++given) {
            if (isSimulated && Names(*given, "LD_PRELOAD"))
                preloaded = *given + std::strlen("LD_PRELOAD=");
            if (!isSimulated || std::none_of(std::begin(kVariables), std::end(kVariables),
                                             [&](const char *name) { return Names(*given, name); }))
                m_pointers.push_back(*given);
        }
        for (const char *name : kVariables) {
            const char *value = isSimulated ? StartVariable(name) : nullptr;
            if (value != nullptr)
                m_added.push_back(std::string(name) + "=" + value);
        }
        const char *own = StartVariable("LD_PRELOAD");
        if (own != nullptr && !preloaded.empty() && preloaded.find(own) == std::string::npos)
            m_added.front() += ":" + preloaded;
        else if (own != nullptr && !preloaded.empty())
            m_added.front() = "LD_PRELOAD=" + preloaded;
        for (std::string &variable : m_added)
            m_pointers.push_back(variable.data());
        m_pointers.push_back(nullptr);
    }

    char *const *Get() const { return m_pointers.data(); }

private:
    /// @return whether a NAME=VALUE has this name.
    static bool Names(const char *variable, const char *name) {
        const std::size_t length = std::strlen(name);
        return std::strncmp(variable, name, length) == 0 && variable[length] == '=';
    }

    std::vector<std::string> m_added;
    std::vector<char *> m_pointers;
};

/// Finds a program in PATH as execvp does.
/// @return the path; empty, with errno, when there is none.
std::string FindProgram(const char *name) {
    if (std::strchr(name, '/') != nullptr)
        return name;
    const char *path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "/bin:/usr/bin";
    bool isForbidden = false;
    for (std::size_t start = 0; start <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', start), folders.size());
        const std::string folder = folders.substr(start, end - start);
        std::string place = folder.empty() ? name : folder + "/" + name;
        if (access(place.c_str(), X_OK) == 0)
            return place;
        isForbidden = isForbidden || errno == EACCES;
        start = end + 1;
    }
    errno = isForbidden ? EACCES : ENOENT;
    return "";
}

/// A file without a header that the kernel knows is a script for the shell, as for execvp.
int ReplaceProgramOrShell(const std::string &path, char *const arguments[], char *const environment[]) {
    ReplaceProgram(path.c_str(), arguments, environment);
    if (errno != ENOEXEC)
        return -1;
    std::string shell = "/bin/sh";
    std::string script = path;
    std::vector<char *> words = {shell.data(), script.data()};
    for (char *const *word = arguments; *word != nullptr && *++word != nullptr;)
        words.push_back(*word);
    words.push_back(nullptr);
    return ReplaceProgram(shell.c_str(), words.data(), environment);
}

/// The words of execl and its relatives.
std::vector<char *> TakeWords(const char *first, va_list rest) {
    std::vector<char *> words = {const_cast<char *>(first)};
    while (words.back() != nullptr)
        words.push_back(va_arg(rest, char *));
    return words;
}

int Spawn(pid_t *process, const std::string &path, const posix_spawn_file_actions_t *actions,
          const posix_spawnattr_t *attributes, char *const arguments[], char *const environment[]) {
    std::string substitute;
    if (const int error = ChooseProgram(path.c_str(), substitute))
        return error;
    return nextPosixSpawn(process, substitute.c_str(), actions, attributes, arguments,
                          SimulatedEnvironment(environment).Get());
}

} // namespace

int ReplaceProgram(const char *path, char *const arguments[], char *const environment[]) {
    std::string substitute;
    if (const int error = ChooseProgram(path, substitute))
        return Return<int>(-error);
    return nextExecve(substitute.c_str(), arguments, SimulatedEnvironment(environment).Get());
}

INTERPOSED int execve(const char *path, char *const arguments[], char *const environment[]) noexcept {
    return ReplaceProgram(path, arguments, environment);
}

INTERPOSED int execvpe(const char *name, char *const arguments[], char *const environment[]) noexcept {
    const std::string path = FindProgram(name);
    return path.empty() ? -1 : ReplaceProgramOrShell(path, arguments, environment);
}

INTERPOSED int execvp(const char *name, char *const arguments[]) noexcept { return execvpe(name, arguments, environ); }

INTERPOSED int execl(const char *path, const char *first, ...) noexcept {
    va_list rest;
    va_start(rest, first);
    const std::vector<char *> words = TakeWords(first, rest);
    va_end(rest);
    return ReplaceProgram(path, words.data(), environ);
}

INTERPOSED int execlp(const char *name, const char *first, ...) noexcept {
    va_list rest;
    va_start(rest, first);
    const std::vector<char *> words = TakeWords(first, rest);
    va_end(rest);
    return execvpe(name, words.data(), environ);
}

INTERPOSED int execle(const char *path, const char *first, ...) noexcept {
    va_list rest;
    va_start(rest, first);
    const std::vector<char *> words = TakeWords(first, rest);
    char *const *environment = va_arg(rest, char *const *);
    va_end(rest);
    return ReplaceProgram(path, words.data(), environment);
}

INTERPOSED int fexecve(int fd, char *const arguments[], char *const environment[]) noexcept {
    std::string substitute;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (const int error = ChooseProgram(path.c_str(), substitute))
        return Return<int>(-error);
    return nextFexecve(fd, arguments, SimulatedEnvironment(environment).Get());
}

INTERPOSED int posix_spawn(pid_t *process, const char *path, const posix_spawn_file_actions_t *actions,
                           const posix_spawnattr_t *attributes, char *const arguments[], char *const environment[]) {
    return Spawn(process, path, actions, attributes, arguments, environment);
}

INTERPOSED int posix_spawnp(pid_t *process, const char *name, const posix_spawn_file_actions_t *actions,
                            const posix_spawnattr_t *attributes, char *const arguments[], char *const environment[]) {
    const std::string path = FindProgram(name);
    return path.empty() ? errno : Spawn(process, path, actions, attributes, arguments, environment);
}
