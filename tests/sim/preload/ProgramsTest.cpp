// Programs of others in a sandbox: real tools on the simulated flash, and programs that can't run here.

#include "../cli/UpdateFolder.h"

#include <algorithm>
#include <cstdlib>
#include <elf.h>
#include <gtest/gtest.h>
#include <string>

namespace {

/// The header of a program, without anything to run.
std::string Elf(Elf64_Half machine) {
    Elf64_Ehdr header = {};
    std::copy_n(ELFMAG, SELFMAG, header.e_ident);
    header.e_ident[EI_CLASS] = machine == EM_ARM ? ELFCLASS32 : ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_type = ET_EXEC;
    header.e_machine = machine;
    return {reinterpret_cast<const char *>(&header), sizeof header};
}

class Programs : public UpdateFolder {
protected:
    Programs() { Save("update/flashrig.script", ""); }

    /// Appends standard error to standard output.
    int Run(const std::string &options, const std::string &update = "update") {
        const int status = UpdateFolder::Run(options, update);
        m_out += m_err;
        return status;
    }
};

} // namespace

TEST_F(Programs, MtdUtilsWorkOnTheFlash) {
    const std::string commands = R"(
set -e
cd /tmp
head -c 5000 /dev/urandom >image
mtdinfo /dev/mtd9 | sed -n 's/^Sub-page size: *//p; s/^Bad blocks are allowed: *//p'
flash_erase -q /dev/mtd9 0 0 2>/dev/null
nandwrite -q -p -s 0x20000 /dev/mtd9 image
nanddump -q -s 0x20000 -l 5000 -f dump /dev/mtd9 && head -c 5000 dump | cmp - image && echo same
flash_erase -q /dev/mtd9ro 0 1 2>/dev/null || echo read-only
cat image image image image | head -c 16384 >pages
flashcp pages /dev/mtd1 && head -c 16384 /dev/mtd1 | cmp - pages && echo copied
nandtest -l 0x20000 /dev/mtd0 >/dev/null 2>&1 && echo tested
flash_lock -l /dev/mtd0 0 1 2>/dev/null || echo no locks
ubiformat -q -y /dev/mtd9 && head -c 4 /dev/mtd9 && echo
printf '/dev/mtd1 0x40000 0x20000 0x20000 1\n' >env.config
echo name=value >env.txt && mkenvimage -s 0x20000 -o env env.txt
flash_erase -q /dev/mtd1 0x40000 1 && nandwrite -q -s 0x40000 /dev/mtd1 env 2>/dev/null
fw_setenv -c env.config other 7 && fw_printenv -c env.config | sort
)";
    EXPECT_EQ(Run(Updater(commands) + "--raw --bad 90"), 0);
    EXPECT_EQ(m_out, "512 bytes\ntrue\nsame\nread-only\ncopied\ntested\nno locks\nUBI#\nname=value\nother=7\n");
}

TEST_F(Programs, ForAnotherProcessorAreReplacedOrNamed) {
    Save("update/ubiformat", Elf(EM_ARM));
    Save("update/updater", Elf(EM_ARM));
    Save("update/helper", Elf(EM_ARM));
    Save("update/static", Elf(EM_X86_64));
    const char *commands = R"(exec 2>/tmp/errors
[ "$1" != again ] || { echo the updater; exit; }
/tmp/update/updater again
/tmp/update/ubiformat --version | cut -d' ' -f1
for i in 1 2; do /tmp/update/helper; echo $?; done
find /tmp/update -name helper -exec {} \;
/tmp/update/static
cat /tmp/errors)";
    Run(Updater(commands));
    EXPECT_EQ(m_out.find("the updater\nubiformat\n126\n126\n"), 0U) << m_out;
    EXPECT_NE(m_out.find("/tmp/update/helper: Operation not supported\n"), std::string::npos) << m_out;
    for (const char *found :
         {"error: /tmp/update/helper is for another processor: it can't run here; ",
          "note: /tmp/update/updater is for another processor: the updater under test ran in its place; ",
          "note: /tmp/update/ubiformat is for another processor: this machine's ubiformat ran in its place; ",
          "warning: /tmp/update/static is linked statically: it ran, but the simulated flash refused its requests; "}) {
        const std::size_t at = m_out.find(found);
        EXPECT_NE(at, std::string::npos) << found << m_out;
        EXPECT_EQ(m_out.find(found, at + 1), std::string::npos) << "twice: " << found;
    }
}

TEST_F(Programs, ThatAskForWhatIsNotServedAreNamed) {
    Run(Updater("cat /dev/mtdblock9 /dev/ubi_ctrl; flock /dev/mtd0 true"));
    for (const char *found : {"cat asked for the open of /dev/mtdblock9, which the simulator can't serve; ",
                              "cat asked for the open of /dev/ubi_ctrl, which the simulator can't serve; ",
                              "flock asked for the lock of /dev/mtd0, which the simulator can't serve; "})
        EXPECT_NE(m_out.find(found), std::string::npos) << found << m_out;
    EXPECT_NE(m_out.find("cat: /dev/mtdblock9: No such file or directory\n"), std::string::npos) << m_out;
}

TEST_F(Programs, AnImageWithACopyForTheDeviceIsRehearsedThroughTheHandOver) {
    Save("update/flashrig.script", "erase 0 20000\nubiformat /dev/mtd9 image.ubi\n");
    Save("update/flashrig", Elf(EM_ARM));
    Save("update/ubiformat", Elf(EM_ARM));
    Save("update/prepare.sh", "#!/bin/sh\ntrue\n");
    Save("data", "data");
    Save("layout", "[opt]\nmode=ubi\nvol_id=0\nvol_type=dynamic\nvol_name=opt\nvol_size=1MiB\nimage=data\n");
    ASSERT_EQ(system(("cd " + m_folder.string() +
                      " && ubinize -Q 1 -p 128KiB -m 2048 -s 512 -o update/image.ubi layout"
                      " && tar -C update -cf image.tar .")
                         .c_str()),
              0);
    Run("--root " EXAMPLES "/device", "image.tar");
    for (const char *found : {"new program detected, running /tmp/update/flashrig /tmp/update\n",
                              "execute /tmp/update/ubiformat status 0\n", "the updater under test ran in its place"})
        EXPECT_NE(m_out.find(found), std::string::npos) << found << m_out;
}
