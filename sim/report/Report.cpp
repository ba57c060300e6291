#include "report/Report.h"

#include "base/Text.h"
#include "report/UbiText.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

using nlohmann::ordered_json;

namespace {

constexpr int kFormat = 1;

const char *ResultName(LineResult result) {
    constexpr const char *kNames[] = {"clean", "skipped", "failed", "never-ran"};
    return kNames[static_cast<std::size_t>(result)];
}

const char *SeverityName(Severity severity) {
    constexpr const char *kNames[] = {"note", "warning", "error"};
    return kNames[static_cast<std::size_t>(severity)];
}

ordered_json DescribeChip(const NandChip &chip) {
    const NandGeometry &geometry = chip.Geometry();
    ordered_json bad = ordered_json::array();
    for (std::uint32_t block = 0; block < geometry.Blocks(); ++block) {
        if (chip.IsBad(block))
            bad.push_back(block);
    }
    return {{"size", geometry.size},
            {"eraseSize", geometry.eraseSize},
            {"pageSize", geometry.pageSize},
            {"oobSize", geometry.oobSize},
            {"ecc", chip.EccMode() == Ecc::Host ? "host" : "chip"},
            {"badBlocks", bad}};
}

ordered_json DescribeRun(const RunRecord &record) {
    ordered_json run = {{"exitStatus", nullptr}, {"signal", nullptr}, {"powerCut", nullptr}};
    if (WIFSIGNALED(record.status))
        run["signal"] = WTERMSIG(record.status);
    else
        run["exitStatus"] = WEXITSTATUS(record.status);
    if (!record.cutPlace.empty())
        run["powerCut"] = record.cutPlace;
    return run;
}

ordered_json DescribeLine(const LineVerdict &verdict) {
    ordered_json line = {
        {"number", verdict.line.number}, {"text", verdict.line.text}, {"result", ResultName(verdict.result)}};
    if (!verdict.line.WritesImage())
        return line;
    line["room"] = nullptr;
    if (const auto spare = verdict.SpareBlocks())
        line["room"] = {{"rangeBlocks", *verdict.rangeBlocks},
                        {"imageBlocks", *verdict.imageBlocks},
                        {"badBlocks", verdict.badBlocks},
                        {"spareBlocks", *spare}};
    return line;
}

ordered_json DescribeUbi(const UbiPartition &partition) {
    const UbiAttachment &ubi = partition.attachment;
    ordered_json volumes = ordered_json::array();
    for (const UbiVolume &volume : ubi.volumes)
        volumes.push_back({{"id", volume.id},
                           {"name", volume.name},
                           {"type", volume.isStatic ? "static" : "dynamic"},
                           {"lebs", volume.reservedPebs},
                           {"mappedLebs", volume.lebs.size()},
                           {"alignment", volume.alignment},
                           {"updateMarker", volume.hasUpdateMarker},
                           {"corrupted", volume.isCorrupted}});
    return {{"device", partition.name},
            {"line", partition.line.number},
            {"attached", ubi.IsAttached()},
            {"reason", ubi.reason},
            {"pebs", ubi.pebs.total},
            {"badPebs", ubi.pebs.bad},
            {"reservedForBad", ubi.reservedForBad},
            {"wantedForBad", ubi.wantedForBad},
            {"available", ubi.available},
            {"volumes", volumes}};
}

ordered_json DescribeFinding(const Finding &finding) {
    ordered_json described = {
        {"line", nullptr},      {"text", finding.text},       {"severity", SeverityName(finding.severity)},
        {"kind", finding.kind}, {"happens", finding.happens}, {"change", finding.change}};
    if (finding.line != 0)
        described["line"] = finding.line;
    return described;
}

std::string Counted(std::ptrdiff_t number, const char *noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

} // namespace

ordered_json MakeReport(const RunRecord &record, const Verdict &verdict, const NandChip &chip, const SimState &state) {
    ordered_json report = {{"format", kFormat},
                           {"verdict", verdict.IsClean() ? "clean" : "findings"},
                           {"chip", DescribeChip(chip)},
                           {"devices", ordered_json::array()},
                           {"run", DescribeRun(record)},
                           {"requests", ordered_json::object()},
                           {"changes", state.Changes()},
                           {"percentages", verdict.percentages},
                           {"lines", ordered_json::array()},
                           {"ubi", ordered_json::array()},
                           {"findings", ordered_json::array()},
                           {"sweeps", ordered_json::array()}};
    for (const SimDevice &device : record.devices)
        report["devices"].push_back(
            {{"number", device.number}, {"name", device.name}, {"offset", device.offset}, {"size", device.size}});
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind) {
        const auto request = static_cast<RequestKind>(kind);
        report["requests"][RequestName(request)] = state.Requests(request);
    }
    for (const LineVerdict &line : verdict.lines)
        report["lines"].push_back(DescribeLine(line));
    for (const UbiPartition &partition : verdict.ubi)
        report["ubi"].push_back(DescribeUbi(partition));
    for (const Finding &finding : verdict.findings)
        report["findings"].push_back(DescribeFinding(finding));
    return report;
}

std::optional<ordered_json> ParseReport(const std::string &text) {
    // Reports are far flatter; whoever writes or compares JSON goes down a level by a call.
    constexpr int kDeepest = 32;
    bool isDeep = false;
    const auto look = [&isDeep](int depth, ordered_json::parse_event_t, const ordered_json &) {
        isDeep = isDeep || depth > kDeepest;
        return !isDeep;
    };
    ordered_json report = ordered_json::parse(text, look, false);
    if (isDeep || !report.is_object() || !report.contains("sweeps"))
        return std::nullopt;
    return report;
}

std::string VerdictText(const Verdict &verdict, const std::string &scriptPath) {
    const std::string scriptName = VisibleText(scriptPath);
    std::string text;
    for (const LineVerdict &line : verdict.lines) {
        const auto spare = line.SpareBlocks();
        if (!spare || *spare < 0)
            continue;
        text += scriptName + ":" + std::to_string(line.line.number) + ": room: " + VisibleText(line.line.image) +
                " fills " + std::to_string(*line.imageBlocks) + " of " + Counted(*line.rangeBlocks, "block") +
                " and tolerates " + Counted(*spare, "bad block") +
                (line.badBlocks == 0 ? "" : " (" + std::to_string(line.badBlocks) + " present)") + "\n";
    }
    for (const UbiPartition &partition : verdict.ubi) {
        for (const std::string &line : UbiLines(partition))
            text += scriptName + ":" + std::to_string(partition.line.number) + ": ubi: " + VisibleText(line) + "\n";
    }
    for (const Finding &finding : verdict.findings) {
        const std::string about = finding.text.empty() ? "" : finding.text + ": ";
        text += scriptName + (finding.line == 0 ? "" : ":" + std::to_string(finding.line)) + ": " +
                SeverityName(finding.severity) + ": " +
                VisibleText(about + finding.happens + "; " + finding.change + " [" + finding.kind + "]") + "\n";
    }
    return text + VerdictLine(verdict) + "\n";
}

std::string VerdictLine(const Verdict &verdict) {
    std::ptrdiff_t counts[3] = {};
    for (const Finding &finding : verdict.findings)
        ++counts[static_cast<std::size_t>(finding.severity)];
    // A line with an error did something else than it says, whatever the updater makes of it.
    const auto ran = std::count_if(verdict.lines.begin(), verdict.lines.end(), [&](const LineVerdict &line) {
        return line.result == LineResult::Clean &&
               std::none_of(verdict.findings.begin(), verdict.findings.end(), [&](const Finding &finding) {
                   return finding.line == line.line.number && finding.severity == Severity::Error;
               });
    });
    std::string text = std::string("verdict: ") + (verdict.IsClean() ? "clean" : "NOT clean") + ": ";
    for (const Severity severity : {Severity::Error, Severity::Warning, Severity::Note}) {
        if (const std::ptrdiff_t count = counts[static_cast<std::size_t>(severity)])
            text += Counted(count, SeverityName(severity)) + ", ";
    }
    return text + std::to_string(ran) + " of " + Counted(static_cast<std::ptrdiff_t>(verdict.lines.size()), "line") +
           " carried out";
}
