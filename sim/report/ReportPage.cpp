#include "report/ReportPage.h"

#include "base/Text.h"
#include "report/MarkLooks.h"
#include "report/PageFiles.h"
#include "report/ReportEntries.h"
#include "report/UbiText.h"
#include "report/XmlText.h"
#include "sweep/Sweep.h"
#include "verdict/BlockContent.h"
#include "verdict/LineFinder.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

using nlohmann::ordered_json;

namespace {

constexpr std::size_t kMostScriptLines = 5000;
constexpr std::size_t kMostOutput = std::size_t{512} << 10; ///< bytes
constexpr std::size_t kMostCases = 2000;                    ///< commands of a sweep that have nothing in common

// Changes in the page.
constexpr std::int64_t kErase = 1;
constexpr std::int64_t kEcc = 2;
constexpr std::int64_t kData = 4;
constexpr std::int64_t kOob = 8;
constexpr std::int64_t kChangeKinds = 16;

/// Packs numbers for the page.
class Packer {
public:
    /// @param low of a number of fewer than `kinds` values that goes along as it is
    void Add(std::int64_t number, std::int64_t kinds = 1, std::int64_t low = 0) {
        const std::int64_t step = number - std::exchange(m_last, number);
        auto word = static_cast<std::uint64_t>((step < 0 ? -2 * step - 1 : 2 * step) * kinds + low);
        constexpr unsigned kMore = 0x80;
        for (; word >= kMore; word >>= 7)
            m_bytes += static_cast<char>(word | kMore);
        m_bytes += static_cast<char>(word);
    }

    std::string Base64() const {
        constexpr const char *kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string text;
        for (std::size_t at = 0; at < m_bytes.size(); at += 3) {
            unsigned bits = 0;
            for (std::size_t i = at; i < at + 3; ++i)
                bits = bits << 8 | (i < m_bytes.size() ? static_cast<unsigned char>(m_bytes[i]) : 0U);
            for (std::size_t digit = 0; digit < 4; ++digit)
                text += at + digit > m_bytes.size() ? '=' : kDigits[bits >> (18 - 6 * digit) & 0x3f];
        }
        return text;
    }

private:
    std::string m_bytes;
    std::int64_t m_last = 0;
};

/// Adds to pairs of a number of items and their value.
template <typename T> void AddRun(ordered_json &pairs, const T &value) {
    if (!pairs.empty() && pairs.back()[1] == value)
        pairs.back()[0] = pairs.back()[0].template get<std::size_t>() + 1;
    else
        pairs.push_back({1, value});
}

/// @return the lines of a text, without their ends.
std::vector<std::string> LinesOf(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// Failures of sweeps.

/// What distinguishes the run of a failure from its neighbours.
struct FailedCase {
    const char *what = "case";
    std::optional<std::int64_t> number;
    std::optional<std::int64_t> time; ///< when this is not the time of the number
    std::string label;
};

FailedCase ReadCase(const ordered_json &failure, const RunTimeline *timeline) {
    const ordered_json &cut = failure.at("cut");
    const std::string fault = failure.at("fault").is_null() ? "" : failure.at("fault").get<std::string>();
    constexpr std::pair<const char *, const char *> kLists[] = {
        {"badBlocks", "bad"}, {"eraseFails", "erase-fails"}, {"programFails", "program-fails"}};
    FailedCase read;
    std::size_t blocks = 0;
    for (const auto &[name, what] : kLists) {
        const ordered_json &list = failure.at(name);
        blocks += list.size();
        if (list.size() == 1) {
            read.what = what;
            read.number = list[0].get<std::int64_t>();
        }
        if (!list.empty())
            read.label += (read.label.empty() ? "" : ", ") + std::string(what) + " " + list.dump();
    }
    const bool isPair = !failure.at("secondCut").is_null() || (blocks != 0 && !cut.is_null());
    if (!cut.is_null()) {
        read.time = cut.get<std::int64_t>();
        read.what = "cut";
        read.number = read.time;
        read.label += (read.label.empty() ? "" : ", ") + std::string("cut ") + cut.dump();
        if (!failure.at("secondCut").is_null())
            read.label += ", then cut " + failure.at("secondCut").dump();
    }
    const std::size_t colon = fault.find(':');
    if (!fault.empty() && fault.find(' ') == std::string::npos && colon != std::string::npos) {
        read.what = "fault";
        read.number = std::strtoll(fault.c_str() + colon + 1, nullptr, 10);
        for (std::uint32_t kind = 0; timeline != nullptr && kind < kRequestKinds; ++kind) {
            const std::vector<std::size_t> &times = timeline->requests[kind];
            if (fault.substr(0, colon) == RequestName(static_cast<RequestKind>(kind)) && *read.number > 0 &&
                static_cast<std::size_t>(*read.number) <= times.size())
                read.time = static_cast<std::int64_t>(times[static_cast<std::size_t>(*read.number - 1)]);
        }
    }
    if (blocks > 1 || isPair) {
        read.what = "case";
        read.number.reset();
    }
    return read;
}

/// @return the parts of a command around a number, wherever that stands as a whole word of digits.
ordered_json PartsOf(const std::string &command, const std::optional<std::int64_t> &number) {
    ordered_json parts = ordered_json::array();
    const std::string digits = number ? std::to_string(*number) : "";
    const auto isDigit = [&](std::size_t at) {
        return at < command.size() && std::isdigit(static_cast<unsigned char>(command[at])) != 0;
    };
    std::size_t start = 0;
    for (std::size_t at = command.find(digits); number && at != std::string::npos;
         at = command.find(digits, at + digits.size())) {
        if ((at > 0 && isDigit(at - 1)) || isDigit(at + digits.size()))
            continue;
        parts.push_back(command.substr(start, at - start));
        start = at + digits.size();
    }
    parts.push_back(command.substr(start));
    return parts;
}

/// Gathers equal failures, and of these the cases whose commands differ in one number.
ordered_json GatherFailures(const ordered_json &failures, const RunTimeline *timeline, std::size_t &omitted) {
    struct Cases {
        ordered_json described;
        std::size_t count = 0;
        Packer numbers, times;
    };
    struct Group {
        const ordered_json *first;
        std::vector<Cases> cases;
    };
    std::vector<Group> groups;
    std::map<std::string, std::size_t> groupPlaces;
    std::map<std::tuple<std::size_t, std::string>, std::size_t> casePlaces;
    for (const ordered_json &failure : failures) {
        const FailedCase what = ReadCase(failure, timeline);
        const std::string key = failure.at("line").dump() + " " + failure.at("happens").get<std::string>();
        const std::size_t group = groupPlaces.emplace(key, groups.size()).first->second;
        ordered_json described = {{"what", what.what},
                                  {"torn", failure.at("torn")},
                                  {"command", PartsOf(failure.at("command").get<std::string>(), what.number)}};
        if (!what.number)
            described["label"] = what.label;
        const std::string fault = failure.at("fault").is_null() ? "" : failure.at("fault").get<std::string>();
        if (!fault.empty())
            described["fault"] = fault.substr(0, fault.find(':'));
        const std::string pattern =
            described.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + (what.time ? "" : " no time");
        if (casePlaces.count({group, pattern}) == 0 && casePlaces.size() >= kMostCases) {
            ++omitted;
            continue;
        }
        if (group == groups.size())
            groups.push_back({&failure, {}});
        std::vector<Cases> &list = groups[group].cases;
        const auto [place, isNew] = casePlaces.emplace(std::make_tuple(group, pattern), list.size());
        if (isNew)
            list.push_back({std::move(described), 0, {}, {}});
        Cases &cases = list[place->second];
        ++cases.count;
        cases.numbers.Add(what.number.value_or(0));
        if (what.time)
            cases.times.Add(*what.time);
        cases.described["times"] = what.time ? ordered_json(true) : ordered_json(nullptr);
    }
    ordered_json all = ordered_json::array();
    for (Group &group : groups) {
        ordered_json cases = ordered_json::array();
        for (Cases &it : group.cases) {
            it.described["count"] = it.count;
            it.described["numbers"] = it.numbers.Base64();
            if (!it.described["times"].is_null())
                it.described["times"] = it.times.Base64();
            cases.push_back(std::move(it.described));
        }
        ordered_json described = {{"cases", std::move(cases)}};
        for (const char *field : {"line", "text", "happens", "change"})
            described[field] = group.first->at(field);
        all.push_back(std::move(described));
    }
    return all;
}

// The run.

ordered_json DescribeOutput(const RunTimeline &timeline, std::size_t &omitted) {
    ordered_json lines = ordered_json::array();
    std::string open[2]; // of both streams
    std::size_t kept = 0;
    const auto add = [&](std::size_t time, bool isError, const std::string &line) {
        kept += line.size();
        if (kept > kMostOutput)
            ++omitted;
        else
            lines.push_back({time, isError ? 1 : 0, line});
    };
    for (const RunTimeline::Output &output : timeline.outputs) {
        std::string &text = open[output.isError ? 1 : 0];
        text += output.text;
        for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            add(output.time, output.isError, text.substr(0, end));
            text.erase(0, end + 1);
        }
    }
    for (const bool isError : {false, true}) {
        if (!open[isError ? 1 : 0].empty())
            add(timeline.changes.size(), isError, open[isError ? 1 : 0]);
    }
    return lines;
}

/// @return for blocks that UBI uses: what for.
std::map<std::uint32_t, std::string> UbiUses(const std::vector<UbiPartition> &partitions, const WholeFlash &flash) {
    std::map<std::uint32_t, std::string> uses;
    for (const UbiPartition &partition : partitions) {
        const auto first = static_cast<std::uint32_t>(flash.OnChip(partition.range.begin) /
                                                      static_cast<std::uint64_t>(flash.EraseSize()));
        for (const UbiVolume &volume : partition.attachment.volumes) {
            for (const auto &[number, leb] : volume.lebs)
                uses[first + leb.peb] = partition.name + ": volume " + std::to_string(volume.id) + " \"" + volume.name +
                                        "\", LEB " + std::to_string(number);
        }
    }
    return uses;
}

std::string ContentOf(const RunFacts &facts, std::uint32_t block, const std::vector<char> &bytes) {
    const std::string_view view(bytes.data(), bytes.size());
    const auto address = static_cast<std::uint64_t>(block) * bytes.size();
    const bool isEnvironment = std::any_of(facts.lines.begin(), facts.lines.end(), [&](const LineVerdict &line) {
        const auto range = facts.RangeOf(line);
        return line.line.kind == LineKind::SetEnv && range && range->Holds(facts.flash.FromChip(address));
    });
    if (isEnvironment)
        return LookAtBlock(view).text;
    const DataFormat *format = FindFormat(view);
    return format == nullptr ? "" : format->name;
}

ordered_json DescribeBlocks(const RunFacts &facts, const Verdict &verdict) {
    const NandChip &chip = facts.chip;
    const NandGeometry &geometry = chip.Geometry();
    const std::map<std::uint32_t, std::string> uses = UbiUses(verdict.ubi, facts.flash);
    ordered_json blocks = ordered_json::array();
    std::vector<char> bytes(geometry.eraseSize);
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        const auto use = uses.find(block);
        if (!chip.IsTouched(block) && use == uses.end())
            continue;
        std::uint32_t programmed = 0, corrected = 0, failed = 0, oob = 0;
        for (std::uint32_t i = 0; i < geometry.PagesPerBlock(); ++i) {
            const std::uint32_t page = block * geometry.PagesPerBlock() + i;
            char *data = bytes.data() + std::size_t{i} * geometry.pageSize;
            const ReadResult result =
                chip.Read(page, 0, geometry.pageSize, reinterpret_cast<std::uint8_t *>(data)).Worst();
            // As it is, when a normal read does not give the data.
            if (result != ReadResult::Clean)
                std::copy_n(chip.Cells(page), geometry.pageSize, data);
            programmed += chip.IsProgrammed(page) ? 1 : 0;
            corrected += result == ReadResult::Corrected ? 1 : 0;
            failed += result == ReadResult::Uncorrectable ? 1 : 0;
            oob += chip.HasPlainOob(page) ? 0 : 1;
        }
        std::string content = ContentOf(facts, block, bytes);
        if (use != uses.end())
            content += (content.empty() ? "" : "; ") + use->second;
        blocks.push_back({block, programmed, corrected, failed, oob, content});
    }
    return blocks;
}

void DescribeRun(const PageRun &run, ordered_json &page) {
    const RunFacts facts(run.record, run.chip);
    const std::uint32_t pagesPerBlock = run.chip.Geometry().PagesPerBlock();
    std::vector<std::string> script = LinesOf(VisibleScript(run.record.script));
    script.resize(std::min(script.size(), kMostScriptLines));
    page["text"] = script;
    Packer changes;
    ordered_json lines = ordered_json::array();
    std::vector<UpdateLine> updateLines;
    for (const LineVerdict &line : facts.lines)
        updateLines.push_back(line.line);
    LineFinder finder(run.chip, run.record.devices, updateLines, facts.story);
    for (const RunChange &change : run.timeline.changes) {
        const bool isErase = change.kind == AccessKind::Erase;
        changes.Add(std::int64_t{change.place} * (isErase ? pagesPerBlock : 1), kChangeKinds,
                    (isErase ? kErase : 0) | (change.withEcc ? kEcc : 0) | (change.hasData ? kData : 0) |
                        (change.hasOob ? kOob : 0));
        AddRun(lines, finder.Change(change));
    }
    page["changes"] = changes.Base64();
    page["changeLines"] = lines;
    std::size_t omitted = 0;
    page["output"] = DescribeOutput(run.timeline, omitted);
    page["outputOmitted"] = omitted;
    page["percentages"] = ordered_json::array();
    const std::string notify = std::string(kNotifyScript) + " ";
    for (const RunTimeline::Command &call : run.timeline.commands) {
        if (call.command.rfind(notify, 0) == 0)
            page["percentages"].push_back({call.time, std::atoi(call.command.c_str() + notify.size())});
    }
    page["badMarks"] = ordered_json::array();
    for (const RunTimeline::BadMark &mark : run.timeline.badMarks)
        page["badMarks"].push_back({mark.time, mark.block});
    page["marks"] = ordered_json::array();
    for (const std::size_t mark : MarkCells(ChipMarks(run.chip), 1))
        AddRun(page["marks"], mark);
    page["blocks"] = DescribeBlocks(facts, run.verdict);
    for (const UbiPartition &partition : run.verdict.ubi) {
        for (const std::string &line : UbiLines(partition))
            page["ubi"].push_back({partition.line.number, line});
    }
}

/// Makes all texts of an object visible ones.
void MakeVisible(ordered_json &json) {
    if (json.is_string())
        json = VisibleText(json.get<std::string>());
    else if (json.is_structured())
        for (ordered_json &item : json)
            MakeVisible(item);
}

/// The report for browsers without programs: one line for each entry.
std::string PlainText(const ordered_json &report, const FormatFacts &facts) {
    std::string text;
    for (const ReportEntry &entry : ReadEntries(report, facts.command))
        text += VisibleText(facts.script) + (entry.line == 0 ? "" : ":" + std::to_string(entry.line)) + ": " +
                entry.severity + ": " + (entry.text.empty() ? "" : entry.text + ": ") + entry.message + " [" +
                entry.rule + "]\n" + (entry.command.empty() ? "" : "    " + entry.command + "\n");
    return XmlMarkupEscaped(text + "the run alone: " + report.at("verdict").get<std::string>() + "\n");
}

void Replace(std::string &text, const std::string &mark, const std::string &with) {
    text.replace(text.find(mark), mark.size(), with);
}

} // namespace

std::string HtmlText(const ordered_json &report, const FormatFacts &facts) {
    ordered_json page = {{"tool", "flashsim " + facts.version},
                         {"update", facts.update},
                         {"script", facts.script},
                         {"command", facts.command}};
    for (const char *field : {"verdict", "chip", "run", "changes", "lines", "findings", "sweeps"})
        page[field] = report.at(field);
    page["changeCount"] = std::exchange(page["changes"], nullptr);
    page["ubi"] = ordered_json::array();
    page["kinds"] = SweepNames();
    page["looks"] = ordered_json::array();
    for (const MarkLook &look : kMarkLooks)
        page["looks"].push_back({look.words, look.light, look.dark});
    for (ordered_json &sweep : page["sweeps"]) {
        std::size_t omitted = 0;
        sweep["failures"] =
            GatherFailures(sweep.at("failures"), facts.run == nullptr ? nullptr : &facts.run->timeline, omitted);
        sweep["omitted"] = omitted;
    }
    if (facts.run != nullptr)
        DescribeRun(*facts.run, page);
    MakeVisible(page);
    std::string data = page.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
    for (std::size_t at = data.find('<'); at != std::string::npos; at = data.find('<', at))
        data.replace(at, 1, "\\u003c"); // no text ends the element
    std::string html = kPageFile;
    // The last mark first: what replaces a mark may look like another one.
    Replace(html, kPageText, PlainText(report, facts));
    Replace(html, kPageData, data);
    Replace(html, kPageTitle, XmlMarkupEscaped(VisibleText(facts.update) + ": " + page["verdict"].get<std::string>()));
    return html;
}
