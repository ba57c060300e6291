#include "chip/ChipFile.h"

#include "base/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

/// What `path`.chip begins with; page states and block states follow it.
struct Header {
    char magic[16];
    NandGeometry geometry;
    Ecc ecc;
};
constexpr char kMagic[] = "flashsim chip 1";
static_assert(sizeof kMagic == sizeof Header::magic);

std::string StatesPath(const std::string &path) { return path + ".chip"; }

std::uint64_t StatesSize(const NandGeometry &geometry) {
    return sizeof(Header) + std::uint64_t{geometry.Pages()} + geometry.Blocks();
}

Header &HeaderOf(const SharedFile &states) { return *reinterpret_cast<Header *>(states.Data()); }

NandChip::Memory MemoryOf(const SharedFile &states, const SharedFile &cells, const SharedFile *sums) {
    std::uint8_t *pageStates = states.Data() + sizeof(Header);
    return {cells.Data(), pageStates, pageStates + HeaderOf(states).geometry.Pages(),
            sums != nullptr ? reinterpret_cast<std::uint64_t *>(sums->Data()) : nullptr};
}

std::string SumsPath(const std::string &path) { return path + ".sums"; }

std::uint64_t SumsSize(const NandGeometry &geometry) {
    return (std::uint64_t{geometry.Pages()} + geometry.Blocks()) * sizeof(std::uint64_t);
}

SharedFile CheckStates(SharedFile states, const std::string &path) {
    if (states.Size() < sizeof(Header) || std::memcmp(HeaderOf(states).magic, kMagic, sizeof kMagic) != 0)
        throw std::runtime_error(StatesPath(path) + ": isn't the description of a simulated chip");
    const Header &header = HeaderOf(states);
    const bool known = header.ecc == Ecc::Host || header.ecc == Ecc::Chip;
    if (!known || header.geometry.Problem(header.ecc) != nullptr || states.Size() != StatesSize(header.geometry))
        throw std::runtime_error(StatesPath(path) + ": is damaged");
    return states;
}

void CheckCells(const SharedFile &cells, const std::string &path, const NandGeometry &geometry) {
    if (cells.Size() != geometry.RawSize())
        throw std::runtime_error(path + ": has " + std::to_string(cells.Size()) + " bytes, its chip has " +
                                 std::to_string(geometry.RawSize()));
}

std::optional<SharedFile> OpenSums(const std::string &path, const NandGeometry &geometry) {
    if (!ChipFile::HasSums(path))
        return {};
    SharedFile sums = SharedFile::Open(SumsPath(path));
    if (sums.Size() != SumsSize(geometry))
        throw std::runtime_error(SumsPath(path) + ": is damaged");
    return sums;
}

/// @return that of the file which is replaced, or of a new one.
mode_t KeptMode(const std::string &path) {
    constexpr mode_t kNew = 0666;
    constexpr mode_t kBits = 07777;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0)
        return status.st_mode & kBits;
    const mode_t mask = umask(0);
    umask(mask);
    return kNew & ~mask;
}

/// Names of files that Keep has written whole, and of those that it is writing.
std::string WholePath(const std::string &path) { return path + ".new"; }
std::string PartPath(const std::string &path) { return path + ".part"; }

void Rename(const std::string &from, const std::string &to) { Check(rename(from.c_str(), to.c_str()), to); }

/// Waits until a file is on the disk. Where that can't be had, as in memory, nothing is lost by going on.
void SyncFile(const std::string &path) {
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    fsync(file.Get());
}

} // namespace

void ChipFile::Create(const std::string &path, const NandGeometry &geometry, Ecc ecc,
                      const std::vector<std::uint32_t> &factoryBadBlocks) {
    if (const char *problem = geometry.Problem(ecc))
        throw std::runtime_error(problem);
    for (const std::uint32_t block : factoryBadBlocks) {
        if (block >= geometry.Blocks())
            throw std::runtime_error("bad block " + std::to_string(block) + " isn't on the chip, which has " +
                                     std::to_string(geometry.Blocks()) + " blocks");
    }
    // Erased pages and good blocks.
    const SharedFile states = SharedFile::CreateFull(StatesPath(path), StatesSize(geometry), 0);
    const SharedFile cells = SharedFile::CreateFull(path, geometry.RawSize(), 0xFF);
    Header &header = HeaderOf(states);
    header.geometry = geometry;
    header.ecc = ecc;
    NandChip chip(geometry, ecc, MemoryOf(states, cells, nullptr));
    for (const std::uint32_t block : factoryBadBlocks)
        chip.MarkBad(block);
    // Last: a creation that was ended early leaves no chip.
    std::memcpy(header.magic, kMagic, sizeof kMagic);
}

void ChipFile::Copy(const std::string &from, const std::string &to) {
    const ChipFile source(from);
    SharedFile::Copy(source.m_cells, to);
    SharedFile::Copy(source.m_states, StatesPath(to));
}

void ChipFile::AddSums(const std::string &path) {
    {
        const ChipFile file(path);
        SharedFile::CreateFull(SumsPath(path), SumsSize(file.Chip().Geometry()), 0);
    }
    ChipFile(path).Chip().SumAll();
}

bool ChipFile::HasSums(const std::string &path) { return access(SumsPath(path).c_str(), F_OK) == 0; }

void ChipFile::Keep(const std::string &from, const std::string &to) {
    const ChipFile source(from);
    SharedFile::Copy(source.m_cells, PartPath(to));
    SharedFile::Copy(source.m_states, PartPath(StatesPath(to)));
    const mode_t mode = KeptMode(to);
    Check(chmod(PartPath(to).c_str(), mode), to);
    Check(chmod(PartPath(StatesPath(to)).c_str(), mode), to);
    SyncFile(PartPath(to));
    SyncFile(PartPath(StatesPath(to)));
    // A chip without states is one that these two names replace; there are both of them or it is none.
    Rename(PartPath(to), WholePath(to));
    Rename(PartPath(StatesPath(to)), WholePath(StatesPath(to)));
    unlink(StatesPath(to).c_str());
    Recover(to);
}

void ChipFile::Recover(const std::string &path) {
    const bool isReplaced =
        access(StatesPath(path).c_str(), F_OK) != 0 && access(WholePath(StatesPath(path)).c_str(), F_OK) == 0;
    for (const std::string &file : {path, StatesPath(path)}) {
        unlink(PartPath(file).c_str());
        if (!isReplaced)
            unlink(WholePath(file).c_str());
        else if (access(WholePath(file).c_str(), F_OK) == 0)
            Rename(WholePath(file), file);
    }
}

ScopedFd ChipFile::AwaitTurn(const std::string &path) {
    const std::string folder = std::filesystem::absolute(path).parent_path();
    ScopedFd turn(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Where locks aren't to be had, what is wrong with the folder shows when the chip is made.
    if (turn.Get() >= 0)
        flock(turn.Get(), LOCK_EX);
    return turn;
}

ScopedFd ChipFile::Reserve(const std::string &path, Usage usage) {
    ScopedFd right(open(StatesPath(path).c_str(), O_RDWR | O_CLOEXEC));
    if (right.Get() < 0)
        throw SystemError(StatesPath(path));
    if (flock(right.Get(), (usage == Usage::Read ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw std::runtime_error(path + ": another run has the chip");
    return right;
}

// In braces: the states are opened and checked first, as what is wrong with them says most.
ChipFile::ChipFile(const std::string &path)
    : ChipFile{CheckStates(SharedFile::Open(StatesPath(path)), path), SharedFile::Open(path), path} {
    CheckCells(m_cells, path, m_chip.Geometry());
}

ChipFile ChipFile::OpenPrivate(const std::string &path) {
    ChipFile file{CheckStates(SharedFile::OpenPrivate(StatesPath(path)), path), SharedFile::OpenPrivate(path), ""};
    CheckCells(file.m_cells, path, file.m_chip.Geometry());
    return file;
}

/// @param sumsOf path of the chip whose checksums are kept; empty for none
ChipFile::ChipFile(SharedFile states, SharedFile cells, const std::string &sumsOf)
    : m_states(std::move(states)), m_cells(std::move(cells)),
      m_sums(sumsOf.empty() ? std::nullopt : OpenSums(sumsOf, HeaderOf(m_states).geometry)),
      m_chip(HeaderOf(m_states).geometry, HeaderOf(m_states).ecc,
             MemoryOf(m_states, m_cells, m_sums ? &*m_sums : nullptr)) {}
