// Host files: dispositions, reading and writing, positions, deletion and the
// Win32 error codes of failures.
#include "support/platform_fixture.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::u16string Wide(const std::string &s)
{
    return std::u16string(s.begin(), s.end());
}

class FilesTest : public PlatformTest
{
protected:
    // Windows-style name of a file in the test directory.
    std::u16string Name(const std::string &leaf) { return Wide(dir_.path() + "\\" + leaf); }
    std::string Host(const std::string &leaf) { return dir_ / leaf; }
    HANDLE Open(const std::string &leaf, DWORD access, DWORD disposition)
    {
        return CreateFileW(Name(leaf).c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    tamrix_test::TempDir dir_;
};

TEST_F(FilesTest, WriteReadSeekAndSize)
{
    long files = PlatLiveCount(PLAT_KIND_FILE);
    HANDLE h = Open("a.bmp", GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_FILE), files + 1);
    DWORD n = 0;
    ASSERT_TRUE(WriteFile(h, "hello, world", 12, &n, nullptr));
    EXPECT_EQ(n, 12u);
    DWORD high = 7;
    EXPECT_EQ(GetFileSize(h, &high), 12u);
    EXPECT_EQ(high, 0u);
    EXPECT_EQ(SetFilePointer(h, 7, nullptr, FILE_BEGIN), 7u);
    char buf[16] = {};
    ASSERT_TRUE(ReadFile(h, buf, sizeof buf, &n, nullptr));
    EXPECT_EQ(n, 5u); // up to the end of the file
    EXPECT_EQ(std::string(buf, n), "world");
    ASSERT_TRUE(ReadFile(h, buf, sizeof buf, &n, nullptr));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(SetFilePointer(h, -5, nullptr, FILE_END), 7u);
    EXPECT_EQ(SetFilePointer(h, -8, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NEGATIVE_SEEK));
    EXPECT_TRUE(FlushFileBuffers(h));
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_FILE), files);
    EXPECT_FALSE(WriteFile(h, "x", 1, &n, nullptr));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));

    std::ifstream in(Host("a.bmp"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "hello, world");
}

// Small writes reach the host in blocks; what cannot be written by the time
// the file is closed (here past the host's file size limit) fails the close.
TEST_F(FilesTest, AWriteThatFailsLateFailsTheClose)
{
    long files = PlatLiveCount(PLAT_KIND_FILE);
    HANDLE h = Open("rows.bmp", GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    const std::string row(1000, 'r');
    DWORD n = 0;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(WriteFile(h, row.data(), 1000, &n, nullptr));
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit limit = old;
    limit.rlim_cur = 1500;
    auto oldSignal = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    BOOL closed = CloseHandle(h);
    DWORD error = GetLastError();
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldSignal);
    EXPECT_FALSE(closed);
    EXPECT_NE(error, DWORD(ERROR_SUCCESS));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_FILE), files);
    struct stat st {
    };
    ASSERT_EQ(stat(Host("rows.bmp").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 1500);
}

TEST_F(FilesTest, DispositionsOnExistingAndMissingFiles)
{
    DWORD n;
    // Each step opens "f" (5 bytes when it was created) and checks error and size.
    struct Step {
        DWORD access, disposition, error, size;
    } steps[] = {
        {GENERIC_WRITE, OPEN_ALWAYS, 0, 0},                      // created
        {GENERIC_READ, OPEN_ALWAYS, ERROR_ALREADY_EXISTS, 5},    // kept
        {GENERIC_WRITE, CREATE_ALWAYS, ERROR_ALREADY_EXISTS, 0}, // truncated
        {GENERIC_WRITE, TRUNCATE_EXISTING, 0, 0},
    };
    for (const Step &st : steps) {
        SCOPED_TRACE(st.disposition);
        SetLastError(0);
        HANDLE h = Open("f", st.access, st.disposition);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), st.error);
        EXPECT_EQ(GetFileSize(h, nullptr), st.size);
        EXPECT_EQ(WriteFile(h, "12345", 5, &n, nullptr) ? 0 : GetLastError(),
                  st.access == GENERIC_WRITE ? 0u : DWORD(ERROR_ACCESS_DENIED));
        CloseHandle(h);
    }
    // Failures, including those that stop the driver from saving: a missing
    // directory or a file used as one is 3, a directory as a file is 5.
    std::string longName(300, 'n');
    ASSERT_EQ(mkdir(Host("sub").c_str(), 0755), 0);
    struct Failure {
        std::string leaf;
        DWORD access, disposition, error;
    } failures[] = {
        {"f", GENERIC_WRITE, CREATE_NEW, ERROR_FILE_EXISTS},
        {"missing", GENERIC_READ, OPEN_EXISTING, ERROR_FILE_NOT_FOUND},
        {"missing", GENERIC_WRITE, TRUNCATE_EXISTING, ERROR_FILE_NOT_FOUND},
        {"f", GENERIC_READ, 99, ERROR_INVALID_PARAMETER},
        {"nodir\\x.bmp", GENERIC_WRITE, OPEN_ALWAYS, ERROR_PATH_NOT_FOUND},
        {"f\\x.bmp", GENERIC_WRITE, OPEN_ALWAYS, ERROR_PATH_NOT_FOUND},
        {"sub", GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, ERROR_ACCESS_DENIED},
        {longName, GENERIC_WRITE, CREATE_ALWAYS, ERROR_FILENAME_EXCED_RANGE},
    };
    for (const Failure &f : failures) {
        SCOPED_TRACE(f.leaf.substr(0, 20));
        EXPECT_EQ(Open(f.leaf, f.access, f.disposition), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), f.error);
    }
}

TEST_F(FilesTest, DeleteFile)
{
    HANDLE h = Open("d", GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
    EXPECT_TRUE(DeleteFileW(Name("d").c_str()));
    EXPECT_NE(access(Host("d").c_str(), F_OK), 0);
    ASSERT_EQ(mkdir(Host("sub").c_str(), 0755), 0);
    const std::pair<const char *, DWORD> failures[] = {
        {"d", ERROR_FILE_NOT_FOUND}, {"nodir\\d", ERROR_PATH_NOT_FOUND}, {"sub", ERROR_ACCESS_DENIED}};
    for (auto [leaf, error] : failures) {
        EXPECT_FALSE(DeleteFileW(Name(leaf).c_str())) << leaf;
        EXPECT_EQ(GetLastError(), error) << leaf;
    }
}

TEST_F(FilesTest, InjectedFailures)
{
    HANDLE h = Open("i", GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 99;
    PlatFailCall("WriteFile", 1, ERROR_DISK_FULL);
    EXPECT_FALSE(WriteFile(h, "abc", 3, &n, nullptr));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_DISK_FULL));
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);           // nothing reached the file
    EXPECT_TRUE(WriteFile(h, "abc", 3, &n, nullptr)); // only the first call fails

    PlatFailCall("ReadFile", 1, ERROR_READ_FAULT);
    SetFilePointer(h, 0, nullptr, FILE_BEGIN);
    char buf[4];
    EXPECT_FALSE(ReadFile(h, buf, 3, &n, nullptr));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_READ_FAULT));
    PlatFailCall("SetFilePointer", 1, 0);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    PlatFailCall("FlushFileBuffers", 1, ERROR_WRITE_FAULT);
    EXPECT_FALSE(FlushFileBuffers(h));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_WRITE_FAULT));
    CloseHandle(h);

    long files = PlatLiveCount(PLAT_KIND_FILE);
    PlatFailCall("CreateFileW", 1, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Open("i", GENERIC_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_FILE), files);
    PlatFailCall("DeleteFileW", 1, 0);
    EXPECT_FALSE(DeleteFileW(Name("i").c_str()));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(access(Host("i").c_str(), F_OK), 0); // still there
}

} // namespace
