// The reader of boot environments. The input is a byte with flags and a block: with 1 its CRC is made valid.

#include "Fuzz.h"
#include "base/Bytes.h"
#include "verdict/BlockContent.h"
#include "verdict/FlashRanges.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Input input(bytes, size);
    const std::uint8_t flags = input.Byte();
    std::vector<std::uint8_t> block = input.Rest();
    if ((flags & 1) != 0 && block.size() > kCrcBytes) {
        // The CRC of a redundant environment leaves out the flag byte.
        const std::size_t first = kCrcBytes + ((flags & 2) != 0 ? 1 : 0);
        const std::uint32_t crc = ~AddToCrc(kCrcStart, block.data() + first, block.size() - first);
        for (std::size_t i = 0; i < kCrcBytes; ++i)
            block[i] = static_cast<std::uint8_t>(crc >> 8 * i);
    }
    const std::string text(block.begin(), block.end());
    const BlockContent content = LookAtBlock(text);
    if (content.length > text.size())
        __builtin_trap();
    const BootVariables variables(std::string_view(text).substr(std::min(text.size(), kCrcBytes)));
    FindFormatReadThroughEcc(text, 512);
    HasValidCrc(std::vector<char>(block.begin(), block.end()));
    return 0;
}
