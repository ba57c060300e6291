#pragma once

#include "base/ScopedFd.h"

#include <string>

/// A folder for what one run doesn't keep, removed with its contents at the end. It is in memory where the machine has
/// such a place, unless TMPDIR names another. Folders of runs that were killed are removed by the next run.
class TempFolder {
public:
    /// @throws SystemError
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    /// @return the path of a file in it.
    std::string File(const std::string &name) const { return m_sPath + "/" + name; }

private:
    std::string m_sPath;
    ScopedFd m_lock; ///< the kernel releases it however the run ends
};
