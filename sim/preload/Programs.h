#pragma once

/// Starting programs: those for another processor are replaced or refused, and every program gets the simulation's
/// environment.

/// Replaces the process image like execve.
/// @return -1 and errno
int ReplaceProgram(const char *path, char *const arguments[], char *const environment[]);
