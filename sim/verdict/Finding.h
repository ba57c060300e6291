#pragma once

#include <cstddef>
#include <string>

/// Notes tell what is so by the script language's design and leave a verdict clean; warnings and errors don't.
enum class Severity { Note, Warning, Error };

/// One thing that the maker of an update has to know.
///
/// Kinds are short ids that don't change from version to version.
///   The run: not-started, crashed, power-cut, stopped, script-too-long, line-too-long, script-cut, prepare-failed,
///     handover-failed, notify-failed, percentages, unerased, unsound-read, no-whole-flash,
///     never-came
///   Lines passed over: unknown-command, incomplete, missing-file
///   Lines that failed: misaligned, empty-range, off-chip, check-failed, erase-failed, write-failed, read-failed,
///     unreadable-file, outruns-range, cut-at-end, environment-full, command-too-long, no-device, no-prepare,
///     format-failed, tool-failed, no-geometry, not-done, failed
///   Lines as they stand: number, setenv-long, ignored-words, shell-text, overlap, no-spare, empty-image, raw-length
///   What is on the chip in the end: environment-lost, environment-damaged
struct Finding {
    std::size_t line = 0; ///< number in the script; 0 when it is about none
    std::string text;     ///< that line, without its end
    Severity severity = Severity::Error;
    std::string kind;
    std::string happens; ///< what the device does
    std::string change;  ///< what to change
};
