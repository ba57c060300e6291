#include "UTextUtil.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

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
