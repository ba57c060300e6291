#pragma once

/// Writes the two usage lines to standard output.
void PrintUsage();

/// Lets the device's prepare script unpack an image into "/tmp/update"; the script's exit status is not looked at.
/// An image whose command would be too long is refused before this.
/// @return 0.
int PrepareUpdate(const char *image);

/// @return non-zero when the folder holds a file with this program's own name, whatever its contents.
int CheckNewUpdateProgram(const char *folder);
