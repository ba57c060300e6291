#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

inline std::string Load(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A folder for an update and what belongs to it, and flashsim as a user calls it. All files go with the object.
class UpdateFolder : public testing::Test {
protected:
    ~UpdateFolder() override { fs::remove_all(m_folder); }

    fs::path Save(const std::string &name, const std::string &text) const {
        fs::path path = m_folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
        fs::permissions(path, fs::perms(0755));
        return path;
    }

    /// @return an option: shell commands in the place of the updater.
    std::string Updater(const std::string &commands) const {
        return " --program " + Save("updater", "#!/bin/sh\n" + commands).string() + " ";
    }

    /// Runs flashsim with an update of the folder as its last argument; keeps what it says.
    /// @return its exit status
    int Run(const std::string &options, const std::string &update = "update") {
        return RunBare(options + " " + (m_folder / update).string());
    }

    int RunBare(const std::string &arguments) {
        const std::string command = std::string(FLASHSIM) + " " + arguments + " >" + (m_folder / "out").string() +
                                    " 2>" + (m_folder / "err").string();
        const int status = system(command.c_str());
        m_out = Load(m_folder / "out");
        m_err = Load(m_folder / "err");
        return WEXITSTATUS(status);
    }

    const fs::path m_folder = fs::path(testing::TempDir()) / ("flashsim" + std::to_string(getpid()));
    std::string m_out, m_err;
};
