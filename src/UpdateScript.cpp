#include "UpdateScript.h"

#include "SNandUtil.h"
#include "UFile.h"
#include "UTextUtil.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <mtd/mtd-user.h>
#include <unistd.h>

namespace {

constexpr const char *kMtdTable = "/proc/mtd";
constexpr const char *kWholeFlashName = "all";
constexpr const char *kLineEnds = "\r\n";
constexpr const char *kBlanks = " \f\n\t\r\v";
constexpr std::size_t kScriptLimit = 4095;
constexpr std::size_t kLineLimit = 255;
constexpr char kErasedByte = '\xFF';

/// Device number of the whole flash; set before anything opens a device.
int nTotalMtdPartition = 12;

int ReadHex(const std::string &token) { return UTextUtil::ToInt(token.c_str(), 16); }

/// Sums and products wrap at 32 bits as the device's do, without undefined behaviour on the way.
int WrapAdd(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }
int WrapMultiply(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) * static_cast<unsigned>(b)); }

/// 32-bit division cut toward zero; 64 bits on the way, since -0x80000000 / -1 has no 32-bit result.
int Quotient(int a, int b) { return static_cast<int>(static_cast<long long>(a) / b); }

/// Divisions by a size that sysfs didn't tell count nothing.
int BlocksWithPart(int size, int block) {
    if (block == 0)
        return 0;
    const bool part = static_cast<long long>(size) % block != 0;
    return Quotient(size, block) + (part ? 1 : 0);
}

/// A descriptor that closes itself. It may be -1: the first read tells.
class ScopedFd {
public:
    explicit ScopedFd(int fd) : m_nFd(fd) {}
    ~ScopedFd() {
        if (m_nFd >= 0)
            close(m_nFd);
    }
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

/// The alignment tests of all commands: offset first, then size.
bool IsAligned(const SNandUtil &nand, int offset, int size) {
    const unsigned mask = static_cast<unsigned>(nand.m_nEraseSize) - 1;
    if ((static_cast<unsigned>(offset) & mask) != 0) {
        fprintf(stderr, "error : invalid offset=%d, blocksize = %d\n", offset, nand.m_nEraseSize);
        return false;
    }
    if ((static_cast<unsigned>(size) & mask) != 0) {
        fprintf(stderr, "error : invalid size=%d, blocksize = %d\n", size, nand.m_nEraseSize);
        return false;
    }
    return true;
}

/// Page commands divide by both sizes.
bool HasPages(const SNandUtil &nand) {
    if (nand.m_nEraseSize > 0 && nand.m_nWriteSize > 0)
        return true;
    fprintf(stderr, "error : unknown flash geometry, blocksize = %d, pagesize = %d\n", nand.m_nEraseSize,
            nand.m_nWriteSize);
    return false;
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
    {"write", 4, 3, &UpdateScript::RunWrite,
     [](const Geometry &flash, const Tokens &, int fileSize) { return BlocksWithPart(fileSize, flash.eraseSize); }},
    {"erase", 3, 0, &UpdateScript::RunErase, [](const Geometry &, const Tokens &, int) { return 0; }},
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
    if (m_sScript.empty() || !FitsLimits(false))
        return -1;
    VisitLines([this](const std::string &line, const Tokens &tokens) { return RunLine(line, tokens); });
    Finish();
    return 0;
}

int UpdateScript::GetTotalBlock() {
    if (m_sScript.empty() || !FitsLimits(true))
        return 0;
    const SNandUtil nand(nTotalMtdPartition);
    const Geometry flash = {nand.m_nEraseSize, nand.m_nWriteSize, nand.m_nOobSize};
    int total = 0;
    VisitLines([&](const std::string &line, const Tokens &tokens) {
        const Command *command = FindCommand(tokens[0]);
        if (command == nullptr) {
            fprintf(stderr, "Unknown script command %s\n", line.c_str());
            return true;
        }
        if (tokens.size() < command->tokens)
            return true;
        int fileSize = 0;
        if (command->fileToken != 0) {
            const std::string path = m_sScriptDir + tokens[command->fileToken];
            if (!UFile::Exist(path.c_str()))
                return true;
            // The low 32 bits: sizes are 32-bit signed throughout.
            fileSize = static_cast<int>(static_cast<unsigned>(UFile::GetFileSize(path.c_str())));
        }
        total = WrapAdd(total, command->count(flash, tokens, fileSize));
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
    const std::string command = m_sNotifyScript + " " + std::to_string(percent);
    if (command.size() > kCommandLimit) {
        fprintf(stderr, "error : command too long: %s\n", command.c_str());
        m_sNotifyScript.clear();
        return;
    }
    static_cast<void>(system(command.c_str()));
}

void UpdateScript::Finish() {
    sync();
    sync();
    if (m_bReboot) {
        sleep(3);
        static_cast<void>(system("reboot"));
    }
}

const UpdateScript::Command *UpdateScript::FindCommand(const std::string &name) {
    for (const Command &command : kCommands) {
        if (name == command.name)
            return &command;
    }
    return nullptr;
}

/// Calls `visit` with each line that holds a command, and its tokens, until it gives false.
template <typename Visit> void UpdateScript::VisitLines(Visit visit) const {
    std::vector<std::string> lines;
    UTextUtil::Split(m_sScript.c_str(), kLineEnds, lines);
    for (const std::string &line : lines) {
        Tokens tokens;
        if (UTextUtil::Split(line.c_str(), kBlanks, tokens) == 0 || tokens[0].find('#') != std::string::npos)
            continue;
        if (!visit(line, tokens))
            break;
    }
}

/// A script over its limits is refused whole: half a line would be another command.
bool UpdateScript::FitsLimits(bool quiet) const {
    if (m_sScript.size() > kScriptLimit) {
        if (!quiet)
            fprintf(stderr, "error : script of %zu characters, the limit is %zu\n", m_sScript.size(), kScriptLimit);
        return false;
    }
    std::size_t number = 1;
    std::size_t start = 0;
    while (start < m_sScript.size()) {
        std::size_t end = m_sScript.find_first_of(kLineEnds, start);
        if (end == std::string::npos)
            end = m_sScript.size();
        if (end - start > kLineLimit) {
            if (!quiet)
                fprintf(stderr, "error : script line %zu of %zu characters, the limit is %zu\n", number, end - start,
                        kLineLimit);
            return false;
        }
        const bool pair = m_sScript.compare(end, 2, "\r\n") == 0;
        start = end + (pair ? 2 : 1);
        ++number;
    }
    return true;
}

/// Carries out one line.
/// @return false when its failure ends the script.
bool UpdateScript::RunLine(const std::string &line, const Tokens &tokens) {
    const Command *command = FindCommand(tokens[0]);
    if (command == nullptr) {
        fprintf(stderr, "Unknown script command %s\n", line.c_str());
        return true;
    }
    if (tokens.size() < command->tokens) {
        fprintf(stderr, "incomplete script command %s\n", line.c_str());
        return true;
    }
    std::string path;
    if (command->fileToken != 0) {
        path = m_sScriptDir + tokens[command->fileToken];
        if (!UFile::Exist(path.c_str())) {
            fprintf(stderr, "%s doesn't exist\n", path.c_str());
            return true;
        }
    }
    try {
        return (this->*command->run)(tokens, path) >= 0;
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

int UpdateScript::RunWrite(const Tokens &tokens, const std::string &path) {
    const int offset = ReadHex(tokens[1]);
    fprintf(stderr, "write %s to flash address %x\n", path.c_str(), offset);
    return CmdWrite(offset, ReadHex(tokens[2]), path.c_str());
}

int UpdateScript::CmdErase(int offset, int size) { return EraseRange(offset, size, false); }

/// @param forPages a page command follows: refuse unknown page sizes while nothing is erased yet.
int UpdateScript::EraseRange(int offset, int size, bool forPages) {
    SNandUtil nand(nTotalMtdPartition);
    if (!IsAligned(nand, offset, size))
        return -1;
    if (forPages && !HasPages(nand))
        return -1;
    int result = -1;
    if (nand.m_nEraseSize != 0 && BlockOf(nand, size) != 0) {
        const unsigned first = BlockOf(nand, offset);
        int erased = 0;
        const int checked = WalkGoodBlocks(nand, first, first + BlockOf(nand, size), [&](unsigned block) {
            erased = Erase(nand, block);
            return erased == 0;
        });
        result = checked != 0 ? checked : erased;
    }
    fprintf(stderr, "erase complete\n offset=%x size=%x\n", offset, size);
    return result;
}

int UpdateScript::CmdWrite(int offset, int size, const char *path) {
    const int erased = EraseRange(offset, size, true);
    if (erased != 0)
        return erased;
    SNandUtil nand(nTotalMtdPartition);
    if (!HasPages(nand))
        return -1;

    const int pageSize = nand.m_nWriteSize;
    std::vector<char> page(static_cast<std::size_t>(pageSize));
    const ScopedFd file(open(path, O_RDONLY));
    const unsigned first = BlockOf(nand, offset);
    const unsigned rangeEnd = first + BlockOf(nand, size);
    // The bound is the end of the chip, not of the erased range: bad blocks push the data back.
    const unsigned bound = BlockOf(nand, nand.m_nTotalSize);
    const unsigned pagesPerBlock = static_cast<unsigned>(nand.m_nEraseSize / pageSize);
    int bytesRead = 0;
    int result = 0;

    const int checked = WalkGoodBlocks(nand, first, bound, [&](unsigned block) {
        for (unsigned i = 0; i < pagesPerBlock; ++i) {
            const int number = static_cast<int>(block * pagesPerBlock + i);
            std::fill(page.begin(), page.end(), kErasedByte);
            const int count = static_cast<int>(read(file.Get(), page.data(), page.size()));
            if (count < 0) {
                fprintf(stderr, "error : file readsize = %d, pagesize = %d\n", count, pageSize);
                result = -1;
                return false;
            }
            if (count == 0) {
                fprintf(stderr, "write file complete\n read size = %d\n", bytesRead);
                if (number != 0)
                    IncBlockWritten();
                return false;
            }
            if (count < pageSize)
                fprintf(stderr, "warning : file readsize = %d, pending to pagesize = %d\n", count, pageSize);
            bytesRead = WrapAdd(bytesRead, count);
            if (block >= rangeEnd) {
                fprintf(stderr, "error : file outruns the erased range at %x\n", ByteOffset(nand, block));
                result = -1;
                return false;
            }
            const int written = nand.WritePageWithOob(number, page.data(), pageSize, nullptr, 0, MTD_OPS_RAW);
            if (written != 0) {
                fprintf(stderr, "error : write page return %d\n", written);
                result = -1;
                return false;
            }
        }
        IncBlockWritten();
        return true;
    });
    return checked != 0 ? checked : result;
}
