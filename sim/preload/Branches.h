#pragma once

#include "mtd/StopPlace.h"

/// Stops the updater before a request, and makes the branches that are ordered there. A branch may do nothing that
/// outlasts it but requests to devices and output: the kernel ends it with SIGSYS before it starts a program, writes a
/// file or sends a signal.
/// @param fault with which the request fails in any case; 0 for none
/// @return errno value with which the request fails now, in the updater or in a branch; 0 for none
int StopForBranches(StopPlace &stop, int fault);
