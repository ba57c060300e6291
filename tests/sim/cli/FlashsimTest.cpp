#include "UpdateFolder.h"
#include "mtd/DeviceText.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

namespace {

/// The updater is a stand-in, written in shell: what runs in the device is not the point here.
class Flashsim : public UpdateFolder {
protected:
    Flashsim() {
        Save("update/flashrig.script", "erase 0 20000\nwrite 20000 40000 image\n");
        Save("update/image", std::string(2048, 'k') + "tail");
    }
};

} // namespace

TEST_F(Flashsim, RawPassesStreamsAndStatusAndNothingElse) {
    EXPECT_EQ(Run(Updater("echo to $*; echo aside >&2; exit 7") + "--raw"), 7);
    EXPECT_EQ(m_out, "to /tmp/update\n");
    EXPECT_EQ(m_err, "aside\n");
    EXPECT_EQ(Run(Updater("kill -TERM $$") + "--raw --map " + (m_folder / "map.svg").string()), 128 + SIGTERM);
    EXPECT_EQ(m_out, "");
    EXPECT_NE(Load(m_folder / "map.svg").find("<title>update on a chip of 32 MiB</title>"), std::string::npos);
}

TEST_F(Flashsim, WrongUseGetsOneLineAndStatusTwo) {
    std::istringstream rows(
        "--frob|--chip 8M,128K,2K|--chip 8M,128K,2Q,64|--chip 8M,100K,2K,64|--ecc none|--bad 3-1|"
        "--bad 256|--fault MEMWRITE|--fault read=EFROG|--mtd 3|--mtd 3:part:1,128K|--mount opt|"
        "--as update|--root /nowhere|--program /nowhere|--start false|--cut x|--cut -1|--cut 0|--cut 0x1|--cut 1:frog|"
        "--sweep cut --torn frog|--sweep cut --shard 5/4|--sweep cut --shard 0/4|--sweep cut --keep x|"
        "--sweep cut --slot a:0,16K|--erase-fails 256|"
        "--sweep bad --sets -1|--sweep bad --seed 010|--sweep cut --every 0|--every 2|--sweep bad --every 2|"
        "--trace /nowhere/t|--report /|--flash F --map ./F|--flash F --trace F.chip|"
        "--trace F --report F|--root /|--no-sysfs bogus|--mtd 1:a --mtd 1:b|--mtd 1234567:a|"
        "--mount /usr|--mount /opt/../dev|--as /bin/update");
    for (std::string options; std::getline(rows, options, '|');) {
        EXPECT_EQ(Run(options), 2) << options;
        EXPECT_EQ(m_out, "") << options;
        EXPECT_EQ(m_err.rfind("flashsim: ", 0), 0U) << options;
        EXPECT_EQ(m_err.find('\n'), m_err.size() - 1) << options << m_err;
    }
    const std::string dump = Save("dump", "cells").string();
    EXPECT_EQ(Run("--flash " + dump), 2);
    EXPECT_EQ(m_err.rfind("flashsim: " + dump + ".chip is missing: ", 0), 0U) << m_err;
    for (const char *update : {"/nowhere", "/dev/null", ""})
        EXPECT_EQ(RunBare(update), 2) << update;
}

TEST_F(Flashsim, DeviceHasItsOwnFilesMountsAndProcesses) {
    Save("root/bin/bootvars", "#!/bin/sh\necho vars \"$@\"\n");
    Save("root/opt/user/app", "#!/bin/sh\ncd /opt/user && exec sleep 1000\n");
    Save("root/usr/local/lib/device.so", "device's\n");
    const std::string updater = Updater("/bin/bootvars -s a b; cat /usr/local/lib/device.so\n"
                                        "grep -o '[^ ]*/opt[^ ]*' /proc/mounts; cat /sys/class/mtd/mtd5/oobsize\n"
                                        "pidof sleep | wc -w; umount /opt/user 2>/dev/null || echo busy\n"
                                        "fuser -s -k -m /opt/user; while pidof sleep >/dev/null; do :; done\n"
                                        "umount /opt/user && umount /opt; grep -c /opt /proc/mounts\n"
                                        "ls /sys/class/mtd/mtd5 | tr '\\n' ' '");
    EXPECT_EQ(Run(updater +
                  "--mount /opt/user --mount /opt --start 'exec /opt/user/app' --mtd 5:all --no-sysfs size,type "
                  "--raw --root " +
                  (m_folder / "root").string()),
              0);
    EXPECT_EQ(m_err, "");
    EXPECT_EQ(m_out,
              "vars -s a b\ndevice's\n/opt\n/opt/user\n64\n1\nbusy\n0\n"
              "bad_blocks bbt_blocks bitflip_threshold corrected_bits dev ecc_failures ecc_step_size "
              "ecc_strength erasesize flags name numeraseregions offset oobavail oobsize subpagesize writesize ");
}

TEST_F(Flashsim, HostStaysAsItIs) {
    const std::string mounts = Load("/proc/self/mounts");
    const std::string lingerer = "linger" + std::to_string(getpid());
    EXPECT_EQ(
        Run(Updater("exec 2>/dev/null; rm -r /tmp/update/*; echo new >/tmp/update/file; killall sleep\n"
                    "mount -t tmpfs none /opt; umount -l /usr; hostname device\n"
                    "touch /etc/file || mknod /tmp/disk b 8 0 || echo 60 >/proc/sys/vm/swappiness || echo held\n") +
            "--start 'sleep 1000' --start 'cp /bin/sleep /tmp/" + lingerer + "; exec /tmp/" + lingerer +
            " 1000' --raw"),
        0);
    EXPECT_EQ(m_out, "held\n");
    EXPECT_NE(system(("pidof " + lingerer).c_str()), 0);
    EXPECT_EQ(Load("/proc/self/mounts"), mounts);
    EXPECT_EQ(Load(m_folder / "update/image").size(), 2052U);
    EXPECT_FALSE(fs::exists(m_folder / "update/file"));
}

TEST_F(Flashsim, PowerCutInAProgramOfTheUpdateEndsTheUpdater) {
    const std::string updater =
        Updater("dd if=/dev/zero of=/dev/mtd12 bs=2k count=1 conv=notrunc; kill -0 $$; echo on");
    EXPECT_EQ(Run(updater + "--raw --cut 1"), 128 + SIGKILL);
    EXPECT_EQ(m_out + m_err, "");
}

TEST_F(Flashsim, FlashFileKeepsTheChipBetweenRuns) {
    constexpr size_t kBlockTwo = size_t{2} * 64 * 2112;
    const std::string flash = (m_folder / "unit.nand").string();
    const std::string pages = std::string(2048, 'k') + std::string(64, '\xff') + "tail" + std::string(2044, '\xff');
    EXPECT_EQ(Run("--raw --chip 1M,128K,2K,64 --bad 1 --flash " + flash), 0);
    EXPECT_EQ(Load(flash).substr(kBlockTwo, pages.size()), pages);

    Save("update/flashrig.script", "erase 0 20000\n");
    EXPECT_EQ(Run("--flash " + flash), 0);
    EXPECT_NE(m_out.find("0x00000000  -X......\n"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("\nverdict: clean: 1 of 1 line carried out\n"), std::string::npos) << m_out;
    EXPECT_EQ(Load(flash).substr(kBlockTwo, pages.size()), pages);
    EXPECT_EQ(Run("--chip 2M,128K,2K,64 --flash " + flash), 2);

    const int fd = open((flash + ".chip").c_str(), O_RDONLY | O_CLOEXEC);
    flock(fd, LOCK_EX);
    EXPECT_EQ(Run("--flash " + flash), 2) << "another run has it";
    close(fd);
}

TEST_F(Flashsim, FindingsAreToldOneALineWithStatusOne) {
    const struct {
        const char *options;
        const char *found;
    } rows[] = {
        {"--fault MEMWRITE:2=EIO", "/update/flashrig.script:2: error: write 20000 40000 image: write page return -1: "},
        {"--cut 99", "/update/flashrig.script: warning: cut 99: there were 5 changes; "},
        {"--fault read:99=EIO", "/update/flashrig.script: warning: fault read:99=EIO: there were 0 such requests; "},
        {"--cut 4", "/update/flashrig.script: error: power is lost during MEMWRITE at 0x20000; "},
        {"--mtd 3:all:0,128K",
         "/update/flashrig.script:2: error: write 20000 40000 image: fail to check bad block at 20000: "},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(Run(row.options), 1) << row.options;
        EXPECT_NE(m_out.find(row.found), std::string::npos) << m_out;
        EXPECT_NE(m_out.find("\nverdict: NOT clean: "), std::string::npos) << m_out;
    }
}
