#include "chip/ChipFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <system_error>

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

NandChip::Memory MemoryOf(const SharedFile &states, const SharedFile &cells) {
    std::uint8_t *pageStates = states.Data() + sizeof(Header);
    return {cells.Data(), pageStates, pageStates + HeaderOf(states).geometry.Pages()};
}

SharedFile OpenStates(const std::string &path) {
    SharedFile states = SharedFile::Open(StatesPath(path));
    if (states.Size() < sizeof(Header) || std::memcmp(HeaderOf(states).magic, kMagic, sizeof kMagic) != 0)
        throw std::runtime_error(StatesPath(path) + ": isn't the description of a simulated chip");
    const Header &header = HeaderOf(states);
    const bool known = header.ecc == Ecc::Host || header.ecc == Ecc::Chip;
    if (!known || header.geometry.Problem(header.ecc) != nullptr || states.Size() != StatesSize(header.geometry))
        throw std::runtime_error(StatesPath(path) + ": is damaged");
    return states;
}

SharedFile OpenCells(const std::string &path, const NandGeometry &geometry) {
    SharedFile cells = SharedFile::Open(path);
    if (cells.Size() != geometry.RawSize())
        throw std::runtime_error(path + ": has " + std::to_string(cells.Size()) + " bytes, its chip has " +
                                 std::to_string(geometry.RawSize()));
    return cells;
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
    NandChip chip(geometry, ecc, MemoryOf(states, cells));
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
        throw std::system_error(errno, std::generic_category(), StatesPath(path));
    if (flock(right.Get(), (usage == Usage::Read ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw std::runtime_error(path + ": another run has the chip");
    return right;
}

ChipFile::ChipFile(const std::string &path)
    : m_states(OpenStates(path)), m_cells(OpenCells(path, HeaderOf(m_states).geometry)),
      m_chip(HeaderOf(m_states).geometry, HeaderOf(m_states).ecc, MemoryOf(m_states, m_cells)) {}
