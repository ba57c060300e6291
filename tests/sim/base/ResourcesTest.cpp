// Signals, descriptors and folders of flashsim: what must be closed, removed or passed on, on every way out.

#include "base/HeldSignals.h"
#include "base/ScopedFd.h"
#include "base/SharedFile.h"
#include "base/SystemError.h"
#include "base/TempFolder.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

/// @return how a child process ends in which `work` runs, as waitpid gives it.
template <typename Work> int StatusOf(Work work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

} // namespace

TEST(ScopedFd, ClosesItsDescriptorOnceWhereverItWasMoved) {
    ScopedFd one(dup(STDOUT_FILENO));
    const int first = one.Get();
    ScopedFd other(std::move(one));
    EXPECT_EQ(other.Get(), first);
    const int second = dup(STDOUT_FILENO);
    other = ScopedFd(second);
    EXPECT_FALSE(IsOpen(first));
    EXPECT_TRUE(IsOpen(second));
    other.Close();
    EXPECT_FALSE(IsOpen(second));
    const ScopedFd reused(dup(STDOUT_FILENO));
    other.Close();
    EXPECT_TRUE(IsOpen(reused.Get()));
}

TEST(HeldSignals, SignalWaitsForTheEndAndThenDoesWhatItAlwaysDoes) {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) {
        const int status = StatusOf([number] {
            const HeldSignals signals;
            raise(number);
            if (!signals.HasCome() || !HeldSignals::IsAnyPending())
                _exit(1);
        });
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << number << " " << status;
        const int ignored = StatusOf([number] {
            signal(number, SIG_IGN);
            const HeldSignals signals;
            raise(number);
            if (signals.HasCome() || HeldSignals::IsAnyPending())
                _exit(1);
        });
        EXPECT_EQ(ignored, 0) << number;
    }
}

TEST(TempFolder, IsRemovedWithAllItHoldsAndSoAreThoseOfKilledRuns) {
    const fs::path place = fs::path(testing::TempDir()) / ("tmp" + std::to_string(getpid()));
    fs::create_directories(place);
    setenv("TMPDIR", place.c_str(), 1);
    const int status = StatusOf([] {
        const TempFolder left;
        SharedFile::CreateFull(left.File("flash"), 4096, 0);
        raise(SIGKILL);
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(fs::is_empty(place));
    fs::create_directory(place / "flashsim.other");
    {
        const TempFolder used;
        const TempFolder second;
        fs::create_directories(used.File("deep/folder"));
        EXPECT_NE(used.File(""), second.File(""));
        EXPECT_EQ(std::distance(fs::directory_iterator(place), {}), 3) << "two in use and one of somebody else";
        EXPECT_EQ(fs::status(used.File("")).permissions(), fs::perms(0700));
    }
    EXPECT_TRUE(fs::remove(place / "flashsim.other"));
    EXPECT_TRUE(fs::is_empty(place));
    fs::remove(place);
    EXPECT_THROW(TempFolder(), SystemError);
    unsetenv("TMPDIR");
}

TEST(SharedFile, ShortenedFileIsNoticedBeforeItsBytesAreRead) {
    const std::string path = fs::path(testing::TempDir()) / ("shared" + std::to_string(getpid()));
    const SharedFile file = SharedFile::CreateFull(path, 8192, 7);
    EXPECT_TRUE(file.IsWhole());
    for (const off_t size : {off_t{0}, off_t{8191}, off_t{8193}}) {
        EXPECT_EQ(truncate(path.c_str(), size), 0);
        EXPECT_FALSE(file.IsWhole()) << size;
    }
    EXPECT_EQ(truncate(path.c_str(), 8192), 0);
    EXPECT_TRUE(file.IsWhole());
    unlink(path.c_str());
}
