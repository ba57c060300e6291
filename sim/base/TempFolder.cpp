#include "base/TempFolder.h"

#include "base/SystemError.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr int kMostAttempts = 10;
constexpr const char *kPrefix = "flashsim.run.";

/// The updater syncs all file systems several times a run: flash on a disk would be written out each time.
std::string Place() {
    constexpr const char *kInMemory = "/dev/shm";
    const char *wanted = getenv("TMPDIR");
    if (wanted != nullptr && *wanted != '\0')
        return wanted;
    return access(kInMemory, W_OK) == 0 ? kInMemory : "/tmp";
}

/// @return owner of a folder's lock, or of none when another run has the lock or the folder is gone.
ScopedFd Lock(const std::string &path) {
    ScopedFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat locked = {};
    struct stat named = {};
    const bool isOurs = folder.Get() >= 0 && flock(folder.Get(), LOCK_EX | LOCK_NB) == 0 &&
                        fstat(folder.Get(), &locked) == 0 && stat(path.c_str(), &named) == 0 &&
                        locked.st_ino == named.st_ino && locked.st_dev == named.st_dev && locked.st_uid == geteuid();
    return isOurs ? std::move(folder) : ScopedFd();
}

void RemoveAbandoned(const std::string &place) {
    std::error_code ignored;
    for (fs::directory_iterator entry(place, ignored); entry != fs::directory_iterator(); entry.increment(ignored)) {
        if (entry->path().filename().string().rfind(kPrefix, 0) != 0)
            continue;
        const ScopedFd lock = Lock(entry->path());
        if (lock.Get() >= 0)
            fs::remove_all(entry->path(), ignored);
        ignored.clear();
    }
}

} // namespace

TempFolder::TempFolder() {
    const std::string place = Place();
    RemoveAbandoned(place);
    // Another run may take a new folder for an abandoned one until the folder is locked.
    for (int attempts = 0; m_lock.Get() < 0; ++attempts) {
        if (attempts == kMostAttempts)
            throw SystemError("can't lock a folder in " + place, ENOLCK);
        m_sPath = place + "/" + kPrefix + "XXXXXX";
        if (mkdtemp(m_sPath.data()) == nullptr)
            throw SystemError("can't make the folder " + m_sPath);
        Check(chmod(m_sPath.c_str(), S_IRWXU), m_sPath);
        m_lock = Lock(m_sPath);
    }
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(m_sPath, ignored);
}
