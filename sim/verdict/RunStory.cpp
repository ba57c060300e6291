#include "verdict/RunStory.h"

#include "verdict/CheckText.h"
#include "verdict/Failures.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

constexpr const char *kRunning = "running update script ";
constexpr const char *kHandOver = "new program detected, running ";
/// About the whole script, before its first line.
constexpr const char *kRefusals[] = {"error : script line ", "error : script of "};
constexpr const char *kWarning = "warning : ";
constexpr const char *kEraseEnd = "erase complete";
constexpr const char *kWriteEnd = "write file complete";
constexpr const char *kPreparesUbi = "prepare ubi ...";
/// The programs of a ubiformat line, and the message after the end of each.
constexpr const char *kFormatPrograms[][2] = {{"/tmp/update/prepare.sh", "execute /bin/sh status "},
                                              {"/tmp/update/ubiformat", "execute /tmp/update/ubiformat status "}};

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// @return a line from the last place of a text on; empty when the line doesn't contain it.
std::string From(const std::string &line, const std::string &start) {
    const std::size_t at = line.rfind(start);
    return at == std::string::npos ? std::string() : line.substr(at);
}

/// @return the updater's error message in a line; empty for none.
std::string ErrorIn(const std::string &line) {
    if (line.find(kErrorMark) == std::string::npos)
        return std::string();
    for (const Failure &known : kFailures) {
        std::string error = BeginsWith(known.start, kErrorMark) ? From(line, known.start) : std::string();
        if (!error.empty())
            return error;
    }
    return std::string();
}

std::vector<std::string> CutLines(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

/// The lines of a stream, and how far they are followed. Another program's output may precede a message in its line.
struct Messages {
    explicit Messages(const std::string &text) : lines(CutLines(text)) {}

    /// @return the index of the first line from `from` on that passes a test, or kNowhere.
    template <typename Test> std::size_t Find(std::size_t from, Test test) const {
        const auto found =
            std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end(), test);
        return found == lines.end() ? kNowhere : static_cast<std::size_t>(found - lines.begin());
    }
    std::size_t FindStart(std::size_t from, const std::string &start) const {
        return Find(from, [&](const std::string &line) { return line.find(start) != std::string::npos; });
    }
    std::size_t FindWhole(std::size_t from, const std::string &message) const {
        return Find(from, [&](const std::string &line) { return EndsWith(line, message); });
    }
    std::size_t FindError(std::size_t from) const {
        return Find(from, [](const std::string &line) { return !ErrorIn(line).empty(); });
    }
    /// @return the text after the first occurrence of a start; empty for none.
    std::string After(const std::string &start) const {
        const std::size_t at = FindStart(0, start);
        return at == kNowhere ? std::string() : From(lines[at], start).substr(start.size());
    }

    std::vector<std::string> lines;
    std::size_t next = 0;
};

std::string HexText(const ScriptNumber &number) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number.value));
    return text;
}

bool IsMisaligned(const std::string &message) { return BeginsWith(ErrorIn(message), "error : invalid "); }

/// Follows one run; see FollowRun.
class Follower {
public:
    Follower(const std::vector<UpdateLine> &lines, const std::string &out, const std::string &err, bool wasCut)
        : m_lines(lines), m_out(out), m_err(err), m_wasCut(wasCut) {
        m_story.lines.resize(lines.size());
    }

    RunStory Follow() {
        m_story.handOver = m_out.After(kHandOver);
        const std::string path = m_out.After(kRunning);
        m_story.hasStarted = !path.empty();
        m_story.folder = path.substr(0, path.rfind('/') + 1);
        for (const char *start : kRefusals) {
            const std::size_t refusal = m_err.FindStart(0, start);
            if (refusal < m_err.FindError(0))
                m_story.refusal = From(m_err.lines[refusal], start).substr(std::string(kErrorMark).size());
        }
        if (m_story.hasStarted && m_story.refusal.empty()) {
            PassCount();
            for (std::size_t i = 0; i < m_lines.size() && FollowLine(i);)
                ++i;
        }
        return m_story;
    }

private:
    /// @return whether a message is the one that a line begins or ends with. A line with such a message was reached.
    bool IsMarker(const UpdateLine &line, const std::string &message) const {
        const std::string skipMessage = SkipMessage(line);
        if (!skipMessage.empty() && EndsWith(message, skipMessage))
            return true;
        const std::string path = m_story.folder + line.image;
        switch (line.isComplete ? line.kind : LineKind::Unknown) {
        case LineKind::Unknown:
            return false;
        case LineKind::Write:
        case LineKind::WriteOob:
            return EndsWith(message, "write " + path + " to flash address " + HexText(line.offset));
        case LineKind::Ubiformat:
            return EndsWith(message, "ubiformat " + path + " to <MTD> " + line.tokens[1]);
        case LineKind::SetEnv:
        case LineKind::HandEnv:
            return EndsWith(message, "write " + line.Name() + " = " + line.Value() + " to env");
        case LineKind::Erase:
            return EndsWith(message, kEraseEnd) || IsMisaligned(message);
        }
        return false;
    }

    /// @return the message about a line that is skipped; empty for a line that can't be.
    std::string SkipMessage(const UpdateLine &line) const {
        if (line.kind == LineKind::Unknown)
            return "Unknown script command " + line.text;
        if (!line.isComplete)
            return "incomplete script command " + line.text;
        return line.image.empty() ? std::string() : m_story.folder + line.image + " doesn't exist";
    }

    std::size_t FindMarker(std::size_t index, std::size_t from) const {
        return m_err.Find(from, [&](const std::string &message) { return IsMarker(m_lines[index], message); });
    }

    /// The updater first counts the blocks of all lines, and names the unknown lines once while counting.
    void PassCount() {
        for (std::size_t i = 0; i < m_lines.size(); ++i) {
            if (m_lines[i].kind != LineKind::Unknown)
                continue;
            const std::size_t at = FindMarker(i, m_err.next);
            if (at != kNowhere)
                m_err.next = at + 1;
        }
    }

    /// @return false when the run didn't get past this line.
    bool FollowLine(std::size_t index) {
        const UpdateLine &line = m_lines[index];
        LineStory &story = m_story.lines[index];
        const std::size_t marker = FindMarker(index, m_err.next);
        if (marker == kNowhere) {
            // An exception ends a command without its closing message, and so does a cut.
            const std::size_t error = m_err.FindError(m_err.next);
            if (error != kNowhere || m_wasCut)
                Fail(story, error);
            return false;
        }
        const std::string skipMessage = SkipMessage(line);
        if (!skipMessage.empty() && EndsWith(m_err.lines[marker], skipMessage)) {
            story.result = LineResult::Skipped;
            story.complaint = skipMessage;
            m_err.next = marker + 1;
            return true;
        }
        story.result = LineResult::Clean;
        switch (line.kind) {
        case LineKind::Write:
        case LineKind::WriteOob:
            m_err.next = marker + 1;
            return FollowImage(index, story);
        case LineKind::Ubiformat:
            m_err.next = marker + 1;
            return FollowUbiformat(index, story);
        default:
            FollowToMarker(marker, story);
            return true;
        }
    }

    void Fail(LineStory &story, std::size_t message) const {
        story.result = LineResult::Failed;
        if (message != kNowhere)
            story.complaint = ErrorIn(m_err.lines[message]);
    }

    void KeepWarnings(LineStory &story, std::size_t end) const {
        for (std::size_t at = m_err.next; at < end; ++at) {
            std::string warning = From(m_err.lines[at], kWarning);
            if (!warning.empty())
                story.others.push_back(std::move(warning));
        }
    }

    /// `erase` and `setenv` end with their marker and let the script go on.
    void FollowToMarker(std::size_t marker, LineStory &story) {
        const std::size_t error = m_err.FindError(m_err.next);
        if (error <= marker)
            Fail(story, error);
        KeepWarnings(story, marker);
        m_err.next = marker + 1;
    }

    bool FollowImage(std::size_t index, LineStory &story) {
        const std::size_t begin = m_err.next;
        const std::size_t erased = m_err.FindWhole(begin, kEraseEnd);
        const std::size_t early = m_err.FindError(begin);
        // An error before the end of the write's own erase is the write's.
        if (early != kNowhere && (erased == kNowhere || early < erased)) {
            Fail(story, early);
            return false;
        }
        if (erased == kNowhere) {
            Fail(story, kNowhere);
            return false;
        }
        const std::size_t next = index + 1 < m_lines.size() ? FindMarker(index + 1, erased + 1) : kNowhere;
        const std::size_t end = m_err.FindWhole(erased + 1, kWriteEnd);
        if (end != kNowhere && end < next) {
            story.readsToTheEnd = true;
            KeepWarnings(story, end);
            m_err.next = end + 1;
            return true;
        }
        // A write that reaches the end of the chip ends silently; messages of later lines show that it ended well.
        const std::size_t error = m_err.FindError(erased + 1);
        const bool isLast = index + 1 == m_lines.size();
        if (next == kNowhere && (error != kNowhere || !isLast || m_wasCut || !m_lines[index].size.value)) {
            Fail(story, error);
            KeepWarnings(story, m_err.lines.size());
            return false;
        }
        // Its warnings can't be separated from those of the next line; both name the same bad blocks.
        m_err.next = erased + 1;
        return true;
    }

    bool FollowUbiformat(std::size_t index, LineStory &story) {
        const UpdateLine &line = m_lines[index];
        const std::string complaints[] = {"dev " + line.tokens[1] + " is not exist",
                                          m_story.folder + line.image + " is not exist"};
        const std::size_t next = index + 1 < m_lines.size() ? FindMarker(index + 1, m_err.next) : kNowhere;
        const std::size_t prepares = m_out.FindWhole(m_out.next, kPreparesUbi);
        for (const auto &[program, status] : kFormatPrograms) {
            const std::size_t at = prepares == kNowhere ? kNowhere : m_out.FindStart(prepares, status);
            if (at == kNowhere)
                continue;
            const std::string message = From(m_out.lines[at], status);
            story.exits.emplace_back(program, std::atoi(message.c_str() + std::string(status).size()));
            m_out.next = at + 1;
        }
        if (next != kNowhere || story.exits.size() == std::size(kFormatPrograms))
            return true;
        Fail(story, m_err.FindError(m_err.next));
        for (const std::string &complaint : complaints) {
            if (m_err.FindWhole(m_err.next, complaint) != kNowhere)
                story.complaint = complaint;
        }
        return false;
    }

    const std::vector<UpdateLine> &m_lines;
    Messages m_out;
    Messages m_err;
    bool m_wasCut;
    RunStory m_story;
};

} // namespace

RunStory FollowRun(const std::vector<UpdateLine> &lines, const std::string &out, const std::string &err, bool wasCut) {
    return Follower(lines, out, err, wasCut).Follow();
}
