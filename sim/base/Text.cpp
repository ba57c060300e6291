#include "base/Text.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>

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
    std::string quoted = "'";
    for (const char character : text)
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    return quoted + "'";
}
