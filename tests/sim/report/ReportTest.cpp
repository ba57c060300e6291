#include "report/Report.h"
#include "report/RunSummary.h"
#include "report/SweepReport.h"
#include "sweep/SweepTable.h"

#include <csignal>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using nlohmann::ordered_json;

namespace {

/// A finished run on a chip of 8 blocks, and its state file.
struct Finished {
    Finished() {
        chip.Format();
        chip.MarkBad(2);
        SimState::Create(path, {});
        record.devices = {{3, "boot", 0x400, 0x800}, {12, "all", 0, 0x2000}};
        LineVerdict written;
        written.line = ReadUpdateLines("write 400 c00 image\n").front();
        written.result = LineResult::Clean;
        written.rangeBlocks = 3;
        written.imageBlocks = 2;
        written.badBlocks = 1;
        LineVerdict unknown = written;
        unknown.imageBlocks.reset();
        LineVerdict erased = written;
        erased.line = ReadUpdateLines("erase 0 400\n").front();
        verdict.lines = {written, unknown, erased};
        verdict.findings = {ForRun(FindingId::Crashed, "a"), ForLine(written.line, FindingId::NoSpare, "b")};
    }
    ~Finished() { unlink(path.c_str()); }

    ordered_json Report() const { return MakeReport(record, verdict, chip, SimState(path)); }

    const std::string path = testing::TempDir() + "report" + std::to_string(getpid());
    NandGeometry geometry{0x2000, 0x400, 512, 16};
    std::vector<std::uint8_t> cells = std::vector<std::uint8_t>(geometry.RawSize());
    std::vector<std::uint8_t> pages = std::vector<std::uint8_t>(geometry.Pages());
    std::vector<std::uint8_t> blocks = std::vector<std::uint8_t>(geometry.Blocks());
    NandChip chip{geometry, Ecc::Host, {cells.data(), pages.data(), blocks.data()}};
    RunRecord record;
    Verdict verdict;
};

/// @return a sweep with one failure of each kind that the description tells apart.
SweepResult Swept(const char *kind) {
    SweepResult result;
    result.settings.kind = FindSweepKind(kind);
    result.settings.every = 10;
    result.settings.seed = 5;
    result.places = 40;
    result.planned = 4;
    result.done = 3;
    result.isInterrupted = true;
    SweepCase fault;
    fault.faults = {{RequestKind::Read, 7, EIO}, {RequestKind::Open, 0, ENODEV}};
    result.failures = {{2, {{6}}, 1, "erase 0 400", "it is so", ""},
                       {3, {{}, 31, Extent::Complete}, 0, "", "otherwise", "change it"},
                       {4, fault, 1, "erase 0 400", "it is so", ""}};
    result.unsealed = {{1, "erase 0 400", 2}};
    result.gaps = {{1, "erase 0 400", 3, {{}, 31, Extent::Complete}, 33, "why", {}}};
    return result;
}

/// All keys of a value, those inside of others after a dot.
void AddKeys(const ordered_json &value, const std::string &path, std::set<std::string> &keys) {
    if (!value.is_structured())
        return;
    for (const auto &item : value.items()) {
        const std::string place = value.is_array() ? path : (path.empty() ? "" : path + ".") + item.key();
        if (value.is_object())
            keys.insert(place);
        AddKeys(item.value(), place, keys);
    }
}

} // namespace

TEST(Report, HasTheseKeysAndNoOthers) {
    ordered_json report = Finished().Report();
    report["sweeps"].push_back(DescribeSweep(Swept("cut"), {}));
    std::set<std::string> requests;
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        requests.insert(RequestName(static_cast<RequestKind>(kind)));
    std::set<std::string> counted;
    AddKeys(report["requests"], "", counted);
    EXPECT_EQ(counted, requests);
    report["requests"] = 0;
    std::set<std::string> keys;
    AddKeys(report, "", keys);
    // Other programs read them: a key is never renamed or removed.
    EXPECT_EQ(keys, (std::set<std::string>{"format",
                                           "verdict",
                                           "chip",
                                           "chip.size",
                                           "chip.eraseSize",
                                           "chip.pageSize",
                                           "chip.oobSize",
                                           "chip.ecc",
                                           "chip.badBlocks",
                                           "devices",
                                           "devices.number",
                                           "devices.name",
                                           "devices.offset",
                                           "devices.size",
                                           "run",
                                           "run.exitStatus",
                                           "run.signal",
                                           "run.powerCut",
                                           "requests",
                                           "changes",
                                           "percentages",
                                           "lines",
                                           "lines.number",
                                           "lines.text",
                                           "lines.result",
                                           "lines.room",
                                           "lines.room.rangeBlocks",
                                           "lines.room.imageBlocks",
                                           "lines.room.badBlocks",
                                           "lines.room.spareBlocks",
                                           "ubi",
                                           "findings",
                                           "findings.line",
                                           "findings.text",
                                           "findings.severity",
                                           "findings.kind",
                                           "findings.happens",
                                           "findings.change",
                                           "sweeps",
                                           "sweeps.kind",
                                           "sweeps.every",
                                           "sweeps.seed",
                                           "sweeps.runs",
                                           "sweeps.done",
                                           "sweeps.held",
                                           "sweeps.interrupted",
                                           "sweeps.bootChecked",
                                           "sweeps.failures",
                                           "sweeps.failures.run",
                                           "sweeps.failures.badBlocks",
                                           "sweeps.failures.cut",
                                           "sweeps.failures.torn",
                                           "sweeps.failures.secondCut",
                                           "sweeps.failures.eraseFails",
                                           "sweeps.failures.programFails",
                                           "sweeps.failures.fault",
                                           "sweeps.failures.line",
                                           "sweeps.failures.text",
                                           "sweeps.failures.happens",
                                           "sweeps.failures.change",
                                           "sweeps.failures.command",
                                           "sweeps.unsealed",
                                           "sweeps.unsealed.line",
                                           "sweeps.unsealed.text",
                                           "sweeps.unsealed.runs",
                                           "sweeps.unbootable",
                                           "sweeps.unbootable.line",
                                           "sweeps.unbootable.text",
                                           "sweeps.unbootable.runs",
                                           "sweeps.unbootable.first",
                                           "sweeps.unbootable.torn",
                                           "sweeps.unbootable.last",
                                           "sweeps.unbootable.why",
                                           "sweeps.unbootable.change",
                                           "sweeps.unbootable.selectedBy",
                                           "sweeps.unbootable.command"}));
}

TEST(Report, DescribesChipDevicesLinesAndFindings) {
    const ordered_json report = Finished().Report();
    EXPECT_EQ(report["format"], 1);
    EXPECT_EQ(report["chip"].dump(),
              R"({"size":8192,"eraseSize":1024,"pageSize":512,"oobSize":16,"ecc":"host","badBlocks":[2]})");
    EXPECT_EQ(report["devices"].dump(), R"([{"number":3,"name":"boot","offset":1024,"size":2048},)"
                                        R"({"number":12,"name":"all","offset":0,"size":8192}])");
    EXPECT_EQ(report["lines"][0]["room"].dump(), R"({"rangeBlocks":3,"imageBlocks":2,"badBlocks":1,"spareBlocks":1})");
    EXPECT_TRUE(report["lines"][1]["room"].is_null());
    EXPECT_FALSE(report["lines"][2].contains("room"));
    EXPECT_TRUE(report["findings"][0]["line"].is_null());
    EXPECT_EQ(report["findings"][0]["severity"], "error");
    EXPECT_EQ(report["findings"][1]["line"], 1);
    EXPECT_EQ(report["findings"][1]["severity"], "warning");
}

TEST(Report, DescribesHowTheUpdaterEnded) {
    Finished run;
    const struct {
        int status;
        const char *cutPlace, *described, *summary;
    } rows[] = {
        {3 << 8, "", R"({"exitStatus":3,"signal":null,"powerCut":null})", "the updater ended with exit status 3\n"},
        {SIGSEGV, "", R"({"exitStatus":null,"signal":11,"powerCut":null})",
         "the updater was ended by signal 11 (Segmentation fault)\n"},
        {SIGKILL, "MEMWRITE at 0x800", R"({"exitStatus":null,"signal":9,"powerCut":"MEMWRITE at 0x800"})",
         "the updater was ended by signal 9 (Killed)\n"},
    };
    for (const auto &row : rows) {
        run.record.status = row.status;
        run.record.cutPlace = row.cutPlace;
        EXPECT_EQ(run.Report()["run"].dump(), row.described);
        RunOutcome outcome;
        outcome.status = row.status;
        const std::string text = RunSummary(run.chip, SimState(run.path), outcome).Text(80, false);
        EXPECT_NE(text.find(std::string("\nrequests:  none\n") + row.summary), std::string::npos) << text;
    }
}

TEST(SweepReport, DescribesFailuresAndTheOptionsThatTheSweepUses) {
    const RerunWords words = {" --chip c", "update", "", {9}};
    const ordered_json cut = DescribeSweep(Swept("cut"), words);
    EXPECT_EQ(cut["every"], 10);
    EXPECT_TRUE(cut["seed"].is_null());
    EXPECT_EQ(cut["runs"], 4);
    EXPECT_EQ(cut["done"], 3);
    EXPECT_EQ(cut["held"], 0);
    EXPECT_EQ(cut["interrupted"], true);
    EXPECT_EQ(cut["failures"][0].dump(), R"({"run":2,"badBlocks":[6],"cut":null,"torn":null,"secondCut":null,)"
                                         R"("eraseFails":[],"programFails":[],"fault":null,"line":1,)"
                                         R"("text":"erase 0 400","happens":"it is so","change":"",)"
                                         R"("command":"flashsim --chip c --used --bad 6,9 update"})");
    EXPECT_EQ(cut["failures"][1]["cut"], 31);
    EXPECT_EQ(cut["failures"][1]["torn"], "done");
    EXPECT_TRUE(cut["failures"][1]["line"].is_null());
    EXPECT_EQ(cut["failures"][2]["fault"], "read:7=EIO open=ENODEV");
    EXPECT_EQ(cut["unsealed"].dump(), R"([{"line":1,"text":"erase 0 400","runs":2}])");
    const ordered_json bad = DescribeSweep(Swept("bad"), words);
    EXPECT_TRUE(bad["every"].is_null());
    EXPECT_EQ(bad["seed"], 5);
}

TEST(SweepReport, GathersEqualFailuresForPeople) {
    const std::string text = SweepText(Swept("faults"), {" --ecc chip", "update", "kept", {}}, "script");
    EXPECT_EQ(text.rfind("sweep faults: one in 10 of 40 requests failing once, then the update run again, and kinds of "
                         "requests failing always: "
                         "0 of 3 runs passed, interrupted with "
                         "1 run to go\n"
                         "script:1: sweep faults: erase 0 400: it is so [2 runs]\n"
                         "    cp kept run2.nand && cp kept.chip run2.nand.chip && flashsim --ecc chip --flash "
                         "run2.nand --bad 6 update\n"
                         "script: sweep faults: otherwise [1 run: done]\n"
                         "    change it\n"
                         "    cp kept cut31-done.nand && ",
                         0),
              0U)
        << text;
    SweepResult early = Swept("cut");
    early.planned = 0;
    EXPECT_EQ(SweepText(early, {}, "script"), "sweep cut: interrupted before its first run\n");
    early.isInterrupted = false;
    EXPECT_EQ(SweepText(early, {}, "script"), "sweep cut: nothing to try\n");
}
