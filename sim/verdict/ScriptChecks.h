#pragma once

#include "verdict/Verdict.h"

#include <vector>

class WholeFlash;

/// What a script's lines tell by themselves, whatever a run on one chip showed: words that don't mean what they seem
/// to, ranges in each other's way, room for bad blocks, and the ranges of lines that the run didn't reach.
std::vector<Finding> CheckScript(const std::vector<LineVerdict> &lines, const WholeFlash &flash);

/// @return a finding about a line.
Finding About(const UpdateLine &line, Severity severity, const char *kind, const std::string &happens,
              const std::string &change);
