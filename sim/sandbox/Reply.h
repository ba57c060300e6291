#pragma once

#include "sandbox/UpdateRun.h"

#include <string>

/// Reads a sandbox's reply into an outcome: status, excess, script, files and contents. See RunSandbox for the format.
/// @throws std::runtime_error with the sandbox's own line when it couldn't run the command, or when the text isn't a
/// reply
void ReadReply(const std::string &text, RunOutcome &outcome);
