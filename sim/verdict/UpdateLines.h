#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The command of a script line as the updater reads it.
enum class LineKind { Unknown, Write, WriteOob, Erase, SetEnv, HandEnv, Ubiformat };

/// A number of a script, as the updater reads its token.
struct ScriptNumber {
    std::int32_t value = 0;
    bool isForeign = false; ///< the token isn't a hexadecimal number to its end
    bool isBeyond = false;  ///< the token exceeds a signed 32-bit number
};

/// A script line that holds a command: neither empty nor a comment.
struct UpdateLine {
    std::size_t number = 0; ///< in the file, from 1
    std::string text;       ///< without its end
    std::vector<std::string> tokens;
    LineKind kind = LineKind::Unknown; ///< SetEnv is the long form of setenv, HandEnv the short one
    bool isComplete = false;           ///< it has all the tokens that its command uses
    std::size_t usedTokens = 0;        ///< tokens from here on are ignored; 0 for an unknown command

    // Of a complete line:
    bool hasRange = false; ///< the next two are set
    ScriptNumber offset;   ///< bytes in the whole flash
    ScriptNumber size;
    std::string image; ///< name of the image file, empty for none

    /// @return whether the command writes an image file into its range.
    bool WritesImage() const { return kind == LineKind::Write || kind == LineKind::WriteOob; }
    /// @return whether a setenv meant as the short form is read as the long one, because of a comment or a value with
    ///         blanks.
    bool IsTurnedLong() const;
    /// @return name and value of a complete setenv line.
    const std::string &Name() const { return tokens[usedTokens - 2]; }
    const std::string &Value() const { return tokens[usedTokens - 1]; }
};

/// @return the script's text as the updater sees it: up to the first zero byte, and no more than 1 MiB.
std::string VisibleScript(const std::string &file);

/// Reads a script as the updater does, with the updater's own splitting.
/// @param text without zero bytes
std::vector<UpdateLine> ReadUpdateLines(const std::string &text);

/// @return the lines that are comments only because of a # inside their first word, after the name of a command.
std::vector<UpdateLine> ReadHiddenLines(const std::string &text);
