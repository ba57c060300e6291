#include "sandbox/OwnFiles.h"

#include "base/ScopedFd.h"
#include "base/SystemError.h"
#include "chip/NandChip.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kAlwaysRead = 65536;
/// Of one look. Reading more takes longer than a new sandbox.
constexpr std::uint64_t kMostEntries = 20000;
constexpr std::uint64_t kMostBytes = std::uint64_t{64} << 20;
/// The kernel's clock of change times ticks this often at least: a file that changed so recently may change again
/// within the same tick.
constexpr std::int64_t kTickNanoseconds = 50'000'000;

std::uint64_t HashText(const std::string &text) {
    return HashBytes(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
}

bool IsOlderThanTick(const timespec &change) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return (now.tv_sec - change.tv_sec) * kSecond + now.tv_nsec - change.tv_nsec > kTickNanoseconds;
}

/// @return the attributes of a file or folder. An overlay keeps there whether a folder replaces one below, and handles
/// of what is below, which are others in each sandbox.
std::string AttributesOf(const std::string &path) {
    char names[4096];
    const ssize_t length = llistxattr(path.c_str(), names, sizeof names);
    if (length < 0 && errno != ENOTSUP)
        throw SystemError("can't read attributes of " + path);
    std::string text;
    for (const char *at = names; at < names + length;) {
        const std::string name = at;
        at += name.size() + 1;
        if (name == "user.overlay.origin" || name == "user.overlay.uuid")
            continue;
        char value[4096];
        const ssize_t size = Check(lgetxattr(path.c_str(), name.c_str(), value, sizeof value), path);
        text.append(name).append("=").append(value, static_cast<std::size_t>(size)).append(1, '\0');
    }
    return text;
}

/// @return whether the programs have left objects that are no files.
bool LeavesObjects() {
    shm_info memory = {};
    seminfo semaphores = {};
    msginfo queues = {};
    const bool isKnown = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&memory)) >= 0 &&
                         semctl(0, 0, SEM_INFO, &semaphores) >= 0 &&
                         msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds *>(&queues)) >= 0;
    // A kernel without them has nothing to leave.
    return isKnown ? memory.used_ids != 0 || semaphores.semusz != 0 || queues.msgpool != 0 : errno != ENOSYS;
}

} // namespace

std::string OwnFiles::Word() {
    m_nEntries = m_nBytes = 0;
    try {
        if (LeavesObjects())
            return kUnknown;
        std::ifstream mounts("/proc/self/mounts");
        const std::string table(std::istreambuf_iterator<char>(mounts), {});
        if (table.empty())
            return kUnknown;
        std::uint64_t hash = HashText(table) + HashTree("/");
        for (const std::string &place : m_mounts)
            hash = hash * 3 + (fs::is_directory(place) ? HashTree(place) : 0);
        m_isFirst = false;
        char word[17];
        std::snprintf(word, sizeof word, "%016llx", static_cast<unsigned long long>(hash));
        return word;
    } catch (const std::exception &) {
        return kUnknown;
    }
}

/// @return a hash of a folder's tree, as far as its file system reaches, whatever the order of its entries.
std::uint64_t OwnFiles::HashTree(const std::string &root) {
    struct stat top = {};
    Check(lstat(root.c_str(), &top), root);
    std::uint64_t sum = HashEntry(root, top);
    for (auto at = fs::recursive_directory_iterator(root); at != fs::recursive_directory_iterator(); ++at) {
        const std::string path = at->path();
        struct stat status = {};
        Check(lstat(path.c_str(), &status), path);
        if (status.st_dev != top.st_dev) {
            if (S_ISDIR(status.st_mode))
                at.disable_recursion_pending();
            continue;
        }
        if (++m_nEntries > kMostEntries)
            throw std::runtime_error("too many files");
        sum += HashEntry(path, status);
    }
    return sum;
}

std::uint64_t OwnFiles::HashEntry(const std::string &path, const struct stat &status) {
    std::uint64_t content = 0;
    if (S_ISREG(status.st_mode))
        content = HashContent(path, status);
    else if (S_ISLNK(status.st_mode))
        content = HashText(fs::read_symlink(path));
    else if (S_ISDIR(status.st_mode))
        content = HashText(AttributesOf(path));
    const std::uint64_t size = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    const std::uint64_t all[] = {HashText(path), status.st_mode, status.st_uid, status.st_gid,
                                 status.st_rdev, size,           content};
    return HashBytes(reinterpret_cast<const std::uint8_t *>(all), sizeof all);
}

std::uint64_t OwnFiles::HashContent(const std::string &path, const struct stat &status) {
    Known &known = m_known[{status.st_dev, status.st_ino}];
    const bool isSame = known.change.tv_sec == status.st_ctim.tv_sec &&
                        known.change.tv_nsec == status.st_ctim.tv_nsec && known.size == status.st_size;
    const bool isGiven = m_isFirst || (isSame && known.isGiven);
    if (isSame && known.isSettled && (isGiven || status.st_size > kAlwaysRead))
        return known.hash;
    const ScopedFd file(Check(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC), path));
    const bool isSettled = IsOlderThanTick(status.st_ctim);
    std::uint64_t hash = HashText(AttributesOf(path)); // a change of these shows in the change time too
    std::uint8_t buffer[65536];
    ssize_t count = 0;
    while ((count = Check(read(file.Get(), buffer, sizeof buffer), path)) > 0) {
        m_nBytes += static_cast<std::uint64_t>(count);
        if (m_nBytes > kMostBytes)
            throw std::runtime_error("too many bytes");
        hash = hash * 3 + HashBytes(buffer, static_cast<std::size_t>(count));
    }
    known = {status.st_ctim, status.st_size, hash, isGiven, isSettled};
    return hash;
}
