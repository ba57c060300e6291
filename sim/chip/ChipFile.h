#pragma once

#include "base/ScopedFd.h"
#include "base/SharedFile.h"
#include "chip/NandChip.h"

#include <optional>
#include <string>
#include <vector>

/// A chip kept in files, shared by every process that opens them.
///
/// `path` holds the cells alone: pages and OOB interleaved, as `nanddump --oob` lays them. `path`.chip beside it holds
/// geometry, ECC mode, bad blocks and the states of pages and blocks. What one process changes, the others see at
/// once; nothing is copied to open or to close. The cells are only changed through a chip, never with other tools.
class ChipFile {
public:
    enum class Usage { Read, Change };

    /// Makes a chip fresh from the factory; files that stand there are replaced.
    /// @param factoryBadBlocks block numbers
    /// @throw std::runtime_error with one line when the geometry makes no chip, a block isn't on it or a file can't
    ///        be written
    static void Create(const std::string &path, const NandGeometry &geometry, Ecc ecc,
                       const std::vector<std::uint32_t> &factoryBadBlocks);

    /// Makes a second chip that is what one that nobody changes is; files that stand there are replaced.
    /// @throw std::runtime_error with one line
    static void Copy(const std::string &from, const std::string &to);

    /// Makes the checksum file of a chip beside it: whoever opens the chip from then on keeps it, for MisfitPages.
    /// @throw SystemError
    static void AddSums(const std::string &path);
    static bool HasSums(const std::string &path);

    /// Replaces a chip by what another one is, so that at any time, even after a crash or a power failure, `to` is
    /// whole: as it was, as it becomes, or, between the two, made whole by Recover.
    /// @throw std::runtime_error with one line
    static void Keep(const std::string &from, const std::string &to);

    /// Ends a Keep that was cut short, and removes what it left. To be called before a kept chip is opened.
    static void Recover(const std::string &path);

    /// Waits until no other process makes a chip in the same folder, and keeps them from it.
    /// @return owner of that right
    static ScopedFd AwaitTurn(const std::string &path);

    /// Keeps a chip for this process and those that it starts: one that is changed has one user, one that is only read
    /// may have more. Openers aren't held up: it is between those who ask here.
    /// @return owner of that right
    /// @throw std::runtime_error with one line when another process has it or there is no such chip
    static ScopedFd Reserve(const std::string &path, Usage usage);

    /// Opens both files.
    /// @throw std::runtime_error with one line when one is missing, isn't a chip's or hasn't the length it should have
    explicit ChipFile(const std::string &path);

    /// @return whether all files still have their length: a program with the chip at hand may have cut them.
    bool IsWhole() const { return m_states.IsWhole() && m_cells.IsWhole() && (!m_sums || m_sums->IsWhole()); }

    /// As above, but what this process changes stays its own and is lost with the object.
    static ChipFile OpenPrivate(const std::string &path);

    NandChip &Chip() { return m_chip; }
    const NandChip &Chip() const { return m_chip; }

private:
    ChipFile(SharedFile states, SharedFile cells, const std::string &sumsOf);

    SharedFile m_states;
    SharedFile m_cells;
    std::optional<SharedFile> m_sums;
    NandChip m_chip;
};
