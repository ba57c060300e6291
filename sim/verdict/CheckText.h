#pragma once

#include <cstddef>
#include <string>
#include <vector>

bool BeginsWith(const std::string &text, const std::string &start);

/// @return how a program ended, from what waitpid gave: "exit status 1", "signal 9".
std::string EndingText(int status);

/// @return "3, 4, 7".
std::string JoinNumbers(const std::vector<std::size_t> &numbers);
