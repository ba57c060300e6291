#include "UpdateScript.h"

#include "ProcessUtil.h"
#include "SNandUtil.h"
#include "UEnvTool.h"
#include "UFile.h"
#include "UTextUtil.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <mtd/mtd-user.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *kMtdTable = "/proc/mtd";
constexpr const char *kWholeFlashName = "all";
constexpr const char *kLineEnds = "\r\n";
constexpr const char *kBlanks = " \f\n\t\r\v";
constexpr std::size_t kScriptLimit = 4095;
constexpr std::size_t kLineLimit = 255;
constexpr char kErasedByte = '\xFF';
constexpr std::size_t kLongSetEnvTokens = 5;

/// The programs of a `ubiformat` line come with the update, at fixed paths.
constexpr const char *kShell = "/bin/sh";
constexpr const char *kPrepareScript = "/tmp/update/prepare.sh";
constexpr const char *kUbiformat = "/tmp/update/ubiformat";

/// After the format the image's blocks less these count as written; three more are reported one by one.
constexpr int kUbiformatHeldBack = 10;

/// Device number of the whole flash; set before anything opens a device.
int nTotalMtdPartition = 12;

int ReadHex(const std::string &token) { return UTextUtil::ToInt(token.c_str(), 16); }

/// Sums and products wrap at 32 bits without undefined behaviour.
int WrapAdd(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }
int WrapMultiply(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) * static_cast<unsigned>(b)); }

/// 32-bit division truncated toward zero; 64 bits inside, since -0x80000000 / -1 has no 32-bit result.
int Quotient(int a, int b) { return static_cast<int>(static_cast<long long>(a) / b); }

/// The low 32 bits of a file's size: sizes are 32-bit signed throughout.
int FileSize(const char *path) { return static_cast<int>(static_cast<unsigned>(UFile::GetFileSize(path))); }

/// 0 when the block size is unknown (0).
int WholeBlocks(int size, int block) { return block == 0 ? 0 : Quotient(size, block); }

int BlocksWithPart(int size, int block) {
    const bool part = block != 0 && static_cast<long long>(size) % block != 0;
    return WholeBlocks(size, block) + (part ? 1 : 0);
}

/// A descriptor that closes itself. It may be -1: then the first read fails, and so does close, harmlessly.
class ScopedFd {
public:
    explicit ScopedFd(int fd) : m_nFd(fd) {}
    ~ScopedFd() { close(m_nFd); }
    ScopedFd(const ScopedFd &) = delete;
    ScopedFd &operator=(const ScopedFd &) = delete;
    int Get() const { return m_nFd; }

private:
    int m_nFd;
};

unsigned BlockOf(const SNandUtil &nand, int bytes) {
    return static_cast<unsigned>(bytes) / static_cast<unsigned>(nand.m_nEraseSize);
}

int ByteOffset(const SNandUtil &nand, unsigned block) {
    return WrapMultiply(static_cast<int>(block), nand.m_nEraseSize);
}

/// Calls `visit` with each good block from `first` up to, not including, `end`, until `visit` returns false.
/// Skips bad blocks with a warning.
/// @return 0, or the negative result of a failed bad-block test, which ends the walk.
template <typename Visit> int WalkGoodBlocks(SNandUtil &nand, unsigned first, unsigned end, Visit visit) {
    for (unsigned block = first; block < end; ++block) {
        const int bad = nand.IsBlockBad(static_cast<int>(block));
        if (bad == 1) {
            fprintf(stderr, "warning : skip bad block at %x\n", ByteOffset(nand, block));
            continue;
        }
        if (bad < 0) {
            fprintf(stderr, "error : fail to check bad block at %x\n", ByteOffset(nand, block));
            return bad;
        }
        if (!visit(block))
            break;
    }
    return 0;
}

/// Erases one block; prints an error line on failure.
int Erase(SNandUtil &nand, unsigned block) {
    const int result = nand.EraseBlock(static_cast<int>(block));
    if (result != 0)
        fprintf(stderr, "error : erase failed at %x\n", ByteOffset(nand, block));
    return result;
}

void PrintInvalidSize(const SNandUtil &nand, int size) {
    fprintf(stderr, "error : invalid size=%d, blocksize = %d\n", size, nand.m_nEraseSize);
}

/// Checks the alignment of offset, then size; prints an error line on failure.
bool IsAligned(const SNandUtil &nand, int offset, int size) {
    const unsigned mask = static_cast<unsigned>(nand.m_nEraseSize) - 1;
    if ((static_cast<unsigned>(offset) & mask) != 0) {
        fprintf(stderr, "error : invalid offset=%d, blocksize = %d\n", offset, nand.m_nEraseSize);
        return false;
    }
    if ((static_cast<unsigned>(size) & mask) != 0) {
        PrintInvalidSize(nand, size);
        return false;
    }
    return true;
}

/// Page commands divide by both sizes, so these must be known; prints an error line on failure.
bool HasPages(const SNandUtil &nand) {
    if (nand.m_nWriteSize > 0 && nand.m_nWriteSize <= nand.m_nEraseSize && nand.m_nOobSize >= 0)
        return true;
    fprintf(stderr, "error : unknown flash geometry, blocksize = %d, pagesize = %d\n", nand.m_nEraseSize,
            nand.m_nWriteSize);
    return false;
}

unsigned PagesPerBlock(const SNandUtil &nand) { return static_cast<unsigned>(nand.m_nEraseSize / nand.m_nWriteSize); }

/// Reads `size` bytes of flash page by page, bad blocks included.
/// @return 0, or the result of the failing ReadPage.
int ReadPages(SNandUtil &nand, int offset, int size, char *buffer) {
    const int pageSize = nand.m_nWriteSize;
    const int first = offset / pageSize;
    for (int i = 0; i < size / pageSize; ++i) {
        const int page = WrapAdd(first, i);
        const int count = nand.ReadPage(page, buffer + static_cast<std::ptrdiff_t>(i) * pageSize);
        if (count != pageSize) {
            fprintf(stderr, "error : read failed at %x\n", WrapMultiply(page, pageSize));
            return count;
        }
    }
    return 0;
}

/// execv takes non-const text but does not change it.
void Execute(std::vector<const char *> arguments) {
    arguments.push_back(nullptr);
    ExecuteCommand(const_cast<char *const *>(arguments.data()), true);
}

/// What an image file contains for each page.
struct ImageFormat {
    bool carriesOob; ///< a page's data is followed by its out-of-band bytes

    /// Reads the next record and warns if it is short.
    /// @return the result of `read`: 0 at the end of the file, negative on failure.
    int (*readRecord)(int file, std::vector<char> &record, int pageSize);
};

/// One read of up to the record's size.
int ReadInto(int file, std::vector<char> &record) { return static_cast<int>(read(file, record.data(), record.size())); }

int ReadPlainPage(int file, std::vector<char> &page, int pageSize) {
    const int count = ReadInto(file, page);
    if (count > 0 && count < pageSize) {
        std::fill(page.begin() + count, page.end(), kErasedByte);
        fprintf(stderr, "warning : file readsize = %d, pending to pagesize = %d\n", count, pageSize);
    }
    return count;
}

int ReadPageWithOob(int file, std::vector<char> &record, int pageSize) {
    // The buffer is not cleared: a short record keeps the tail of the previous one.
    const int count = ReadInto(file, record);
    // The end of the file counts as a short record too, and the message gives the page size without OOB.
    if (count >= 0 && static_cast<std::size_t>(count) != record.size())
        fprintf(stderr, "warning : file read datasize = %d, pending to pagesize = %d\n", count, pageSize);
    return count;
}

/// An image file that is written to flash record by record.
class ImageFile {
public:
    ImageFile(const char *path, const ImageFormat &format, const SNandUtil &nand)
        : m_format(format), m_nPageSize(nand.m_nWriteSize), m_nOobSize(format.carriesOob ? nand.m_nOobSize : 0),
          m_record(static_cast<std::size_t>(m_nPageSize) + static_cast<std::size_t>(m_nOobSize), kErasedByte),
          m_file(open(path, O_RDONLY)) {}

    /// Reads the next record; prints a line at the end of the file and on failure.
    /// @return bytes read, 0 at the end, negative on failure.
    int Next() {
        const int count = m_format.readRecord(m_file.Get(), m_record, m_nPageSize);
        if (count < 0)
            fprintf(stderr, "error : file readsize = %d, pagesize = %d\n", count, m_nPageSize);
        else if (count == 0)
            fprintf(stderr, "write file complete\n read size = %d\n", m_nBytesRead);
        else
            m_nBytesRead = WrapAdd(m_nBytesRead, count);
        return count;
    }

    /// Programs the record into a page; prints an error line on failure.
    /// @return true when the page was written.
    bool Write(SNandUtil &nand, int page) const {
        const char *data = m_record.data();
        const char *oob = m_format.carriesOob ? data + m_nPageSize : nullptr;
        const int written = nand.WritePageWithOob(page, data, m_nPageSize, oob, m_nOobSize, MTD_OPS_RAW);
        if (written != 0)
            fprintf(stderr, "error : write page return %d\n", written);
        return written == 0;
    }

private:
    ImageFormat m_format;
    int m_nPageSize;
    int m_nOobSize;
    std::vector<char> m_record;
    ScopedFd m_file;
    int m_nBytesRead = 0;
};

/// @param forPages a page command follows: refuse an unknown page size before anything is erased.
/// @return 0 when every good block of a non-empty range was erased, else negative or the failed request's result.
int EraseRange(int offset, int size, bool forPages) {
    SNandUtil nand(nTotalMtdPartition);
    if (!IsAligned(nand, offset, size))
        return -1;
    if (forPages && !HasPages(nand))
        return -1;
    int result = -1;
    // An unknown erase size makes the range empty.
    const unsigned first = nand.m_nEraseSize == 0 ? 0 : BlockOf(nand, offset);
    const unsigned end = nand.m_nEraseSize == 0 ? 0 : first + BlockOf(nand, size);
    if (first < end) {
        int erased = 0;
        const int checked = WalkGoodBlocks(nand, first, end, [&](unsigned block) {
            erased = Erase(nand, block);
            return erased == 0;
        });
        result = checked != 0 ? checked : erased;
    }
    fprintf(stderr, "erase complete\n offset=%x size=%x\n", offset, size);
    return result;
}

/// Writes a file into the good blocks of an erased range.
/// @param endPage set to the page at which the end of the file was found; unchanged when the walk ended before.
/// @return 0, or the first failure's negative result.
int WritePages(UpdateScript &script, SNandUtil &nand, int offset, int size, ImageFile &file, int &endPage) {
    const unsigned first = BlockOf(nand, offset);
    const unsigned rangeEnd = first + BlockOf(nand, size);
    // To the end of the chip: only the first read after the range shows whether the file ends there or continues.
    const unsigned bound = BlockOf(nand, nand.m_nTotalSize);
    const unsigned pagesPerBlock = PagesPerBlock(nand);
    int result = 0;
    const int checked = WalkGoodBlocks(nand, first, bound, [&](unsigned block) {
        for (unsigned i = 0; i < pagesPerBlock; ++i) {
            const int page = static_cast<int>(block * pagesPerBlock + i);
            const int count = file.Next();
            if (count == 0) {
                endPage = page;
                return false;
            }
            const bool outruns = count > 0 && block >= rangeEnd;
            if (outruns)
                fprintf(stderr, "error : file outruns the erased range at %x\n", ByteOffset(nand, block));
            if (count < 0 || outruns || !file.Write(nand, page)) {
                result = -1;
                return false;
            }
        }
        script.IncBlockWritten();
        return true;
    });
    return checked != 0 ? checked : result;
}

/// Erases a range and writes an image file into it.
int WriteImage(UpdateScript &script, int offset, int size, const char *path, const ImageFormat &format) {
    const int erased = EraseRange(offset, size, true);
    if (erased != 0)
        return erased;
    SNandUtil nand(nTotalMtdPartition);
    if (!HasPages(nand))
        return -1;
    int endPage = 0;
    int result;
    {
        // Closed before the last report: the notify script must not inherit the descriptor.
        ImageFile file(path, format, nand);
        result = WritePages(script, nand, offset, size, file, endPage);
    }
    if (endPage != 0)
        script.IncBlockWritten();
    return result;
}

/// Writes an environment block to the good blocks from `offset` on.
/// @return -1 when a page write failed; other failures end the walk and give 0.
int WriteEnvironment(UpdateScript &script, SNandUtil &nand, int offset, const UEnvTool &environment) {
    const int pageSize = nand.m_nWriteSize;
    const unsigned first = BlockOf(nand, offset);
    const unsigned pagesPerBlock = PagesPerBlock(nand);
    const char *data = environment.m_pBlock;
    int result = 0;
    WalkGoodBlocks(nand, first, first + BlockOf(nand, environment.m_nSize), [&](unsigned block) {
        if (Erase(nand, block) != 0)
            return false;
        for (unsigned i = 0; i < pagesPerBlock; ++i) {
            const int written = nand.WritePage(static_cast<int>(block * pagesPerBlock + i), data, pageSize);
            if (written != pageSize) {
                fprintf(stderr, "error : write page return %d\n", written);
                result = -1;
                return false;
            }
            data += pageSize;
        }
        script.IncBlockWritten();
        return true;
    });
    return result;
}

using Tokens = std::vector<std::string>;

/// The flash sizes needed to count a line's blocks.
struct Geometry {
    int eraseSize;
    int writeSize;
    int oobSize;
};

/// One command of the script language. A line with fewer tokens is incomplete; `fileToken` 0 means no image file.
struct Command {
    const char *name;
    std::size_t tokens;
    std::size_t fileToken;
    /// Runs a line; `path` is the image file's. A negative result stops the script.
    int (*run)(UpdateScript &script, const Tokens &tokens, const std::string &path);
    /// @return the blocks that the line will report.
    int (*count)(const Geometry &flash, const Tokens &tokens, int fileSize);
};

/// `write` and `writeoob` differ in what they do with the file only.
template <int (UpdateScript::*Operation)(int, int, const char *)>
int RunImage(UpdateScript &script, const Tokens &tokens, const std::string &path) {
    const int offset = ReadHex(tokens[1]);
    fprintf(stderr, "write %s to flash address %x\n", path.c_str(), offset);
    return (script.*Operation)(offset, ReadHex(tokens[2]), path.c_str());
}

int RunErase(UpdateScript &script, const Tokens &tokens, const std::string &) {
    // A failed erase never stops the script.
    script.CmdErase(ReadHex(tokens[1]), ReadHex(tokens[2]));
    return 0;
}

int RunSetEnv(UpdateScript &script, const Tokens &tokens, const std::string &) {
    const bool isLong = tokens.size() >= kLongSetEnvTokens;
    // The long form begins with offset and size.
    const std::size_t nameToken = isLong ? 3 : 1;
    const char *name = tokens[nameToken].c_str();
    const char *value = tokens[nameToken + 1].c_str();
    if (isLong)
        script.CmdSetEnv(ReadHex(tokens[1]), ReadHex(tokens[2]), name, value);
    else
        script.CmdSetEnv(name, value);
    // Printed after a failure too, which never stops the script.
    fprintf(stderr, "write %s = %s to env\n", name, value);
    return 0;
}

int RunUbiformat(UpdateScript &script, const Tokens &tokens, const std::string &path) {
    fprintf(stderr, "ubiformat %s to <MTD> %s\n", path.c_str(), tokens[1].c_str());
    return script.CmdUbiformat(tokens[1].c_str(), path.c_str());
}

int CountFile(const Geometry &flash, const Tokens &, int fileSize) { return BlocksWithPart(fileSize, flash.eraseSize); }

int CountRawFile(const Geometry &flash, const Tokens &, int fileSize) {
    const int blockBytes = WrapMultiply(flash.eraseSize, WrapAdd(flash.writeSize, flash.oobSize));
    return WholeBlocks(fileSize, WholeBlocks(blockBytes, flash.writeSize));
}

int CountNothing(const Geometry &, const Tokens &, int) { return 0; }

int CountEnvironment(const Geometry &flash, const Tokens &tokens, int) {
    return tokens.size() < kLongSetEnvTokens ? 0 : WholeBlocks(ReadHex(tokens[2]), flash.eraseSize);
}

constexpr Command kCommands[] = {
    {"write", 4, 3, RunImage<&UpdateScript::CmdWrite>, CountFile},
    {"writeoob", 4, 3, RunImage<&UpdateScript::CmdWriteOob>, CountRawFile},
    {"erase", 3, 0, RunErase, CountNothing},
    {"setenv", 3, 0, RunSetEnv, CountEnvironment},
    {"ubiformat", 3, 2, RunUbiformat, CountFile},
};

enum class LineState { Ready, Unknown, Incomplete, FileMissing };

/// One line of the script, resolved.
struct Line {
    std::string text;
    Tokens tokens;
    const Command *command; ///< null for an unknown one
    std::string path;       ///< of the image file; empty when the command takes none
    LineState state;
};

/// Looks up the command and the image file of a line.
Line Resolve(const UpdateScript &script, const std::string &text, Tokens tokens) {
    Line line = {text, std::move(tokens), nullptr, std::string(), LineState::Unknown};
    for (const Command &command : kCommands) {
        if (line.tokens[0] == command.name)
            line.command = &command;
    }
    if (line.command == nullptr)
        return line;
    line.state = LineState::Incomplete;
    if (line.tokens.size() < line.command->tokens)
        return line;
    line.state = LineState::Ready;
    if (line.command->fileToken == 0)
        return line;
    line.path = script.m_sScriptDir + line.tokens[line.command->fileToken];
    if (!UFile::Exist(line.path.c_str()))
        line.state = LineState::FileMissing;
    return line;
}

/// Calls `visit` with each line that is neither empty nor a comment, until `visit` returns false.
template <typename Visit> void VisitLines(const UpdateScript &script, Visit visit) {
    std::vector<std::string> lines;
    UTextUtil::Split(script.m_sScript.c_str(), kLineEnds, lines);
    for (const std::string &text : lines) {
        Tokens tokens;
        if (UTextUtil::Split(text.c_str(), kBlanks, tokens) == 0 || tokens[0].find('#') != std::string::npos)
            continue;
        if (!visit(Resolve(script, text, std::move(tokens))))
            break;
    }
}

/// A script over its limits is refused as a whole: half a line would be another command.
/// @return which limit the text exceeds, and where; empty for none.
std::string BrokenLimit(const std::string &text) {
    if (text.size() > kScriptLimit)
        return "script of " + std::to_string(text.size()) + " characters, the limit is " + std::to_string(kScriptLimit);
    std::size_t number = 1;
    for (std::size_t start = 0; start < text.size(); ++number) {
        const std::size_t end = std::min(text.find_first_of(kLineEnds, start), text.size());
        if (end - start > kLineLimit)
            return "script line " + std::to_string(number) + " of " + std::to_string(end - start) +
                   " characters, the limit is " + std::to_string(kLineLimit);
        const bool pair = text.compare(end, 2, "\r\n") == 0;
        start = end + (pair ? 2 : 1);
    }
    return std::string();
}

/// Runs one line.
/// @return false when its failure ends the script.
bool RunLine(UpdateScript &script, const Line &line) {
    switch (line.state) {
    case LineState::Unknown:
        fprintf(stderr, "Unknown script command %s\n", line.text.c_str());
        return true;
    case LineState::Incomplete:
        fprintf(stderr, "incomplete script command %s\n", line.text.c_str());
        return true;
    case LineState::FileMissing:
        fprintf(stderr, "%s doesn't exist\n", line.path.c_str());
        return true;
    case LineState::Ready:
        break;
    }
    try {
        return line.command->run(script, line.tokens, line.path) >= 0;
    } catch (const std::exception &problem) {
        fprintf(stderr, "error : %s\n", problem.what());
        return false;
    }
}

} // namespace

int GetAllPartitionNumber() {
    std::ifstream table(kMtdTable);
    if (!table.is_open())
        return -1;
    std::string line;
    while (std::getline(table, line)) {
        if (line.find(kWholeFlashName) == std::string::npos)
            continue;
        const std::size_t colon = line.find(':');
        const std::size_t digit = line.find_first_of("0123456789");
        if (digit == std::string::npos)
            return 0;
        const std::size_t length = colon == std::string::npos || colon < digit ? std::string::npos : colon - digit;
        return UTextUtil::ToInt(line.substr(digit, length).c_str(), 10);
    }
    return 0;
}

UpdateScript::UpdateScript(const char *scriptPath, const char *notifyScript, bool reboot)
    : m_nTotalBlock(0), m_nBlockWritten(0), m_nLastPercent(0), m_bReboot(reboot) {
    nTotalMtdPartition = GetAllPartitionNumber();
    m_sScript = UFile::ReadFile(scriptPath);
    const std::string path = scriptPath;
    const std::size_t slash = path.rfind('/');
    m_sScriptDir = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
    m_nTotalBlock = GetTotalBlock();
    if (notifyScript != nullptr)
        m_sNotifyScript = notifyScript;
}

int UpdateScript::Run() {
    if (m_sScript.empty())
        return -1;
    const std::string broken = BrokenLimit(m_sScript);
    if (!broken.empty()) {
        fprintf(stderr, "error : %s\n", broken.c_str());
        return -1;
    }
    VisitLines(*this, [this](const Line &line) { return RunLine(*this, line); });
    Finish();
    return 0;
}

int UpdateScript::GetTotalBlock() {
    if (m_sScript.empty() || !BrokenLimit(m_sScript).empty())
        return 0;
    const SNandUtil nand(nTotalMtdPartition);
    const Geometry flash = {nand.m_nEraseSize, nand.m_nWriteSize, nand.m_nOobSize};
    int total = 0;
    VisitLines(*this, [&](const Line &line) {
        if (line.state == LineState::Unknown)
            fprintf(stderr, "Unknown script command %s\n", line.text.c_str());
        if (line.state != LineState::Ready)
            return true;
        const int fileSize = line.path.empty() ? 0 : FileSize(line.path.c_str());
        total = WrapAdd(total, line.command->count(flash, line.tokens, fileSize));
        return true;
    });
    return total;
}

void UpdateScript::IncBlockWritten() {
    m_nBlockWritten = WrapAdd(m_nBlockWritten, 1);
    if (m_nTotalBlock == 0)
        return;
    const int percent = Quotient(WrapMultiply(100, m_nBlockWritten), m_nTotalBlock);
    if (percent == m_nLastPercent)
        return;
    m_nLastPercent = percent;
    if (m_sNotifyScript.empty())
        return;
    // Printed once, not at each percentage: a call that is too long stays too long, unless the percentage falls.
    if (!RunCommand(m_sNotifyScript + " " + std::to_string(percent)))
        m_sNotifyScript.clear();
}

void UpdateScript::Finish() {
    sync();
    sync();
    if (m_bReboot) {
        sleep(3);
        RunCommand("reboot");
    }
}

int UpdateScript::CmdErase(int offset, int size) { return EraseRange(offset, size, false); }

int UpdateScript::CmdWrite(int offset, int size, const char *path) {
    return WriteImage(*this, offset, size, path, {false, ReadPlainPage});
}

int UpdateScript::CmdWriteOob(int offset, int size, const char *path) {
    return WriteImage(*this, offset, size, path, {true, ReadPageWithOob});
}

int UpdateScript::CmdSetEnv(const char *name, const char *value) {
    RunCommand(std::string("/bin/bootvars -s ") + name + " " + value);
    return 0;
}

int UpdateScript::CmdSetEnv(int offset, int size, const char *name, const char *value) {
    SNandUtil nand(nTotalMtdPartition);
    if (!IsAligned(nand, offset, size) || !HasPages(nand))
        return -1;
    if (size <= 0) {
        PrintInvalidSize(nand, size);
        return -1;
    }
    // Not initialised: a size beyond the chip must fail at the first unreadable page without using up the memory.
    std::unique_ptr<char[]> flash(new char[static_cast<std::size_t>(size)]);
    const int read = ReadPages(nand, offset, size, flash.get());
    if (read != 0)
        return read;
    UEnvTool environment(flash.get(), size);
    if (environment.SetEnv(name, value) != 0) {
        fprintf(stderr, "error : environment of %d bytes is full, %s not set\n", size, name);
        return -1;
    }
    flash.reset();
    return WriteEnvironment(*this, nand, offset, environment);
}

int UpdateScript::CmdUbiformat(const char *device, const char *path) {
    // Kept to the end: the whole flash stays open while the outside programs run and is synced last.
    const SNandUtil nand(nTotalMtdPartition);
    const int size = FileSize(path);
    IncBlockWritten();
    PrepareUBI();
    if (access(device, R_OK) != 0) {
        fprintf(stderr, "dev %s is not exist\n", device);
        return -1;
    }
    if (access(path, R_OK) != 0) {
        fprintf(stderr, "%s is not exist\n", path);
        return -1;
    }
    if (access(kPrepareScript, R_OK) != 0)
        return -1;
    PrintLine("prepare ubi ...");
    Execute({kShell, "sh", kPrepareScript});
    IncBlockWritten();
    Execute({kUbiformat, "ubiformat", device, "-y", "-f", path});
    if (nand.m_nEraseSize != 0)
        m_nBlockWritten = WrapAdd(m_nBlockWritten, WrapAdd(Quotient(size, nand.m_nEraseSize), -kUbiformatHeldBack));
    IncBlockWritten();
    return 0;
}
