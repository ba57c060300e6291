#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

/// The table of the reflected CRC-32 polynomial 0xEDB88320.
extern const std::array<std::uint32_t, 256> crc_table;

/// Takes `length` bytes at any alignment into a running CRC-32.
/// The caller starts with 0xFFFFFFFF and inverts the last value; in between, calls chain.
/// @return the new running value.
unsigned int crc32_no_comp(unsigned int value, const unsigned char *bytes, unsigned int length);

/// One boot environment block in memory. Knows nothing of flash and prints nothing.
///
/// A block begins with its seal, the CRC-32 of all bytes behind it, least significant byte first. From byte 4 on stand
/// the entries "name=value", each ended by a zero byte; one more zero byte ends the list, and the rest is zero.
/// The length stands nowhere in the block. The scan stops 4 bytes short of the block's end: a list that is to be read
/// back, zero bytes of its entries included, may take all but 8 bytes of the block.
class UEnvTool {
public:
    /// Copies a block of `size` bytes and reads its entries; the caller's bytes stay the caller's.
    /// The seal is not looked at. The last entry counts only when the list's end follows it. A block of fewer than
    /// 6 bytes has no entries.
    /// @throws std::bad_alloc when there is no memory for the copy.
    UEnvTool(const char *block, int size);
    ~UEnvTool();
    UEnvTool(const UEnvTool &) = delete;
    UEnvTool &operator=(const UEnvTool &) = delete;

    /// @return 1 when an entry has exactly that name, else 0.
    int HasEnv(const char *name) const;

    /// @return the value of the first entry of that name; empty when there is none.
    std::string GetEnv(const char *name) const;

    /// Replaces the first entry of that name in its place, or appends one, then writes the whole block anew and seals
    /// it. A name that holds '=' is never found again.
    /// @return 0, or -1 when the entries would not fit in the block: list and block are then as they were.
    int SetEnv(const char *name, const char *value);

    /// Seals the block; one of fewer than 4 bytes has no room for a seal and stays as it is.
    /// @return 0.
    int UpdateCRC();

    std::vector<std::string> m_vEntry; ///< in the block's order, without the zero bytes
    char *m_pBlock;                    ///< `m_nSize` bytes, owned
    int m_nSize;
    unsigned int m_nCrc; ///< the seal of the last UpdateCRC; not set before
};
