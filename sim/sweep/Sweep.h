#pragma once

#include "base/HeldSignals.h"
#include "chip/NandChip.h"
#include "mtd/SimState.h"
#include "sandbox/UpdateRun.h"
#include "verdict/FlashRanges.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct SweepKind;

/// @return the kind of sweep with a name of the table, nullptr for an unknown name.
const SweepKind *FindSweepKind(const std::string &name);

/// @return the names of all kinds, in the order of the table.
std::vector<std::string> SweepNames();

/// @return whether a kind uses an option of the command line, such as "every".
bool UsesOption(const SweepKind &kind, const std::string &option);

/// A part of the flash from which a device boots when a variable of its environment has a value.
struct BootSlot {
    std::string name;
    std::string value;
    FlashRange range; ///< whole blocks
};

/// What a device needs to boot. A range may be as before or as after the update, but nothing in between.
struct BootRules {
    std::string command;                  ///< for a shell in the sandbox; exit status 0: the device boots. May be empty
    std::vector<FlashRange> kept;         ///< whole blocks
    std::vector<std::size_t> keptLines;   ///< numbers of script lines whose ranges are kept too
    std::vector<FlashRange> environments; ///< the first one with a valid CRC is used; one must have it
    std::vector<BootSlot> slots;

    /// @return whether there is a rule at all.
    bool IsAny() const {
        return !command.empty() || !kept.empty() || !keptLines.empty() || !environments.empty() || !slots.empty();
    }
};

struct SweepSettings {
    const SweepKind *kind = nullptr; ///< a row of the table
    std::uint64_t every = 1;         ///< 1 to try each place, 10 for each tenth
    std::uint64_t sets = 0;          ///< sets of bad blocks, drawn after the single blocks
    std::uint64_t seed = 1;          ///< random seed
    std::vector<Extent> torn = {Extent::FirstHalf, Extent::Complete}; ///< what each power cut leaves
    BootRules boot;              ///< checked after each power cut, before the update is run again
    bool isExact = false;        ///< every run is a real one; else runs are replayed where this gives the same
    std::uint64_t sample = 0;    ///< runs that a replaying sweep also makes for real, and compares; cuts on the board
    std::string board = {};      ///< cut: command that boots the board, on which all runs are made; empty for none
    std::string boardFinds = {}; ///< FindsText of an uncut run on the board
    unsigned workers = 1;        ///< processes
    std::size_t shard = 1;       ///< only the n-th of `shards` parts of all runs is made, from 1
    std::size_t shards = 1;
};

/// The difference between one run of a sweep and the reference run.
struct SweepCase {
    std::vector<std::uint32_t> badBlocks; ///< besides those of the start
    std::uint64_t cutAtChange = 0;        ///< power is lost there, then the update is run again; 0 for no cut
    Extent cutExtent = Extent::FirstHalf; ///< how far the change gets
    std::uint64_t secondCutAtChange = 0;  ///< power is lost again there in the run after the first cut; 0 for no cut
    std::vector<SimFault> faults = {};
    std::vector<std::uint32_t> eraseFails = {};   ///< worn-out blocks: erases fail
    std::vector<std::uint32_t> programFails = {}; ///< worn-out blocks: programs of all pages fail
};

/// A run that failed.
struct SweepFailure {
    std::size_t number = 0; ///< of the run in its sweep, from 1
    SweepCase what;
    std::size_t line = 0;       ///< number in the script; 0 for a failure of no line
    std::string text;           ///< that line
    std::string happens;        ///< equal for equal failures
    std::string advice;         ///< what to change in the update; may be empty
    bool isOfSecondRun = false; ///< a run after the one with the trouble shows the failure
};

/// A line whose cuts leave an environment with an invalid CRC until the second run writes the environment again.
struct UnsealedLine {
    std::size_t line = 0; ///< number in the script
    std::string text;
    std::size_t runs = 0; ///< number of such cuts
};

/// A line with power cuts after which the device does not boot.
struct BootGap {
    std::size_t line = 0; ///< number in the script; 0 when unknown
    std::string text;
    std::size_t runs = 0;               ///< number of such cuts
    SweepCase first;                    ///< the first of them
    std::uint64_t last = 0;             ///< change of the last of them
    std::string why;                    ///< of the first
    std::vector<std::size_t> selectors; ///< earlier lines that select the slot which the line writes
};

struct SweepResult {
    SweepSettings settings;
    std::size_t places = 0;  ///< blocks, changes or requests that the sweep walks
    std::size_t planned = 0; ///< runs
    std::size_t whole = 0;   ///< runs of all shards together
    std::size_t done = 0;    ///< fewer when a signal ended the sweep
    bool isInterrupted = false;
    std::string whyExact;                      ///< why runs were not replayed though this was wanted; else empty
    std::vector<SweepFailure> failures;        ///< by number
    std::vector<UnsealedLine> unsealed;        ///< by line; of cuts only
    std::vector<BootGap> gaps;                 ///< by line; of cuts only
    std::map<std::string, std::size_t> sights; ///< what the board's kernel found, with the number of runs

    bool Passed() const { return failures.empty() && gaps.empty() && !isInterrupted; }
};

/// Runs an update over and over from the same start, each time with other trouble. The updater gets a second argument
/// if there is none: this disables the notify script.
///
/// A run passes when the updater ended by itself, nothing outside the ranges of the script changed, and
///   bad     with these blocks bad from the factory, every line ran as in the reference run, and the good blocks of
///           each range hold what the line wrote, in the same order. Single blocks are those of all ranges in which
///           flash was changed; a set has up to as many blocks of each image's range as that range has to spare.
///   cut     power was lost at a change of flash, then the update was run again from its start, as if the device still
///           booted: every line succeeded and the chip is page by page what it is after an uncut run.
///   pairs   two of these: power cut after power cut, a bad or worn-out block and a power cut.
///   faults  a request failed: the chip is what it is without the fault, or a line reported a failure and, when the
///           request failed once, the update was run again with the result of a cut.
///   wear    erases or programs of a block failed: a line reported a failure, or the chip is what it is without.
class Sweeper {
public:
    /// Makes the reference run, twice.
    /// @param start path of the files of the chip that runs start from; they are not changed. Further files are made
    ///        beside them
    /// @param signals a held signal ends this and all sweeps
    /// @throws std::runtime_error with one line, as Run does, for problems of this machine
    Sweeper(const RunSettings &settings, const std::string &start, const HeldSignals &signals);
    ~Sweeper();

    /// @return how many blocks, changes or requests a whole sweep of a kind walks; 0 when interrupted.
    std::size_t Places(const SweepKind &kind) const;

    /// @param progress is called with the result so far, now and then
    /// @throws std::runtime_error with one line also when a replayed run differs from the real one
    SweepResult Run(const SweepSettings &settings,
                    const std::function<void(const SweepResult &result)> &progress) const;

private:
    struct Base;
    static void MakeReference(Base &base);

    std::unique_ptr<const Base> m_base; ///< null when interrupted
};
