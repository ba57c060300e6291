// An update's script and what the run printed and traced, up to the reports in all formats. The input is a byte
// that chooses a format, the script, standard output, standard error, the trace and the record of the updater, with a
// zero byte between, and an image.

#include "Fuzz.h"
#include "chip/ChipFile.h"
#include "report/ChipPicture.h"
#include "report/Report.h"
#include "report/ReportFormats.h"
#include "verdict/Verdict.h"

#include <iterator>
#include <nlohmann/json.hpp>

namespace {

constexpr NandGeometry kGeometry = {0x20000, 0x2000, 512, 16};

/// A chip that a run has changed, and the state of that run.
struct Device {
    Device() {
        const std::string path = FuzzFolder().File("flash");
        ChipFile::Create(path, kGeometry, Ecc::Host, {3});
        ChipFile file(path);
        const std::vector<std::uint8_t> page(kGeometry.pageSize, 'x');
        for (std::uint32_t i = 0; i < 3 * kGeometry.PagesPerBlock(); ++i) {
            NandChip::PageProgram program;
            program.data = page.data();
            program.length = kGeometry.pageSize;
            program.withEcc = i % 3 != 0;
            file.Chip().Program(i, program);
        }
        SimState::Create(FuzzFolder().File("state"), {});
    }
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static const Device device;
    static const ChipFile chip = ChipFile::OpenPrivate(FuzzFolder().File("flash"));
    static const SimState state(FuzzFolder().File("state"));
    Input input(bytes, size);
    const std::uint8_t format = input.Byte();
    RunRecord record;
    record.script = input.Text();
    record.out = input.Text();
    record.err = input.Text();
    record.trace = input.Text();
    record.updater = UpdaterRecord(input.Text());
    const std::vector<std::uint8_t> rest = input.Rest();
    record.devices = {{0, "boot", 0, 0x8000}, {9, "opt", 0x8000, 0x10000}, {12, "all", 0, kGeometry.size}};
    record.contents = {{"image", std::string(rest.begin(), rest.end())}};
    record.files = {{"image", static_cast<std::int64_t>(rest.size())}, {"fifo", -1}};
    const RunFacts facts(record, chip.Chip());
    const Verdict verdict = Judge(facts);
    VerdictText(verdict, "script");
    constexpr std::string (*kFormats[])(const nlohmann::ordered_json &report,
                                        const FormatFacts &facts) = {ReportText, SarifText, JUnitText, CodeQualityText};
    const std::size_t choice = format % 16;
    if (choice < std::size(kFormats))
        kFormats[choice](MakeReport(record, verdict, chip.Chip(), state), {});
    else if (choice == std::size(kFormats))
        DrawChip("update", chip.Chip(), facts.flash, verdict);
    return 0;
}
