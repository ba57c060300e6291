#include "cli/Options.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

/// Options for an update that exists wherever the test runs.
CommandLine Read(std::vector<std::string> words) {
    words.emplace_back("--");
    words.emplace_back(EXAMPLES "/clean");
    return ReadCommandLine(words);
}

/// @return why the words are refused; empty when they are not.
std::string Refusal(const std::vector<std::string> &words) {
    try {
        Read(words);
    } catch (const std::exception &failure) {
        return failure.what();
    }
    return {};
}

std::set<std::string> Find(const std::string &text, const char *pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
        found.insert((*at)[1]);
    return found;
}

using Words = std::vector<std::string>;

} // namespace

TEST(Options, EachOneReachesItsFieldAndTheRestKeepTheirDefaults) {
    const Options none = Read({}).options;
    const auto texts = [](const Options &o) {
        return Words{o.chip,        o.bad,     o.ecc,   o.flash,      o.root,         o.missingSysfs,
                     o.place,       o.program, o.trace, o.report,     o.sarif,        o.junit,
                     o.codeQuality, o.map,     o.cut,   o.eraseFails, o.programFails, o.boots};
    };
    const Words names = {"--chip",        "--bad",     "--ecc",   "--flash",       "--root",          "--no-sysfs",
                         "--as",          "--program", "--trace", "--report",      "--sarif",         "--junit",
                         "--codequality", "--map",     "--cut",   "--erase-fails", "--program-fails", "--boots"};
    const Words values = {"c", "1", "e", "f", EXAMPLES, "size,type", "/tmp/x", "/dev/null", "t",
                          "r", "s", "j", "q", "m",      "9:done",    "1",      "2",         "true"};
    EXPECT_EQ(texts(none), Words(names.size()));
    for (std::size_t i = 0; i < names.size(); ++i) {
        Words expected(names.size());
        expected[i] = values[i];
        EXPECT_EQ(texts(Read({names[i], values[i]}).options), expected) << names[i];
    }
    EXPECT_EQ(none.shard, "");
    EXPECT_FALSE(none.isUsed || none.isRaw || none.isExact);
    EXPECT_EQ(none.devices.size() + none.mounts.size() + none.starts.size() + none.faults.size() + none.sweeps.size(),
              0U);
    EXPECT_EQ(Words({std::to_string(none.every), std::to_string(none.sets), std::to_string(none.seed),
                     std::to_string(none.sample), none.torn}),
              Words({"1", "100", "1", "4", "half,done"}));

    const struct {
        const char *name;
        Words values;
        std::vector<std::string> Options::*field;
    } lists[] = {{"--mtd", {"0:a", "1:b"}, &Options::devices},
                 {"--mount", {"/opt", "/usr/local"}, &Options::mounts},
                 {"--start", {"sleep 1", "true"}, &Options::starts},
                 {"--fault", {"read=EIO", "read=5"}, &Options::faults},
                 {"--after", {EXAMPLES "/clean", EXAMPLES "/ab"}, &Options::after},
                 {"--keep", {"1", "0,16K"}, &Options::keeps},
                 {"--boot-env", {"0,16K", "16K,16K"}, &Options::bootEnvironments},
                 {"--slot", {"a=b:0,16K", "a=c:16K,16K"}, &Options::slots},
                 {"--sweep", {"cut", "bad", "faults"}, &Options::sweeps}};
    for (const auto &row : lists) {
        Words words;
        for (const std::string &value : row.values)
            words.insert(words.end(), {row.name, value});
        EXPECT_EQ(Read(words).options.*row.field, row.values) << row.name;
    }

    const Options numbers =
        Read({"--sweep", "bad", "--sweep", "cut", "--every", "2", "--sets", "3", "--seed", "4", "--jobs", "5"}).options;
    EXPECT_EQ(Words({std::to_string(numbers.every), std::to_string(numbers.sets), std::to_string(numbers.seed),
                     std::to_string(numbers.jobs)}),
              Words({"2", "3", "4", "5"}));
    // A subcommand is another way to write sweeps; the command line overrides a device's file.
    EXPECT_EQ(ReadCommandLine({"sweep", "cut", "bad", "--exact", std::string(EXAMPLES) + "/clean"}).options.sweeps,
              Words({"cut", "bad"}));
    EXPECT_THROW(ReadCommandLine({"sweep", EXAMPLES "/clean"}), std::exception);
    const Options device = Read({"--device", EXAMPLES "/devices/ab.toml", "--keep", "16K,16K"}).options;
    EXPECT_EQ(device.chip, "1M,16K,512,16");
    EXPECT_EQ(device.bootEnvironments, Words({"0x4000,16K", "0x8000,16K"}));
    EXPECT_EQ(device.keeps, Words({"16K,16K"}));
    EXPECT_TRUE(Read({"--used"}).options.isUsed);
    EXPECT_TRUE(Read({"--raw"}).options.isRaw);
    const Options update = ReadCommandLine({EXAMPLES "/clean", "notify", "more"}).options;
    EXPECT_EQ(update.update, EXAMPLES "/clean");
    EXPECT_EQ(update.arguments, Words({"notify", "more"}));
}

TEST(Options, RawRunIsJudgedOnlyForAFileWithTheVerdict) {
    EXPECT_TRUE(Read({}).options.WantsVerdict());
    EXPECT_FALSE(Read({"--raw", "--trace", "t"}).options.WantsVerdict());
    for (const char *file : {"--report", "--sarif", "--junit", "--codequality", "--map"})
        EXPECT_TRUE(Read({"--raw", file, "f"}).options.WantsVerdict()) << file;
}

TEST(Options, NumbersHaveBoundsAndNoSpellingThatIsReadOtherwise) {
    const struct {
        Words before;
        const char *name, *least, *most;
    } rows[] = {{{"--sweep", "cut"}, "--every", "1", "1000000000"},
                {{"--sweep", "bad"}, "--sets", "0", "1000000"},
                {{"--sweep", "bad"}, "--seed", "0", "999999999999999999"},
                {{"--sweep", "bad"}, "--jobs", "1", "1024"}};
    for (const auto &row : rows) {
        const auto refusal = [&](const std::string &value) {
            Words words = row.before;
            words.insert(words.end(), {row.name, value});
            return Refusal(words);
        };
        const std::string bounds = std::string(" is not between ") + row.least + " and " + row.most;
        EXPECT_EQ(refusal(row.least), "");
        EXPECT_EQ(refusal(row.most), "");
        for (const std::string &value :
             {std::to_string(std::stoll(row.least) - 1), std::to_string(std::stoll(row.most) + 1), std::string("01"),
              std::string("0x1"), std::string("+1"), std::string("1k")})
            EXPECT_EQ(refusal(value), std::string(row.name) + ": " + value + bounds);
    }
}

TEST(Options, CombinationsWithoutAMeaningAreRefused) {
    const struct {
        Words words;
        const char *refusal;
    } rows[] = {
        {{"--sweep", "bad", "--board", "b"}, "the board makes no other sweep than cut"},
        {{"--sweep", "cut", "--board", "b", "--every", "2"}, "sweep cut on the board goes without --every"},
        {{"--sweep", "bad", "--raw"}, "--sweep goes with neither --raw nor --cut"},
        {{"--sweep", "bad", "--cut", "1"}, "--sweep goes with neither --raw nor --cut"},
        {{"--sweep", "cut", "--sets", "1"}, "no sweep here uses --sets"},
        {{"--sweep", "faults", "--seed", "1"}, "no sweep here uses --seed"},
        {{"--sweep", "wear", "--torn", "half"}, "no sweep here uses --torn"},
        {{"--sweep", "bad", "--every", "1"}, "no sweep here uses --every"},
        {{"--sweep", "bad", "--sweep", "faults", "--every", "1", "--seed", "1"}, ""},
        {{"--jobs", "1"}, "--jobs requires --sweep"},
        {{"--chip", "1M", "--chip", "1M"}, "--chip"},
    };
    for (const auto &row : rows) {
        const std::string refusal = Refusal(row.words);
        EXPECT_NE(refusal.find(row.refusal), std::string::npos) << refusal;
        EXPECT_EQ(refusal.empty(), *row.refusal == '\0') << refusal;
    }
}

TEST(Options, RerunRepeatsWhatShapesARunAndNothingThatTheSweepReplaces) {
    const CommandLine line = ReadCommandLine({"--start",    "a 'b'",      "--flash",  "my flash",
                                              "--bad",      "7,3-4",      "--every",  "2",
                                              "--sweep",    "cut",        "--jobs",   "1",
                                              "--fault",    "read:2=EIO", "--fault",  "open=EIO",
                                              "--trace",    "t",          "--report", "r",
                                              "--map",      "m",          "--chip",   "1M,16K,512,16",
                                              "--ecc",      "chip",       "--mtd",    "12:all",
                                              "--no-sysfs", "size",       "--root",   EXAMPLES,
                                              "--mount",    "/opt",       "--as",     "/tmp/x",
                                              "--program",  "/dev/null",  "--",       std::string(EXAMPLES) + "/clean",
                                              "-n",         "two words"});
    EXPECT_EQ(line.rerun.options, " --chip 1M,16K,512,16 --ecc chip --mtd 12:all --no-sysfs size --root " EXAMPLES
                                  " --mount /opt --start 'a '\\''b'\\''' --as /tmp/x --program /dev/null"
                                  " --fault read:2=EIO --fault open=EIO");
    EXPECT_EQ(line.rerun.update, "-- " EXAMPLES "/clean -n 'two words'");
    EXPECT_EQ(line.rerun.flash, "'my flash'");
    EXPECT_EQ(line.rerun.bad, (std::vector<std::uint32_t>{7, 3, 4}));
    EXPECT_EQ(line.rerun.run, "flashsim" + line.rerun.options + " --bad 7,3-4 --flash 'my flash' " + line.rerun.update);
    EXPECT_EQ(Read({"--used", "--cut", "9"}).rerun.run, "flashsim --cut 9 --used " EXAMPLES "/clean");
    EXPECT_EQ(Read({"--sweep", "cut"}).rerun.run, "flashsim --used " EXAMPLES "/clean");
    EXPECT_EQ(Read({}).rerun.update, EXAMPLES "/clean");
}

TEST(Options, HelpAndVersionNeedNoUpdate) {
    EXPECT_TRUE(std::regex_match(ReadCommandLine({"--version"}).notice, std::regex(R"(flashsim \d+\.\d+\.\d+\n)")));
    EXPECT_EQ(ReadCommandLine({"--help"}).notice.rfind("Runs an update ", 0), 0U);
    EXPECT_EQ(Read({}).notice, "");
    EXPECT_THROW(ReadCommandLine({}), std::exception);
}

TEST(Options, ManualDescribesExactlyThoseOfTheHelp) {
    std::ifstream file(MANUALS "/flashsim.1");
    const std::string manual((std::istreambuf_iterator<char>(file)), {});
    const auto described = Find(manual, R"(\n\.It Fl -([a-z-]+))");
    EXPECT_EQ(Find(ReadCommandLine({"--help"}).notice, R"(\n  (?:-h,)?--([a-z-]+) )"), described);
    EXPECT_GT(described.size(), 20U);
}
