#pragma once

#include <string>

/// @return the number of the MTD device that spans the whole flash: the first device in "/proc/mtd" whose line contains
///         "all"; 0 when no line does; -1 when the table cannot be opened.
int GetAllPartitionNumber();

/// Runs an update script: one command a line, in file order, each on the whole-flash device.
///
/// Offsets and sizes are bytes in the whole flash, 32-bit signed. Messages go to standard error: after a "warning : "
/// the command continues; an "error : " names what failed. Nothing is rolled back. One object is one run and is not
/// copied.
class UpdateScript {
public:
    /// Reads the script, finds the whole-flash device and counts the blocks that the script will report.
    /// No flash is changed.
    /// @param notifyScript program to call with each new whole percentage, or null for none.
    /// @param reboot whether Finish reboots the device.
    UpdateScript(const char *scriptPath, const char *notifyScript, bool reboot);
    ~UpdateScript() {}

    /// Runs all lines, up to the first `write`, `writeoob` or `ubiformat` that fails or the first exception from a
    /// command, then calls Finish.
    /// @return -1 when the script is empty, unreadable or over its limits (nothing was done), else 0.
    int Run();

    /// Counts one finished block and calls the notify script when the whole percentage has changed.
    void IncBlockWritten();

    /// Flushes all file systems; with m_bReboot it then waits 3 seconds and reboots the device.
    void Finish();

    /// @return the number of blocks that the commands will report, estimated from the sizes of the image files.
    int GetTotalBlock();

    /// Erases the good blocks of a range. Offset and size are whole multiples of the erase block.
    /// @return 0; -1 for a misaligned or empty range; else the result of the failed request.
    int CmdErase(int offset, int size);

    /// Erases a range and writes a file into its good blocks, page by page; the last page is padded with 0xFF.
    /// A file longer than the range fails at the end of the range, before it reaches a block that was not erased.
    /// @return 0, or the first failure's negative result; -1 with untouched flash when the page size is unknown.
    ///         Blocks erased and pages written before a failure stay so.
    int CmdWrite(int offset, int size, const char *path);

    /// Like CmdWrite for a raw image: each page's data is followed by its out-of-band bytes, and both are programmed
    /// unchanged, without the kernel's ECC. A short record keeps the tail of the previous record; a short first record
    /// is padded with 0xFF.
    /// @return see CmdWrite.
    int CmdWriteOob(int offset, int size, const char *path);

    /// Passes a variable to the device's environment tool, whose exit status is ignored.
    /// @return 0.
    int CmdSetEnv(const char *name, const char *value);

    /// Changes a variable in the environment block of `size` bytes at `offset`, both whole multiples of the erase
    /// block, and writes it back to the good blocks of that range in order: with bad blocks in the range, the end of
    /// the environment is lost. Power must not fail meanwhile.
    /// @return 0, also when the rewrite ended early; -1 when the range is invalid, a page cannot be read or the
    /// variable
    ///         does not fit (all with untouched flash), or when a page cannot be written.
    int CmdSetEnv(int offset, int size, const char *name, const char *value);

    /// Runs the update's own ubiformat on a partition after stopping its users, which are not restarted. The exit
    /// statuses of the outside programs are ignored.
    /// @return 0, or -1 when the device, the image or the update's prepare script cannot be read.
    int CmdUbiformat(const char *device, const char *path);

    std::string m_sScriptDir;    ///< prefix of the script's file names; ends with a slash
    std::string m_sScript;       ///< the whole text
    int m_nTotalBlock;           ///< blocks that make 100 %
    int m_nBlockWritten;         ///< blocks reported so far
    int m_nLastPercent;          ///< last whole percentage
    std::string m_sNotifyScript; ///< empty for none
    bool m_bReboot;              ///< Finish reboots
};
