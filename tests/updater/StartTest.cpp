#include "Device.h"

#include <gtest/gtest.h>

namespace {

const std::string kUnpack = "#!/bin/sh\necho \"prepare $*\"\nmkdir -p /tmp/update\n";

} // namespace

TEST(Start, WithoutAnArgumentItTellsItsUsageAndSucceeds) {
    const Outcome outcome = RunProgram({FLASHRIG});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "usage : flashrig <ZMRT image file> [progress notify script]\n"
                           "usage : flashrig <folder contain flashrig.script> [progress notify script]\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(Start, RefusesAnArgumentThatDoesNotExist) {
    const Outcome outcome = RunProgram({FLASHRIG, "/no/such image"});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "fail to open /no/such image\n");
}

TEST(Start, RunsTheScriptThatThePrepareScriptUnpacked) {
    Device device;
    device.File("update.img", "image");
    device.File("/app/prepare_flashrig.sh",
                kUnpack + "printf 'erase 0 4000\\n' >/tmp/update/flashrig.script\nexit 3\n");
    const Outcome outcome = device.RunImage("update.img");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "prepare /tmp/update.img\nrunning update script /tmp/update/flashrig.script\n");
    EXPECT_EQ(outcome.err, "erase complete\n offset=0 size=4000\n");
    EXPECT_EQ(outcome.Count("chroot"), 1U);
    EXPECT_EQ(outcome.Count("setuid"), 1U);
}

TEST(Start, SeeksTheScriptAtTheTopOfTheRootToo) {
    Device device;
    device.File("update.img", "image");
    device.File("/app/prepare_flashrig.sh", "#!/bin/sh\n");
    const Outcome none = device.RunImage("update.img");
    EXPECT_EQ(none.status, 255);
    EXPECT_EQ(none.out, "update script:/tmp/update/flashrig.script not found!\n"
                        "update script:/flashrig.script not found, exit\n");
    device.File("/flashrig.script", "write 0 4000 image\n");
    device.File("/image", "x");
    const Outcome second = device.RunImage("update.img");
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.out, "update script:/tmp/update/flashrig.script not found!\n"
                          "running update script /flashrig.script\n");
    EXPECT_EQ(second.err.substr(0, 32), "write /image to flash address 0\n");
    EXPECT_EQ(device.Flash(0, 1), "x");
}

TEST(Start, HandsOverToTheProgramInTheImageAndNeverFromAFolder) {
    const std::string copy = "#!/bin/sh\necho \"copy $*\"\nexit 9\n";
    const struct {
        std::vector<std::string> arguments;
        const char *command;
    } rows[] = {
        {{}, "/tmp/update/flashrig /tmp/update"},
        {{"/n.sh"}, "/tmp/update/flashrig /tmp/update /n.sh"},
        {{"/n.sh", "third"}, "/tmp/update/flashrig /tmp/update /n.sh"},
    };
    for (const auto &row : rows) {
        Device device;
        device.File("update.img", "image");
        device.File("/copy", copy);
        device.File("/app/prepare_flashrig.sh", kUnpack + "cp /copy /tmp/update/flashrig\n");
        const Outcome outcome = device.RunImage("update.img", row.arguments);
        const std::string command = row.command;
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "prepare /tmp/update.img\ncopy " + command.substr(command.find(' ') + 1) +
                                   "\nnew program detected, running " + command + "\n");
        EXPECT_EQ(outcome.Count("open"), 0U);
    }
    Device device;
    device.File("flashrig", copy);
    EXPECT_EQ(device.Run("# nothing\n").out, "running update script /tmp/update/flashrig.script\n");
}

TEST(Start, NotifiesOnlyWithoutASecondArgument) {
    Device device;
    device.File("progress_script.sh", "#!/bin/sh\necho \"at $1\"\n");
    device.File("image", Pattern(Device::kBlock / 2, 1));
    const std::string running = "running update script /tmp/update/flashrig.script\n";
    EXPECT_EQ(device.Run("write 0 4000 image\n").out, "at 100\n" + running);
    EXPECT_EQ(device.Run("write 0 4000 image\n", {"/tmp/update/progress_script.sh"}).out, running);
}

TEST(Start, NeverRunsACommandThatWouldBeCut) {
    // 255 characters fit, 256 don't.
    for (const std::size_t length : {230U, 231U}) {
        Device other;
        other.File("update.img", "image");
        other.File("/app/prepare_flashrig.sh", kUnpack + "printf '# none' >/tmp/update/flashrig.script\n");
        const std::string path = "/tmp/" + std::string(length - 5, 'i');
        other.Options({"--as", path});
        const Outcome outcome = other.RunImage("update.img");
        EXPECT_EQ(outcome.status, length == 230 ? 0 : 255);
        EXPECT_EQ(outcome.err,
                  length == 230 ? "" : "error : command too long: /app/prepare_flashrig.sh " + path + "\n");
        EXPECT_EQ(outcome.out.empty(), length != 230);
    }
    Device device;
    device.File("update.img", "image");
    device.File("/app/prepare_flashrig.sh", kUnpack + "touch /tmp/update/flashrig\n");
    const std::string second(250, 's');
    const Outcome outcome = device.RunImage("update.img", {second});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.err, "error : command too long: /tmp/update/flashrig /tmp/update " + second + "\n");
}
