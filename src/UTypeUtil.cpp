#include "UTypeUtil.h"

#include <cstddef>

const std::string WHITESPACE = " \n\r\t\f\v";

int trim(char *buffer) {
    if (buffer == nullptr)
        return -1;
    char *write = buffer;
    char *end = buffer;
    for (const char *read = buffer; *read != '\0'; ++read) {
        const bool space = *read == '\t' || *read == '\n' || *read == '\r';
        if (space && write == buffer)
            continue;
        *write++ = *read;
        if (!space)
            end = write;
    }
    *end = '\0';
    return 0;
}

std::string StdStringLtrim(const std::string &text) {
    const std::size_t start = text.find_first_not_of(WHITESPACE);
    return start == std::string::npos ? std::string() : text.substr(start);
}

std::string StdStringRtrim(const std::string &text) {
    const std::size_t last = text.find_last_not_of(WHITESPACE);
    return last == std::string::npos ? std::string() : text.substr(0, last + 1);
}

std::string StdStringTrim(const std::string &text) { return StdStringRtrim(StdStringLtrim(text)); }
