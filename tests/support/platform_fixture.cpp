#include "support/platform_fixture.h"

#include <filesystem>
#include <sstream>
#include <stdlib.h>

namespace tamrix_test
{

LiveCounts SnapshotLiveCounts()
{
    LiveCounts counts{};
    for (int k = 0; k < PLAT_KIND_COUNT; ++k)
        counts[k] = PlatLiveCount(static_cast<PlatKind>(k));
    return counts;
}

std::string LiveCountDifferences(const LiveCounts &baseline)
{
    std::ostringstream out;
    LiveCounts now = SnapshotLiveCounts();
    for (int k = 0; k < PLAT_KIND_COUNT; ++k) {
        if (now[k] != baseline[k])
            out << PlatKindName(static_cast<PlatKind>(k)) << ": " << baseline[k] << " -> " << now[k] << "\n";
    }
    return out.str();
}

PlatformThread::PlatformThread(std::function<DWORD()> fn, DWORD flags) : fn_(std::move(fn))
{
    handle_ = CreateThread(nullptr, 0, &PlatformThread::Start, this, flags, &id_);
}

PlatformThread::~PlatformThread()
{
    Join();
}

DWORD WINAPI PlatformThread::Start(LPVOID param)
{
    auto *self = static_cast<PlatformThread *>(param);
    return self->fn_();
}

DWORD PlatformThread::Join(DWORD timeoutMs)
{
    if (!handle_)
        return static_cast<DWORD>(-1);
    DWORD code = WAIT_TIMEOUT;
    if (WaitForSingleObject(handle_, timeoutMs) == WAIT_OBJECT_0) {
        GetExitCodeThread(handle_, &code);
    } else {
        TerminateThread(handle_, WAIT_TIMEOUT);
        WaitForSingleObject(handle_, INFINITE);
    }
    CloseHandle(handle_);
    handle_ = nullptr;
    return code;
}

DWORD RunOnPlatformThread(std::function<DWORD()> fn, DWORD timeoutMs)
{
    PlatformThread thread(std::move(fn));
    return thread.Join(timeoutMs);
}

TempDir::TempDir(bool windows, const std::string &windowsSub) : windows_(windows)
{
    char tmpl[] = "/tmp/tamrix-test-XXXXXX";
    if (!mkdtemp(tmpl))
        ADD_FAILURE() << "no temporary directory";
    path_ = tmpl;
    if (windows)
        PlatSetWindowsDirectory((windowsSub.empty() ? path_ : *this / windowsSub).c_str());
}

TempDir::~TempDir()
{
    if (windows_)
        PlatSetWindowsDirectory(nullptr);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    if (ec)
        ADD_FAILURE() << "could not remove " << path_ << ": " << ec.message();
}

} // namespace tamrix_test

void PlatformTest::SetUp()
{
    PlatClearFaults();
    start_ = tamrix_test::SnapshotLiveCounts();
}

void PlatformTest::TearDown()
{
    PlatClearFaults();
    PlatUseVirtualClock(FALSE);
    std::string leaks = tamrix_test::LiveCountDifferences(start_);
    EXPECT_TRUE(leaks.empty()) << "platform objects left behind:\n" << leaks;
}

// The test program's entry point (one program for every test file).
int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
