#pragma once

#include "verdict/Finding.h"
#include "verdict/RunFacts.h"

#include <vector>

/// A check draws findings from the facts of a run. Checks don't depend on each other.
using Check = std::vector<Finding> (*)(const RunFacts &facts);

#define CHECK(name) std::vector<Finding> name(const RunFacts &facts);
#include "verdict/Findings.def"
