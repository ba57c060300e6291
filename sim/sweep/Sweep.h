#pragma once

#include "base/HeldSignals.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

enum class SweepKind { Bad, Cut, Faults };

/// @return "bad", "cut" or "faults".
const char *SweepName(SweepKind kind);

struct SweepSettings {
    SweepKind kind = SweepKind::Bad;
    std::uint64_t every = 1; ///< of cuts and faults: 1 for each, 10 for each tenth
    std::uint64_t sets = 0;  ///< of bad blocks, drawn behind the single ones
    std::uint64_t seed = 1;  ///< of the drawing
    unsigned workers = 1;    ///< processes
};

/// In what one run of a sweep differs from the run that it is measured by.
struct SweepCase {
    std::vector<std::uint32_t> badBlocks; ///< beside those of the start
    std::uint64_t cutAtChange = 0;        ///< the run is followed by another without a cut
    std::vector<SimFault> faults;         ///< one or none
};

/// A run that didn't hold.
struct SweepFailure {
    std::size_t number = 0; ///< of the run in its sweep, from 1
    SweepCase what;
    std::size_t line = 0; ///< of the script; 0 when it is about none
    std::string text;     ///< that line
    std::string happens;  ///< the same words for the same trouble
};

/// A line whose cuts leave an environment without a valid seal, until the second run gives it one.
struct UnsealedLine {
    std::size_t line = 0; ///< number in the script
    std::string text;
    std::size_t runs = 0; ///< cuts that do
};

struct SweepResult {
    SweepSettings settings;
    std::size_t places = 0;  ///< blocks, changes or requests that the sweep goes by
    std::size_t planned = 0; ///< runs
    std::size_t done = 0;    ///< fewer when a signal ended it
    bool isInterrupted = false;
    std::vector<SweepFailure> failures; ///< by number
    std::vector<UnsealedLine> unsealed; ///< by line; of cuts alone

    bool Held() const { return failures.empty() && !isInterrupted; }
};

/// Runs an update over and over from the same start, each time with something else against it. The updater gets a
/// second argument where it has none: it makes no notify calls then.
///
/// A run holds when the updater ended by itself, nothing outside the ranges of the script changed, and
///   bad     with these blocks bad from the factory, every line was carried out as without, and what they wrote lies in
///           the good blocks of its range in the same order. Single blocks are those of all ranges in which flash was
///           changed; a set takes up to as many of each image's range as that has to spare.
///   cut     the power went at a change of flash; then the update was run again from its start, as if the device
///           still came up: every line was carried out and the chip is what it is after an uncut run, page by page.
///   faults  one request failed: some line was told to have failed, or the chip is what it is without the fault.
class Sweeper {
public:
    /// Runs the update twice with nothing against it: what later runs are measured by.
    /// @param start path of the files of the chip that runs start from, which stay as they are; further files are made
    ///        beside them
    /// @param signals a held signal ends this and all sweeps
    /// @throws std::runtime_error with one line, as Run does, when something of this machine is in the way
    Sweeper(const RunSettings &settings, const std::string &start, const HeldSignals &signals);
    ~Sweeper();

    /// @return how many blocks, changes or requests a sweep of all of them goes by; 0 when interrupted.
    std::size_t Places(SweepKind kind) const;

    /// @param progress gets the result so far whenever it has changed
    SweepResult Run(const SweepSettings &settings,
                    const std::function<void(const SweepResult &result)> &progress) const;

private:
    struct Base;
    std::unique_ptr<const Base> m_base;
};
