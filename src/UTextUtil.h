#pragma once

#include <string>
#include <vector>

/// Small operations on text. Texts are terminated and not null.
class UTextUtil {
public:
    virtual ~UTextUtil() {}

    /// Cuts a text at every run of the characters in `delimiters` and appends the pieces to `tokens`.
    /// Neither argument text is changed; no empty piece arises; what `tokens` held stays in front.
    /// @return the number of elements in `tokens` afterwards.
    /// @throws std::bad_alloc when there is no memory for the working copy.
    static int Split(const char *text, const char *delimiters, std::vector<std::string> &tokens);

    /// Reads a number as strtol does, clamped to 32 bits whatever the width of `long`.
    static int ToInt(const char *text, int base);
};
