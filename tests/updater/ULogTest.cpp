#include "ULog.h"
#include "Logged.h"
#include "UFile.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <optional>
#include <vector>

namespace {

std::optional<time_t> gTime;
std::optional<std::vector<std::string>> gFrames;

template <typename Function> Function *Next(const char *name, Function *) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// These stand in front of libc's in this program: a clock and a stack that the tests can set.
time_t time(time_t *) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return gTime.value_or(now.tv_sec);
}

int backtrace(void **frames, int limit) {
    return gFrames ? std::min(static_cast<int>(gFrames->size()), limit) : Next("backtrace", backtrace)(frames, limit);
}

char **backtrace_symbols(void *const *frames, int count) noexcept {
    if (!gFrames)
        return Next("backtrace_symbols", backtrace_symbols)(frames, count);
    if (count == 0)
        return nullptr;
    // One allocation for the pointers and their texts, as libc does it.
    constexpr std::size_t kLine = 1024;
    const std::size_t lines = static_cast<std::size_t>(count);
    char **table = static_cast<char **>(std::calloc(lines, sizeof(char *) + kLine));
    char *text = reinterpret_cast<char *>(table + lines);
    for (std::size_t i = 0; i < lines; ++i) {
        table[i] = text + i * kLine;
        (*gFrames)[i].copy(table[i], kLine - 1);
    }
    return table;
}

class USysLogTest : public testing::Test {
protected:
    ~USysLogTest() override {
        gTime.reset();
        gFrames.reset();
    }
};

TEST_F(USysLogTest, NamesCodesAsErrnoMacros) {
    for (int code = 1; code <= 132; ++code) {
        const char *name = strerrorname_np(code);
        EXPECT_STREQ(UError::Name(code), name != nullptr ? name : code == 41 ? "E41" : "E58");
    }
    EXPECT_STREQ(UError::Name(0), "SUCCESS");
    EXPECT_STREQ(UError::Name(132), "ERFKILL");
    EXPECT_STREQ(UError::Name(133), "UNKNOWN");
    EXPECT_STREQ(UError::Name(-1), "UNKNOWN");
}

TEST_F(USysLogTest, ErrorReportsGiveSourceNameAndText) {
    gFrames.emplace();
    const std::string cut(255, 'x');
    const std::string fits(254, 'x');
    const char *const longer = "%sx";
    const struct {
        std::string text;
        std::string expected;
    } rows[] = {
        {Logged([] { EXPECT_EQ(USysLog::error("a.cpp", 7, "Open", 2), 2); }),
         "a.cpp(7):Open()\t[ENOENT(2)] No such file or directory\nNo Stack Trace.\n"},
        {Logged([&] { EXPECT_EQ(USysLog::error("a.cpp", 7, "Open", 133, longer, cut.c_str()), 133); }),
         "a.cpp(7):Open()\t[UNKNOWN(133)] " + cut + "\nNo Stack Trace.\n"},
        {Logged([&] { EXPECT_EQ(USysLog::error("a.cpp", 7, "Open", 1, longer, fits.c_str()), 1); }),
         "a.cpp(7):Open()\t[EPERM(1)] " + cut + "\nNo Stack Trace.\n"},
        {Logged([&] { USysLog::error("a.cpp", 7, "Open", longer, cut.c_str()); }),
         "a.cpp(7):Open()\t[" + cut + "]\nNo Stack Trace.\n"},
        {Logged([&] { USysLog::error("a.cpp", 7, "Open", longer, fits.c_str()); }),
         "a.cpp(7):Open()\t[" + cut + "]\nNo Stack Trace.\n"},
        {Logged([] { EXPECT_EQ(USysLog::error("a.cpp", 7, "Open", 0), 0); }), ""},
        {Logged([] { EXPECT_EQ(USysLog::error("a.cpp", 7, "Open", 0, "%d", 5), 0); }), ""},
        {Logged([] { EXPECT_EQ(UConsoleLog::error("a.cpp", 7, "Open", 41), 41); }),
         "a.cpp(7):Open()\t\t[E41(41)] Unknown error 41\n"},
        {Logged([] { EXPECT_EQ(UConsoleLog::error("a.cpp", 7, "Open", 5, "100%s"), 5); }),
         "a.cpp(7):Open()\t\t[EIO(5)] 100%s\n"},
        {Logged([] { EXPECT_EQ(UConsoleLog::error("a.cpp", 7, "Open", 0, "none"), 0); }), ""},
        {Logged([] { UConsoleLog::write("%d bytes", 5); }), "5 bytes\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.text, row.expected);
    USysLog::open("other");
    EXPECT_EQ(Logged([] { USysLog::Write(USysLog::Warning, "%d\n", 5); }),
              "other[" + std::to_string(getpid()) + "]: 5\n");
    USysLog::open(program_invocation_short_name);
}

TEST_F(USysLogTest, SkipCountsOnlyFramesThatDemangle) {
    const std::string module(140, 'm');
    const std::string symbol(300, 's');
    gFrames = {"/prog(+0x10) [0x1]",
               "/prog(_Z5firstv+0x2) [0x2]",
               "/prog() [0x3]",
               "/prog(main+0x4) [0x4]",
               "[0x5]",
               "/prog(_Z6secondi+0x6) [0x6]",
               "/prog(_Z5third) [0x7]",
               "/prog(_Z6fourthv) [0x8]",
               ")x( [0x9]",
               module + "(_Z5fifthPKc+0xa) [0xa]",
               "/prog(_Z300" + symbol + "v+0xb) [0xb]"};
    EXPECT_EQ(Logged([] { USysLog::PrintStackTrace(2); }),
              "Stack Trace:\n/prog(+0x10) [0x1]\n/prog() [0x3]\n/prog(main+0x4) [0x4]\n[0x5]\n/prog: third [0x7]\n"
              "/prog: fourth() [0x8]\n)x( [0x9]\n" +
                  module.substr(0, 127) + ": fifth(char const*) [0xa]\n/prog(_Z300" + symbol + "v+0xb) [0xb]\n");
    gFrames.emplace(100, "f");
    std::string eighty = "Stack Trace:\n";
    for (int i = 0; i < 80; ++i)
        eighty += "f\n";
    EXPECT_EQ(Logged([] { USysLog::PrintStackTrace(0); }), eighty);
}

TEST_F(USysLogTest, DebugLooksForItsSwitchFileAfterMoreThanFiveSeconds) {
    char folder[] = "/tmp/ulog.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string program = folder + std::string("/prog");
    const char *const realName = __progname_full;
    __progname_full = program.c_str();
    static time_t start = 1000000;
    start += 1000;
    const struct {
        int second;
        bool file;
        bool written;
    } rows[] = {{0, false, false},  {5, true, false},  {6, true, true}, {11, false, true},
                {12, false, false}, {17, true, false}, {18, true, true}};
    for (const auto &row : rows) {
        gTime = start + row.second;
        if (row.file)
            UFile::WriteFile((program + ".log").c_str(), "", 0, 0600);
        else
            unlink((program + ".log").c_str());
        EXPECT_EQ(Logged([] { USysLog::debug("a.cpp", 7, "Run", "page 0x%x", 0x1F); }),
                  row.written ? "a.cpp(7):Run()\t\tpage 0x1f\n" : "")
            << row.second;
    }
    // 239 characters fit. A longer format ends before its last conversion within the buffer.
    const std::string x(231, 'x');
    const struct {
        std::string format;
        std::string written;
    } formats[] = {
        {x + "%%123%%s", x + "%123%s"},   {x + "%d123456", x + "5123456"},   {x + "%d12%%345", x},
        {x + "1234567%%", x + "1234567"}, {x + "%%12345%d", x + "%12345"},   {x + "%%12345%%", x + "%12345"},
        {x + "123456%%8", x + "123456%"}, {x + "123456789", x + "12345678"},
    };
    for (const auto &row : formats)
        EXPECT_EQ(Logged([&] { USysLog::debug("a.cpp", 7, "Run", row.format.c_str(), 5); }),
                  "a.cpp(7):Run()\t\t" + row.written + "\n");
    __progname_full = realName;
    unlink((program + ".log").c_str());
    rmdir(folder);
}
