#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// What one update on a simulated device left to see.
struct Outcome {
    int status;                     ///< exit status of the program
    std::string out;                ///< its standard output, its children's included
    std::string err;                ///< its standard error
    std::vector<std::string> trace; ///< requests and process calls in order, a line each

    /// @return what other programs printed. The updater's own "running update script" line comes last: what isn't
    ///         flushed waits for its end when standard output is no terminal.
    std::string OthersOut() const;
    /// @return the trace lines that begin with one of these words, in order.
    std::vector<std::string> Only(const std::vector<std::string> &words) const;
    /// @return how many trace lines begin with this word.
    std::size_t Count(const std::string &word) const { return Only({word}).size(); }
};

/// A simulated device with an update folder and a chip of 64 blocks of 16 KiB, 32 pages of 512 and 16 bytes a block.
/// Runs the real program; nothing of it reaches this machine. All files go with the object.
class Device {
public:
    static constexpr std::size_t kBlock = 0x4000;
    static constexpr std::size_t kPage = 512;
    static constexpr std::size_t kOob = 16;

    /// @param badBlocks numbers of the chip's factory bad blocks: "5,7"; empty for none.
    explicit Device(const std::string &badBlocks = "");
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    /// Puts a file into the update folder, or with a leading slash among the device's own files.
    /// A script that begins with "#!" and a binary become programs.
    void File(const std::string &name, const std::string &bytes);

    /// Takes a file out of the update folder again.
    void Remove(const std::string &name);

    /// Adds options of the simulator for all runs from here on.
    void Options(const std::vector<std::string> &options);

    /// Runs the update folder, or the image of that name in it, on the chip as it stands.
    Outcome Run(const std::string &script, const std::vector<std::string> &arguments = {});
    Outcome RunImage(const std::string &image, const std::vector<std::string> &arguments = {});

    /// @return what the chip holds: page data alone, or pages and OOB interleaved.
    std::string Flash(std::size_t offset, std::size_t size) const;
    std::string Raw(std::size_t page, std::size_t pages) const;

    /// Fills the good blocks of the chip, as flash in use. Comes before all options.
    void UseUp();

private:
    Outcome Start(const std::string &update, const std::vector<std::string> &arguments);
    std::string m_sFolder;
    std::string m_sBadBlocks;
    std::vector<std::string> m_vOption;
};

/// Bytes that differ from page to page, from image to image and from erased flash.
std::string Pattern(std::size_t size, unsigned seed);

/// Runs a program and waits for it.
Outcome RunProgram(const std::vector<std::string> &arguments);

std::string ReadAll(const std::string &path);

/// @return the parts of a text between delimiters, without an empty one at the end.
std::vector<std::string> Split(const std::string &text, char delimiter = ' ');
