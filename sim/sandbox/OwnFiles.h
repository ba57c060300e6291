#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// What a sandbox's programs have made of the files and mounts that are the sandbox's own, in a word to compare.
class OwnFiles {
public:
    static constexpr const char *kUnknown = "?";

    /// @param mounts places with a file system of their own
    explicit OwnFiles(const std::vector<std::string> &mounts) : m_mounts(mounts) {}

    /// Looks at names, modes, owners, attributes, links and bytes of all own files, and at the mount table. Times do
    /// not count. A file that was there at the first look or has more than kAlwaysRead bytes is read again only when
    /// its change time is another one: a change by a memory mapping alone, which leaves the time as it is, goes
    /// unnoticed there.
    /// @return the same word for the same files; "?" when there are too many of them, when one can't be read, or when
    ///         shared memory, semaphores or message queues are left, of which nobody knows the contents
    std::string Word();

private:
    struct Known {
        timespec change;
        std::int64_t size;
        std::uint64_t hash;
        bool isGiven;   ///< as at the first look
        bool isSettled; ///< a change since then would have another time
    };

    std::uint64_t HashTree(const std::string &root);
    std::uint64_t HashEntry(const std::string &path, const struct stat &status);
    std::uint64_t HashContent(const std::string &path, const struct stat &status);

    const std::vector<std::string> &m_mounts;
    std::map<std::pair<dev_t, ino_t>, Known> m_known;
    bool m_isFirst = true;
    std::uint64_t m_nEntries = 0;
    std::uint64_t m_nBytes = 0;
};
