#include "UFile.h"
#include "Logged.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <sys/stat.h>

using namespace std::string_literals;

class UFileTest : public testing::Test {
protected:
    UFileTest() {
        char pattern[] = "/tmp/ufile.XXXXXX";
        m_sFolder = mkdtemp(pattern);
        m_sFile = m_sFolder + "/file";
        m_sMissing = m_sFolder + "/missing/file";
        m_sLink = m_sFolder + "/link";
        UFile::SaveBinaryFile(m_sFile, "0123456789");
        m_nFd = UFile::Open(m_sFile.c_str(), O_RDWR | O_APPEND);
    }
    ~UFileTest() override {
        close(m_nFd);
        std::filesystem::remove_all(m_sFolder);
    }

    std::string m_sFolder;
    std::string m_sFile;
    std::string m_sMissing;
    std::string m_sLink;
    int m_nFd;
};

TEST_F(UFileTest, FailedCallsAreReportedWithTheCallersStack) {
    const char *const missing = m_sMissing.c_str();
    struct stat record;
    char buffer[PATH_MAX];
    const struct {
        const char *operation;
        long long failure;
        int code;
        std::function<long long()> call;
    } rows[] = {
        {"Create", -1, ENOENT, [&] { return UFile::Create(missing, 0); }},
        {"Open", -1, ENOENT, [&] { return UFile::Open(missing, O_RDONLY); }},
        {"Close", 0, EBADF, [&] { return UFile::Close(-1); }},
        {"Read", -1, EBADF, [&] { return UFile::Read(-1, buffer, 1); }},
        {"Write", -1, EBADF, [&] { return UFile::Write(-1, buffer, 1); }},
        {"Seek", -1, EINVAL, [&] { return UFile::Seek(m_nFd, -1, SEEK_SET); }},
        {"Flush", 0, EBADF, [&] { return UFile::Flush(-1); }},
        {"CheckPermission", 0, ENOENT, [&] { return UFile::CheckPermission(missing, F_OK); }},
        {"ChangePermission", 0, ENOENT, [&] { return UFile::ChangePermission(missing, 0600); }},
        {"ReserveSpace4", 0, EINVAL, [&] { return UFile::ReserveSpace4(m_nFd, -1, 1); }},
        {"ReserveSpace", 0, EINVAL, [&] { return UFile::ReserveSpace(m_nFd, 0, 0) + (errno == EINVAL ? 0 : 9); }},
        {"Remove", 0, ENOENT, [&] { return UFile::Remove(missing); }},
        {"Rename", 0, ENOENT, [&] { return UFile::Rename(missing, m_sLink.c_str()); }},
        {"GetAttrs", 0, ENOENT, [&] { return UFile::GetAttrs(missing, &record); }},
        {"GetLastWriteTime", -1, ENOENT, [&] { return UFile::GetLastWriteTime(missing); }},
        {"MakeSymLink", 0, EEXIST, [&] { return UFile::MakeSymLink(missing, m_sFile.c_str()); }},
        {"GetAbsolutePath", 0, ENOENT, [&] { return UFile::GetAbsolutePath(missing, buffer); }},
        {"CreateAbsolutePath", 1, ENOENT, [&] { return UFile::CreateAbsolutePath(missing) == nullptr; }},
        {"ControlCache", 0, EBADF, [&] { return UFile::ControlCache(-1, UFile::DontNeed, 0, 0); }},
        {"SyncFileRange", 0, EBADF, [&] { return UFile::SyncFileRange(-1, 0, 0, 0); }},
        {"CreateTempFile", -1, ENOENT, [&] { return UFile::CreateTempFile("no/such/folder", nullptr, buffer); }},
        {"Lock", 0, EBADF, [&] { return UFile::Lock(-1, F_RDLCK, true); }},
        {"SetNonBlock", 0, EBADF, [&] { return UFile::SetNonBlock(-1, true); }},
        {"GetFileSize", -1, EBADF, [&] { return UFile::GetFileSize(-1); }},
        {"ReadLink", 0, EINVAL, [&] { return UFile::ReadLink(m_sFile.c_str(), buffer, 9); }},
    };
    testing::internal::CaptureStdout();
    for (const auto &row : rows) {
        errno = 0;
        const std::string text = Logged([&] { EXPECT_EQ(row.call(), row.failure) << row.operation; });
        const std::string line = "):"s + row.operation + "()\t[" + strerrorname_np(row.code) + "(" +
                                 std::to_string(row.code) + ")] " + strerror(row.code) + "\nStack Trace:\n";
        EXPECT_NE(text.find(line), std::string::npos) << text;
        EXPECT_EQ(text.rfind("src/UFile.cpp(", 0), 0U) << text;
        EXPECT_NE(text.find(": UFile::"s + row.operation + "("), std::string::npos) << text;
        EXPECT_EQ(text.find("USysLog::"), std::string::npos) << text;
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fallocate errno:22\n");
    const std::string text = Logged([&] { EXPECT_EQ(UFile::GetFileSize(missing), -1); });
    EXPECT_NE(text.find("):GetFileSize()\t[ENOENT(2)] GetFileSize('" + m_sMissing + "') error.\n"), std::string::npos);
}

TEST_F(UFileTest, SuccessIsSilent) {
    const std::string moved = m_sFolder + "/moved";
    const mode_t maskBefore = umask(0);
    char buffer[PATH_MAX] = {};
    struct stat record = {};
    const std::string text = Logged([&] {
        const int fd = UFile::Create(moved.c_str(), O_EXCL);
        EXPECT_EQ(UFile::GetAttrs(moved.c_str(), &record), 1);
        EXPECT_EQ(record.st_mode & 07777, 0777U);
        EXPECT_EQ(UFile::Write(fd, buffer, 5), 5);
        EXPECT_EQ(UFile::Write(fd, buffer, 0), 0);
        EXPECT_EQ(UFile::Seek(fd, 3, SEEK_SET), 3);
        EXPECT_EQ(UFile::Read(fd, buffer, 9), 2);
        EXPECT_EQ(UFile::Read(fd, buffer, 9), 0);
        EXPECT_EQ(UFile::ReserveSpace(fd, 0, 100), 1);
        EXPECT_EQ(UFile::GetFileSize(fd), 100);
        EXPECT_EQ(UFile::ReserveSpace4(fd, 100, 0), 0);
        EXPECT_EQ(UFile::ReserveSpace4(fd, 100, 100), 1);
        EXPECT_EQ(UFile::GetFileSize(moved.c_str()), 200);
        EXPECT_EQ(UFile::Seek(fd, 0xFFFFFFFF, SEEK_SET), 0xFFFFFFFF);
        EXPECT_EQ(UFile::Flush(fd), 1);
        EXPECT_EQ(UFile::ControlCache(fd, UFile::DontNeed, 0, 0), 1);
        EXPECT_EQ(UFile::SyncFileRange(fd, SYNC_FILE_RANGE_WRITE, 0, 0), 1);
        EXPECT_EQ(UFile::Close(fd), 1);
        EXPECT_EQ(UFile::ChangePermission(moved.c_str(), 0400), 1);
        EXPECT_EQ(UFile::CheckPermission(moved.c_str(), R_OK), 1);
        EXPECT_EQ(UFile::Rename(moved.c_str(), m_sFile.c_str()), 1);
        EXPECT_EQ(UFile::GetAttrs(m_sFile.c_str(), &record), 1);
        EXPECT_EQ(record.st_mode & 07777, 0400U);
        EXPECT_EQ(UFile::GetLastWriteTime(m_sFile.c_str()), record.st_mtime);
        EXPECT_EQ(UFile::MakeSymLink("file", m_sLink.c_str()), 1);
        EXPECT_EQ(UFile::GetAbsolutePath(m_sLink.c_str(), buffer), 1);
        EXPECT_EQ(buffer, m_sFile);
        const std::unique_ptr<char, decltype(&free)> resolved(UFile::CreateAbsolutePath(m_sLink.c_str()), &free);
        EXPECT_EQ(resolved.get(), m_sFile);
        EXPECT_EQ(UFile::Remove(m_sFile.c_str()), 1);
        EXPECT_EQ(UFile::Exist(m_sFile.c_str()), 0);
    });
    EXPECT_EQ(text, "");
    umask(maskBefore);
}

TEST_F(UFileTest, SizesHave64BitsOnEveryTarget) {
    constexpr long long kSize = 0x180000001;
    ASSERT_EQ(truncate64(m_sFile.c_str(), kSize), 0);
    struct stat record = {};
    const std::string text = Logged([&] {
        EXPECT_EQ(UFile::GetAttrs(m_sFile.c_str(), &record), 1);
        EXPECT_EQ(UFile::GetFileSize(m_sFile.c_str()), kSize);
        EXPECT_EQ(UFile::GetFileSize(m_nFd), kSize);
        EXPECT_EQ(UFile::GetLastWriteTime(m_sFile.c_str()), record.st_mtime);
        EXPECT_EQ(UFile::Exist(m_sFile.c_str()), 1);
        EXPECT_EQ(UFile::IsDir(m_sFile.c_str()), 0);
        char byte = 'x';
        EXPECT_EQ(UFile::ReadFile(m_sFile.c_str(), &byte, 1), 1);
        EXPECT_EQ(UFile::Seek(m_nFd, -1, SEEK_END), kSize - 1);
        EXPECT_EQ(UFile::Lock(m_nFd, F_WRLCK, false), 1);
    });
    EXPECT_EQ(record.st_size, kSize);
    EXPECT_EQ(text, "");
}

TEST_F(UFileTest, LinksCountAsWhatTheyPointTo) {
    std::filesystem::create_symlink(m_sFolder, m_sLink);
    std::filesystem::create_symlink(m_sMissing, m_sFolder + "/dangling");
    const struct {
        std::string path;
        int exist;
        int isDir;
    } rows[] = {
        {m_sFile, 1, 0}, {m_sFolder, 1, 1}, {m_sLink, 1, 1}, {m_sFolder + "/dangling", 0, 0}, {m_sMissing, 0, 0}};
    const std::string text = Logged([&] {
        for (const auto &row : rows) {
            EXPECT_EQ(UFile::Exist(row.path.c_str()), row.exist) << row.path;
            EXPECT_EQ(UFile::IsDir(row.path.c_str()), row.isDir) << row.path;
        }
    });
    EXPECT_EQ(text, "");
}

TEST_F(UFileTest, WholeFilesAreReadAndWrittenSilently) {
    const char *const path = m_sFile.c_str();
    const std::string bytes = std::string(4096, 'x') + "\0tail"s;
    const std::string text = Logged([&] {
        char buffer[4] = {};
        EXPECT_EQ(UFile::ReadFile(path, buffer, 3), 3);
        EXPECT_STREQ(buffer, "012");
        EXPECT_EQ(UFile::ReadFile(m_sMissing.c_str(), buffer, 3), -1);
        EXPECT_EQ(UFile::ReadFile(m_sMissing.c_str()), "");
        EXPECT_EQ(UFile::ReadFile(m_sFolder.c_str()), "");
        std::string data = "ab\0c"s;
        EXPECT_EQ(UFile::WriteFile(path, data), 1);
        EXPECT_EQ(UFile::ReadFile(path), "ab");
        EXPECT_EQ(UFile::WriteFile(path, "\0a", 2, 0600), 1);
        EXPECT_EQ(UFile::ReadFile(path), "");
        EXPECT_EQ(UFile::WriteFile(path, nullptr, 0, 0600), 1);
        EXPECT_EQ(UFile::GetFileSize(path), 0);
        EXPECT_EQ(UFile::WriteFile(m_sMissing.c_str(), "a", 1, 0600), 0);
        EXPECT_EQ(UFile::WriteFile(m_sMissing.c_str(), "a", 0, 0600), 1);

        std::string result = "before";
        EXPECT_EQ(UFile::LoadBinaryFile(path, result), 1);
        EXPECT_EQ(UFile::LoadBinaryFile(m_sMissing, result), 0);
        EXPECT_EQ(UFile::LoadBinaryFile(m_sFolder, result), 0);
        EXPECT_EQ(result, "before");
        EXPECT_EQ(UFile::SaveBinaryFile(m_sMissing, bytes), 0);
        EXPECT_EQ(UFile::SaveBinaryFile(m_sFile, bytes), 1);
        EXPECT_EQ(UFile::LoadBinaryFile(path, result), 1);
        EXPECT_EQ(result, "before" + bytes);
        EXPECT_EQ(UFile::SaveBinaryFile(m_sFile, std::string(0x100005, 'x')), 1);
        EXPECT_EQ(UFile::ReadFile(path), std::string(0x100000, 'x'));
    });
    EXPECT_EQ(text, "");
}

TEST_F(UFileTest, TempFilesBearStemAndTail) {
    char path[64];
    const int plain = UFile::CreateTempFile(nullptr, nullptr, path);
    EXPECT_EQ(UFile::Remove(path), 1);
    EXPECT_EQ(std::string(path).size(), std::strlen("/tmp/XXXXXX"));
    const int named = UFile::CreateTempFile("ufile.", ".tail", path);
    EXPECT_EQ(UFile::Remove(path), 1);
    EXPECT_EQ(std::string(path).replace(11, 6, "XXXXXX"), "/tmp/ufile.XXXXXX.tail");
    EXPECT_EQ(UFile::Close(plain) + UFile::Close(named), 2);
}

TEST_F(UFileTest, LockOfAnotherProcessRefusesTheWholeFile) {
    EXPECT_EQ(UFile::Lock(m_nFd, F_WRLCK, false), 1);
    EXPECT_EXIT(_exit(UFile::Lock(m_nFd, F_RDLCK, false)), testing::ExitedWithCode(0),
                "Lock\\(\\)\t\\[(EAGAIN|EACCES)");
    EXPECT_EQ(UFile::Lock(m_nFd, F_UNLCK, true), 1);
    EXPECT_EXIT(_exit(UFile::Lock(m_nFd, F_WRLCK, false)), testing::ExitedWithCode(1), "");
}

TEST_F(UFileTest, NonBlockLeavesTheOtherFlags) {
    const int flags = fcntl(m_nFd, F_GETFL);
    EXPECT_EQ(UFile::SetNonBlock(m_nFd, true), 1);
    EXPECT_EQ(fcntl(m_nFd, F_GETFL), flags | O_NONBLOCK);
    EXPECT_EQ(UFile::SetNonBlock(m_nFd, false), 1);
    EXPECT_EQ(fcntl(m_nFd, F_GETFL), flags);
}

TEST_F(UFileTest, LinkTargetsAreCutToTheBuffer) {
    ASSERT_EQ(UFile::MakeSymLink("0123456789", m_sLink.c_str()), 1);
    for (unsigned int size : {1U, 5U, 10U, 11U, 20U}) {
        std::string buffer(20, '?');
        EXPECT_EQ(UFile::ReadLink(m_sLink.c_str(), buffer.data(), size), 1);
        EXPECT_EQ(buffer.substr(0, buffer.find('\0')), std::string("0123456789").substr(0, size - 1));
    }
}
