#pragma once

#include <string>
#include <utility>
#include <vector>

/// What a shell completes after an option.
struct CompletedOption {
    std::vector<std::string> names; ///< with their dashes: "-h", "--help"
    std::string value; ///< what --help calls the value: FILE and UPDATE stand for files, DIR for folders; empty: a flag
    std::string help;
    std::vector<std::string> words; ///< known values; one that ends with "=" goes on
    bool isRepeatable = false;
};

/// The words of flashsim that a shell completes.
struct CompletedWords {
    std::vector<CompletedOption> options;
    std::vector<std::pair<std::string, std::string>> commands; ///< first words that are not an update, with help
};

/// The shells with a completion script.
std::vector<std::string> CompletionShells();

/// Makes the script that completes flashsim in a shell.
/// @param shell one of CompletionShells
std::string CompletionScript(const std::string &shell, const CompletedWords &words);
