#pragma once

#include <string>
#include <vector>

/// @return the number of the MTD device that spans the whole flash: the first one in "/proc/mtd" whose line holds
///         "all"; 0 when no line does; -1 when the table can't be opened.
int GetAllPartitionNumber();

/// Carries out an update script: one command a line, in file order, each on the whole-flash device.
///
/// Offsets and sizes are bytes in the whole flash, 32-bit signed. Messages go to standard error: after one that begins
/// with "warning : " the command goes on; one that begins with "error : " tells what was not done. Nothing is rolled
/// back. One object is one run; it isn't copied.
class UpdateScript {
public:
    /// Reads the script, finds the whole-flash device and counts the blocks that the script will report.
    /// No flash is changed.
    /// @param notifyScript program that is told each new whole percentage, or null for none.
    /// @param reboot whether Finish reboots the device.
    UpdateScript(const char *scriptPath, const char *notifyScript, bool reboot);
    ~UpdateScript() {}

    /// Carries out all lines, up to the first `write`, `writeoob` or `ubiformat` that fails or the first exception that
    /// leaves a command, then flushes.
    /// @return -1 when the script is empty, unreadable or over its limits (nothing was done), else 0.
    int Run();

    /// Counts one finished block and tells the notify script when the whole percentage has changed.
    void IncBlockWritten();

    /// Flushes all file systems; with m_bReboot it then waits 3 seconds and reboots the device.
    void Finish();

    /// @return how many blocks the script's commands are expected to report, from the sizes of its image files.
    int GetTotalBlock();

    /// Erases the good blocks of a range. Offset and size are whole multiples of the erase block.
    /// @return 0; -1 for a misaligned or empty range; else what the failed request gave.
    int CmdErase(int offset, int size);

    /// Erases a range and writes a file into its good blocks, page by page; the last page is filled up with 0xFF.
    /// A file that goes on behind the range fails there, before it reaches a block that was not erased.
    /// @return 0, or the first failure's negative result; -1 with untouched flash when the page size isn't known.
    ///         What was erased and written up to a failure stays so.
    int CmdWrite(int offset, int size, const char *path);

    /// Does the same with a raw image: each page's data is followed by its out-of-band bytes, and both are programmed
    /// as they are, without ECC of the kernel's. A short record keeps the tail of the record before it; behind a short
    /// first one stands 0xFF.
    /// @return as CmdWrite.
    int CmdWriteOob(int offset, int size, const char *path);

    /// Hands a variable to the device's own environment tool. Its success is not known.
    /// @return 0.
    int CmdSetEnv(const char *name, const char *value);

    /// Changes a variable in the environment block of `size` bytes at `offset`, both whole multiples of the erase
    /// block, and writes the block back to the good blocks of that range in order: with bad ones in it, the block's
    /// end is written nowhere. Power must not fail in between.
    /// @return 0, also when the walk over the blocks ended early; -1 when the range is invalid, a page can't be read
    ///         or the variable doesn't fit (all with untouched flash), or when a page can't be written.
    int CmdSetEnv(int offset, int size, const char *name, const char *value);

    /// Hands a partition to the update's own ubiformat, after stopping what uses it. The outside programs' success is
    /// not known. What was stopped stays stopped.
    /// @return 0, or -1 when the device, the image or the update's prepare script can't be read.
    int CmdUbiformat(const char *device, const char *path);

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
    enum class LineState;
    struct Line;
    static const Command kCommands[];

    Line Resolve(const std::string &text, Tokens tokens) const;
    template <typename Visit> void VisitLines(Visit visit) const;
    std::string BrokenLimit() const;
    bool RunLine(const Line &line);

    int RunErase(const Tokens &tokens, const std::string &path);
    template <int (UpdateScript::*Command)(int, int, const char *)>
    int RunImage(const Tokens &tokens, const std::string &path);
    int RunSetEnv(const Tokens &tokens, const std::string &path);
    int RunUbiformat(const Tokens &tokens, const std::string &path);
};
