#include "RunStory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);

constexpr const char *kRunning = "running update script ";
constexpr const char *kRefused = "error : script ";
constexpr const char *kUserFailure = "The switch to root user failed!"; // comes without a line end
constexpr const char *kError = "error : ";
constexpr const char *kWarning = "warning : ";
constexpr const char *kEraseEnd = "erase complete";
constexpr const char *kWriteEnd = "write file complete";
constexpr const char *kPreparesUbi = "prepare ubi ...";
/// The programs of a ubiformat line, and what is said when each has ended.
constexpr const char *kFormatPrograms[][2] = {{"/tmp/update/prepare.sh", "execute /bin/sh status "},
                                              {"/tmp/update/ubiformat", "execute /tmp/update/ubiformat status "}};

bool BeginsWith(const std::string &text, const std::string &start) { return text.compare(0, start.size(), start) == 0; }

std::vector<std::string> CutLines(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

/// Messages in their order, and how far they are taken.
struct Messages {
    explicit Messages(const std::string &text) : lines(CutLines(text)) {}

    /// @return the place of the first line from `from` on that a test takes, or kNowhere.
    template <typename Test> std::size_t Find(std::size_t from, Test test) const {
        const auto found =
            std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end(), test);
        return found == lines.end() ? kNowhere : static_cast<std::size_t>(found - lines.begin());
    }
    std::size_t FindStart(std::size_t from, const std::string &start) const {
        return Find(from, [&](const std::string &line) { return BeginsWith(line, start); });
    }

    std::vector<std::string> lines;
    std::size_t next = 0;
};

std::string HexText(const ScriptNumber &number) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number.value));
    return text;
}

bool IsMisaligned(const std::string &message) {
    return BeginsWith(message, "error : invalid offset=") || BeginsWith(message, "error : invalid size=");
}

/// Follows one run; see FollowRun.
class Follower {
public:
    Follower(const std::vector<UpdateLine> &lines, const std::string &out, const std::string &err, bool wasCut)
        : m_lines(lines), m_out(out), m_err(err), m_wasCut(wasCut) {
        m_story.lines.resize(lines.size());
        for (std::string &line : m_err.lines) {
            if (BeginsWith(line, kUserFailure))
                line.erase(0, std::string(kUserFailure).size());
        }
    }

    RunStory Follow() {
        for (std::size_t at = m_out.FindStart(0, kRunning); at != kNowhere; at = m_out.FindStart(at + 1, kRunning)) {
            const std::string path = m_out.lines[at].substr(std::string(kRunning).size());
            m_story.folder = path.substr(0, path.rfind('/') + 1);
            m_story.hasStarted = true;
        }
        const std::size_t refusal = m_err.FindStart(0, kRefused);
        if (refusal != kNowhere && refusal == m_err.FindStart(0, kError))
            m_story.refusal = m_err.lines[refusal].substr(std::string(kError).size());
        if (m_story.hasStarted && m_story.refusal.empty()) {
            PassCount();
            for (std::size_t i = 0; i < m_lines.size() && FollowLine(i);)
                ++i;
        }
        return m_story;
    }

private:
    /// The message that a line begins or ends with: it was reached when there is one.
    bool IsMarker(const UpdateLine &line, const std::string &message) const {
        if (line.kind == LineKind::Unknown)
            return message == "Unknown script command " + line.text;
        if (!line.isComplete)
            return message == "incomplete script command " + line.text;
        const std::string path = m_story.folder + line.image;
        switch (line.kind) {
        case LineKind::Write:
        case LineKind::WriteOob:
            return message == path + " doesn't exist" ||
                   message == "write " + path + " to flash address " + HexText(line.offset);
        case LineKind::Ubiformat:
            return message == path + " doesn't exist" || message == "ubiformat " + path + " to <MTD> " + line.tokens[1];
        case LineKind::SetEnv:
        case LineKind::HandEnv:
            return message == "write " + line.Name() + " = " + line.Value() + " to env";
        default:
            return message == kEraseEnd || IsMisaligned(message);
        }
    }

    std::size_t FindMarker(std::size_t index, std::size_t from) const {
        return m_err.Find(from, [&](const std::string &message) { return IsMarker(m_lines[index], message); });
    }

    /// The count comes first and names the unknown lines once.
    void PassCount() {
        for (std::size_t i = 0; i < m_lines.size(); ++i) {
            if (m_lines[i].kind != LineKind::Unknown)
                continue;
            const std::size_t at = FindMarker(i, m_err.next);
            if (at != kNowhere)
                m_err.next = at + 1;
        }
    }

    /// @return false when the run didn't get beyond this line.
    bool FollowLine(std::size_t index) {
        const UpdateLine &line = m_lines[index];
        LineStory &story = m_story.lines[index];
        const std::size_t marker = FindMarker(index, m_err.next);
        if (marker == kNowhere) {
            // An exception ends a command without its closing message, and so does a cut.
            const std::size_t error = m_err.FindStart(m_err.next, kError);
            if (error != kNowhere || m_wasCut)
                Fail(story, error);
            return false;
        }
        if (line.kind == LineKind::Unknown || !line.isComplete || BeginsWith(m_err.lines[marker], m_story.folder)) {
            story.result = LineResult::Skipped;
            story.complaint = m_err.lines[marker];
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
            story.complaint = m_err.lines[message];
    }

    void KeepWarnings(LineStory &story, std::size_t end) const {
        for (std::size_t at = m_err.next; at < end; ++at) {
            if (BeginsWith(m_err.lines[at], kWarning))
                story.others.push_back(m_err.lines[at]);
        }
    }

    /// `erase` and `setenv` end with their marker and let the script go on.
    void FollowToMarker(std::size_t marker, LineStory &story) {
        const std::size_t error = m_err.FindStart(m_err.next, kError);
        if (error <= marker)
            Fail(story, error);
        KeepWarnings(story, marker);
        m_err.next = marker + 1;
    }

    bool FollowImage(std::size_t index, LineStory &story) {
        const std::size_t begin = m_err.next;
        const std::size_t erased = m_err.FindStart(begin, kEraseEnd);
        const std::size_t early = m_err.FindStart(begin, kError);
        // An error ahead of the end of its own erase is its own.
        if (early != kNowhere && (erased == kNowhere || early < erased)) {
            Fail(story, early);
            return false;
        }
        if (erased == kNowhere) {
            Fail(story, kNowhere);
            return false;
        }
        const std::size_t next = index + 1 < m_lines.size() ? FindMarker(index + 1, erased + 1) : kNowhere;
        const std::size_t end = m_err.FindStart(erased + 1, kWriteEnd);
        if (end != kNowhere && end < next) {
            story.readsToTheEnd = true;
            KeepWarnings(story, end);
            m_err.next = end + 1;
            return true;
        }
        // A walk that reached the end of the chip says nothing; the lines behind it tell that it ended well.
        const std::size_t error = m_err.FindStart(erased + 1, kError);
        const bool isLast = index + 1 == m_lines.size();
        if (next == kNowhere && (error != kNowhere || !isLast || m_wasCut || !m_lines[index].size.value)) {
            Fail(story, error);
            KeepWarnings(story, m_err.lines.size());
            return false;
        }
        // Its warnings and those of the next line can't be told apart; both name the same bad blocks.
        m_err.next = erased + 1;
        return true;
    }

    bool FollowUbiformat(std::size_t index, LineStory &story) {
        const UpdateLine &line = m_lines[index];
        const std::string complaints[] = {"dev " + line.tokens[1] + " is not exist",
                                          m_story.folder + line.image + " is not exist"};
        const std::size_t complaint = m_err.Find(m_err.next, [&](const std::string &message) {
            return message == complaints[0] || message == complaints[1] || BeginsWith(message, kError);
        });
        const std::size_t next = index + 1 < m_lines.size() ? FindMarker(index + 1, m_err.next) : kNowhere;
        const std::size_t prepares = m_out.FindStart(m_out.next, kPreparesUbi);
        for (const auto &[program, status] : kFormatPrograms) {
            const std::size_t at = prepares == kNowhere ? kNowhere : m_out.FindStart(prepares, status);
            if (at == kNowhere)
                continue;
            story.exits.emplace_back(program, std::atoi(m_out.lines[at].c_str() + std::string(status).size()));
            m_out.next = at + 1;
        }
        if (next == kNowhere && (complaint != kNowhere || story.exits.size() < 2)) {
            Fail(story, complaint);
            return false;
        }
        return true;
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
