#pragma once

#include <cstddef>
#include <string>
#include <vector>

bool BeginsWith(const std::string &text, const std::string &start);

/// @return how a program ended, from what waitpid gave: "exit status 1", "signal 9".
std::string EndingText(int status);

/// @param folder from which the update runs, with a slash at its end
/// @return advice for a file of the update that the device looks for in "/tmp/update" alone; empty when the update runs
///         from there.
std::string PlaceAdvice(const std::string &folder, const std::string &name);

/// @return "line 3", "lines 3, 4, 7".
std::string LinesText(const std::vector<std::size_t> &numbers);

/// @return "3, 4, 7".
std::string JoinNumbers(const std::vector<std::size_t> &numbers);
