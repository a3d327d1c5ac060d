// Message queues across threads: sent messages handled by the owner thread
// (also while it is itself sending), posted messages and their filters,
// thread timers on the virtual clock, WH_GETMESSAGE hooks of other threads,
// and waiting for queue input.
#include "support/platform_fixture.h"

#include <chrono>
#include <string>
#include <vector>

namespace
{

constexpr UINT kPing = WM_USER + 1;
constexpr UINT kPong = WM_USER + 2;
constexpr UINT kHooked = WM_USER + 7;

std::vector<std::string> g_events;
DWORD g_threadOfA = 0, g_threadOfB = 0;
HWND g_windowA = nullptr;
LPARAM g_seenLParam = 0;

LRESULT CALLBACK ProcA(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == kPong) {
        g_threadOfA = GetCurrentThreadId();
        g_events.push_back(InSendMessage() ? "A:pong(sent)" : "A:pong");
        return static_cast<LRESULT>(wParam) * 10;
    }
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

LRESULT CALLBACK ProcB(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case kPing: {
        g_threadOfB = GetCurrentThreadId();
        g_events.push_back("B:ping");
        LRESULT r = SendMessageW(g_windowA, kPong, wParam, 0); // A's thread is waiting on us
        g_events.push_back("B:back");
        return r + 1;
    }
    case kHooked:
        g_seenLParam = lParam;
        return 0;
    case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

class UserQueueTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_events.clear();
        g_threadOfA = g_threadOfB = 0;
        g_seenLParam = 0;
        for (auto [name, proc] : {std::pair<LPCWSTR, WNDPROC>{TEXT("QueueA"), ProcA}, {TEXT("QueueB"), ProcB}}) {
            WNDCLASSW wc{};
            wc.lpfnWndProc = proc;
            wc.lpszClassName = name;
            ASSERT_NE(RegisterClassW(&wc), 0);
        }
        ready_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    void TearDown() override
    {
        CloseHandle(ready_);
        UnregisterClassW(TEXT("QueueA"), nullptr);
        UnregisterClassW(TEXT("QueueB"), nullptr);
        PlatformTest::TearDown();
    }
    static HWND Make(LPCWSTR cls)
    {
        return CreateWindowExW(0, cls, nullptr, WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    }
    // A thread owning a QueueB window and running its message loop until the
    // window is destroyed.
    DWORD RunWindowB(HWND *out)
    {
        *out = Make(TEXT("QueueB"));
        SetEvent(ready_);
        MSG m;
        while (GetMessageW(&m, nullptr, 0, 0) > 0)
            DispatchMessageW(&m);
        return 0;
    }
    HANDLE ready_ = nullptr;
};

TEST_F(UserQueueTest, SendsBetweenThreadsRunOnOwnersWithoutDeadlock)
{
    g_windowA = Make(TEXT("QueueA"));
    HWND b = nullptr;
    tamrix_test::PlatformThread worker([&] { return RunWindowB(&b); });
    ASSERT_EQ(WaitForSingleObject(ready_, 5000), WAIT_OBJECT_0);

    // B's procedure sends back to A while this thread waits for B's reply.
    EXPECT_EQ(SendMessageW(b, kPing, 5, 0), 51);
    EXPECT_EQ(g_threadOfB, worker.id());
    EXPECT_EQ(g_threadOfA, GetCurrentThreadId());
    std::vector<std::string> expected{"B:ping", "A:pong(sent)", "B:back"};
    EXPECT_EQ(g_events, expected);

    EXPECT_TRUE(PostMessageW(b, WM_CLOSE, 0, 0));
    EXPECT_EQ(worker.Join(5000), 0u);
    EXPECT_FALSE(IsWindow(b));
    EXPECT_EQ(SendMessageW(b, kPing, 1, 0), 0);
    EXPECT_TRUE(DestroyWindow(g_windowA));
}

TEST_F(UserQueueTest, SendToAThreadThatDiesWhileBusyReturnsZero)
{
    HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HWND b = nullptr;
    tamrix_test::PlatformThread worker([&] {
        b = Make(TEXT("QueueB"));
        SetEvent(ready_);
        WaitForSingleObject(never, INFINITE); // never looks at its queue
        return 0u;
    });
    ASSERT_EQ(WaitForSingleObject(ready_, 5000), WAIT_OBJECT_0);
    tamrix_test::PlatformThread killer([&] {
        Sleep(50);
        return TerminateThread(worker.handle(), 9) ? 0u : 1u;
    });
    EXPECT_EQ(SendMessageW(b, kPing, 1, 0), 0);
    EXPECT_EQ(killer.Join(5000), 0u);
    EXPECT_EQ(worker.Join(5000), 9u);
    EXPECT_TRUE(g_events.empty()); // the procedure never ran
    EXPECT_FALSE(IsWindow(b));
    CloseHandle(never);
}

TEST_F(UserQueueTest, PostedMessagesFiltersAndQuit)
{
    HWND a = Make(TEXT("QueueA"));
    MSG m;
    ASSERT_TRUE(PostMessageW(a, WM_USER + 5, 0, 0));
    ASSERT_TRUE(PostMessageW(a, kPong, 3, 0));
    ASSERT_TRUE(PostThreadMessageW(GetCurrentThreadId(), WM_APP, 1, 2));

    ASSERT_TRUE(PeekMessageW(&m, nullptr, kPong, kPong, PM_NOREMOVE));
    EXPECT_EQ(m.message, kPong);
    ASSERT_TRUE(PeekMessageW(&m, a, kPong, kPong, PM_REMOVE));
    EXPECT_EQ(DispatchMessageW(&m), 30);
    EXPECT_FALSE(PeekMessageW(&m, nullptr, kPong, kPong, PM_REMOVE));
    ASSERT_TRUE(PeekMessageW(&m, reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1)), 0, 0, PM_REMOVE));
    EXPECT_EQ(m.message, static_cast<UINT>(WM_APP));
    EXPECT_EQ(m.hwnd, nullptr);

    // The quit request comes after the messages already posted.
    PostQuitMessage(4);
    ASSERT_EQ(GetMessageW(&m, nullptr, 0, 0), TRUE);
    EXPECT_EQ(m.message, static_cast<UINT>(WM_USER + 5));
    EXPECT_EQ(GetMessageW(&m, nullptr, 0, 0), FALSE);
    EXPECT_EQ(m.message, static_cast<UINT>(WM_QUIT));
    EXPECT_EQ(m.wParam, 4u);
    EXPECT_FALSE(PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE));

    EXPECT_FALSE(PostThreadMessageW(0x7FFFFFF0, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_THREAD_ID));
    EXPECT_TRUE(DestroyWindow(a));
    EXPECT_FALSE(PostMessageW(a, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE));
    EXPECT_EQ(GetMessageW(&m, a, 0, 0), -1);
}

std::vector<std::pair<DWORD, DWORD>> g_ticks; // thread, tick count

void CALLBACK CountingTimerProc(HWND, UINT msg, UINT_PTR id, DWORD)
{
    EXPECT_EQ(msg, static_cast<UINT>(WM_TIMER));
    g_ticks.emplace_back(GetCurrentThreadId(), GetTickCount());
    if (g_ticks.size() == 3) {
        EXPECT_TRUE(KillTimer(nullptr, id));
        PostQuitMessage(0);
    }
}

TEST_F(UserQueueTest, ThreadTimerTicksOnItsThreadAtVirtualTimes)
{
    UseVirtualClock();
    g_ticks.clear();
    auto wallStart = std::chrono::steady_clock::now();
    DWORD start = 0;
    tamrix_test::PlatformThread worker([&] {
        start = GetTickCount();
        UINT_PTR id = SetTimer(nullptr, 1, 1000, CountingTimerProc);
        EXPECT_NE(id, 0u);
        MSG m;
        while (GetMessageW(&m, nullptr, 0, 0) > 0)
            DispatchMessageW(&m);
        return 0u;
    });
    EXPECT_EQ(worker.Join(), 0u);
    auto wall = std::chrono::steady_clock::now() - wallStart;
    EXPECT_LT(wall, std::chrono::seconds(3));
    ASSERT_EQ(g_ticks.size(), 3u);
    DWORD previous = start;
    for (auto &t : g_ticks) {
        EXPECT_EQ(t.first, worker.id());
        EXPECT_GE(t.second - previous, 1000u);
        previous = t.second;
    }
    EXPECT_GE(g_ticks.back().second - start, 3000u);
}

TEST_F(UserQueueTest, ThreadTimersCoalesceAreKilledPerThreadAndMsgWaitWakes)
{
    UseVirtualClock();
    g_ticks.clear();
    long timersBefore = PlatLiveCount(PLAT_KIND_TIMER);
    UINT_PTR first = SetTimer(nullptr, 1, 1000, CountingTimerProc);
    UINT_PTR second = SetTimer(nullptr, 1, 1000, CountingTimerProc); // 1 is not this thread's timer: new id
    ASSERT_NE(first, 0u);
    ASSERT_NE(second, 0u);
    EXPECT_NE(first, second);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_TIMER), timersBefore + 2);
    EXPECT_TRUE(KillTimer(nullptr, second));

    Sleep(5500); // five periods without a message loop
    MSG m;
    ASSERT_TRUE(PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(m.message, static_cast<UINT>(WM_TIMER));
    EXPECT_EQ(m.wParam, first);
    EXPECT_EQ(m.lParam, reinterpret_cast<LPARAM>(CountingTimerProc));
    EXPECT_FALSE(PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE)); // only one was pending
    DispatchMessageW(&m);
    EXPECT_EQ(g_ticks.size(), 1u);

    BOOL killedElsewhere = TRUE;
    tamrix_test::RunOnPlatformThread([&] {
        killedElsewhere = KillTimer(nullptr, first);
        return 0u;
    });
    EXPECT_FALSE(killedElsewhere);
    EXPECT_TRUE(KillTimer(nullptr, first));
    EXPECT_FALSE(KillTimer(nullptr, first));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_TIMER), timersBefore);

    // Without timers, MsgWait runs out, or wakes for an object or for input.
    HANDLE ev = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    DWORD before = GetTickCount();
    EXPECT_EQ(MsgWaitForMultipleObjects(1, &ev, FALSE, 2000, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_GE(GetTickCount() - before, 2000u);

    tamrix_test::PlatformThread setter([&] {
        Sleep(500);
        SetEvent(ev);
        return 0u;
    });
    EXPECT_EQ(MsgWaitForMultipleObjects(1, &ev, FALSE, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0);
    setter.Join();
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_TIMEOUT); // auto-reset: consumed

    DWORD me = GetCurrentThreadId();
    tamrix_test::PlatformThread poster([&] {
        Sleep(500);
        return PostThreadMessageW(me, WM_APP, 0, 0) ? 0u : 1u;
    });
    EXPECT_EQ(MsgWaitForMultipleObjects(1, &ev, FALSE, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(poster.Join(), 0u);
    EXPECT_TRUE(PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE));
    CloseHandle(ev);

    PlatFailCall("SetTimer", 1, 0);
    EXPECT_EQ(SetTimer(nullptr, 1, 1000, CountingTimerProc), 0u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
}

std::vector<std::pair<DWORD, WPARAM>> g_hookCalls;
int g_olderHookCalls = 0;
HHOOK g_newerHook = nullptr;

LRESULT CALLBACK OlderHook(int code, WPARAM wParam, LPARAM lParam)
{
    if (reinterpret_cast<MSG *>(lParam)->message == kHooked)
        ++g_olderHookCalls;
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

LRESULT CALLBACK NewerHook(int code, WPARAM wParam, LPARAM lParam)
{
    auto *m = reinterpret_cast<MSG *>(lParam);
    if (code == HC_ACTION && m->message == kHooked) {
        g_hookCalls.emplace_back(GetCurrentThreadId(), wParam);
        m->lParam = 99;
    }
    return CallNextHookEx(g_newerHook, code, wParam, lParam);
}

TEST_F(UserQueueTest, GetMessageHooksSeeAndChangeOtherThreadsMessages)
{
    g_hookCalls.clear();
    g_olderHookCalls = 0;
    HINSTANCE module = GetModuleHandleW(nullptr);
    HHOOK older = SetWindowsHookExW(WH_GETMESSAGE, OlderHook, module, 0);
    g_newerHook = SetWindowsHookExW(WH_GETMESSAGE, NewerHook, module, 0);
    ASSERT_NE(older, nullptr);
    ASSERT_NE(g_newerHook, nullptr);

    HWND b = nullptr;
    tamrix_test::PlatformThread worker([&] { return RunWindowB(&b); });
    ASSERT_EQ(WaitForSingleObject(ready_, 5000), WAIT_OBJECT_0);
    ASSERT_TRUE(PostMessageW(b, kHooked, 0, 1));
    ASSERT_TRUE(PostMessageW(b, WM_CLOSE, 0, 0));
    EXPECT_EQ(worker.Join(5000), 0u);

    EXPECT_EQ(g_seenLParam, 99);
    ASSERT_EQ(g_hookCalls.size(), 1u);
    EXPECT_EQ(g_hookCalls[0].first, worker.id());
    EXPECT_EQ(g_hookCalls[0].second, static_cast<WPARAM>(PM_REMOVE));
    EXPECT_EQ(g_olderHookCalls, 1);

    // A peek without removal is hooked too, with PM_NOREMOVE.
    ASSERT_TRUE(PostThreadMessageW(GetCurrentThreadId(), kHooked, 0, 0));
    MSG m;
    ASSERT_TRUE(PeekMessageW(&m, nullptr, kHooked, kHooked, PM_NOREMOVE));
    EXPECT_EQ(m.lParam, 99);
    ASSERT_EQ(g_hookCalls.size(), 2u);
    EXPECT_EQ(g_hookCalls[1].second, static_cast<WPARAM>(PM_NOREMOVE));
    EXPECT_TRUE(UnhookWindowsHookEx(g_newerHook));
    EXPECT_FALSE(UnhookWindowsHookEx(g_newerHook));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HOOK_HANDLE));
    ASSERT_TRUE(PeekMessageW(&m, nullptr, kHooked, kHooked, PM_REMOVE));
    EXPECT_EQ(m.lParam, 0);
    EXPECT_EQ(g_hookCalls.size(), 2u);
    EXPECT_EQ(g_olderHookCalls, 3);
    EXPECT_TRUE(UnhookWindowsHookEx(older));

    // A thread's hooks end with it; a hook for one thread skips the others.
    long hooksBefore = PlatLiveCount(PLAT_KIND_HOOK);
    DWORD me = GetCurrentThreadId();
    tamrix_test::RunOnPlatformThread([&] {
        EXPECT_NE(SetWindowsHookExW(WH_GETMESSAGE, NewerHook, nullptr, GetCurrentThreadId()), nullptr);
        EXPECT_NE(SetWindowsHookExW(WH_GETMESSAGE, NewerHook, nullptr, me), nullptr);
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_HOOK), hooksBefore + 2);
        return 0u;
    });
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_HOOK), hooksBefore);

    PlatFailCall("SetWindowsHookExW", 1, 0);
    EXPECT_EQ(SetWindowsHookExW(WH_GETMESSAGE, NewerHook, module, 0), nullptr);
    EXPECT_EQ(SetWindowsHookExW(WH_GETMESSAGE, NewerHook, nullptr, 0), nullptr); // global needs a module
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_HOOK_NEEDS_HMOD));
}

} // namespace
