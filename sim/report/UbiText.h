#pragma once

#include "verdict/UbiFacts.h"

#include <string>
#include <vector>

/// A UBI partition for people: a line for the partition, and one for each volume, with how full it is.
std::vector<std::string> UbiLines(const UbiPartition &partition);
