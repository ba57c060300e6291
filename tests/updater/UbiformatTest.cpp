#include "Device.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>

namespace {

using Texts = std::vector<std::string>;

/// The device's own UBI tools and the update's programs: each says how it was called.
void AddPrograms(Device &device) {
    for (const char *name : {"/bin/ubiblock", "/bin/ubidetach", "ubiformat"})
        device.File(name, "#!/bin/sh\necho \"$(basename $0) $*\" >&2\n");
    // What a signal reaches gets the time to end; then the real fuser looks.
    device.File("/bin/fuser", "#!/bin/sh\nsleep 0.3\nexec /usr/bin/fuser \"$@\"\n");
    device.File("prepare.sh", "echo \"prepare $*\" >&2\n");
    device.File("progress_script.sh", "#!/bin/sh\necho $1 >&2\n");
    device.File("image", Pattern(12 * Device::kBlock, 1));
    for (const char *name : {"HeartGuard", "linkpilot", "lens_steward", "holder"})
        device.File(std::string("/bin/") + name, ReadAll("/bin/sleep"));
}

/// Numbers of processes differ from run to run.
std::string WithoutIds(const std::string &text) { return std::regex_replace(text, std::regex("\\d+"), "N"); }

/// The lines in one text. Nor is it the same on every machine why a mount point that isn't one can't be unmounted.
std::string Comparable(const Texts &lines) {
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return std::regex_replace(std::regex_replace(text, std::regex("pid=\\d+"), "pid=N"), std::regex(" E[A-Z]+\n"),
                              "\n");
}

/// What the quiesce does before it looks at the mounts.
const std::string kStopped =
    "popen \"pidof HeartGuard\"\nkill pid=N signal=15 = 0\npopen \"killall lens_steward\"\n"
    "popen \"pidof linkpilot\"\nkill pid=N signal=15 = 0\npopen \"pidof flow_core\"\n"
    "popen \"pidof FlowRunner\"\npopen \"pidof toolkitd\"\npopen \"pidof SignalHub\"\n"
    "popen \"pidof remote_rx\"\npopen \"pidof port_mux\"\npopen \"pidof Panel-Face\"\npopen \"pidof webnest\"\n";

const std::string kReleased =
    "popen \"grep /opt /proc/mounts\"\numount \"/opt/user\" = -1\nsync\numount \"/usr/local/lib\" = -1\nsync\n"
    "umount \"/lib/modules\" = -1\nsync\numount \"/opt/suite\" = -1\nsync\numount \"/opt\" = 0\nsync\nsync\n"
    "popen \"ubiblock -r /dev/ubi0_0\"\nsync\npopen \"ubidetach -p /dev/mtd9\"\nsync\n";

} // namespace

TEST(Ubiformat, StopsReleasesPreparesAndFormatsInThisOrder) {
    Device device;
    AddPrograms(device);
    device.Options({"--mount", "/opt", "--start", "exec HeartGuard 600", "--start", "exec linkpilot 600", "--start",
                    "exec lens_steward 600", "--start", "exec 9>/opt/held; exec holder 600"});
    const Outcome outcome = device.Run("ubiformat /dev/mtd9 image\nerase 0 4000\n");
    EXPECT_EQ(outcome.status, 0);
    const std::string holder = "popen \"grep /opt /proc/mounts\"\npopen \"pidof HeartGuard\"\npopen \"fuser -m /opt\"\n"
                               "kill pid=N signal=15 = 0\npopen \"fuser -m /opt\"\n";
    EXPECT_EQ(Comparable(outcome.Only({"popen", "kill", "umount", "sync"})),
              kStopped + holder + kReleased + "sync\nsync\n");
    EXPECT_EQ(outcome.err, "ubiformat /tmp/update/image to <MTD> /dev/mtd9\n"
                           "8\n/opt:               \n"
                           "ubiblock -r /dev/ubi0_0\nubidetach -p /dev/mtd9\n"
                           "prepare \n16\n"
                           "ubiformat /dev/mtd9 -y -f /tmp/update/image\n"
                           "41\n"
                           "erase complete\n offset=0 size=4000\n");
    const std::string out = WithoutIds(outcome.out);
    EXPECT_EQ(out.substr(0, out.find("####")), "running update script /tmp/update/flashrig.script\n[N]\n[N]\n");
    // fuser parts its ids by runs of blanks: empty fields are reported and skipped.
    EXPECT_NE(out.find("####N###\n"), std::string::npos);
    EXPECT_EQ(out.substr(out.find("prepare")),
              "prepare ubi ...\nexecute /bin/sh status N\nexecute /tmp/update/ubiformat status N\n");
}

TEST(Ubiformat, KillsTwiceWhatDoesNotEnd) {
    Device device;
    AddPrograms(device);
    device.Options({"--mount", "/opt", "--start", "trap '' TERM; exec 9>/opt/held; exec holder 600"});
    const Outcome outcome = device.Run("ubiformat /dev/mtd9 image\n");
    const Texts calls = outcome.Only({"popen", "sync", "umount"});
    const auto first = std::find(calls.begin(), calls.end(), "popen \"fuser -k -m /opt\"");
    ASSERT_GE(calls.end() - first, 5);
    EXPECT_EQ(Texts(first, first + 5), (Texts{"popen \"fuser -k -m /opt\"", "sync", "popen \"fuser -k -m /opt\"",
                                              "sync", "popen \"grep /opt /proc/mounts\""}));
    EXPECT_EQ(outcome.Only({"umount"}).back(), "umount \"/opt\" = 0");
}

TEST(Ubiformat, SignalsNeitherItselfNorItsParentsNorInitNorGroups) {
    Device device;
    AddPrograms(device);
    // The first answer lists the updater, its ancestors up to init, and fields that are no process ids.
    device.File("/bin/fuser", "#!/bin/sh\n[ -e /tmp/asked ] && exit\n>/tmp/asked\nid=$(pidof -s flashrig)\n"
                              "while [ $id -gt 0 ]; do printf ' %s' $id; id=$(cut -d' ' -f4 /proc/$id/stat); done\n"
                              "echo ' -1 -7 x 0 99999999999'\n");
    device.Options({"--mount", "/opt"});
    const Outcome outcome = device.Run("ubiformat /dev/mtd9 image\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.Count("kill"), 0U);
    EXPECT_NE(outcome.out.find("####1###\n####-1###\n####-7###\n####x###\n####0###\n####99999999999###\n"),
              std::string::npos);
    EXPECT_NE(outcome.err.find("ubiformat /dev/mtd9 -y"), std::string::npos);
}

TEST(Ubiformat, ReleasesAMountThatNobodyHoldsAndOnlyMounts) {
    const struct {
        Texts options;
        const char *out;
        std::size_t kills, umounts, syncs;
    } rows[] = {
        {{"--start", "exec HeartGuard 600"}, "[N]\ntarget in no mount\ntarget in no mount\n", 1, 0, 2},
        {{"--mount", "/opt"}, "no process exist\n", 0, 5, 10},
    };
    for (const auto &row : rows) {
        Device device;
        AddPrograms(device);
        device.Options(row.options);
        const Outcome outcome = device.Run("ubiformat /dev/mtd9 image\n");
        const std::string out = std::regex_replace(outcome.out, std::regex("\\[\\d+\\]"), "[N]");
        EXPECT_EQ(out.substr(out.find('\n') + 1), row.out + std::string("prepare ubi ...\nexecute /bin/sh status 0\n"
                                                                        "execute /tmp/update/ubiformat status 0\n"));
        EXPECT_EQ(outcome.Count("kill"), row.kills);
        EXPECT_EQ(outcome.Count("umount"), row.umounts);
        EXPECT_EQ(outcome.Count("sync"), row.syncs);
    }
}

TEST(Ubiformat, EndsTheScriptWhenAFileCannotBeReadAndOnlyThen) {
    const struct {
        const char *line;
        const char *missing; ///< of the update's programs
        const char *err;     ///< behind the first percentage
        bool goesOn;
    } rows[] = {
        {"ubiformat /dev/none image", "", "dev /dev/none is not exist\n", false},
        {"ubiformat /dev/mtd9 image", "prepare.sh", "", false},
        {"ubiformat /dev/mtd9 image", "ubiformat", "prepare \n16\n41\n", true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.missing);
        Device device;
        AddPrograms(device);
        if (*row.missing != '\0')
            device.Remove(row.missing);
        const Outcome outcome = device.Run(std::string(row.line) + "\nerase 0 4000\n");
        EXPECT_EQ(outcome.status, 0);
        const std::string rest = row.goesOn ? "erase complete\n offset=0 size=4000\n" : "";
        EXPECT_EQ(outcome.err.substr(outcome.err.find("\n8\n") + 3),
                  "lens_steward: no process found\n" + (row.err + rest));
        EXPECT_EQ(outcome.out.find("execute /tmp/update/ubiformat status 65280\n") != std::string::npos, row.goesOn);
    }
}

TEST(Ubiformat, MovesThePercentageByItsImageAndAFallIsToldToo) {
    const struct {
        std::size_t size;
        const char *percents;
    } rows[] = {
        {10 * Device::kBlock, "7\n15\n23\n"},
        {3 * Device::kBlock, "16\n33\n-66\n"}, // 3 of 6 blocks: back by 7
        {0, "33\n66\n-233\n"},
    };
    for (const auto &row : rows) {
        Device device;
        AddPrograms(device);
        device.File("image", Pattern(row.size, 1));
        device.File("other", Pattern(3 * Device::kBlock, 1));
        const Outcome outcome = device.Run("ubiformat /dev/mtd9 image\nwrite 0 0 other\n");
        EXPECT_EQ(std::regex_replace(outcome.err, std::regex("[^\\n]*[a-z<][^\\n]*\\n"), ""), row.percents);
    }
}
