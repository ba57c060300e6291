#pragma once

#include <string>
#include <vector>

/// Small operations on text. Texts are terminated and not null; characters are bytes.
///
/// The key operations look into a text for a key, a separator at some distance behind it, and the value that begins
/// right behind the separator. A value ends in front of the first of the stop characters or with the text.
/// Found values point into the caller's text. A blank is the space character alone.
class UTextUtil {
public:
    UTextUtil() : m_pTokenState(nullptr) {}
    virtual ~UTextUtil() {}

    /// Cuts a text at every run of the characters in `delimiters` and appends the pieces to `tokens`.
    /// Neither argument text is changed; no empty piece arises; what `tokens` held stays in front.
    /// @return the number of elements in `tokens` afterwards.
    /// @throws std::bad_alloc when there is no memory for the working copy.
    static int Split(const char *text, const char *delimiters, std::vector<std::string> &tokens);

    /// Reads a number as strtol does, clamped to 32 bits whatever the width of `long`.
    static int ToInt(const char *text, int base);

    /// Finds a key that a blank or the separator follows; it may be the tail of a longer word.
    /// The first separator behind the key counts, whatever lies between. An empty key finds nothing.
    /// @return 1 with `value` and `length` set, or 0 with both as they were.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, char **value,
                            int *length);

    /// Copies the value into a buffer of `size` bytes, at least 1: cut to fit, then freed of blanks at its end.
    /// @return the length of the text in the buffer, or -1 with the buffer as it was when there is no such key.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, char *buffer,
                            int size);

    /// Reads the first 15 characters of the value as a decimal number; 0 when there are no digits.
    /// @return 1 with `number` set, or 0 with it as it was when there is no such key.
    static int findKeyExact(const char *text, const char *key, char separator, const char *stops, int *number);

    /// Finds the first occurrence of a key, whatever follows it.
    /// @return 1 with `value` and `length` set, or 0 with both as they were.
    static int findKey(const char *text, const char *key, char separator, const char *stops, char **value, int *length);

    /// @return the first character that is not a blank behind the key's separator, which may be the terminator;
    /// null when key or separator is missing.
    static char *findKey(const char *text, const char *key, char separator);

    /// @return the first character that is not a blank behind the first separator, which may be the terminator;
    /// null when there is no separator.
    static char *findValue(const char *text, char separator);

    /// @return the text without the characters of `set` at both ends.
    static std::string Trim(std::string text, const char *set);

    /// Takes the characters of `set` off both ends in place: the text ends earlier and begins later.
    /// A text of nothing else keeps its characters.
    /// @return the first character left, which may be the terminator.
    static char *TrimStr(char *buffer, const char *set);

    /// As TrimStr; `text` itself is moved to the first character left.
    static void Trim(char *&text, const char *set);

    /// @return the parts in order with `glue` between them.
    static std::string implode(std::vector<std::string> &parts, std::string glue);

    /// Walk the tokens of a buffer and cut it up as strtok_r does; the delimiters may differ from call to call.
    /// One object serves one walk at a time, and the buffer must outlive it.
    /// @return the token, or null when there are no more, or when no walk has begun.
    char *firstToken(char *buffer, const char *delimiters);
    char *nextToken(const char *delimiters);

    /// Change a text in place. In the case changes, bytes outside ASCII stay as they are.
    static void ToUpper(char *text);
    static void ToLower(char *text);
    static void Replace(char *text, char from, char to);

    /// Cuts a text at every run of the characters in `delimiters` and trims each piece of white space.
    /// @return the pieces in order; one of white space alone is an empty text.
    static std::vector<std::string> tokenize(const std::string &text, const std::string &delimiters);

private:
    char *m_pTokenState;
};
