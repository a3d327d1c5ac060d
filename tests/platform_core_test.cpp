// The platform core: virtual clock and waits, fault injection, handles and
// the fixture's leak check.
#include "support/platform_fixture.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <string>
#include <vector>

using tamrix_test::PlatformThread;

namespace
{

using WallClock = std::chrono::steady_clock;

long long WallMsSince(WallClock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(WallClock::now() - start).count();
}

// Every test of this suite runs on the virtual clock.
using VirtualClockTest = PlatformTest;

} // namespace

TEST_F(VirtualClockTest, LongSleepAndPollLoopTakeVirtualTimeOnly)
{
    UseVirtualClock();
    auto wall = WallClock::now();
    DWORD before = GetTickCount();
    Sleep(9000);
    DWORD slept = GetTickCount() - before;
    EXPECT_GE(slept, 9000u);
    EXPECT_LT(slept, 9100u);

    DWORD start = GetTickCount();
    unsigned polls = 0;
    while (GetTickCount() - start < 60000)
        ++polls;
    EXPECT_GE(polls, 1000u); // each poll moved the clock by a millisecond at most
    // Neither the sleep nor the loop waited for the safety net (one second).
    EXPECT_LT(WallMsSince(wall), 900);
}

TEST_F(PlatformTest, RealClockSleepsForReal)
{
    auto wall = WallClock::now();
    DWORD before = GetTickCount();
    Sleep(30);
    EXPECT_GE(GetTickCount() - before, 29u);
    EXPECT_GE(WallMsSince(wall), 29);
}

TEST_F(VirtualClockTest, TimedWaitSatisfiedByShorterSleeperTimesOutOnLongerOne)
{
    UseVirtualClock();
    for (DWORD setterSleep : {1000u, 8000u}) {
        HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ASSERT_NE(event, nullptr);
        auto wall = WallClock::now();
        DWORD start = GetTickCount();
        PlatformThread setter([event, setterSleep] {
            Sleep(setterSleep);
            return static_cast<DWORD>(SetEvent(event));
        });
        DWORD result = WaitForSingleObject(event, 5000);
        DWORD waited = GetTickCount() - start;
        if (setterSleep < 5000) {
            EXPECT_EQ(result, WAIT_OBJECT_0);
            EXPECT_GE(waited, setterSleep);
            EXPECT_LT(waited, 5000u);
        } else {
            EXPECT_EQ(result, WAIT_TIMEOUT);
            EXPECT_GE(waited, 5000u);
            EXPECT_LT(waited, setterSleep);
        }
        EXPECT_EQ(setter.Join(), 1u);
        EXPECT_LT(WallMsSince(wall), 900);
        CloseHandle(event);
    }
}

TEST_F(VirtualClockTest, ThreadBlockedOnCriticalSectionDoesNotHoldTheClock)
{
    UseVirtualClock();
    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    EnterCriticalSection(&cs);
    HANDLE entered = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    PlatformThread waiter([&] {
        EnterCriticalSection(&cs);
        SetEvent(entered);
        LeaveCriticalSection(&cs);
        return 0u;
    });
    auto wall = WallClock::now();
    Sleep(5000); // completes only if the waiter counts as blocked
    EXPECT_LT(WallMsSince(wall), 900);
    EXPECT_EQ(WaitForSingleObject(entered, 0), WAIT_TIMEOUT);
    LeaveCriticalSection(&cs);
    EXPECT_EQ(WaitForSingleObject(entered, 1000), WAIT_OBJECT_0);
    waiter.Join();
    CloseHandle(entered);
    DeleteCriticalSection(&cs);
}

TEST_F(VirtualClockTest, ForeignThreadHoldsTheClockUnlessInExternalWait)
{
    UseVirtualClock();
    std::promise<void> release;
    std::promise<DWORD> registered;
    std::thread foreign([&] {
        registered.set_value(GetCurrentThreadId()); // uses the platform: now a registered thread
        PlatBeginExternalWait();
        release.get_future().wait();
        PlatEndExternalWait();
    });
    EXPECT_NE(registered.get_future().get(), GetCurrentThreadId());
    auto wall = WallClock::now();
    Sleep(5000);
    EXPECT_LT(WallMsSince(wall), 900) << "the externally waiting thread held the clock";
    release.set_value();
    foreign.join();
}

TEST_F(PlatformTest, WaitForMultipleObjectsAnyAndAll)
{
    HANDLE autoA = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE autoB = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE manual = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE pair[2] = {autoA, autoB};

    EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_TIMEOUT);
    SetEvent(autoB);
    EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForSingleObject(autoB, 0), WAIT_TIMEOUT) << "auto-reset signal consumed";

    SetEvent(autoA);
    EXPECT_EQ(WaitForMultipleObjects(2, pair, TRUE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(autoA, 0), WAIT_OBJECT_0) << "a failed wait-all consumes nothing";
    SetEvent(autoA);
    SetEvent(autoB);
    EXPECT_EQ(WaitForMultipleObjects(2, pair, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_TIMEOUT);

    SetEvent(manual);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0) << "manual-reset stays signalled";
    ResetEvent(manual);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);

    for (HANDLE h : {autoA, autoB, manual})
        EXPECT_TRUE(CloseHandle(h));
}

TEST_F(PlatformTest, ClosedHandlesAreInvalidAndNeverReused)
{
    HANDLE first = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(CloseHandle(first));
    HANDLE second = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_NE(first, second);
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(first));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(SetEvent(first));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_FAILED);
    HGLOBAL mem = GlobalAlloc(GHND, 16);
    EXPECT_FALSE(CloseHandle(mem)) << "global memory is not closed by CloseHandle";
    GlobalFree(mem);
    CloseHandle(second);
}

TEST_F(PlatformTest, LeakCheckReportsWhatALeakedObjectLeftBehind)
{
    tamrix_test::LiveCounts before = tamrix_test::SnapshotLiveCounts();
    EXPECT_EQ(tamrix_test::LiveCountDifferences(before), "");
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HGLOBAL mem = GlobalAlloc(0x0142, 8);
    std::string report = tamrix_test::LiveCountDifferences(before);
    EXPECT_NE(report.find("event: " + std::to_string(before[PLAT_KIND_EVENT]) + " -> " +
                          std::to_string(before[PLAT_KIND_EVENT] + 1)),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("global: "), std::string::npos) << report;
    EXPECT_EQ(report.find("thread"), std::string::npos) << report;
    CloseHandle(event);
    GlobalFree(mem);
    EXPECT_EQ(tamrix_test::LiveCountDifferences(before), "");
}

namespace
{

struct Injected {
    const char *api;
    DWORD defaultError;
    // Calls the API once; true when it answered its failure value.
    std::function<bool()> callFails;
};

std::vector<Injected> KernelInjectables(HANDLE event, HANDLE thread, HGLOBAL mem)
{
    // Each call gives back what it made when it succeeded.
    auto failed = [](HANDLE h) { return h == nullptr || (WaitForSingleObject(h, INFINITE), CloseHandle(h), false); };
    DWORD code = 0;
    return {
        {"GlobalAlloc", ERROR_NOT_ENOUGH_MEMORY,
         [] {
             HGLOBAL h = GlobalAlloc(0x0142, 4);
             return !h || GlobalFree(h);
         }},
        {"GlobalLock", ERROR_NOT_ENOUGH_MEMORY, [mem] { return !GlobalLock(mem) || (GlobalUnlock(mem), false); }},
        {"GlobalReAlloc", ERROR_NOT_ENOUGH_MEMORY, [mem] { return GlobalReAlloc(mem, 64, GMEM_MOVEABLE) == nullptr; }},
        {"CreateEventW", ERROR_NOT_ENOUGH_MEMORY, [=] { return failed(CreateEventW(nullptr, TRUE, TRUE, nullptr)); }},
        {"SetEvent", ERROR_INVALID_HANDLE, [event] { return !SetEvent(event); }},
        {"WaitForSingleObject", ERROR_INVALID_HANDLE, [event] { return WaitForSingleObject(event, 0) == WAIT_FAILED; }},
        {"CreateThread", ERROR_NOT_ENOUGH_MEMORY,
         [=] {
             return failed(CreateThread(
                 nullptr, 256, [](LPVOID) -> DWORD { return 0; }, nullptr, 0, nullptr));
         }},
        {"GetExitCodeThread", ERROR_INVALID_HANDLE, [=]() mutable { return !GetExitCodeThread(thread, &code); }},
        {"TerminateThread", ERROR_ACCESS_DENIED, [thread] { return !TerminateThread(thread, 1); }},
    };
}

} // namespace

TEST_F(PlatformTest, EveryKernelInjectableFailsWithItsDefaultOrGivenError)
{
    HANDLE event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    HANDLE thread = CreateThread(
        nullptr, 0, [](LPVOID) -> DWORD { return 3; }, nullptr, 0, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    HGLOBAL mem = GlobalAlloc(0x0142, 16);

    const char *names[256];
    int total = PlatInjectableApis(names, 256);
    ASSERT_LE(total, 256);
    std::vector<std::string> registered(names, names + total);

    for (const Injected &api : KernelInjectables(event, thread, mem)) {
        SCOPED_TRACE(api.api);
        EXPECT_NE(std::find(registered.begin(), registered.end(), api.api), registered.end());
        EXPECT_FALSE(api.callFails()) << "fails without an injected fault";
        PlatFailCall(api.api, 1, 0);
        SetLastError(0);
        EXPECT_TRUE(api.callFails());
        EXPECT_EQ(GetLastError(), api.defaultError);
        EXPECT_FALSE(api.callFails()) << "a one-shot fault fails once";
        PlatFailAlways(api.api, 4321);
        for (int i = 0; i < 2; ++i) {
            SetLastError(0);
            EXPECT_TRUE(api.callFails());
            EXPECT_EQ(GetLastError(), 4321u);
        }
        PlatClearFaults();
        EXPECT_FALSE(api.callFails());
    }
    GlobalFree(mem);
    CloseHandle(thread);
    CloseHandle(event);
}

TEST_F(PlatformTest, NthCallFaultAndCallCounts)
{
    PlatFailCall("GlobalAlloc", 3, ERROR_OUTOFMEMORY);
    std::vector<HGLOBAL> blocks;
    for (int i = 0; i < 4; ++i)
        blocks.push_back(GlobalAlloc(GMEM_MOVEABLE, 8));
    EXPECT_NE(blocks[0], nullptr);
    EXPECT_NE(blocks[1], nullptr);
    EXPECT_EQ(blocks[2], nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_OUTOFMEMORY));
    EXPECT_NE(blocks[3], nullptr);
    EXPECT_EQ(PlatCallCount("GlobalAlloc"), 4u);
    EXPECT_EQ(PlatCallCount("GlobalLock"), 0u);
    PlatClearFaults();
    EXPECT_EQ(PlatCallCount("GlobalAlloc"), 0u);
    for (HGLOBAL h : blocks)
        GlobalFree(h);
}
