#include "report/XmlText.h"

#include "base/Text.h"

#include <algorithm>
#include <iterator>

namespace {

struct Character {
    std::size_t size; ///< in bytes; 0 if an XML file may not contain the character
    unsigned code;
};

Character CharacterAt(const std::string &text, std::size_t at) {
    const auto byte = [&](std::size_t place) {
        return place < text.size() ? static_cast<unsigned char>(text[place]) : 0U;
    };
    const unsigned lead = byte(at);
    if (lead < 0x80)
        return {lead >= ' ' && lead != 0x7f ? 1U : 0U, lead};
    const std::size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    unsigned code = lead & (0x7fU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(at + i) & 0xc0U) != 0x80)
            return {0, lead};
        code = code << 6 | (byte(at + i) & 0x3fU);
    }
    constexpr unsigned kLeast[] = {0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    const bool isNone = isSurrogate || code == 0xfffe || code == 0xffff || code > 0x10ffff;
    return {lead < 0xc0 || lead > 0xf7 || code < kLeast[size - 2] || isNone ? 0 : size, lead >= 0xc0 ? code : lead};
}

/// @return whether a character steers a display instead of being shown: C1 controls, marks of writing direction, line
///         and paragraph separators.
bool IsSteering(unsigned code) {
    constexpr unsigned kRanges[][2] = {{0x80, 0x9f},     {0x61c, 0x61c},   {0x200b, 0x200f},
                                       {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff}};
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [code](const auto &range) { return code >= range[0] && code <= range[1]; });
}

std::string Escaped(char character) {
    constexpr const char *kMarkup = "<>&\"";
    return std::string(kMarkup).find(character) == std::string::npos
               ? std::string(1, character)
               : "&#" + std::to_string(static_cast<int>(character)) + ";";
}

} // namespace

std::string XmlText(const std::string &text, std::size_t columns) {
    std::string escaped;
    std::size_t taken = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t size = CharacterAt(text, at).size;
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
        else
            escaped += size == 1 ? Escaped(first) : text.substr(at, size);
        at += std::max<std::size_t>(size, 1);
        while (isBlank && at < text.size() && (text[at] == ' ' || text[at] == '\t'))
            ++at;
    }
    return escaped;
}

std::string VisibleText(const std::string &text) {
    std::string visible;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = CharacterAt(text, at);
        if (text[at] == '\t')
            visible += ' ';
        else if (character.size == 0)
            visible += FormatText("\\x%02x", static_cast<unsigned char>(text[at]));
        else if (IsSteering(character.code))
            visible += FormatText("\\u%04x", character.code);
        else
            visible += text.substr(at, character.size);
        at += std::max<std::size_t>(character.size, 1);
    }
    return visible;
}

std::string XmlMarkupEscaped(const std::string &text) {
    std::string escaped;
    for (const char character : text)
        escaped += Escaped(character);
    return escaped;
}
