// Fixture for tests that drive the driver's procedures directly: the test
// program embeds the driver, so its module instance is the program's own.
#pragma once

#include "support/platform_fixture.h"

#include "driver/driver.h"
#include "driver/driver_state.h"

#include <vector>

class DriverTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr);
        ResetOperations();
    }

    void TearDown() override
    {
        if (g_timerActive && g_timerId)
            KillTimer(nullptr, g_timerId);
        ResetOperations();
        for (HWND wnd : windows_)
            DestroyWindow(wnd);
        if (classRegistered_)
            UnregisterClassW(kClass, GetModuleHandleW(nullptr));
        DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_DETACH, nullptr);
        PlatformTest::TearDown();
    }

    static void ResetOperations()
    {
        g_timerActive = 0;
        g_timerId = 0;
        g_scanBusy = g_saveBusy = g_modeBusy = 0;
        g_scanResult = g_saveResult = g_modeResult = 0;
        g_scanAborted = g_scanStarted = g_imageValid = 0;
        InterlockedExchange(&g_saveCancel, 0);
        g_modeDlgWnd = nullptr;
        g_hSaveThread = nullptr;
        g_deviceId = 7;
    }

    // A top-level window of the test thread that collects MM_MCINOTIFY.
    HWND MakeWindow(WNDPROC proc = DefWindowProcW)
    {
        if (!classRegistered_) {
            WNDCLASSW wc{};
            wc.lpfnWndProc = DefWindowProcW;
            wc.hInstance = GetModuleHandleW(nullptr);
            wc.lpszClassName = kClass;
            classRegistered_ = RegisterClassW(&wc) != 0;
        }
        HWND wnd =
            CreateWindowExW(0, kClass, TEXT(""), 0, 0, 0, 10, 10, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
        if (proc != DefWindowProcW)
            SetWindowLongPtrW(wnd, GWLP_WNDPROC, (LONG_PTR)proc);
        windows_.push_back(wnd);
        return wnd;
    }

    // Notification codes waiting in `wnd`'s queue, oldest first; each must
    // carry g_deviceId.
    static std::vector<UINT> TakeNotifications(HWND wnd)
    {
        std::vector<UINT> codes;
        MSG msg;
        while (PeekMessageW(&msg, wnd, MM_MCINOTIFY, MM_MCINOTIFY, PM_REMOVE)) {
            EXPECT_EQ((MCIDEVICEID)msg.lParam, g_deviceId);
            codes.push_back((UINT)msg.wParam);
        }
        return codes;
    }

    // Runs the test thread's message loop until one notification timer tick
    // has been dispatched (the virtual clock moves on while it waits).
    static void RunOneTick()
    {
        ASSERT_TRUE(g_timerActive);
        MSG msg;
        while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
            DispatchMessageW(&msg);
            if (msg.message == WM_TIMER)
                return;
        }
    }

private:
    static constexpr const WCHAR *kClass = TEXT("DriverTestWnd");
    bool classRegistered_ = false;
    std::vector<HWND> windows_;
};
