#include "report/Report.h"
#include "report/RunSummary.h"
#include "report/SweepReport.h"
#include "sweep/SweepTable.h"

#include "../verdict/TestChip.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using nlohmann::ordered_json;

namespace {

/// A finished run on a chip of 8 blocks, and its state file.
struct Finished : TestChip {
    Finished() : TestChip({0x2000, 0x400, 512, 16}) {
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

/// The keys of each object in a value, by the keys that lead to the object.
void AddKeys(const ordered_json &value, const std::string &path, std::map<std::string, std::set<std::string>> &keys) {
    for (const auto &item : value.items()) {
        if (value.is_object())
            keys[path].insert(item.key());
        if (item.value().is_structured())
            AddKeys(item.value(), value.is_array() ? path : path + "/" + item.key(), keys);
    }
}

} // namespace

TEST(Report, HasTheseKeysAndNoOthers) {
    ordered_json report = Finished().Report();
    report["sweeps"].push_back(DescribeSweep(Swept("cut"), {}));
    std::set<std::string> requests;
    for (std::uint32_t kind = 0; kind < kRequestKinds; ++kind)
        requests.insert(RequestName(static_cast<RequestKind>(kind)));
    std::map<std::string, std::set<std::string>> keys;
    AddKeys(report, "", keys);
    // Other programs read them: a key is never renamed or removed.
    EXPECT_EQ(keys, (decltype(keys){
                        {"",
                         {"format", "verdict", "chip", "devices", "run", "requests", "changes", "percentages", "lines",
                          "ubi", "findings", "sweeps"}},
                        {"/chip", {"size", "eraseSize", "pageSize", "oobSize", "ecc", "badBlocks"}},
                        {"/devices", {"number", "name", "offset", "size"}},
                        {"/run", {"exitStatus", "signal", "powerCut"}},
                        {"/requests", requests},
                        {"/lines", {"number", "text", "result", "room"}},
                        {"/lines/room", {"rangeBlocks", "imageBlocks", "badBlocks", "spareBlocks"}},
                        {"/findings", {"line", "text", "severity", "kind", "happens", "change"}},
                        {"/sweeps",
                         {"kind", "every", "seed", "runs", "done", "held", "interrupted", "bootChecked", "failures",
                          "unsealed", "unbootable"}},
                        {"/sweeps/failures",
                         {"run", "badBlocks", "cut", "torn", "secondCut", "eraseFails", "programFails", "fault", "line",
                          "text", "happens", "change", "command"}},
                        {"/sweeps/unsealed", {"line", "text", "runs"}},
                        {"/sweeps/unbootable",
                         {"line", "text", "runs", "first", "torn", "last", "why", "change", "selectedBy", "command"}},
                    }));
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
    // Severity and advice are those of Findings.def.
    EXPECT_EQ(report["findings"].dump(),
              R"([{"line":null,"text":"","severity":"error","kind":"crashed","happens":"a",)"
              R"("change":"see the last message"},{"line":1,"text":"write 400 c00 image","severity":"warning",)"
              R"("kind":"no-spare","happens":"b",)"
              R"("change":"enlarge the range by as many blocks as may be bad"}])");
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
    ordered_json head = cut;
    for (const char *list : {"failures", "unsealed", "unbootable"})
        head.erase(list);
    EXPECT_EQ(head.dump(), R"({"kind":"cut","every":10,"seed":null,"runs":4,"done":3,"held":0,)"
                           R"("interrupted":true,"bootChecked":false})");
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
