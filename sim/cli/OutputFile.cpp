#include "cli/OutputFile.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

bool IsSameFile(const std::string &one, const std::string &other) {
    std::error_code missing;
    return fs::equivalent(one, other, missing) ||
           fs::weakly_canonical(fs::absolute(one)) == fs::weakly_canonical(fs::absolute(other));
}

} // namespace

OutputFile::OutputFile(std::string path, const char *what) : m_sPath(std::move(path)), m_what(what) {
    if (IsWanted())
        m_file.open(m_sPath, std::ios::binary);
    Check();
}

void OutputFile::Save(const std::string &text) {
    m_file << text << std::flush;
    Check();
}

void OutputFile::Check() const {
    if (!m_file)
        throw std::runtime_error(std::string("can't write the ") + m_what + " to " + m_sPath);
}

void CheckOutputs(std::vector<std::string> inputs, const std::vector<std::string> &outputs) {
    std::vector<std::string> &taken = inputs;
    for (const std::string &output : outputs) {
        if (output.empty() || fs::is_character_file(output) || fs::is_fifo(output))
            continue;
        for (const std::string &other : taken) {
            if (!other.empty() && IsSameFile(output, other))
                throw std::invalid_argument("output " + output + " would replace " + other);
        }
        taken.push_back(output);
    }
}
