#pragma once

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

/// Runs an action.
/// @return what it wrote to standard error, without the program's name and process id in front of each log message.
template <typename Action> std::string Logged(Action action) {
    testing::internal::CaptureStderr();
    action();
    std::string text = testing::internal::GetCapturedStderr();
    const std::string ident = program_invocation_short_name + ("[" + std::to_string(getpid()) + "]: ");
    for (std::size_t at = text.find(ident); at != std::string::npos; at = text.find(ident, at))
        text.erase(at, ident.size());
    return text;
}
