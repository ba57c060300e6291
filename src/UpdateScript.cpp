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

/// The programs of an `ubiformat` line come with the update, at fixed places.
constexpr const char *kShell = "/bin/sh";
constexpr const char *kPrepareScript = "/tmp/update/prepare.sh";
constexpr const char *kUbiformat = "/tmp/update/ubiformat";

/// Behind the format the image's blocks less these count as written; three more are reported singly.
constexpr int kUbiformatHeldBack = 10;

/// Device number of the whole flash; set before anything opens a device.
int nTotalMtdPartition = 12;

int ReadHex(const std::string &token) { return UTextUtil::ToInt(token.c_str(), 16); }

/// Sums and products wrap at 32 bits as the device's do, without undefined behaviour on the way.
int WrapAdd(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }
int WrapMultiply(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) * static_cast<unsigned>(b)); }

/// 32-bit division cut toward zero; 64 bits on the way, since -0x80000000 / -1 has no 32-bit result.
int Quotient(int a, int b) { return static_cast<int>(static_cast<long long>(a) / b); }

/// The low 32 bits of a file's size: sizes are 32-bit signed throughout.
int FileSize(const char *path) { return static_cast<int>(static_cast<unsigned>(UFile::GetFileSize(path))); }

/// Divisions by a size that sysfs didn't tell count nothing.
int WholeBlocks(int size, int block) { return block == 0 ? 0 : Quotient(size, block); }

int BlocksWithPart(int size, int block) {
    const bool part = block != 0 && static_cast<long long>(size) % block != 0;
    return WholeBlocks(size, block) + (part ? 1 : 0);
}

/// A descriptor that closes itself. It may be -1: the first read tells, and closing that does no harm.
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

/// Calls `visit` with each good block from `first` up to, not including, `end`, until it gives false.
/// Bad blocks are passed over with a warning.
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

/// Erases one block and says so when it fails.
int Erase(SNandUtil &nand, unsigned block) {
    const int result = nand.EraseBlock(static_cast<int>(block));
    if (result != 0)
        fprintf(stderr, "error : erase failed at %x\n", ByteOffset(nand, block));
    return result;
}

void PrintInvalidSize(const SNandUtil &nand, int size) {
    fprintf(stderr, "error : invalid size=%d, blocksize = %d\n", size, nand.m_nEraseSize);
}

/// The alignment tests of all commands: offset first, then size.
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

/// Page commands divide by both sizes.
bool HasPages(const SNandUtil &nand) {
    if (nand.m_nWriteSize > 0 && nand.m_nWriteSize <= nand.m_nEraseSize && nand.m_nOobSize >= 0)
        return true;
    fprintf(stderr, "error : unknown flash geometry, blocksize = %d, pagesize = %d\n", nand.m_nEraseSize,
            nand.m_nWriteSize);
    return false;
}

unsigned PagesPerBlock(const SNandUtil &nand) { return static_cast<unsigned>(nand.m_nEraseSize / nand.m_nWriteSize); }

/// Reads `size` bytes of flash page by page, bad blocks like all others.
/// @return 0, or what the failing ReadPage gave.
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

/// execv asks for changeable text and changes none.
void Execute(std::vector<const char *> arguments) {
    arguments.push_back(nullptr);
    ExecuteCommand(const_cast<char *const *>(arguments.data()), true);
}

/// What an image file holds for each page.
struct ImageFormat {
    bool carriesOob; ///< a page's out-of-band bytes stand behind its data

    /// Reads the next record and warns of a short one.
    /// @return what `read` gave: the end of the file is 0, a failure is negative.
    int (*readRecord)(int file, std::vector<char> &record, int pageSize);
};

/// One read of up to the record's size, whatever becomes of it.
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
    // Not cleared in between: a short record keeps the tail of the one before.
    const int count = ReadInto(file, record);
    // The end of the file is told as a short record too, and the number is the page's.
    if (count >= 0 && static_cast<std::size_t>(count) != record.size())
        fprintf(stderr, "warning : file read datasize = %d, pending to pagesize = %d\n", count, pageSize);
    return count;
}

/// An image file that goes to flash record by record.
class ImageFile {
public:
    ImageFile(const char *path, const ImageFormat &format, const SNandUtil &nand)
        : m_format(format), m_nPageSize(nand.m_nWriteSize), m_nOobSize(format.carriesOob ? nand.m_nOobSize : 0),
          m_record(static_cast<std::size_t>(m_nPageSize) + static_cast<std::size_t>(m_nOobSize), kErasedByte),
          m_file(open(path, O_RDONLY)) {}

    /// Reads the next record; tells the end of the file and a failure.
    /// @return bytes read, 0 at the end, negative for a failure.
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

    /// Programs the record into a page and says so when that fails.
    /// @return true when it is written.
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

/// @param forPages a page command follows: refuse unknown page sizes while nothing is erased yet.
/// @return 0 when every block of a non-empty range was erased or passed over.
int EraseRange(int offset, int size, bool forPages) {
    SNandUtil nand(nTotalMtdPartition);
    if (!IsAligned(nand, offset, size))
        return -1;
    if (forPages && !HasPages(nand))
        return -1;
    int result = -1;
    // A size that sysfs didn't tell makes an empty range.
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

/// Lays a file down in the good blocks of an erased range.
/// @param endPage gets the page at which the file's end was found; it stays as it is when it wasn't.
/// @return 0, or the first failure's negative result.
int WritePages(UpdateScript &script, SNandUtil &nand, int offset, int size, ImageFile &file, int &endPage) {
    const unsigned first = BlockOf(nand, offset);
    const unsigned rangeEnd = first + BlockOf(nand, size);
    // To the end of the chip: only behind the range it shows whether the file ended with it or goes on.
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
        // Closed before the last report: the notify script is not to inherit it.
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

enum class UpdateScript::LineState { Ready, Unknown, Incomplete, FileMissing };

/// One line of the script and what it asks for.
struct UpdateScript::Line {
    std::string text;
    Tokens tokens;
    const Command *command; ///< null for an unknown one
    std::string path;       ///< of the image file; empty when the command takes none
    LineState state;
};

/// What a script line needs of the flash to be counted.
struct UpdateScript::Geometry {
    int eraseSize;
    int writeSize;
    int oobSize;
};

/// One command of the script language. A line with fewer tokens is incomplete; `fileToken` 0 means no image file.
struct UpdateScript::Command {
    const char *name;
    std::size_t tokens;
    std::size_t fileToken;
    int (UpdateScript::*run)(const Tokens &tokens, const std::string &path); ///< negative stops the script
    int (*count)(const Geometry &flash, const Tokens &tokens, int fileSize); ///< blocks it will report
};

const UpdateScript::Command UpdateScript::kCommands[] = {
    {"write", 4, 3, &UpdateScript::RunImage<&UpdateScript::CmdWrite>,
     [](const Geometry &flash, const Tokens &, int fileSize) { return BlocksWithPart(fileSize, flash.eraseSize); }},
    {"writeoob", 4, 3, &UpdateScript::RunImage<&UpdateScript::CmdWriteOob>,
     [](const Geometry &flash, const Tokens &, int fileSize) {
         const int blockBytes = WrapMultiply(flash.eraseSize, WrapAdd(flash.writeSize, flash.oobSize));
         return WholeBlocks(fileSize, WholeBlocks(blockBytes, flash.writeSize));
     }},
    {"erase", 3, 0, &UpdateScript::RunErase, [](const Geometry &, const Tokens &, int) { return 0; }},
    {"setenv", 3, 0, &UpdateScript::RunSetEnv,
     [](const Geometry &flash, const Tokens &tokens, int) {
         return tokens.size() < kLongSetEnvTokens ? 0 : WholeBlocks(ReadHex(tokens[2]), flash.eraseSize);
     }},
    {"ubiformat", 3, 2, &UpdateScript::RunUbiformat,
     [](const Geometry &flash, const Tokens &, int fileSize) { return BlocksWithPart(fileSize, flash.eraseSize); }},
};

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
    const std::string broken = BrokenLimit();
    if (!broken.empty()) {
        fprintf(stderr, "error : %s\n", broken.c_str());
        return -1;
    }
    VisitLines([this](const Line &line) { return RunLine(line); });
    Finish();
    return 0;
}

int UpdateScript::GetTotalBlock() {
    if (m_sScript.empty() || !BrokenLimit().empty())
        return 0;
    const SNandUtil nand(nTotalMtdPartition);
    const Geometry flash = {nand.m_nEraseSize, nand.m_nWriteSize, nand.m_nOobSize};
    int total = 0;
    VisitLines([&](const Line &line) {
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
    // Said once, not at each percentage: a call that is too long stays so, but for a fall to fewer digits.
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

/// Finds out what a line asks for.
UpdateScript::Line UpdateScript::Resolve(const std::string &text, Tokens tokens) const {
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
    line.path = m_sScriptDir + line.tokens[line.command->fileToken];
    if (!UFile::Exist(line.path.c_str()))
        line.state = LineState::FileMissing;
    return line;
}

/// Calls `visit` with each line that isn't empty or a comment, until it gives false.
template <typename Visit> void UpdateScript::VisitLines(Visit visit) const {
    std::vector<std::string> lines;
    UTextUtil::Split(m_sScript.c_str(), kLineEnds, lines);
    for (const std::string &text : lines) {
        Tokens tokens;
        if (UTextUtil::Split(text.c_str(), kBlanks, tokens) == 0 || tokens[0].find('#') != std::string::npos)
            continue;
        if (!visit(Resolve(text, std::move(tokens))))
            break;
    }
}

/// A script over its limits is refused whole: half a line would be another command.
/// @return which limit it breaks, and where; empty for none.
std::string UpdateScript::BrokenLimit() const {
    if (m_sScript.size() > kScriptLimit)
        return "script of " + std::to_string(m_sScript.size()) + " characters, the limit is " +
               std::to_string(kScriptLimit);
    std::size_t number = 1;
    for (std::size_t start = 0; start < m_sScript.size(); ++number) {
        const std::size_t end = std::min(m_sScript.find_first_of(kLineEnds, start), m_sScript.size());
        if (end - start > kLineLimit)
            return "script line " + std::to_string(number) + " of " + std::to_string(end - start) +
                   " characters, the limit is " + std::to_string(kLineLimit);
        const bool pair = m_sScript.compare(end, 2, "\r\n") == 0;
        start = end + (pair ? 2 : 1);
    }
    return std::string();
}

/// Carries out one line.
/// @return false when its failure ends the script.
bool UpdateScript::RunLine(const Line &line) {
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
        return (this->*line.command->run)(line.tokens, line.path) >= 0;
    } catch (const std::exception &problem) {
        fprintf(stderr, "error : %s\n", problem.what());
        return false;
    }
}

int UpdateScript::RunErase(const Tokens &tokens, const std::string &) {
    // A failed erase never stops the script.
    CmdErase(ReadHex(tokens[1]), ReadHex(tokens[2]));
    return 0;
}

/// `write` and `writeoob` differ in what they do with the file only.
template <int (UpdateScript::*Command)(int, int, const char *)>
int UpdateScript::RunImage(const Tokens &tokens, const std::string &path) {
    const int offset = ReadHex(tokens[1]);
    fprintf(stderr, "write %s to flash address %x\n", path.c_str(), offset);
    return (this->*Command)(offset, ReadHex(tokens[2]), path.c_str());
}

int UpdateScript::RunSetEnv(const Tokens &tokens, const std::string &) {
    const bool isLong = tokens.size() >= kLongSetEnvTokens;
    // In the long form offset and size stand in front.
    const std::size_t nameToken = isLong ? 3 : 1;
    const char *name = tokens[nameToken].c_str();
    const char *value = tokens[nameToken + 1].c_str();
    if (isLong)
        CmdSetEnv(ReadHex(tokens[1]), ReadHex(tokens[2]), name, value);
    else
        CmdSetEnv(name, value);
    // Said whatever came of it; a failure never stops the script.
    fprintf(stderr, "write %s = %s to env\n", name, value);
    return 0;
}

int UpdateScript::RunUbiformat(const Tokens &tokens, const std::string &path) {
    fprintf(stderr, "ubiformat %s to <MTD> %s\n", path.c_str(), tokens[1].c_str());
    return CmdUbiformat(tokens[1].c_str(), path.c_str());
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
    // Not filled: a size beyond the chip must fail at its first unreadable page, not take the device's memory.
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
    // Kept to the end: the whole flash stays open while the outside programs run, and is synced last.
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
