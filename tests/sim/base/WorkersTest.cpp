#include "base/Workers.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::function<WorkerJob(unsigned)> Always(const WorkerJob &job) {
    return [job](unsigned) { return job; };
}

/// @return whether a child process is left.
bool HasChild() { return waitpid(-1, nullptr, WNOHANG) >= 0; }

} // namespace

TEST(Workers, EachJobIsDoneOnceAndItsBytesArriveWhole) {
    const HeldSignals signals;
    std::map<std::size_t, std::string> results;
    const auto job = [](std::size_t number) { return std::string(number * 1000, static_cast<char>(number)); };
    EXPECT_TRUE(DoInWorkers(50, 3, signals, Always(job), [&](std::size_t number, const std::string &result) {
        EXPECT_TRUE(results.emplace(number, result).second) << number;
    }));
    ASSERT_EQ(results.size(), 50U);
    for (const auto &[number, result] : results)
        EXPECT_EQ(result, job(number));
    EXPECT_FALSE(HasChild());
}

TEST(Workers, WhateverEndsAWorkerReachesTheCallerAndLeavesNoProcess) {
    const HeldSignals signals;
    const struct {
        WorkerJob job;
        const char *text;
    } rows[] = {
        {[](std::size_t) -> std::string { throw std::runtime_error("the job's own words"); }, "the job's own words"},
        {[](std::size_t) -> std::string { _exit(0); }, "a worker process ended without a word"},
        {[](std::size_t) -> std::string { return kill(getpid(), SIGKILL) == 0 ? "" : "alive"; },
         "a worker process ended without a word"},
    };
    for (const auto &row : rows) {
        try {
            DoInWorkers(4, 2, signals, Always(row.job), [](std::size_t, const std::string &) { FAIL(); });
            FAIL() << row.text;
        } catch (const std::runtime_error &failure) {
            EXPECT_STREQ(failure.what(), row.text);
        }
        EXPECT_FALSE(HasChild());
    }
}

TEST(Workers, HeldSignalEndsThemInTheMiddleOfAJob) {
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGTERM);
    const HeldSignals signals;
    ASSERT_EQ(raise(SIGTERM), 0);
    const auto endless = [](std::size_t) -> std::string { return pause() < 0 ? "" : "awake"; };
    EXPECT_FALSE(DoInWorkers(2, 2, signals, Always(endless), [](std::size_t, const std::string &) {}));
    EXPECT_FALSE(HasChild());
    EXPECT_EQ(sigtimedwait(&only, nullptr, nullptr), SIGTERM); // or it would end the test
}
