#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

/// The table of the reflected CRC-32 polynomial 0xEDB88320.
extern const std::array<std::uint32_t, 256> crc_table;

/// Adds `length` bytes at any alignment to a running CRC-32.
/// The caller starts with 0xFFFFFFFF, passes each result to the next call, and inverts the last one.
/// @return the new running value.
unsigned int crc32_no_comp(unsigned int value, const unsigned char *bytes, unsigned int length);

/// One boot environment block in memory. Accesses no flash and prints nothing.
///
/// A block begins with the CRC-32 of all bytes after it, least significant byte first. The entries "name=value" start
/// at byte 4, each terminated by a zero byte; one more zero byte ends the list, and the rest is zero. The block does
/// not contain its own length. Parsing stops 4 bytes before the end of the block: to be read back, the list, including
/// the entries' zero bytes, may take all but 8 bytes of the block.
class UEnvTool {
public:
    /// Copies a block of `size` bytes and reads its entries. The CRC is not checked. The last entry counts only when
    /// its terminator is found. A block of fewer than 6 bytes has no entries.
    /// @throws std::bad_alloc when there is no memory for the copy.
    UEnvTool(const char *block, int size);
    ~UEnvTool();
    UEnvTool(const UEnvTool &) = delete;
    UEnvTool &operator=(const UEnvTool &) = delete;

    /// @return 1 when an entry has exactly this name, else 0.
    int HasEnv(const char *name) const;

    /// @return the value of the first entry with this name; empty when there is none.
    std::string GetEnv(const char *name) const;

    /// Replaces the first entry with this name in place, or appends one, then rebuilds the block and its CRC.
    /// A name that contains '=' is never found again.
    /// @return 0, or -1 when the entries do not fit in the block: list and block are then unchanged.
    int SetEnv(const char *name, const char *value);

    /// Stores the CRC in the block; a block of fewer than 4 bytes has no room for a CRC and stays unchanged.
    /// @return 0.
    int UpdateCRC();

    std::vector<std::string> m_vEntry; ///< in the order of the block, without the zero bytes
    char *m_pBlock;                    ///< `m_nSize` bytes, owned
    int m_nSize;
    unsigned int m_nCrc; ///< the CRC of the last UpdateCRC; not set before
};
