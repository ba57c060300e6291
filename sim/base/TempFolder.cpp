#include "base/TempFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

TempFolder::TempFolder() {
    // The updater syncs all file systems several times a run: flash on a disk would be written out each time.
    constexpr const char *kInMemory = "/dev/shm";
    const char *wanted = getenv("TMPDIR");
    std::string path = wanted != nullptr && *wanted != '\0' ? wanted
                       : access(kInMemory, W_OK) == 0       ? kInMemory
                                                            : "/tmp";
    path += "/flashsimXXXXXX";
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("can't make the folder " + path + ": " + strerror(errno));
    m_sPath = path;
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_sPath, ignored);
}
