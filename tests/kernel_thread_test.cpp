// KERNEL32 threads and critical sections.
#include "support/platform_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

using tamrix_test::PlatformThread;

namespace
{

struct SetOnDestroy {
    std::atomic<bool> *flag;
    ~SetOnDestroy() { flag->store(true); }
};

class ThreadTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        started_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        never_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    void TearDown() override
    {
        CloseHandle(started_);
        CloseHandle(never_);
        PlatformTest::TearDown();
    }
    HANDLE started_ = nullptr;
    HANDLE never_ = nullptr;
};

} // namespace

TEST_F(ThreadTest, TerminateEndsAThreadBlockedInSleepOrWait)
{
    for (bool inSleep : {true, false}) {
        SCOPED_TRACE(inSleep ? "Sleep" : "WaitForSingleObject");
        ResetEvent(started_);
        std::atomic<bool> unwound{false};
        std::atomic<bool> afterWait{false};
        PlatformThread victim([&] {
            SetOnDestroy guard{&unwound};
            SetEvent(started_);
            if (inSleep)
                Sleep(100000);
            else
                WaitForSingleObject(never_, INFINITE);
            afterWait = true;
            return 1u;
        });
        ASSERT_EQ(WaitForSingleObject(started_, INFINITE), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeThread(victim.handle(), &code));
        EXPECT_EQ(code, STILL_ACTIVE);
        EXPECT_TRUE(TerminateThread(victim.handle(), 77));
        EXPECT_EQ(WaitForSingleObject(victim.handle(), INFINITE), WAIT_OBJECT_0);
        EXPECT_TRUE(GetExitCodeThread(victim.handle(), &code));
        EXPECT_EQ(code, 77u);
        EXPECT_FALSE(afterWait) << "code after the wait ran";
        EXPECT_TRUE(unwound) << "the thread's frames were not unwound";
        EXPECT_TRUE(TerminateThread(victim.handle(), 5)) << "an ended thread";
        EXPECT_EQ(victim.Join(), 77u);
    }
}

TEST_F(ThreadTest, ExitCodesAndSuspendedStart)
{
    EXPECT_EQ(tamrix_test::RunOnPlatformThread([] { return 42u; }), 42u);
    std::atomic<bool> ran{false};
    EXPECT_EQ(tamrix_test::RunOnPlatformThread([&] {
                  ExitThread(9);
                  ran = true;
                  return 0u;
              }),
              9u);
    EXPECT_FALSE(ran) << "code after ExitThread ran";
    PlatformThread thread(
        [&] {
            ran = true;
            return 0u;
        },
        CREATE_SUSPENDED);
    Sleep(1000);
    EXPECT_FALSE(ran);
    EXPECT_EQ(WaitForSingleObject(thread.handle(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(ResumeThread(thread.handle()), 1u);
    EXPECT_EQ(thread.Join(), 0u);
    EXPECT_TRUE(ran);

    PlatformThread never(
        [&] {
            ran = false;
            return 0u;
        },
        CREATE_SUSPENDED);
    EXPECT_TRUE(TerminateThread(never.handle(), 3));
    EXPECT_EQ(never.Join(), 3u);
    EXPECT_TRUE(ran) << "a terminated suspended thread never starts";
}

TEST_F(ThreadTest, ThreadIdsAndPseudoHandle)
{
    std::atomic<DWORD> seen{0};
    PlatformThread thread([&] {
        seen = GetCurrentThreadId();
        return 0u;
    });
    HANDLE h = thread.handle();
    EXPECT_TRUE(SetThreadPriority(h, THREAD_PRIORITY_BELOW_NORMAL));
    EXPECT_EQ(thread.Join(), 0u);
    EXPECT_EQ(seen, thread.id());
    EXPECT_NE(seen, GetCurrentThreadId());
    EXPECT_FALSE(SetThreadPriority(h, THREAD_PRIORITY_NORMAL)) << "a closed handle";
    EXPECT_EQ(ResumeThread(h), static_cast<DWORD>(-1));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(GetCurrentThread(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
}

TEST_F(ThreadTest, CriticalSectionIsRecursiveAndExcludesOtherThreads)
{
    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    EnterCriticalSection(&cs);
    EXPECT_TRUE(TryEnterCriticalSection(&cs));
    EXPECT_EQ(cs.RecursionCount, 2);
    auto otherCanEnter = [&cs] {
        return tamrix_test::RunOnPlatformThread([&cs] {
            if (!TryEnterCriticalSection(&cs))
                return 0u;
            LeaveCriticalSection(&cs);
            return 1u;
        });
    };
    EXPECT_EQ(otherCanEnter(), 0u);
    LeaveCriticalSection(&cs);
    EXPECT_EQ(otherCanEnter(), 0u) << "still held once";
    LeaveCriticalSection(&cs);
    EXPECT_EQ(otherCanEnter(), 1u);

    // Plain (non-atomic) counter: lost updates or a data race if exclusion fails.
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 500; ++i) {
            EnterCriticalSection(&cs);
            long v = counter;
            Sleep(0);
            counter = v + 1;
            LeaveCriticalSection(&cs);
        }
        return 0u;
    };
    {
        PlatformThread a(work);
        PlatformThread b(work);
    }
    EXPECT_EQ(counter, 1000);
    DeleteCriticalSection(&cs);
}

TEST_F(ThreadTest, TimedJoinSeesTheThreadEndBeforeItsDeadline)
{
    // An ending thread must not let the clock run to the joiner's deadline
    // before its handle is signalled.
    for (int round = 0; round < 20; ++round) {
        DWORD start = GetTickCount();
        PlatformThread worker([] {
            Sleep(1000);
            return 7u;
        });
        EXPECT_EQ(worker.Join(10000), 7u) << "round " << round;
        EXPECT_LT(GetTickCount() - start, 10000u);
    }
}

TEST_F(ThreadTest, CreatorHoldsTheClockBeforeItFirstWaits)
{
    // A thread that has only created another one, and never waited yet,
    // still counts as running: the new thread's long sleep must not end at
    // once. This thread stays out of the count while it joins.
    PlatBeginExternalWait();
    DWORD code = 0;
    std::thread creator([&code] {
        HANDLE sleeper = CreateThread(
            nullptr, 0,
            [](LPVOID) -> DWORD {
                Sleep(100000);
                return 1;
            },
            nullptr, 0, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        GetExitCodeThread(sleeper, &code);
        TerminateThread(sleeper, 2);
        WaitForSingleObject(sleeper, INFINITE);
        CloseHandle(sleeper);
    });
    creator.join();
    PlatEndExternalWait();
    EXPECT_EQ(code, STILL_ACTIVE);
}
