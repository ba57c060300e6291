// The command line and the file of a device. The input is the file, a zero byte, and words with a zero byte after each.

#include "Fuzz.h"
#include "cli/Options.h"
#include "cli/RunSetup.h"
#include "mtd/DeviceText.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Input input(bytes, size);
    const std::string device = FuzzFolder().File("device.toml");
    std::ofstream(device, std::ios::binary) << input.Text();
    std::vector<std::string> words;
    while (input.Left() != 0) {
        words.push_back(input.Text());
        // Files of this machine, some of which have no end.
        if (words.back().find("--device") != std::string::npos)
            return 0;
    }
    words.insert(words.end(), {"--device", device});
    MayRefuse([&] {
        const Options options = ReadCommandLine(words).options;
        const NandGeometry geometry = ParseGeometry(options.chip);
        ParseEcc(options.ecc);
        for (const std::string &list : {options.bad, options.eraseFails, options.programFails})
            ParseBlocks(list);
        for (const std::string &kind : options.sweeps)
            MakeSweep(options, kind);
        if (geometry.Problem(Ecc::Chip) == nullptr)
            MakeSettings(options, {}, geometry);
    });
    return 0;
}
