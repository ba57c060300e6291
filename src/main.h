#pragma once

/// Writes the two usage lines to standard output.
void PrintUsage();

/// Runs the device's prepare script, which unpacks an image into "/tmp/update"; its exit status is ignored.
/// A command that would be too long does not run.
/// @return 0.
int PrepareUpdate(const char *image);

/// @return non-zero when the folder contains a file with this program's own name.
int CheckNewUpdateProgram(const char *folder);
