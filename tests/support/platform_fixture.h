// Base fixture of every test: checks that each test leaves no platform
// object behind (live counts per kind back to their start values), clears
// injected faults and restores the real clock.
#pragma once

#include <windows.h>
#include <tamrix/platform.h>

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>

namespace tamrix_test
{

using LiveCounts = std::array<long, PLAT_KIND_COUNT>;

// Live count of every kind, now.
LiveCounts SnapshotLiveCounts();
// One line per kind whose count differs from `baseline`
// ("window: 2 -> 3"); empty when nothing differs.
std::string LiveCountDifferences(const LiveCounts &baseline);

// Runs `fn` on a new platform thread (CreateThread) and waits for it to end.
// Returns the thread's exit code, or WAIT_TIMEOUT's value when it did not end
// within `timeoutMs` (the thread is then terminated).
DWORD RunOnPlatformThread(std::function<DWORD()> fn, DWORD timeoutMs = INFINITE);

// A platform thread running a std::function; joined (waited for and its
// handle closed) by Join() or the destructor.
class PlatformThread
{
public:
    explicit PlatformThread(std::function<DWORD()> fn, DWORD flags = 0);
    ~PlatformThread();
    PlatformThread(const PlatformThread &) = delete;
    PlatformThread &operator=(const PlatformThread &) = delete;
    HANDLE handle() const { return handle_; }
    DWORD id() const { return id_; }
    // Waits for the thread; returns its exit code (WAIT_TIMEOUT's value if
    // it did not end in time).
    DWORD Join(DWORD timeoutMs = INFINITE);

private:
    static DWORD WINAPI Start(LPVOID param);
    std::function<DWORD()> fn_;
    HANDLE handle_ = nullptr;
    DWORD id_ = 0;
};

// A new directory under /tmp, removed with everything in it on destruction.
// With `windows` it is the platform's Windows directory until then (the
// default one afterwards); `windowsSub`, if given, names a directory inside
// it to use instead, which the platform creates on its first write.
class TempDir
{
public:
    explicit TempDir(bool windows = false, const std::string &windowsSub = "");
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &leaf) const { return path_ + "/" + leaf; }

private:
    std::string path_;
    bool windows_;
};

} // namespace tamrix_test

class PlatformTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    // Switches to the virtual clock for this test (restored in TearDown).
    static void UseVirtualClock() { PlatUseVirtualClock(TRUE); }

private:
    tamrix_test::LiveCounts start_{};
};
