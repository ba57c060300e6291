#include "report/XmlText.h"

#include "base/Text.h"

namespace {

std::string Escaped(char character) {
    constexpr const char *kMarkup = "<>&\"";
    return std::string(kMarkup).find(character) == std::string::npos
               ? std::string(1, character)
               : "&#" + std::to_string(static_cast<int>(character)) + ";";
}

bool ContinuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80; }

} // namespace

std::string XmlText(const std::string &text, std::size_t columns) {
    const std::string visible = VisibleText(text);
    std::string escaped;
    std::size_t taken = 0;
    for (std::size_t at = 0; at < visible.size();) {
        std::size_t end = at + 1;
        while (end < visible.size() &&
               (ContinuesCharacter(visible[end]) || (visible[at] == ' ' && visible[end] == ' ')))
            ++end;
        const bool isAscii = static_cast<unsigned char>(visible[at]) < 0x80;
        // Characters outside ASCII can be twice as wide.
        taken += isAscii ? 1 : 2;
        if (taken > columns)
            return escaped + "\xe2\x80\xa6";
        escaped += isAscii ? Escaped(visible[at]) : visible.substr(at, end - at);
        at = end;
    }
    return escaped;
}

std::string XmlMarkupEscaped(const std::string &text) {
    std::string escaped;
    for (const char character : text)
        escaped += Escaped(character);
    return escaped;
}
