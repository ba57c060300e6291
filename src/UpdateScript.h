#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Longest command line that is handed to the shell, in characters.
constexpr std::size_t kCommandLimit = 255;

/// @return the number of the MTD device that spans the whole flash: the first one in "/proc/mtd" whose line holds
///         "all"; 0 when no line does; -1 when the table can't be opened.
int GetAllPartitionNumber();

/// Carries out an update script: one command a line, in file order, each on the whole-flash device.
///
/// Offsets and sizes are bytes in the whole flash, 32-bit signed. Messages go to standard error: a line that begins
/// with "warning : " lets the work go on, one that begins with "error : " ends the command. Nothing is rolled back.
/// One object is one run; it isn't copied.
class UpdateScript {
public:
    /// Reads the script, finds the whole-flash device and counts the blocks that the script will report.
    /// No flash is changed.
    /// @param notifyScript program that is told each new whole percentage, or null for none.
    /// @param reboot whether Finish reboots the device.
    UpdateScript(const char *scriptPath, const char *notifyScript, bool reboot);
    ~UpdateScript() {}

    /// Carries out all lines, up to the first write that fails, then flushes.
    /// @return -1 when the script is empty, unreadable or over its limits (nothing was done), else 0.
    int Run();

    /// Counts one finished block and tells the notify script when the whole percentage has changed.
    void IncBlockWritten();

    /// Flushes all file systems.
    void Finish();

    /// @return how many blocks the script's commands are expected to report, from the sizes of its image files.
    int GetTotalBlock();

    /// Erases the good blocks of a range. Offset and size are whole multiples of the erase block.
    /// @return 0; -1 for a misaligned or empty range; else what the failed request gave.
    int CmdErase(int offset, int size);

    /// Erases a range and writes a file into its good blocks, page by page; the last page is filled up with 0xFF.
    /// @return 0, or the first failure's negative result. What was erased and written up to then stays so.
    int CmdWrite(int offset, int size, const char *path);

    std::string m_sScriptDir;    ///< in front of each file name of the script; ends with a slash
    std::string m_sScript;       ///< the whole text
    int m_nTotalBlock;           ///< blocks that make 100 %
    int m_nBlockWritten;         ///< blocks reported so far
    int m_nLastPercent;          ///< whole percentage seen last
    std::string m_sNotifyScript; ///< empty for none
    bool m_bReboot;              ///< Finish reboots

private:
    using Tokens = std::vector<std::string>;
    struct Geometry;
    struct Command;
    static const Command kCommands[];

    static const Command *FindCommand(const std::string &name);
    template <typename Visit> void VisitLines(Visit visit) const;
    bool FitsLimits(bool quiet) const;
    bool RunLine(const std::string &line, const Tokens &tokens);

    int RunErase(const Tokens &tokens, const std::string &path);
    int RunWrite(const Tokens &tokens, const std::string &path);

    int EraseRange(int offset, int size, bool forPages);
};
