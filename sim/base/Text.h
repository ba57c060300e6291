#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// printf into a string of any length.
__attribute__((format(printf, 1, 2))) std::string FormatText(const char *format, ...);

/// Cuts a text at commas. An empty text has no items.
std::vector<std::string> SplitList(const std::string &text);

/// @return the words with a separator between them.
std::string JoinWords(const std::vector<std::string> &words, const char *separator);

/// @return a number of bytes in the largest unit that holds it whole: "128 KiB".
std::string SizeText(std::uint64_t bytes);

/// @return a number in hexadecimal with 0x: "0x20000", "-0x800".
std::string Hex(std::int64_t number);

/// @return a number with its noun, in the plural unless the number is 1: "1 block", "3 blocks".
std::string Count(std::int64_t number, const std::string &noun);

/// @return a text as one word for a shell.
std::string ShellWord(const std::string &text);
