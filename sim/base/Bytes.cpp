#include "base/Bytes.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        table[byte] = crc;
    }
    return table;
}

} // namespace

std::uint32_t AddToCrc(std::uint32_t crc, const std::uint8_t *bytes, std::size_t length) {
    static constexpr auto kTable = MakeCrcTable();
    for (std::size_t i = 0; i < length; ++i)
        crc = kTable[(crc ^ bytes[i]) & 0xFF] ^ crc >> 8;
    return crc;
}

bool IsErased(const std::uint8_t *bytes, std::size_t length) {
    return std::all_of(bytes, bytes + length, [](std::uint8_t byte) { return byte == 0xFF; });
}
