#include "UEnvTool.h"

#include <algorithm>
#include <cstring>
#include <endian.h>
#include <memory>

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320;
constexpr int kCrcSize = 4;
constexpr int kParsedSize = kCrcSize + 2; // the scan reads two bytes before it checks its bound
constexpr int kScanMargin = 4;

constexpr std::array<std::uint32_t, 256> MakeTable() {
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? (value >> 1) ^ kPolynomial : value >> 1;
        table[byte] = value;
    }
    return table;
}

/// One step of the CRC: looks up the lowest byte of the value.
std::uint32_t Step(std::uint32_t value) { return crc_table[value & 0xFF] ^ (value >> 8); }

/// Reads the entries of a block up to the double zero byte that ends the list, or up to the scan's bound.
/// An entry that reaches the bound is dropped: its terminator was not seen.
std::vector<std::string> Parse(const char *block, int size) {
    std::vector<std::string> entries;
    if (size < kParsedSize)
        return entries;
    const char *start = block + kCrcSize;
    // The first byte is read even when the bound leaves no byte.
    const char *const bound = std::max(start + 1, block + size - kScanMargin);
    while (const void *zero = std::memchr(start, '\0', static_cast<std::size_t>(bound - start))) {
        const char *const end = static_cast<const char *>(zero);
        entries.emplace_back(start, end);
        start = end + 1;
        if (*start == '\0')
            break;
    }
    return entries;
}

/// @return the first entry whose text before its first '=' is the name, or the end of the list.
template <typename Entries> auto Find(Entries &entries, const char *name) {
    return std::find_if(entries.begin(), entries.end(), [name](const std::string &entry) {
        const std::size_t length = entry.find('=');
        return length != std::string::npos && entry.compare(0, length, name) == 0;
    });
}

} // namespace

constexpr std::array<std::uint32_t, 256> crc_table = MakeTable();

unsigned int crc32_no_comp(unsigned int value, const unsigned char *bytes, unsigned int length) {
    constexpr std::size_t kWord = sizeof(std::uint32_t);
    const unsigned char *const end = bytes + length;
    for (; bytes != end && reinterpret_cast<std::uintptr_t>(bytes) % kWord != 0; ++bytes)
        value = Step(value ^ *bytes);
    for (; static_cast<std::size_t>(end - bytes) >= kWord; bytes += kWord) {
        // One aligned load that respects the aliasing rules.
        std::uint32_t word;
        std::memcpy(&word, __builtin_assume_aligned(bytes, kWord), kWord);
        value = Step(Step(Step(Step(value ^ le32toh(word)))));
    }
    for (; bytes != end; ++bytes)
        value = Step(value ^ *bytes);
    return value;
}

UEnvTool::UEnvTool(const char *block, int size) : m_nSize(std::max(size, 0)) {
    std::unique_ptr<char[]> copy(new char[static_cast<std::size_t>(m_nSize)]);
    std::copy_n(block, m_nSize, copy.get());
    m_vEntry = Parse(copy.get(), m_nSize);
    m_pBlock = copy.release();
}

UEnvTool::~UEnvTool() { delete[] m_pBlock; }

int UEnvTool::HasEnv(const char *name) const { return Find(m_vEntry, name) != m_vEntry.end() ? 1 : 0; }

std::string UEnvTool::GetEnv(const char *name) const {
    const auto entry = Find(m_vEntry, name);
    return entry == m_vEntry.end() ? std::string() : entry->substr(entry->find('=') + 1);
}

int UEnvTool::SetEnv(const char *name, const char *value) {
    const std::string changed = std::string(name) + "=" + value;
    std::vector<std::string> entries = m_vEntry;
    const auto entry = Find(entries, name);
    if (entry == entries.end())
        entries.push_back(changed);
    else
        *entry = changed;

    std::size_t needed = kCrcSize;
    for (const std::string &text : entries)
        needed += text.size() + 1;
    // A truncated list would lose boot variables: either all entries fit, or nothing changes.
    if (needed > static_cast<std::size_t>(m_nSize))
        return -1;
    m_vEntry.swap(entries);

    std::fill_n(m_pBlock, m_nSize, '\0');
    char *at = m_pBlock + kCrcSize;
    for (const std::string &text : m_vEntry)
        at = std::copy(text.begin(), text.end(), at) + 1;
    return UpdateCRC();
}

int UEnvTool::UpdateCRC() {
    if (m_nSize < kCrcSize)
        return 0;
    m_nCrc = ~crc32_no_comp(~0U, reinterpret_cast<const unsigned char *>(m_pBlock) + kCrcSize,
                            static_cast<unsigned int>(m_nSize - kCrcSize));
    const std::uint32_t stored = htole32(m_nCrc);
    std::memcpy(m_pBlock, &stored, sizeof stored);
    return 0;
}
