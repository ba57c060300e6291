#include "ProcessUtil.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// Runs inside the simulated device: this code stops processes as root.

namespace {

template <typename Call> std::string Printed(Call call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

/// Starts a program that runs until it is stopped.
pid_t Start(const char *path, const char *name) {
    const pid_t child = fork();
    if (child == 0) {
        execl(path, name, "60", nullptr);
        _exit(127);
    }
    // Until it is the program: a fork of the tests still has their name.
    while (ShellCmd(("cat /proc/" + std::to_string(child) + "/cmdline").c_str()).find(name) != 0)
        usleep(1000);
    return child;
}

} // namespace

TEST(ProcessUtil, GivesAllOutputOfAShellCommandAndNothingElse) {
    EXPECT_EQ(ShellCmd("exit 3"), "");
    EXPECT_EQ(ShellCmd("printf 'a\\n\\nb' ; echo error >/dev/null"), "a\n\nb");
    EXPECT_EQ(ShellCmd("head -c 1000 /dev/zero | tr '\\0' x"), std::string(1000, 'x'));
}

TEST(ProcessUtil, FindsTheFirstProcessOfAName) {
    EXPECT_EQ(Printed([] { EXPECT_EQ(GetProcessIdByName("no_such_process"), 0); }), "");
    const pid_t first = Start("/bin/sleep", "flow_core");
    const pid_t second = Start("/bin/sleep", "flow_core");
    const std::string printed = Printed([&] {
        const int found = GetProcessIdByName("flow_core");
        EXPECT_TRUE(found == first || found == second);
        printf("%d", found);
    });
    const std::string one = std::to_string(second) + " " + std::to_string(first);
    EXPECT_EQ(printed, "[" + one + "]\n" + std::to_string(second));
    EXPECT_EQ(KillProcess(first, nullptr), 1);
    EXPECT_EQ(KillProcess(second, nullptr), 1);
}

TEST(ProcessUtil, ReapsItsChildrenAndOnlySignalsOthers) {
    int status = -1;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGTERM, [](int) { _exit(42); });
        close(ready[0]);
        close(ready[1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    char none;
    EXPECT_EQ(read(ready[0], &none, 1), 0); // until the child has its handler
    close(ready[0]);
    EXPECT_EQ(KillProcess(child, &status), 1);
    EXPECT_EQ(status, 42);
    EXPECT_EQ(KillProcess(child, &status), 0); // it has ended
    EXPECT_EQ(KillProcess(0, &status), 0);
    const int other = std::atoi(ShellCmd("sleep 60 >/dev/null 2>&1 & echo $!").c_str());
    ASSERT_GT(other, 1);
    EXPECT_EQ(KillProcess(other, &status), 0);
    EXPECT_EQ(status, 42);
}

TEST(ProcessUtil, TellsTheRawWaitStatusOfAProgram) {
    const struct {
        const char *path;
        const char *argument;
        const char *line;
    } rows[] = {
        {"/bin/sh", "exit 0", "execute /bin/sh status 0\n"},
        {"/bin/sh", "exit 3", "execute /bin/sh status 768\n"},
        {"/bin/sh", "kill -9 $$", "execute /bin/sh status 9\n"},
        {"/no/program", "", "execute /no/program status 65280\n"},
        // A session of its own: the program is its leader.
        {"/bin/sh", "test $(cut -d' ' -f6 /proc/$$/stat) = $$", "execute /bin/sh status 0\n"},
    };
    for (const auto &row : rows) {
        const char *arguments[] = {row.path, "sh", "-c", row.argument, nullptr};
        EXPECT_EQ(Printed([&] { EXPECT_EQ(ExecuteCommand(const_cast<char *const *>(arguments), true), 1); }), row.line);
    }
    const char *arguments[] = {"/bin/true", "true", nullptr};
    EXPECT_EQ(Printed([&] { EXPECT_EQ(ExecuteCommand(const_cast<char *const *>(arguments), false), 1); }), "");
    wait(nullptr);
}
