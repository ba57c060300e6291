#include "base/Text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <sstream>

namespace {

struct Character {
    std::size_t size; ///< in bytes; 0 for a byte that is not text: a control character, or not UTF-8
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

/// @return a byte as a shell's $'' and people read it.
std::string ByteText(char byte) { return FormatText("\\x%02x", static_cast<unsigned char>(byte)); }

/// @param show makes a line, without its end, another one
template <typename Show> std::string EachLine(const std::string &text, const Show &show) {
    // Nearly all output is plain, and there may be much of it.
    const auto isPlain = [](char byte) { return (byte >= ' ' && byte <= '~') || byte == '\n'; };
    if (std::all_of(text.begin(), text.end(), isPlain))
        return text;
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::size_t lineEnd = end < text.size() && end > at && text[end - 1] == '\r' ? end - 1 : end;
        shown += show(text.substr(at, lineEnd - at)) + text.substr(lineEnd, end + 1 - lineEnd);
        at = end + 1;
    }
    return shown;
}

bool IsFirstByte(char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80; }

/// @return a line with the "\r" after which a terminal writes over the start of the line.
std::string LiveLine(const std::string &line) {
    std::string shown;
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t end = std::min(line.find('\r', at), line.size());
        shown += (at > 0 ? "\r" : "") + VisibleText(line.substr(at, end - at));
        at = end + 1;
    }
    return shown;
}

/// @return the line that a terminal shows in the end: the last part, and of each part before what is longer.
std::string SettledLine(const std::string &line) {
    std::string shown;
    std::ptrdiff_t width = 0;
    for (std::size_t end = line.size(), at = 0; end != std::string::npos; end = at == 0 ? std::string::npos : at - 1) {
        const std::size_t back = end == 0 ? std::string::npos : line.rfind('\r', end - 1);
        at = back == std::string::npos ? 0 : back + 1;
        const std::string part = VisibleText(line.substr(at, end - at));
        const std::ptrdiff_t characters = std::count_if(part.begin(), part.end(), IsFirstByte);
        if (characters <= width)
            continue;
        std::ptrdiff_t covered = width;
        shown.append(std::find_if(part.begin(), part.end(),
                                  [&covered](char byte) { return IsFirstByte(byte) && covered-- == 0; }),
                     part.end());
        width = characters;
    }
    return shown;
}

} // namespace

std::string FormatText(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        throw std::bad_alloc();
    std::string line(text, static_cast<std::size_t>(length));
    std::free(text);
    return line;
}

std::vector<std::string> SplitList(const std::string &text) {
    std::vector<std::string> items;
    std::istringstream stream(text);
    for (std::string item; std::getline(stream, item, ',');)
        items.push_back(item);
    return items;
}

std::string JoinWords(const std::vector<std::string> &words, const char *separator) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : separator) + words[i];
    return text;
}

std::string SizeText(std::uint64_t bytes) {
    const char *unit = " bytes";
    for (const char *larger : {" KiB", " MiB", " GiB"}) {
        if (bytes == 0 || bytes % 1024 != 0)
            break;
        bytes /= 1024;
        unit = larger;
    }
    return std::to_string(bytes) + unit;
}

std::string Hex(std::int64_t number) {
    char text[32];
    std::snprintf(text, sizeof text, "%s0x%" PRIx64, number < 0 ? "-" : "",
                  static_cast<std::uint64_t>(std::llabs(number)));
    return text;
}

std::string Count(std::int64_t number, const std::string &noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string ShellWord(const std::string &text) {
    constexpr const char *kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789%+,-./:=@_";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos)
        return text;
    const bool isVisible = VisibleText(text) == text;
    std::string quoted = isVisible ? "'" : "$'";
    for (const char character : text) {
        const bool isAscii = character >= ' ' && character < 0x7f;
        if (isVisible)
            quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
        else if (character == '\'' || character == '\\')
            quoted.append("\\").push_back(character);
        else
            quoted += isAscii ? std::string(1, character) : ByteText(character);
    }
    return quoted + "'";
}

std::string VisibleText(const std::string &text) {
    std::string visible;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = CharacterAt(text, at);
        if (text[at] == '\t')
            visible += ' ';
        else if (character.size == 0)
            visible += ByteText(text[at]);
        else if (IsSteering(character.code))
            visible += FormatText("\\u%04x", character.code);
        else
            visible += text.substr(at, character.size);
        at += std::max<std::size_t>(character.size, 1);
    }
    return visible;
}

std::string VisibleLines(const std::string &text) { return EachLine(text, VisibleText); }

std::string LiveLines(const std::string &text) { return EachLine(text, LiveLine); }

std::string SettledLines(const std::string &text) { return EachLine(text, SettledLine); }

std::size_t WholeCharacters(const std::string &text) {
    constexpr std::size_t kLongest = 4;
    for (std::size_t back = 1; back < kLongest && back <= text.size(); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        const std::size_t size = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        if (size > 1)
            return size > back ? text.size() - back : text.size();
        if (byte < 0x80)
            break;
    }
    return text.size();
}
