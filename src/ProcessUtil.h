#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Longest command line that is handed to the shell, in characters.
constexpr std::size_t kCommandLimit = 255;

/// @return true for a command line within kCommandLimit; a longer one is named on standard error. A cut command
///         would be another command: all of it runs or none.
bool CommandFits(const std::string &command);

/// Runs a command line by the shell and waits for its end, whatever that is.
/// @return false when the command was refused for its length.
bool RunCommand(const std::string &command);

/// Prints a line on standard output at once: what runs next may print too.
void PrintLine(const char *text);

/// Runs a command line by the shell and waits for its end.
/// @return all that it wrote to standard output, line ends included; its exit status is not looked at.
/// @throws std::runtime_error when no pipe could be made.
std::string ShellCmd(const char *command);

/// Asks pidof for the processes of a name and prints the first 31 characters of its answer on standard output, if any.
/// @return the first process id, or 0 when there is none.
int GetProcessIdByName(const std::string &name);

/// Sends SIGTERM to a process, and waits for its end when it is a child of this one.
/// @param status receives the exit code of a reaped child; may be null.
/// @return 1 when the process was stopped and reaped; 0 for id 0, which gets no signal, and for all others.
int KillProcess(int id, int *status);

/// Runs a program in a session of its own.
/// @param arguments path of the program file, its own name, its arguments, null.
/// @param wait wait for its end and print the raw wait status on standard output.
/// @return 1, whatever happened.
int ExecuteCommand(char *const *arguments, bool wait);

/// Frees the partition that holds /opt for a rewrite: stops the device's applications and whatever else uses the file
/// system, unmounts it and detaches UBI. No failure keeps a later step from running, and nothing is started again.
/// This and its three steps throw std::runtime_error when a shell command got no pipe.
/// @return what PrepareMtd gave.
int PrepareUBI();

/// Sends SIGTERM to the device's applications, the supervising process first.
/// @return 1.
int PrepareProcess2();

/// Stops the processes that hold /opt: politely, and by force those that are left. Of the ids that fuser lists,
/// init, this process and its line of parents get no signal.
/// @return 0 when nothing is mounted or nothing holds it, else 1.
int PrepareProcess();

/// Unmounts the partition's file systems and detaches UBI from it.
/// @return 0, or -1 when nothing is mounted.
int PrepareMtd();

/// Cuts a text at every single delimiter and appends the fields, empty ones too, to a list.
void StdStringSplit(std::string &text, const std::string &delimiters, std::vector<std::string> *fields);

/// Cuts a text at every run of delimiters and appends the pieces to a list.
/// @return the size of the list afterwards, or -1 for a null list.
int TextSplit(const char *text, const char *delimiters, std::vector<std::string> *tokens);
