#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>

/// A format of data on flash.
struct DataFormat {
    const char *name;      ///< with its article: "a UBI image"
    bool isReadThroughEcc; ///< the kernel or a boot loader reads such data with normal reads
};

/// @return the format that data begins with; nullptr for none of those known here.
const DataFormat *FindFormat(std::string_view data);

/// @return the format of an image that is read normally: that of its start or of a later erase block; nullptr for none.
const DataFormat *FindFormatReadThroughEcc(std::string_view image, std::size_t eraseSize);

/// Length of the CRC-32 at the start of a boot environment. In a redundant one a flag byte follows, then the variables.
constexpr std::size_t kCrcBytes = 4;

/// What a block holds that a variable is to be set in.
struct BlockContent {
    enum class Kind {
        Environment, ///< the CRC covers the whole block
        Redundant,   ///< the CRC covers what follows a flag byte, up to `length`
        Shorter,     ///< the CRC covers the first `length` bytes only
        Blank,
        Other
    };
    Kind kind;
    std::size_t length; ///< of the environment in bytes, its CRC included; 0 for none
    std::string text;   ///< for people, with its article: "an environment of 0x2000 bytes", "text"
};

BlockContent LookAtBlock(std::string_view block);

/// The variables of an environment as a boot loader reads them.
struct BootVariables {
    /// @param list "name=value" texts, each ended by a zero byte, up to an empty one
    explicit BootVariables(std::string_view list);

    std::map<std::string, std::string> values; ///< of a variable that is there twice, the last value
    std::set<std::string> duplicates;          ///< names that are there twice or more
};
