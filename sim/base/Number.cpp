#include "base/Number.h"

#include <cerrno>
#include <cstdlib>

namespace {

constexpr const char *kDigits = "0123456789";

} // namespace

std::optional<LeadingNumber> ReadLeadingNumber(const std::string &text) {
    if (text.find_first_of(kDigits) != 0)
        return std::nullopt;
    const bool isHex = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    char *end = nullptr;
    errno = 0;
    const std::uint64_t value = std::strtoull(text.c_str(), &end, isHex ? 16 : 10);
    if (errno != 0)
        return std::nullopt;
    return LeadingNumber{value, static_cast<std::size_t>(end - text.c_str())};
}

std::optional<std::uint64_t> ParseDecimal(const std::string &text) {
    // So many digits always fit into 64 bits.
    constexpr std::size_t kMostDigits = 18;
    if (text.empty() || text.size() > kMostDigits || text.find_first_not_of(kDigits) != std::string::npos)
        return std::nullopt;
    return std::strtoull(text.c_str(), nullptr, 10);
}
