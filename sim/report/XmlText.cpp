#include "report/XmlText.h"

#include <algorithm>

namespace {

/// @return the length in bytes of the character at a place; 0 if an XML file may not contain it.
std::size_t CharacterSize(const std::string &text, std::size_t at) {
    const auto byte = [&](std::size_t place) {
        return place < text.size() ? static_cast<unsigned char>(text[place]) : 0U;
    };
    const unsigned lead = byte(at);
    if (lead < 0x80)
        return lead >= ' ' && lead != 0x7f ? 1 : 0;
    const std::size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    unsigned code = lead & (0x7fU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(at + i) & 0xc0U) != 0x80)
            return 0;
        code = code << 6 | (byte(at + i) & 0x3fU);
    }
    constexpr unsigned kLeast[] = {0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    const bool isNone = isSurrogate || code == 0xfffe || code == 0xffff || code > 0x10ffff;
    return lead < 0xc0 || lead > 0xf7 || code < kLeast[size - 2] || isNone ? 0 : size;
}

} // namespace

std::string XmlText(const std::string &text, std::size_t columns) {
    std::string escaped;
    std::size_t taken = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t size = CharacterSize(text, at);
        // Characters outside ASCII can be twice as wide.
        taken += size > 1 ? 2 : 1;
        if (taken > columns)
            return escaped + "\xe2\x80\xa6";
        const char first = text[at];
        const bool isBlank = first == ' ' || (first >= '\t' && first <= '\r');
        if (isBlank)
            escaped += ' ';
        else if (size == 0)
            escaped += '?';
        else if (first == '<' || first == '>' || first == '&' || first == '"')
            escaped += "&#" + std::to_string(static_cast<int>(first)) + ";";
        else
            escaped += text.substr(at, size);
        at += std::max<std::size_t>(size, 1);
        while (isBlank && at < text.size() && (text[at] == ' ' || text[at] == '\t'))
            ++at;
    }
    return escaped;
}
