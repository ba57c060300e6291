#include "UTextUtil.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr char kBlank = ' ';
constexpr int kNumberSize = 16;
constexpr char kTokenSpace[] = " \f\n\t\r\v";

/// @return the position after the first separator, or null. The terminator is not a separator.
const char *AfterSeparator(const char *text, char separator) {
    const char *found = separator == '\0' ? nullptr : std::strchr(text, separator);
    return found == nullptr ? nullptr : found + 1;
}

/// @return the position after the first occurrence of the key, or null.
const char *AfterKey(const char *text, const char *key) {
    const char *found = std::strstr(text, key);
    return found == nullptr ? nullptr : found + std::strlen(key);
}

/// @return the position after the first occurrence of the key followed by a blank or the separator, or null.
const char *AfterExactKey(const char *text, const char *key, char separator) {
    const std::size_t length = std::strlen(key);
    if (length == 0)
        return nullptr;
    for (const char *found = std::strstr(text, key); found != nullptr; found = std::strstr(found + 1, key)) {
        const char *after = found + length;
        if (*after == kBlank || *after == separator)
            return after;
    }
    return nullptr;
}

/// Sets the outputs to the value of the key that ends at `after`, which may be null.
int TakeValue(const char *after, char separator, const char *stops, char **value, int *length) {
    const char *start = after == nullptr ? nullptr : AfterSeparator(after, separator);
    if (start == nullptr)
        return 0;
    *value = const_cast<char *>(start);
    *length = static_cast<int>(std::strcspn(start, stops));
    return 1;
}

} // namespace

int UTextUtil::Split(const char *text, const char *delimiters, std::vector<std::string> &tokens) {
    const std::unique_ptr<char, decltype(&std::free)> copy(strdup(text), &std::free);
    if (copy == nullptr)
        throw std::bad_alloc();
    char *position = nullptr;
    for (char *token = strtok_r(copy.get(), delimiters, &position); token != nullptr;
         token = strtok_r(nullptr, delimiters, &position))
        tokens.emplace_back(token);
    return static_cast<int>(tokens.size());
}

int UTextUtil::ToInt(const char *text, int base) {
    const long long value = std::strtol(text, nullptr, base);
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

int UTextUtil::findKeyExact(const char *text, const char *key, char separator, const char *stops, char **value,
                            int *length) {
    return TakeValue(AfterExactKey(text, key, separator), separator, stops, value, length);
}

int UTextUtil::findKeyExact(const char *text, const char *key, char separator, const char *stops, char *buffer,
                            int size) {
    char *value = nullptr;
    int length = 0;
    if (findKeyExact(text, key, separator, stops, &value, &length) == 0)
        return -1;
    length = std::min(length, size - 1);
    while (length > 0 && value[length - 1] == kBlank)
        --length;
    std::memcpy(buffer, value, static_cast<std::size_t>(length));
    buffer[length] = '\0';
    return length;
}

int UTextUtil::findKeyExact(const char *text, const char *key, char separator, const char *stops, int *number) {
    char buffer[kNumberSize];
    if (findKeyExact(text, key, separator, stops, buffer, kNumberSize) == -1)
        return 0;
    *number = ToInt(buffer, 10);
    return 1;
}

int UTextUtil::findKey(const char *text, const char *key, char separator, const char *stops, char **value,
                       int *length) {
    return TakeValue(AfterKey(text, key), separator, stops, value, length);
}

char *UTextUtil::findKey(const char *text, const char *key, char separator) {
    const char *after = AfterKey(text, key);
    return after == nullptr ? nullptr : findValue(after, separator);
}

char *UTextUtil::findValue(const char *text, char separator) {
    const char *value = AfterSeparator(text, separator);
    if (value == nullptr)
        return nullptr;
    while (*value == kBlank)
        ++value;
    return const_cast<char *>(value);
}

std::string UTextUtil::Trim(std::string text, const char *set) {
    text.erase(text.find_last_not_of(set) + 1);
    text.erase(0, text.find_first_not_of(set));
    return text;
}

char *UTextUtil::TrimStr(char *buffer, const char *set) {
    char *start = buffer + std::strspn(buffer, set);
    for (char *end = start + std::strlen(start); end - start > 1 && std::strchr(set, end[-1]) != nullptr; --end)
        end[-1] = '\0';
    return start;
}

void UTextUtil::Trim(char *&text, const char *set) { text = TrimStr(text, set); }

std::string UTextUtil::implode(std::vector<std::string> &parts, std::string glue) {
    std::string whole;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            whole += glue;
        whole += parts[i];
    }
    return whole;
}

char *UTextUtil::firstToken(char *buffer, const char *delimiters) {
    return strtok_r(buffer, delimiters, &m_pTokenState);
}

char *UTextUtil::nextToken(const char *delimiters) {
    return m_pTokenState == nullptr ? nullptr : strtok_r(nullptr, delimiters, &m_pTokenState);
}

void UTextUtil::ToUpper(char *text) {
    for (; *text != '\0'; ++text)
        *text = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
}

void UTextUtil::ToLower(char *text) {
    for (; *text != '\0'; ++text)
        *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
}

void UTextUtil::Replace(char *text, char from, char to) { std::replace(text, text + std::strlen(text), from, to); }

std::vector<std::string> UTextUtil::tokenize(const std::string &text, const std::string &delimiters) {
    std::vector<std::string> tokens;
    std::size_t end = 0;
    for (std::size_t start = text.find_first_not_of(delimiters); start != std::string::npos;
         start = text.find_first_not_of(delimiters, end)) {
        end = text.find_first_of(delimiters, start);
        tokens.push_back(Trim(text.substr(start, end - start), kTokenSpace));
    }
    return tokens;
}
