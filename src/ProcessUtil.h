#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Longest command line that is handed to the shell, in characters.
constexpr std::size_t kCommandLimit = 255;

/// Prints an error line for a command line longer than kCommandLimit. A cut command would be another command, so it
/// must not run at all.
/// @return true when the command line is within the limit.
bool CommandFits(const std::string &command);

/// Runs a command line in the shell and waits for its end. The exit status is ignored.
/// @return false when the command was refused because of its length.
bool RunCommand(const std::string &command);

/// Prints a line on standard output and flushes it: the next program may print too.
void PrintLine(const char *text);

/// Runs a command line in the shell and waits for its end. The exit status is ignored.
/// @return the command's standard output, line ends included.
/// @throws std::runtime_error when the pipe cannot be created.
std::string ShellCmd(const char *command);

/// Runs pidof for a process name and prints the first 31 characters of its output, if any, on standard output.
/// @return the first process id, or 0 when there is none.
int GetProcessIdByName(const std::string &name);

/// Sends SIGTERM to a process, and waits for its end when it is a child of this process.
/// @param status receives the exit code of a reaped child; may be null.
/// @return 1 when the process was reaped; else 0. Id 0 gets no signal.
int KillProcess(int id, int *status);

/// Runs a program in a new session.
/// @param arguments path of the program file, its own name, its arguments, null.
/// @param wait wait for its end and print the raw wait status on standard output.
/// @return 1, also after a failure.
int ExecuteCommand(char *const *arguments, bool wait);

/// Prepares the partition that holds /opt for a rewrite: stops the device's applications and all other users of the
/// file system, unmounts it and detaches UBI. A failed step does not prevent later steps, and nothing is started again.
/// Throws std::runtime_error when a shell command gets no pipe; so do the three steps below.
/// @return the result of PrepareMtd.
int PrepareUBI();

/// Sends SIGTERM to the device's applications, the supervising process first.
/// @return 1.
int PrepareProcess2();

/// Stops the processes that use /opt: with SIGTERM first, then with SIGKILL if any remain. Of the ids that fuser
/// lists, init, this process and its ancestors get no SIGTERM.
/// @return 0 when nothing is mounted or no process uses it, else 1.
int PrepareProcess();

/// Unmounts the partition's file systems and detaches UBI from it.
/// @return 0, or -1 when nothing is mounted.
int PrepareMtd();

/// Cuts a text at every single delimiter and appends the fields, empty ones too, to a list.
void StdStringSplit(std::string &text, const std::string &delimiters, std::vector<std::string> *fields);

/// Cuts a text at every run of delimiters and appends the pieces to a list.
/// @return the size of the list afterwards, or -1 for a null list.
int TextSplit(const char *text, const char *delimiters, std::vector<std::string> *tokens);
