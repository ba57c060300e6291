// Runs a program of attacks as an update, as root and as an ordinary user, against victims that the test makes.

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/capability.h>
#include <netinet/in.h>
#include <string>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HAS_ADDRESS_SANITIZER
#endif
#endif
#if defined(HAS_ADDRESS_SANITIZER) || defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

std::string Load(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// An update, and victims outside of every sandbox.
class Escape : public testing::Test {
protected:
    Escape() {
        fs::create_directories(m_folder / "update");
        fs::create_directories(m_folder / "root/app");
        fs::create_directories(m_folder / "tmp");
        fs::permissions(m_folder / "tmp", fs::perms(01777));
        Save("update/flashrig.script", "erase 0 20000\n");
        Save("secret", "secret\n");
        fs::create_symlink(m_folder / "secret", m_folder / "update/image.link");
        Save("out", "");
        fs::permissions(m_folder / "out", fs::perms(0666));
        // A user may not come to the folder of the build.
        fs::create_directory(m_folder / "bin");
        for (const fs::path program : {ATTACK, FLASHSIM, FLASHRIG, FLASHSIM_PRELOAD})
            fs::copy_file(program, m_folder / "bin" / program.filename());
        m_nVictim = fork();
        if (m_nVictim == 0) {
            execlp("sleep", "sleep", "1000", nullptr);
            _exit(127);
        }
        Listen();
    }
    ~Escape() override {
        kill(m_nVictim, SIGKILL);
        waitpid(m_nVictim, nullptr, 0);
        shmctl(m_nShared, IPC_RMID, nullptr);
        close(m_nServer);
        close(m_nAbstract);
        fs::remove_all(m_folder);
    }

    void Save(const std::string &name, const std::string &text) const {
        std::ofstream(m_folder / name) << text;
        fs::permissions(m_folder / name, fs::perms(0755));
    }

    /// Lets programs inherit all capabilities that this process has.
    static void MakeInheritable() {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[2] = {};
        syscall(SYS_capget, &header, sets);
        for (auto &set : sets)
            set.inheritable = set.permitted;
        syscall(SYS_capset, &header, sets);
    }

    /// Runs flashsim as root, or as a user that no account has. @return its exit status.
    int Run(bool asUser, const std::string &arguments) {
        const std::string command = "TMPDIR=" + (m_folder / "tmp").string() + " timeout 300 " + m_folder.string() +
                                    "/bin/flashsim " + arguments + " >" + (m_folder / "out").string() + " 2>&1";
        const pid_t child = fork();
        if (child == 0) {
            constexpr uid_t kUser = 65533;
            if (asUser && geteuid() == 0 && (setgid(kUser) != 0 || setuid(kUser) != 0))
                _exit(99);
            MakeInheritable();
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        int status = -1;
        waitpid(child, &status, 0);
        m_out = Load(m_folder / "out");
        return WEXITSTATUS(status);
    }

    std::string Update() const { return (m_folder / "update").string(); }

    const fs::path m_folder = fs::path(testing::TempDir()) / ("escape" + std::to_string(getpid()));
    pid_t m_nVictim = -1;
    int m_nServer = -1, m_nAbstract = -1, m_nShared = -1, m_nPort = 0;
    std::string m_out;

private:
    void Listen() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        m_nServer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(m_nServer, reinterpret_cast<sockaddr *>(&address), length), 0);
        listen(m_nServer, 8);
        getsockname(m_nServer, reinterpret_cast<sockaddr *>(&address), &length);
        m_nPort = ntohs(address.sin_port);
        sockaddr_un abstract = {};
        abstract.sun_family = AF_UNIX;
        const std::string name = m_folder;
        name.copy(abstract.sun_path + 1, sizeof abstract.sun_path - 2);
        m_nAbstract = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto size = static_cast<socklen_t>(sizeof(sa_family_t) + 1 + name.size());
        EXPECT_EQ(bind(m_nAbstract, reinterpret_cast<sockaddr *>(&abstract), size), 0);
        listen(m_nAbstract, 8);
        m_nShared = shmget(m_nPort, 4096, IPC_CREAT | 0666);
    }
};

constexpr bool kUsers[] = {false, true};

} // namespace

TEST_F(Escape, NoAttackSucceedsAsRootNorAsUser) {
    for (const bool asUser : kUsers) {
        const int status =
            Run(asUser, "--raw --root " + (m_folder / "root").string() + " --mount /opt --program " +
                            (m_folder / "bin/attack").string() + " " + Update() + " " + m_folder.string() + " " +
                            std::to_string(m_nPort) + " " + std::to_string(m_nVictim));
        EXPECT_EQ(status, 0) << m_out;
        EXPECT_EQ(m_out, "19 attacks made\n") << (asUser ? "user" : "root");
        EXPECT_EQ(Load(m_folder / "secret"), "secret\n");
        EXPECT_TRUE(fs::is_empty(m_folder / "tmp"));
    }
}

TEST_F(Escape, NothingInsideForgesAVerdict) {
    const std::string write = "write 0 60000 image\n";
    const struct {
        const char *attack; ///< the notify script
        const char *found;
        const char *later = ""; ///< lines of the script after the write
    } rows[] = {
        {"echo erase 0 20000 >/tmp/update/flashrig.script", "[unknown-command]", "frobnicate\n"},
        {"rm /tmp/update/flashrig.script", "[unknown-command]", "frobnicate\n"},
        {"printf x | dd of=/.flashsim/chip bs=1 seek=700000 conv=notrunc 2>/dev/null", "[chip-bypassed]"},
        {"printf x | dd of=/.flashsim/chip bs=1 seek=2000000 conv=notrunc 2>/dev/null", "cut or lengthened the files"},
        {"printf x | dd of=/.flashsim/chip.chip bs=1 seek=100 conv=notrunc 2>/dev/null", "[chip-bypassed]"},
        {": >/.flashsim/chip", "cut or lengthened the files"},
        {": >/.flashsim/state", "flashsim: "},
        {"yes | head -c 40000000", "[output-cut]"},
        {"sleep 1000", "[timed-out]"},
        {"mkfifo /tmp/f; (while :; do read x </tmp/f & done); exec sleep 100", "[too-much]"},
        // What is left of it differs: the limit of processes ends it, or the time.
        {"f() { f | f & }; f; sleep 100", "verdict: NOT clean"},
    };
    // Large enough for calls of the notify script in the middle.
    Save("update/image", std::string(0x40000, 'k'));
    for (const bool asUser : kUsers) {
        for (const auto &row : rows) {
            Save("update/progress_script.sh", std::string("#!/bin/sh\n") + row.attack + "\n");
            Save("update/flashrig.script", write + row.later);
            EXPECT_NE(Run(asUser, "--chip 1M,128K,2K,64 --timeout 20 " + Update()), 0) << row.attack;
            EXPECT_NE(m_out.find(row.found), std::string::npos) << row.attack << "\n" << m_out.substr(0, 2000);
            EXPECT_EQ(m_out.find("verdict: clean"), std::string::npos) << row.attack;
        }
    }
}

TEST_F(Escape, EveryRunOfASweepNoticesChangesOfTheChipByOtherWays) {
    Save("update/flashrig.script", "setenv a b\nwrite 0 60000 image\n");
    Save("update/image", std::string(0x40000, 'k'));
    fs::create_directory(m_folder / "root/bin");
    // The first two runs in a sandbox are honest, like the reference. What is changed later is then written over. Only
    // runs whose failure does not show keep the sandbox.
    Save("root/bin/bootvars", "#!/bin/sh\necho >>/tmp/runs\n[ $(wc -l </tmp/runs) -lt 3 ] ||"
                              " printf x | dd of=/.flashsim/chip bs=1 seek=140000 conv=notrunc 2>/dev/null\n");
    EXPECT_EQ(Run(false, "sweep faults --every 20 --jobs 1 --exact --chip 1M,128K,2K,64 --root " +
                             (m_folder / "root").string() + " " + Update()),
              1);
    EXPECT_NE(m_out.find("always: 21 of 25 runs passed"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("pages changed other than by a request, or while the writer was killed [4 runs]"),
              std::string::npos)
        << m_out;
}

TEST_F(Escape, ScriptThatIsNoFileNeitherBlocksNorFillsMemory) {
    for (const char *target : {"/dev/zero", "fifo"}) {
        fs::remove(m_folder / "update/flashrig.script");
        if (target[0] == '/')
            fs::create_symlink(target, m_folder / "update/flashrig.script");
        else
            ASSERT_EQ(mkfifo((m_folder / "update/flashrig.script").c_str(), 0644), 0);
        EXPECT_NE(Run(false, "--program /bin/true " + Update()), 124) << target;
        EXPECT_NE(m_out.find("[not-started]"), std::string::npos) << m_out;
    }
}

TEST_F(Escape, KeptChipIsWholeWhateverHappensToARun) {
    const std::string flash = (m_folder / "tmp/unit").string();
    const std::string options = "--chip 1M,128K,2K,64 --flash " + flash + " ";
    Save("update/flashrig.script", "erase 0 20000\nwrite 20000 40000 image\n");
    Save("update/image", std::string(2048, 'k'));
    ASSERT_EQ(Run(false, options + "--raw " + Update()), 0) << m_out;
    const std::string before = Load(flash);
    Save("update/progress_script.sh", "#!/bin/sh\n: >/.flashsim/chip\n");
    EXPECT_EQ(Run(false, options + Update()), 2) << m_out;
    EXPECT_EQ(Load(flash), before);
    // Killed while both files were being replaced: the new ones are whole and take their places.
    fs::rename(flash + ".chip", flash + ".chip.new");
    fs::rename(flash, flash + ".new");
    Save("tmp/unit.part", "a part");
    Save("update/progress_script.sh", "#!/bin/sh\n");
    EXPECT_EQ(Run(false, options + Update()), 0) << m_out;
    EXPECT_EQ(Load(flash), before);
    for (const char *left : {".new", ".part", ".chip.new", ".chip.part"})
        EXPECT_FALSE(fs::exists(flash + left)) << left;
}

TEST_F(Escape, CallersHabitsNeitherHangNorMisleadARun) {
    const struct {
        const char *command; ///< $F is flashsim with a chip, $U an update
        int status;
    } rows[] = {
        {"trap '' CHLD; $F --raw $U", 0},
        {"$F --report report $U >&-; s=$?; grep -q '^write\\|^erase' report && exit 9; exit $s", 2},
        {"$F $U 2>&- <&- >/dev/null", 0},
        {"$F $U >/dev/full", 2},
        {"$F --raw $U >/dev/full", 2},
        {"umask 0777; $F --raw $U", 0},
        {"mkdir gone; cd gone; rmdir ../gone; $F --raw $U", 0},
        {"d=\"$PWD/a b/$(printf 'c\\nd')\"; mkdir -p \"$d\"; cp -r $U \"$d/u\"; $F --raw \"$d/u\"", 0},
        {"TMPDIR=/nowhere $F $U", 2},
        // A path of some 4,000 characters, which is as long as the kernel takes one.
        {"n=$(printf %0200d 0); for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19; do mkdir $n && cd $n; done;"
         " cp -r $U u; $F --raw u",
         0},
        {"n=$(printf %0200d 0); d=$PWD; for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19; do mkdir -p $n;"
         " cd $n; d=$d/$n; done; cp -r $U u; $F --raw $d/u",
         0},
        // While the chip is made.
        {"${F%% --chip*} --chip 8G,128K,2K,64 --raw $U & p=$!; sleep 0.3; kill -TERM $p; wait $p; r=$?;"
         " ls $TMPDIR | grep flashsim && exit 9; exit $r",
         143},
        // These need root.
        {"unshare -m sh -c 'mount -t tmpfs -o size=256k none /dev/shm && unset TMPDIR && \"$@\"' sh $F $U", 2},
        {"unshare -m sh -c 'mount -t tmpfs -o ro none /dev/shm && unset TMPDIR && \"$@\"' sh $F --raw $U", 0},
        {"unshare -m sh -c 'umount -l /proc && \"$@\"' sh $F --raw $U", 2},
        {"trap '' TERM; (sleep 1; kill -TERM $$) & $F --raw $U", 0},
    };
    Save("update/progress_script.sh", "#!/bin/sh\n");
    for (const auto &row : rows) {
        if (geteuid() != 0 && strstr(row.command, "unshare") != nullptr)
            continue;
        // The leak checker of sanitized builds ends every program that has no /proc.
        if (kIsSanitized && strstr(row.command, "umount -l /proc") != nullptr)
            continue;
        Save("command", "cd " + (m_folder / "tmp").string() + "; F='" + m_folder.string() +
                            "/bin/flashsim --chip 1M,128K,2K,64'; U=" + Update() + "\n" + row.command + "\n");
        const int status = system(("TMPDIR=" + m_folder.string() + "/tmp timeout 100 sh " + m_folder.string() +
                                   "/command >" + m_folder.string() + "/out 2>&1")
                                      .c_str());
        EXPECT_EQ(WEXITSTATUS(status), row.status) << row.command << "\n" << Load(m_folder / "out");
    }
}
