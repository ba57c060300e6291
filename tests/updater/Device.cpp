#include "Device.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string Quoted(const std::string &text) {
    std::string quoted = "'";
    for (const char letter : text)
        quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return quoted + "'";
}

void WriteAll(const std::string &path, const std::string &bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    if (bytes.rfind("#!", 0) == 0 || bytes.rfind("\177ELF", 0) == 0)
        fs::permissions(path, fs::perms::owner_all);
}

std::string NewFolder() {
    std::string path = (fs::temp_directory_path() / "flashrig-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    return path;
}

} // namespace

std::vector<std::string> Outcome::Only(const std::vector<std::string> &words) const {
    std::vector<std::string> lines;
    for (const std::string &line : trace) {
        const std::string first = line.substr(0, line.find(' '));
        if (std::find(words.begin(), words.end(), first) != words.end())
            lines.push_back(line);
    }
    return lines;
}

std::string Outcome::OthersOut() const {
    const std::size_t own = out.rfind("running update script ");
    return own == std::string::npos ? out : out.substr(0, own) + out.substr(out.find('\n', own) + 1);
}

std::string ReadAll(const std::string &path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::vector<std::string> Split(const std::string &text, char delimiter) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, delimiter);)
        parts.push_back(part);
    return parts;
}

std::string Pattern(std::size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    unsigned state = seed * 2654435761U + 1;
    for (char &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

Outcome RunProgram(const std::vector<std::string> &arguments) {
    const std::string folder = NewFolder();
    std::string command;
    for (const std::string &argument : arguments)
        command += Quoted(argument) + " ";
    command += ">" + folder + "/out 2>" + folder + "/err </dev/null";
    const int status = std::system(command.c_str());
    Outcome outcome = {
        WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(folder + "/out"), ReadAll(folder + "/err"), {}};
    fs::remove_all(folder);
    return outcome;
}

Device::Device(const std::string &badBlocks) : m_sFolder(NewFolder()), m_sBadBlocks(badBlocks) {
    // Without one the shell would complain at each percentage.
    File("progress_script.sh", "#!/bin/sh\n");
    fs::create_directories(m_sFolder + "/root");
}

Device::~Device() { fs::remove_all(m_sFolder); }

void Device::File(const std::string &name, const std::string &bytes) {
    WriteAll(m_sFolder + (name[0] == '/' ? "/root" : "/update/") + name, bytes);
}

void Device::Remove(const std::string &name) { fs::remove(m_sFolder + "/update/" + name); }

void Device::Options(const std::vector<std::string> &options) {
    m_vOption.insert(m_vOption.end(), options.begin(), options.end());
}

Outcome Device::Run(const std::string &script, const std::vector<std::string> &arguments) {
    File("flashrig.script", script);
    return Start(m_sFolder + "/update", arguments);
}

Outcome Device::RunImage(const std::string &image, const std::vector<std::string> &arguments) {
    return Start(m_sFolder + "/update/" + image, arguments);
}

Outcome Device::Start(const std::string &update, const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {FLASHSIM, "--raw", "--chip", "1M,16K,512,16"};
    for (const char *name : {"flash", "root", "trace"})
        command.insert(command.end(), {std::string("--") + name, m_sFolder + "/" + name});
    if (!m_sBadBlocks.empty() && !fs::exists(m_sFolder + "/flash"))
        command.insert(command.end(), {"--bad", m_sBadBlocks});
    command.insert(command.end(), m_vOption.begin(), m_vOption.end());
    command.push_back(update);
    command.insert(command.end(), arguments.begin(), arguments.end());
    Outcome outcome = RunProgram(command);
    outcome.trace = Split(ReadAll(m_sFolder + "/trace"), '\n');
    return outcome;
}

std::string Device::Raw(std::size_t page, std::size_t pages) const {
    return ReadAll(m_sFolder + "/flash").substr(page * (kPage + kOob), pages * (kPage + kOob));
}

std::string Device::Flash(std::size_t offset, std::size_t size) const {
    std::string data;
    const std::string raw = Raw(offset / kPage, (size + kPage - 1) / kPage);
    for (std::size_t at = 0; at < raw.size(); at += kPage + kOob)
        data += raw.substr(at, kPage);
    return data.substr(0, size);
}

void Device::UseUp() {
    File("used", std::string(0x100000, '\x5A'));
    Run("write 0 100000 used\n");
}
