#include "sandbox/UpdateReader.h"

#include "base/Places.h"
#include "base/ScopedFd.h"
#include "sandbox/SandboxInit.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// @return the words of a script, each once.
std::set<std::string> Words(const std::string &script) {
    constexpr const char *kBlanks = " \f\n\t\r\v";
    std::set<std::string> words;
    const std::size_t length = std::min(script.find('\0'), script.size());
    for (std::size_t start = 0; (start = script.find_first_not_of(kBlanks, start)) < length;) {
        const std::size_t end = std::min(script.find_first_of(kBlanks, start), length);
        words.insert(script.substr(start, end - start));
        start = end;
    }
    return words;
}

/// @return the first bytes of a regular file, up to a limit; nothing of anything else.
std::string ReadRegular(const std::string &path, std::size_t most) {
    // Opening a FIFO would wait for its writer.
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    std::string bytes;
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return bytes;
    char buffer[65536];
    while (bytes.size() < most) {
        const ssize_t count = read(file.Get(), buffer, std::min(sizeof buffer, most - bytes.size()));
        if (count <= 0)
            break;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return bytes;
}

/// @return the scripts in folders of the update, where the updater does not look, as files of no words.
std::string MisplacedScripts(const std::string &update) {
    namespace fs = std::filesystem;
    std::string text;
    std::error_code ignored;
    for (auto at = fs::recursive_directory_iterator(update, ignored); at != fs::recursive_directory_iterator();
         at.increment(ignored)) {
        if (at->path().filename() == kScriptName)
            text += std::to_string(kNoSize) + " 0 " + at->path().lexically_relative(update).string() + "\n";
    }
    return text;
}

} // namespace

std::string DescribeUpdate(const std::string &update) {
    const bool isUsual = access((update + "/" + kScriptName).c_str(), F_OK) == 0;
    const std::string folder = isUsual ? update + "/" : "/";
    const std::string script = ReadRegular(folder + kScriptName, kMostScript);
    std::string text;
    // Found as the updater finds them: "./a" and links lead to files as well.
    for (const std::string &word : Words(script)) {
        struct stat status = {};
        const std::string path = folder + word;
        if (stat(path.c_str(), &status) != 0)
            continue;
        const bool isRegular = S_ISREG(status.st_mode);
        const bool isShown = isRegular && static_cast<std::size_t>(status.st_size) <= kMostContents;
        const std::string bytes = isShown ? ReadRegular(path, kMostContents) : "";
        text.append(std::to_string(isRegular ? status.st_size : kNoSize)).append(" ");
        text.append(std::to_string(bytes.size())).append(" ").append(word).append("\n").append(bytes);
    }
    if (access((folder + kScriptName).c_str(), F_OK) != 0)
        text += MisplacedScripts(update);
    return text + "\n" + script;
}
