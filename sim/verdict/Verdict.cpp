#include "verdict/Verdict.h"

#include "UEnvTool.h"
#include "base/Text.h"
#include "mtd/DeviceText.h"
#include "mtd/TraceCalls.h"
#include "verdict/Failures.h"
#include "verdict/FlashRanges.h"
#include "verdict/ScriptChecks.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sys/wait.h>

namespace {

constexpr const char *kNotifyScript = "/tmp/update/progress_script.sh";
constexpr const char *kPrepareCommand = "/app/prepare_flashrig.sh ";
constexpr const char *kUnsoundRead = "read without valid ECC";
constexpr int kWholePercent = 100;
constexpr int kNoProgram = 127; ///< a shell's exit status when there is none of that name
constexpr std::size_t kSealBytes = 4;
/// The seal, and 4 more that a later reading doesn't look at.
constexpr std::size_t kLostOfEnvironment = 8;

bool BeginsWith(const std::string &text, const std::string &start) { return text.compare(0, start.size(), start) == 0; }

/// What the updater says of a line that it passes over.
constexpr Failure kPassedOver[] = {
    {"Unknown script command ", "unknown-command", "the line is passed over",
     "use write, writeoob, erase, setenv or ubiformat, in lower case"},
    {"incomplete script command ", "incomplete", "the line is passed over", "give all words of the command"},
    {"/", "missing-file", "the line is passed over and nothing is erased", "put the file into the update"},
    {"", "failed", "the line is passed over", "see what the message names"},
};

template <std::size_t N> const Failure &FindFailure(const Failure (&table)[N], const std::string &message) {
    return *std::find_if(std::begin(table), std::end(table),
                         [&](const Failure &row) { return BeginsWith(message, row.start); });
}

std::string WithoutMark(const std::string &message) {
    return BeginsWith(message, kErrorMark) ? message.substr(std::strlen(kErrorMark)) : message;
}

/// @return the flash offset that a message ends with, or -1.
std::int64_t OffsetIn(const std::string &message) {
    const std::size_t at = message.rfind(" at ");
    return at == std::string::npos ? -1 : std::strtoll(message.c_str() + at + 4, nullptr, 16);
}

std::string LastLine(const std::string &text) {
    const std::size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return "";
    const std::size_t start = text.rfind('\n', end);
    return text.substr(start == std::string::npos ? 0 : start + 1,
                       end - (start == std::string::npos ? 0 : start + 1) + 1);
}

std::string JoinNumbers(const std::vector<std::size_t> &numbers) {
    std::string text;
    for (std::size_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return text;
}

/// How a program ended, from what waitpid gave.
std::string Ending(int status) {
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

class Judgement {
public:
    Judgement(const Rehearsal &run, const NandChip &chip)
        : m_run(run), m_chip(chip), m_flash(chip, run.devices), m_calls(run.trace),
          m_wasCut(!run.cutPlace.empty() || WIFSIGNALED(run.status)) {
        const std::string text = VisibleScript(run.script);
        const std::vector<UpdateLine> lines = ReadUpdateLines(text);
        m_story = FollowRun(lines, run.out, run.err, m_wasCut);
        for (std::size_t i = 0; i < lines.size(); ++i)
            m_verdict.lines.push_back(TakeLine(lines[i], m_story.lines[i].result));
        m_isScriptCut = text.size() < run.script.size();
    }

    Verdict Give() {
        JudgeStart();
        for (std::size_t i = 0; i < m_verdict.lines.size(); ++i)
            JudgeLine(m_verdict.lines[i], m_story.lines[i]);
        JudgeEnd();
        for (Finding &finding : CheckScript(m_verdict.lines, m_flash))
            m_verdict.findings.push_back(std::move(finding));
        JudgeEnvironments();
        JudgeNotes();
        JudgeHandedVariables();
        JudgeProgress();
        std::stable_sort(m_verdict.findings.begin(), m_verdict.findings.end(),
                         [](const Finding &a, const Finding &b) { return a.line < b.line; });
        return std::move(m_verdict);
    }

private:
    void Add(const UpdateLine &line, const char *kind, const std::string &happens, const std::string &change,
             Severity severity = Severity::Error) {
        m_verdict.findings.push_back(About(line, severity, kind, happens, change));
    }
    void AddForRun(const char *kind, const std::string &happens, const std::string &change,
                   Severity severity = Severity::Error) {
        m_verdict.findings.push_back({0, "", severity, kind, happens, change});
    }

    std::optional<std::int64_t> ImageSize(const UpdateLine &line) const {
        const auto file = m_run.files.find(line.image);
        return file == m_run.files.end() || file->second < 0 ? std::nullopt : std::optional(file->second);
    }

    /// @return bytes of an image for one page.
    std::int64_t RecordSize(const UpdateLine &line) const {
        const NandGeometry &geometry = m_chip.Geometry();
        return line.kind == LineKind::WriteOob ? geometry.RawPageSize() : geometry.pageSize;
    }

    LineVerdict TakeLine(const UpdateLine &line, LineResult result) const {
        LineVerdict verdict;
        verdict.line = line;
        // An empty range fails without a word; a write ends the script with it.
        verdict.result = result == LineResult::Clean && line.kind == LineKind::Erase && line.size.value == 0
                             ? LineResult::Failed
                             : result;
        const std::optional<FlashRange> range = m_flash.RangeOf(line);
        const std::optional<std::int64_t> size = ImageSize(line);
        const bool isKnown = line.WritesImage() && range && size && range->begin >= 0 && range->end <= m_flash.Size();
        if (!isKnown || !m_flash.IsAligned(*range))
            return verdict;
        const std::int64_t blockBytes = RecordSize(line) * m_chip.Geometry().PagesPerBlock();
        verdict.rangeBlocks = (range->end - range->begin) / m_flash.EraseSize();
        verdict.imageBlocks = (*size + blockBytes - 1) / blockBytes;
        verdict.badBlocks = static_cast<std::int64_t>(m_flash.BadBlocks(*range).size());
        return verdict;
    }

    void JudgeStart() {
        if (m_isScriptCut)
            AddForRun("script-cut", "the script ends for the updater at its first zero byte, or behind 1 MiB",
                      "let it be plain text");
        if (!m_story.hasStarted)
            AddForRun("not-started", "the updater doesn't get as far as a script: " + LastWords(),
                      m_calls.shellCalls.empty() ? "let a flashrig.script stand at the top of the update"
                                                 : "see what else is told of the update's start");
        else if (m_verdict.lines.empty())
            AddForRun("not-started", "the script holds no command: nothing is done", "give it commands");
        if (!m_story.refusal.empty())
            JudgeRefusal();
        if (!m_flash.HasDevice())
            AddForRun("no-whole-flash", "no MTD device has all in its name, and there is no mtd0 to take instead",
                      "run it on a device with one over the whole flash");
        for (const ShellCall &call : m_calls.shellCalls) {
            if (call.status <= 0)
                continue;
            if (BeginsWith(call.command, kPrepareCommand))
                AddForRun("prepare-failed",
                          "the prepare script ends with " + Ending(call.status) +
                              ", and the update goes on with whatever stands in /tmp/update",
                          PrepareChange(call));
            else if (call.command == m_story.handOver)
                AddForRun("handover-failed",
                          "the copy of the updater in the update ends with " + Ending(call.status) +
                              ", which nobody is told",
                          "let the copy be one that runs on this device; one for another processor can't be "
                          "rehearsed: unpack the image and rehearse the folder");
        }
    }

    /// The last that the updater said, or the programs that it ran.
    std::string LastWords() const {
        const std::string last = LastLine(m_run.err.empty() ? m_run.out : m_run.err);
        return last.empty() ? "it says nothing" : last;
    }

    static const char *PrepareChange(const ShellCall &call) {
        constexpr const char *kParts = " \t$`\"'\\|&;<>()*?[";
        if (call.command.find_first_of(kParts, std::strlen(kPrepareCommand)) != std::string::npos)
            return "rename the image: a shell takes its name apart at blanks and signs of its own";
        if (WIFEXITED(call.status) && WEXITSTATUS(call.status) == kNoProgram)
            return "give the device's own prepare script with --root, as app/prepare_flashrig.sh";
        return "let the image be one that the device's prepare script unpacks";
    }

    /// "script line 3 of 300 characters, the limit is 255", or "script of ...".
    void JudgeRefusal() {
        constexpr const char *kOfLine = "script line ";
        const std::string happens = m_story.refusal + ": the script is refused and no line runs";
        if (!BeginsWith(m_story.refusal, kOfLine)) {
            AddForRun("script-too-long", happens, "shorten names and comments, or split the update");
            return;
        }
        Finding finding = {0, "", Severity::Error, "line-too-long", happens, "shorten the line, comments too"};
        finding.line = std::strtoul(m_story.refusal.c_str() + std::strlen(kOfLine), nullptr, 10);
        for (const LineVerdict &verdict : m_verdict.lines) {
            if (verdict.line.number == finding.line)
                finding.text = verdict.line.text;
        }
        m_verdict.findings.push_back(finding);
    }

    void JudgeLine(const LineVerdict &verdict, const LineStory &story) {
        const UpdateLine &line = verdict.line;
        switch (verdict.result) {
        case LineResult::Skipped: {
            const Failure &row = FindFailure(kPassedOver, story.complaint);
            Add(line, row.kind, BeginsWith(story.complaint, "/") ? story.complaint + ": " + row.meaning : row.meaning,
                row.change);
            break;
        }
        case LineResult::Failed:
            JudgeFailure(line, story);
            break;
        case LineResult::Clean:
            JudgeCleanLine(verdict, story);
            break;
        case LineResult::NeverRan:
            if (m_story.hasStarted)
                JudgeUnreached(line);
            break;
        }
        JudgeRecords(line, story);
    }

    void JudgeFailure(const UpdateLine &line, const LineStory &story) {
        // What became of words that were meant otherwise explains nothing.
        if (line.IsTurnedLong())
            return;
        if (!story.complaint.empty()) {
            const Failure &row = FindFailure(kFailures, story.complaint);
            if (OffsetIn(story.complaint) >= m_flash.Size())
                Add(line, "off-chip",
                    WithoutMark(story.complaint) + ": the flash ends at " + Hex(m_flash.Size()) + ", " + row.meaning,
                    "keep the range on the flash");
            else
                Add(line, row.kind, WithoutMark(story.complaint) + ": " + row.meaning, row.change);
        } else if (line.hasRange && line.size.value == 0) {
            Add(line, "empty-range", "a size of 0 is a failure that no message tells", "give it a size");
        } else if (m_wasCut) {
            Add(line, "failed", "the updater's end cut it off half-way", "run the update again from its start");
        } else if (line.kind == LineKind::Ubiformat) {
            Add(line, "no-prepare",
                "/tmp/update/prepare.sh can't be read; applications and mounts are gone already, no message tells",
                "put a prepare.sh into the update");
        } else {
            Add(line, "failed", "it ended without a word", "see the trace");
        }
    }

    void JudgeCleanLine(const LineVerdict &verdict, const LineStory &story) {
        const UpdateLine &line = verdict.line;
        for (const auto &[program, status] : story.exits) {
            if (status != 0)
                Add(line, "format-failed",
                    program + " ends with " + Ending(status) + ", and the device goes on as if it had done its work",
                    "mend the program; exit status 255 is one that can't be started");
        }
        const std::optional<FlashRange> range = m_flash.RangeOf(line);
        if (line.kind == LineKind::Erase && range)
            JudgeErase(line, *range);
        else if (line.WritesImage())
            JudgeImage(line, range, story.readsToTheEnd);
    }

    /// A device that doesn't tell its sizes has commands done at once.
    void AddNotDone(const UpdateLine &line, const std::string &happens) {
        Add(line, "not-done", happens + ", and no message tells",
            "see what the device tells of its flash, and the trace");
    }

    void JudgeErase(const UpdateLine &line, const FlashRange &range) {
        const std::vector<std::uint32_t> blocks = m_flash.GoodBlocks(range);
        const auto left = std::count_if(blocks.begin(), blocks.end(),
                                        [this](std::uint32_t block) { return !m_chip.IsTouched(block); });
        if (left > 0)
            AddNotDone(line, Count(left, "block") + " of its range aren't erased");
    }

    void JudgeImage(const UpdateLine &line, const std::optional<FlashRange> &range, bool readsToTheEnd) {
        const std::optional<std::int64_t> size = ImageSize(line);
        if (!range || !size) {
            if (!readsToTheEnd)
                AddNotDone(line, "nothing tells that the image is written whole");
            return;
        }
        // The walk may have ended with the flash, in silence, and before the image did.
        const std::uint32_t pagesPerBlock = m_chip.Geometry().PagesPerBlock();
        const std::vector<std::uint32_t> blocks = m_flash.GoodBlocks({range->begin, m_flash.Size()});
        const std::int64_t room = static_cast<std::int64_t>(blocks.size()) * pagesPerBlock * RecordSize(line);
        if (*size > room)
            Add(line, "cut-at-end",
                "the flash ends before the image: its last " + Count(*size - room, "byte") +
                    " are written nowhere, and no message tells",
                "make the range hold the image and some bad blocks");
        std::int64_t left = 0;
        const std::int64_t pages = (std::min(*size, room) + RecordSize(line) - 1) / RecordSize(line);
        for (std::int64_t i = 0; i < pages; ++i) {
            const auto number = static_cast<std::uint64_t>(i);
            const std::uint32_t block = blocks[number / pagesPerBlock];
            const std::int64_t offset = m_flash.FromChip(std::uint64_t{block} * m_chip.Geometry().eraseSize);
            const bool isProgrammed =
                m_chip.IsTouched(block) &&
                m_chip.IsProgrammed(block * pagesPerBlock + static_cast<std::uint32_t>(number % pagesPerBlock));
            // A line behind it may have had its way with the page; that is told of that line.
            if (!isProgrammed && FindLine(m_verdict.lines.rbegin(), m_verdict.lines.rend(), offset, HasRun) == &line)
                ++left;
        }
        if (left > 0)
            AddNotDone(line, std::to_string(left) + " of " + Count(pages, "page") + " of its image aren't written");
    }

    /// What the run didn't get to say of a line.
    void JudgeUnreached(const UpdateLine &line) {
        if (line.kind != LineKind::Unknown && !line.isComplete)
            Add(line, "incomplete", "the line would be passed over", "give all words of the command");
        else if (line.kind == LineKind::Unknown)
            Add(line, "unknown-command", "the line would be passed over",
                FindFailure(kPassedOver, "Unknown script command ").change);
        else if (!line.image.empty() && m_run.files.count(line.image) != 0 && !ImageSize(line))
            Add(line, "unreadable-file", line.image + " is no regular file", "let it be a readable file");
        else if (!line.image.empty() && !ImageSize(line))
            Add(line, "missing-file", line.image + " doesn't exist: the line would be passed over",
                "put the file into the update");
    }

    void JudgeRecords(const UpdateLine &line, const LineStory &story) {
        if (line.kind != LineKind::WriteOob || !line.isComplete)
            return;
        std::int64_t rest = 0;
        if (story.readsToTheEnd) {
            for (const std::string &message : story.others) {
                int count = 0;
                if (sscanf(message.c_str(), "warning : file read datasize = %d,", &count) == 1 && count > 0)
                    rest = count;
            }
        } else {
            rest = ImageSize(line).value_or(0) % RecordSize(line);
        }
        if (rest != 0)
            Add(line, "raw-length",
                "the image ends with " + std::to_string(rest) + " bytes of a record of " +
                    std::to_string(RecordSize(line)) + ": the rest of that page is filled from the page before",
                "make the image for pages of " + std::to_string(m_chip.Geometry().pageSize) + " bytes with " +
                    std::to_string(m_chip.Geometry().oobSize) + " of OOB, whole");
    }

    void JudgeEnd() {
        for (const std::string &trouble : m_run.absent)
            AddForRun("never-came", trouble, "ask for one that comes; the run tells nothing of how it is borne",
                      Severity::Warning);
        if (!m_run.cutPlace.empty())
            AddForRun("power-cut", "the power goes during " + m_run.cutPlace, "run the update again from its start");
        else if (WIFSIGNALED(m_run.status) ||
                 (m_run.status != 0 && m_story.hasStarted && m_story.refusal.empty() && !m_verdict.lines.empty()))
            AddForRun("crashed", "the updater ends with " + Ending(m_run.status), "see its last message");
        if (!m_story.hasStarted || !m_story.refusal.empty())
            return;
        const UpdateLine *last = nullptr;
        std::vector<std::size_t> unreached;
        for (const LineVerdict &verdict : m_verdict.lines) {
            if (verdict.result == LineResult::NeverRan)
                unreached.push_back(verdict.line.number);
            else
                last = &verdict.line;
        }
        if (unreached.empty())
            return;
        const std::string happens = std::string("the run ends here") +
                                    (m_wasCut ? "" : ", with exit status 0 all the same") + "; never run: line " +
                                    JoinNumbers(unreached);
        if (last != nullptr)
            Add(*last, "stopped", happens, "mend this line first; what follows it can't be relied on");
        else
            AddForRun("stopped", happens, "see how the updater ended");
    }

    void JudgeEnvironments() {
        std::vector<FlashRange> judged;
        for (const LineVerdict &verdict : m_verdict.lines) {
            const std::optional<FlashRange> range = m_flash.RangeOf(verdict.line);
            if (!ChangedVariable(verdict) || !range || range->begin < 0 || range->end > m_flash.Size() ||
                std::find(judged.begin(), judged.end(), *range) != judged.end())
                continue;
            judged.push_back(*range);
            JudgeEnvironment(*range);
            JudgeLaidEnvironment(*range);
        }
    }

    bool HasBadBlocks(const UpdateLine &line) const {
        const std::optional<FlashRange> range = m_flash.RangeOf(line);
        return range && !m_flash.BadBlocks(*range).empty();
    }

    static bool ChangedVariable(const LineVerdict &verdict) {
        return verdict.line.kind == LineKind::SetEnv && verdict.result == LineResult::Clean;
    }

    /// @return by how many bytes the list in a block is longer than a reading sees; 0 when it sees all.
    static std::size_t ExcessOf(const std::vector<char> &bytes) {
        std::size_t length = bytes.size() - kSealBytes;
        while (length > 0 && bytes[kSealBytes + length - 1] == '\0')
            --length;
        return std::max(length + 1 + kLostOfEnvironment, bytes.size()) - bytes.size();
    }

    /// An environment that the update itself lays down may lose a variable at a change, and show nothing of it then.
    void JudgeLaidEnvironment(const FlashRange &range) {
        std::vector<char> bytes; // none until an image is laid down
        for (const LineVerdict &verdict : m_verdict.lines) {
            const std::optional<FlashRange> its = m_flash.RangeOf(verdict.line);
            const auto image = m_run.contents.find(verdict.line.image);
            if (verdict.result != LineResult::Clean || !its || its->begin != range.begin)
                continue;
            if (verdict.line.WritesImage() && image != m_run.contents.end()) {
                bytes.clear();
                const auto record = static_cast<std::size_t>(RecordSize(verdict.line));
                for (std::size_t at = 0; at < image->second.size(); at += record) {
                    const std::string page = image->second.substr(at, m_chip.Geometry().pageSize);
                    bytes.insert(bytes.end(), page.begin(), page.end());
                }
                bytes.resize(static_cast<std::size_t>(range.end - range.begin), '\xFF');
            } else if (verdict.line.kind == LineKind::SetEnv && *its == range && !bytes.empty()) {
                UEnvTool block(bytes.data(), static_cast<int>(bytes.size()));
                // Behind a shorter image the flash is blank, and no list goes on there.
                if (bytes.back() != '\xFF' && ExcessOf(bytes) > 0) {
                    Add(verdict.line, "environment-lost",
                        "the last variable that the block was given is lost at this change: its list is longer than is "
                        "read",
                        "shorten the variables by " + Count(static_cast<std::int64_t>(ExcessOf(bytes)), "byte"));
                    return;
                }
                block.SetEnv(verdict.line.Name().c_str(), verdict.line.Value().c_str());
                bytes.assign(block.m_pBlock, block.m_pBlock + block.m_nSize);
            }
        }
    }

    void JudgeEnvironment(const FlashRange &range) {
        std::map<std::string, const UpdateLine *> setters; // the last ones of their names
        const UpdateLine *last = nullptr;
        for (const LineVerdict &verdict : m_verdict.lines) {
            if (!ChangedVariable(verdict) || !(m_flash.RangeOf(verdict.line) == range))
                continue;
            last = &verdict.line;
            setters[last->Name()] = last;
        }
        const std::vector<char> bytes = m_flash.Read(range);
        const auto size = static_cast<int>(bytes.size());
        const UEnvTool block(bytes.data(), size);
        const auto bad = static_cast<std::int64_t>(m_flash.BadBlocks(range).size());
        const std::size_t excess = ExcessOf(bytes);
        if (!HasValidSeal(bytes)) {
            Add(*last, "environment-lost",
                bad > 0
                    ? "its range holds " + Count(bad, "bad block") + ": the last " +
                          std::to_string(bad * m_flash.EraseSize()) + " bytes of the environment are written nowhere"
                    : "the block has no valid seal any more when the update ends",
                bad > 0 ? "nothing in the update: this device's environment needs good blocks"
                        : "see what the lines behind it do to the block");
        } else if (excess > 0) {
            Add(*last, "environment-lost",
                "the variables take " + std::to_string(bytes.size() + excess - kLostOfEnvironment) + " of " +
                    std::to_string(bytes.size()) + " bytes: the next reading loses the last one",
                "shorten the variables by " + Count(static_cast<std::int64_t>(excess), "byte"));
        } else {
            for (const auto &[name, line] : setters) {
                if (block.HasEnv(name.c_str()) == 0 || block.GetEnv(name.c_str()) != line->Value())
                    Add(*line, "environment-lost", name + " isn't in the block any more when the update ends",
                        "see what the lines behind it do to the block");
            }
        }
        const auto isStrange = [](const std::string &entry) {
            const std::size_t length = std::min(entry.find('='), entry.size());
            return length == 0 || length == entry.size() ||
                   std::any_of(entry.begin(), entry.begin() + static_cast<std::ptrdiff_t>(length),
                               [](char character) { return character <= ' ' || character > '~'; });
        };
        const auto strange = std::count_if(block.m_vEntry.begin(), block.m_vEntry.end(), isStrange);
        if (strange > 0)
            Add(*last, "environment-damaged",
                std::to_string(strange) + " of the " + std::to_string(block.m_vEntry.size()) +
                    " entries in the block are no variables: what it held before was no environment, or a damaged one",
                "give the range of an environment, and lay a whole one down there before");
    }

    /// @return the line, among those that ran, whose range holds an offset; null for none.
    template <typename Lines, typename Test>
    const UpdateLine *FindLine(const Lines begin, const Lines end, std::int64_t offset, Test test) const {
        for (auto verdict = begin; verdict != end; ++verdict) {
            const std::optional<FlashRange> range = m_flash.RangeOf(verdict->line);
            if (range && range->Holds(offset) && test(*verdict))
                return &verdict->line;
        }
        return nullptr;
    }

    static bool HasRun(const LineVerdict &verdict) {
        return verdict.result == LineResult::Clean || verdict.result == LineResult::Failed;
    }

    void JudgeNotes() {
        std::map<const UpdateLine *, std::set<std::int64_t>> unsound;
        std::map<const UpdateLine *, std::set<std::int64_t>> unerased;
        for (const PageNote &note : m_calls.notes) {
            const std::int64_t offset = m_flash.FromChip(note.offset);
            if (note.text == kUnsoundRead) {
                unsound[FindLine(m_verdict.lines.begin(), m_verdict.lines.end(), offset, ChangedVariable)].insert(
                    offset);
            } else {
                unerased[FindLine(m_verdict.lines.rbegin(), m_verdict.lines.rend(), offset, HasRun)].insert(offset);
            }
        }
        for (const auto &[line, pages] : unsound) {
            const std::string count = Count(static_cast<std::int64_t>(pages.size()), "page");
            if (line != nullptr)
                Add(*line, "environment-damaged",
                    count + " of the block had no valid ECC: bits were turned as it was read, and are written back so",
                    "lay the block down with writeoob and an image that carries ECC; a raw write leaves none");
            else
                AddForRun("unsound-read", count + " read normally without valid ECC, first at " + Hex(*pages.begin()),
                          "read raw what was written raw, or write it with its ECC", Severity::Warning);
        }
        for (const auto &[line, pages] : unerased)
            AddUnerased(line, Count(static_cast<std::int64_t>(pages.size()), "page") +
                                  " programmed over bits that were 0 already, first at " + Hex(*pages.begin()) +
                                  ": the flash holds neither the old data nor the new");
        JudgeMarks(unerased);
    }

    /// Blocks that were programmed without an erase, and empty by chance.
    void JudgeMarks(const std::map<const UpdateLine *, std::set<std::int64_t>> &noted) {
        std::map<const UpdateLine *, std::vector<std::int64_t>> blocks;
        for (std::uint32_t block = 0; block < m_chip.Geometry().Blocks(); ++block) {
            if (m_chip.Mark(block) != BlockMark::WrittenWithoutErase)
                continue;
            const std::int64_t offset = m_flash.FromChip(std::uint64_t{block} * m_chip.Geometry().eraseSize);
            const UpdateLine *line = FindLine(m_verdict.lines.rbegin(), m_verdict.lines.rend(), offset, HasRun);
            if (noted.count(line) == 0)
                blocks[line].push_back(offset);
        }
        for (const auto &[line, offsets] : blocks)
            AddUnerased(line, Count(static_cast<std::int64_t>(offsets.size()), "block") +
                                  " programmed without an erase, first at " + Hex(offsets.front()) +
                                  ": this chip was empty there, a device's isn't");
    }

    void AddUnerased(const UpdateLine *line, const std::string &happens) {
        const char *change = "erase what is to be programmed; look into the programs that the update brings";
        if (line != nullptr)
            Add(*line, "unerased", happens, change);
        else
            AddForRun("unerased", happens, change);
    }

    void JudgeHandedVariables() {
        auto call = m_calls.shellCalls.begin();
        for (const LineVerdict &verdict : m_verdict.lines) {
            if (verdict.line.kind != LineKind::HandEnv || verdict.result != LineResult::Clean)
                continue;
            const std::string command = "/bin/bootvars -s " + verdict.line.Name() + " " + verdict.line.Value();
            call = std::find_if(call, m_calls.shellCalls.end(),
                                [&](const ShellCall &other) { return other.command == command; });
            if (call == m_calls.shellCalls.end())
                return;
            if (call->status > 0)
                Add(verdict.line, "tool-failed",
                    "/bin/bootvars ends with " + Ending(call->status) + ", and the device goes on as if it were set",
                    "give the rehearsal the device's own bootvars (--root), or mend name and value");
            ++call;
        }
    }

    void JudgeProgress() {
        const std::string start = std::string(kNotifyScript) + " ";
        std::size_t failures = 0;
        int status = 0;
        for (const ShellCall &call : m_calls.shellCalls) {
            if (!BeginsWith(call.command, start))
                continue;
            m_verdict.percentages.push_back(std::atoi(call.command.c_str() + start.size()));
            if (call.status > 0) {
                ++failures;
                status = call.status;
            }
        }
        const std::vector<int> &percentages = m_verdict.percentages;
        if (failures > 0)
            AddForRun("notify-failed",
                      std::string(kNotifyScript) + " ends with " + Ending(status) + " at " + std::to_string(failures) +
                          " of " + std::to_string(percentages.size()) + " percentages",
                      "put an executable progress_script.sh into the update if progress is to be shown",
                      Severity::Note);
        if (percentages.empty())
            return;
        std::string odd;
        const auto tell = [&odd](const std::string &text) { odd += (odd.empty() ? "" : ", ") + text; };
        int before = 0;
        for (int percent : percentages) {
            if (percent < before && odd.empty())
                tell("fall from " + std::to_string(before) + " to " + std::to_string(percent));
            before = percent;
        }
        const int most = *std::max_element(percentages.begin(), percentages.end());
        if (most > kWholePercent)
            tell("pass 100, up to " + std::to_string(most));
        if (percentages.back() < kWholePercent)
            tell("end at " + std::to_string(percentages.back()));
        if (!odd.empty())
            TellProgress("the percentages " + odd);
    }

    void TellProgress(const std::string &happens) {
        const std::vector<int> &given = m_verdict.percentages;
        const bool allRan =
            std::none_of(m_verdict.lines.begin(), m_verdict.lines.end(), [](const LineVerdict &verdict) {
                return verdict.result == LineResult::Failed || verdict.result == LineResult::NeverRan;
            });
        if (!allRan) {
            AddForRun("percentages", happens, "mend the lines that failed", Severity::Warning);
            return;
        }
        std::vector<std::size_t> more, fewer;
        for (const LineVerdict &verdict : m_verdict.lines) {
            if (verdict.result != LineResult::Clean)
                continue;
            const bool endsInBlock = ImageSize(verdict.line).value_or(0) % m_flash.EraseSize() != 0;
            if (verdict.line.kind == LineKind::WriteOob || (verdict.line.kind == LineKind::Write && !endsInBlock))
                more.push_back(verdict.line.number);
            else if (verdict.line.kind == LineKind::Ubiformat ||
                     (verdict.line.kind == LineKind::SetEnv && HasBadBlocks(verdict.line)))
                fewer.push_back(verdict.line.number);
        }
        std::string why;
        if (!more.empty() && *std::max_element(given.begin(), given.end()) > kWholePercent)
            why += "; more blocks than counted come from line " + JoinNumbers(more) +
                   " (a write of whole blocks and any writeoob)";
        if (!fewer.empty() && (given.back() < kWholePercent || !std::is_sorted(given.begin(), given.end())))
            why += "; fewer come from line " + JoinNumbers(fewer) + " (a ubiformat, a setenv around a bad block)";
        AddForRun("percentages", happens + why, "let the progress script bear it", Severity::Note);
    }

    const Rehearsal &m_run;
    const NandChip &m_chip;
    WholeFlash m_flash;
    TraceCalls m_calls;
    bool m_wasCut;
    bool m_isScriptCut;
    RunStory m_story;
    Verdict m_verdict;
};

} // namespace

std::optional<std::int64_t> LineVerdict::SpareBlocks() const {
    if (!rangeBlocks || !imageBlocks)
        return std::nullopt;
    return *rangeBlocks - *imageBlocks;
}

bool Verdict::IsClean() const {
    return std::none_of(findings.begin(), findings.end(),
                        [](const Finding &finding) { return finding.severity != Severity::Note; });
}

std::vector<std::string> AbsentTroubles(const SimSettings &asked, const SimState &state) {
    std::vector<std::string> absent;
    const auto tell = [&absent](const std::string &what, std::uint64_t count, const std::string &noun) {
        const auto number = static_cast<std::int64_t>(count);
        absent.push_back(what + ": there " + (number == 1 ? "was " : "were ") + Count(number, noun));
    };
    if (asked.cutAtChange > state.Changes())
        tell("cut " + std::to_string(asked.cutAtChange), state.Changes(), "change");
    for (const SimFault &fault : asked.faults) {
        const std::uint64_t count = state.Requests(fault.kind);
        if (count == 0 || count < fault.nth)
            tell("fault " + FaultText(fault), count, "such request");
    }
    return absent;
}

Verdict Judge(const Rehearsal &rehearsal, const NandChip &chip) { return Judgement(rehearsal, chip).Give(); }
