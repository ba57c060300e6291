#pragma once

#include <string>

/// A folder of its own on the host, removed with all it holds in the end. It is in memory where the host has such a
/// place, unless TMPDIR names another.
class TempFolder {
public:
    /// @throws std::runtime_error with one line.
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    /// @return the path of a file in it.
    std::string File(const std::string &name) const { return m_sPath + "/" + name; }

private:
    std::string m_sPath;
};
