#pragma once

#include <fstream>
#include <string>
#include <vector>

/// A file that an option asks for. It is opened before the run, so that a long run is not lost for a wrong path.
class OutputFile {
public:
    /// Creates or empties the file; does nothing for an empty path.
    /// @param what is written, for messages: "trace"
    /// @throws std::runtime_error with one line when the file can't be opened
    OutputFile(std::string path, const char *what);

    bool IsWanted() const { return !m_sPath.empty(); }

    /// Writes the file's text.
    /// @throws std::runtime_error with one line when it could not be written whole
    void Save(const std::string &text);

private:
    void Check() const;

    std::string m_sPath;
    const char *m_what;
    std::ofstream m_file;
};

/// Checks that no output replaces a file that is in use or another output. Pipes and terminals are always fine.
/// @param inputs,outputs paths; empty ones are passed over
/// @throws std::invalid_argument with one line
void CheckOutputs(std::vector<std::string> inputs, const std::vector<std::string> &outputs);
