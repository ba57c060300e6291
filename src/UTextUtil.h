#pragma once

#include <string>
#include <vector>

/// Small operations on text. Texts are terminated and not null; characters are bytes.
///
/// The key operations search a text for a key, the next separator, and the value that begins right after the
/// separator. A value ends before the first stop character or at the end of the text. Found values point into the
/// caller's text. A blank is the space character only.
class UTextUtil {
public:
    UTextUtil() : m_pTokenState(nullptr) {}
    virtual ~UTextUtil() {}

    /// Cuts a text at every run of the characters in `delimiters` and appends the pieces to `tokens`.
    /// The arguments stay unchanged; there are no empty pieces; existing elements of `tokens` stay first.
    /// @return the number of elements in `tokens` afterwards.
    /// @throws std::bad_alloc when there is no memory for the working copy.
    static int Split(const char *text, const char *delimiters, std::vector<std::string> &tokens);

    /// Reads a number like strtol, clamped to 32 bits for any width of `long`.
    static int ToInt(const char *text, int base);

    /// Finds a key followed by a blank or the separator; the key may be the end of a longer word. The value follows the
    /// first separator after the key, at any distance. An empty key is never found.
    /// @return 1 with `value` and `length` set, or 0 with both unchanged.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, char **value,
                            int *length);

    /// Copies the value into a buffer of `size` bytes, at least 1: cut to fit, then stripped of trailing blanks.
    /// @return the length of the text in the buffer, or -1 with the buffer unchanged when there is no such key.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, char *buffer,
                            int size);

    /// Reads the first 15 characters of the value as a decimal number; 0 when there are no digits.
    /// @return 1 with `number` set, or 0 with `number` unchanged when there is no such key.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, int *number);

    /// Finds the first occurrence of a key, followed by any character.
    /// @return 1 with `value` and `length` set, or 0 with both unchanged.
    static int findKey(const char *text, const char *key, char separator, const char *stops, char **value, int *length);

    /// @return the first non-blank character after the key's separator, which may be the terminator; null when key or
    /// separator is missing.
    static char *findKey(const char *text, const char *key, char separator);

    /// @return the first non-blank character after the first separator, which may be the terminator; null when there is
    /// no separator.
    static char *findValue(const char *text, char separator);

    /// @return the text without the characters of `set` at both ends.
    static std::string Trim(std::string text, const char *set);

    /// Strips the characters of `set` from both ends in place: the text ends earlier and begins later.
    /// A text of only such characters keeps its bytes.
    /// @return the first character left, which may be the terminator.
    static char *TrimStr(char *buffer, const char *set);

    /// Like TrimStr; `text` itself moves to the first character left.
    static void Trim(char *&text, const char *set);

    /// @return the parts in order with `glue` between them.
    static std::string implode(std::vector<std::string> &parts, std::string glue);

    /// Walk the tokens of a buffer and cut it like strtok_r; the delimiters may differ between calls.
    /// One object serves one walk at a time, and the buffer must outlive it.
    /// @return the token, or null when there are no more or no walk has begun.
    char *firstToken(char *buffer, const char *delimiters);
    char *nextToken(const char *delimiters);

    /// Change a text in place. ToUpper and ToLower leave bytes outside ASCII unchanged.
    static void ToUpper(char *text);
    static void ToLower(char *text);
    static void Replace(char *text, char from, char to);

    /// Cuts a text at every run of the characters in `delimiters` and trims each piece of white space.
    /// @return the pieces in order; a piece of white space alone becomes an empty text.
    static std::vector<std::string> tokenize(const std::string &text, const std::string &delimiters);

private:
    char *m_pTokenState;
};
