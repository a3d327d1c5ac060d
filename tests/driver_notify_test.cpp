// The dispatcher's common checks and routing, and the notifications of the
// long operations as an application sees them: MM_MCINOTIFY messages in its
// queue, deferred ones delivered by the 1000 ms timer on the virtual clock.
#include "driver_fixture.h"

namespace
{

using Codes = std::vector<UINT>;

class DispatchTest : public DriverTest
{
};

TEST_F(DispatchTest, CommonChecksComeBeforeTheMessageIsLookedAt)
{
    HWND wnd = MakeWindow();
    MCI_GENERIC_PARMS parms{(DWORD_PTR)wnd};
    EXPECT_EQ(MciDispatchCommand(1, MCI_STATUS, MCI_WAIT, nullptr), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(MciDispatchCommand(1, 0x0FFF, 0, &parms), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(MciDispatchCommand(1, MCI_STATUS, MCI_NOTIFY | MCI_WAIT, &parms), (DWORD)MCIERR_FLAGS_NOT_COMPATIBLE);
    // An unsupported command reaches its "handler" and fails without
    // notifying; with its window gone it is refused before.
    EXPECT_EQ(MciDispatchCommand(1, MCI_PLAY, MCI_NOTIFY, &parms), (DWORD)MCIERR_UNSUPPORTED_FUNCTION);
    EXPECT_TRUE(TakeNotifications(wnd).empty());
    DestroyWindow(wnd);
    EXPECT_EQ(MciDispatchCommand(1, MCI_PLAY, MCI_NOTIFY, &parms), (DWORD)MCIERR_MISSING_PARAMETER);

    for (UINT msg : {0x0806, 0x0807, 0x0809, 0x080E, 0x080F, 0x0830, 0x0840, 0x0844, 0x0845, 0x0850, 0x0851, 0x0853,
                     0x0854, 0x0855, 0x0856})
        EXPECT_EQ(MciDispatchCommand(1, msg, MCI_WAIT, &parms), (DWORD)MCIERR_UNSUPPORTED_FUNCTION) << msg;
    for (UINT msg :
         {0x0800, 0x0803, 0x0804, 0x0805, 0x080C, 0x0810, 0x0811, 0x0812, 0x0831, 0x0857, 0x0C00, 0x0C03, 0x17FF})
        EXPECT_EQ(MciDispatchCommand(1, msg, MCI_WAIT, &parms), (DWORD)MCIERR_UNRECOGNIZED_COMMAND) << msg;
}

class NotifyTest : public DriverTest
{
protected:
    // Starts a deferred notification of `message` as a handler would: the
    // result word is -1, then the notification step runs.
    DWORD Queue(UINT message, HWND callback, LONG *result, DWORD flags = MCI_NOTIFY)
    {
        MciWriteResult(result, -1);
        MCI_GENERIC_PARMS parms{(DWORD_PTR)callback};
        return MciQueueNotify(g_deviceId, flags, message, &parms);
    }

    // The worker ends: writes its result from another thread.
    static void Finish(LONG *result, LONG value)
    {
        tamrix_test::RunOnPlatformThread([=] {
            MciWriteResult(result, value);
            return 0u;
        });
    }
};

TEST_F(NotifyTest, ScanSuccessIsDeliveredAtTheNextTickAndTheTimerGoes)
{
    HWND app = MakeWindow();
    long timers = PlatLiveCount(PLAT_KIND_TIMER);
    ASSERT_EQ(Queue(MCI_SCANREAD, app, &g_scanResult), 0u);
    EXPECT_EQ(g_scanBusy, 1u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_TIMER), timers + 1);

    RunOneTick(); // still running: nothing yet
    EXPECT_TRUE(TakeNotifications(app).empty());

    Finish(&g_scanResult, 0);
    RunOneTick();
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_EQ(g_imageValid, 1u);
    EXPECT_EQ(g_scanBusy + g_timerActive, 0u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_TIMER), timers);
}

TEST_F(NotifyTest, ScanFailureAndAbortPutTheAreaBack)
{
    HWND app = MakeWindow();
    for (DWORD aborted : {0u, 1u}) {
        g_savedScanArea = {9, 1, 704, 1051};
        g_scanParams.areaX = 20;
        g_scanParams.areaWidth = 100;
        g_scanParams.areaLength = 50;
        g_scanAborted = aborted;
        ASSERT_EQ(Queue(MCI_SCANREAD, app, &g_scanResult), 0u);
        Finish(&g_scanResult, MCIERR_SCANNER_ABNORMAL);
        RunOneTick();
        EXPECT_EQ(TakeNotifications(app), Codes{aborted ? (UINT)MCI_NOTIFY_ABORTED : (UINT)MCI_NOTIFY_FAILURE});
        const ScanParams &p = g_scanParams;
        EXPECT_EQ((std::vector<int>{p.areaX, p.areaY, p.areaWidth, p.areaLength}), (std::vector<int>{9, 1, 704, 1051}));
        EXPECT_EQ(g_scanAborted + g_imageValid + g_timerActive, 0u);
    }
}

TEST_F(NotifyTest, ImmediateCommandSupersedesAPendingScan)
{
    HWND app = MakeWindow();
    HWND other = MakeWindow();
    ASSERT_EQ(Queue(MCI_SCANREAD, app, &g_scanResult), 0u);

    MCI_STATUS_PARMS status{(DWORD_PTR)other, 0, MCI_STATUS_READY, 0};
    EXPECT_EQ(MciQueueNotify(g_deviceId, MCI_NOTIFY, MCI_STATUS, &status), 0u);
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUPERSEDED});
    EXPECT_EQ(TakeNotifications(other), Codes{MCI_NOTIFY_SUCCESSFUL});
    // The superseded scan still hears how it ended.
    EXPECT_EQ(g_scanBusy, 1u);
    Finish(&g_scanResult, MCIERR_SCANNER_ABNORMAL);
    RunOneTick();
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_FAILURE});
    EXPECT_EQ(g_timerActive, 0u);
}

TEST_F(NotifyTest, SupersededSaveIsCancelledAndFailsAtTheNextTick)
{
    HWND app = MakeWindow();
    HWND other = MakeWindow();
    ASSERT_EQ(Queue(MCI_SAVE, app, &g_saveResult), 0u);
    // A save thread that gives up when asked to.
    tamrix_test::PlatformThread saver([] {
        while (InterlockedCompareExchange(&g_saveCancel, 0, 0) == 0)
            Sleep(100);
        MciWriteResult(&g_saveResult, MCIERR_OUT_OF_MEMORY);
        return 0u;
    });
    g_hSaveThread = saver.handle();

    MCI_GENERIC_PARMS parms{(DWORD_PTR)other};
    EXPECT_EQ(MciQueueNotify(g_deviceId, MCI_NOTIFY, MCI_COPY, &parms), 0u);
    EXPECT_EQ(saver.Join(0), 0u) << "the save thread has ended";
    g_hSaveThread = nullptr;
    EXPECT_EQ(InterlockedCompareExchange(&g_saveCancel, 0, 0), 0);
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUPERSEDED});
    EXPECT_EQ(TakeNotifications(other), Codes{MCI_NOTIFY_SUCCESSFUL});

    RunOneTick();
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_FAILURE});
    EXPECT_EQ(g_saveBusy + g_timerActive, 0u);
}

LRESULT CALLBACK FakeModeDialog(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_CLOSE) {
        MciWriteResult(&g_modeResult, MCIERR_MISSING_PARAMETER); // cancelled
        return 0;
    }
    return DefWindowProcW(wnd, msg, wParam, lParam);
}

TEST_F(NotifyTest, SupersededModeDialogIsClosedAndItsParametersComeBack)
{
    HWND app = MakeWindow();
    HWND other = MakeWindow();
    g_scanParams.resolution = 90;
    g_savedScanParams = g_scanParams;
    ASSERT_EQ(Queue(MCI_SCANMODE, app, &g_modeResult, MCI_NOTIFY | MCI_SCANMODE_DIALOG), 0u);
    EXPECT_TRUE(TakeNotifications(app).empty());
    g_modeDlgWnd = MakeWindow(FakeModeDialog);
    g_scanParams.resolution = 300; // changed in the dialog

    MCI_GENERIC_PARMS parms{(DWORD_PTR)other};
    EXPECT_EQ(MciQueueNotify(g_deviceId, MCI_NOTIFY, MCI_STATUS, &parms), 0u);
    EXPECT_EQ(g_modeDlgWnd, nullptr);
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUPERSEDED});
    EXPECT_EQ(TakeNotifications(other), Codes{MCI_NOTIFY_SUCCESSFUL});

    RunOneTick();
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_FAILURE});
    EXPECT_EQ(g_scanParams.resolution, 90);
    EXPECT_EQ(g_timerActive, 0u);
}

TEST_F(NotifyTest, ModeCommandWithAnOpenDialogIsNotifiedAtOnce)
{
    HWND app = MakeWindow();
    g_modeDlgWnd = MakeWindow();
    ScanModeParms parms{(DWORD_PTR)app, 0, 0, 0, 0};
    EXPECT_EQ(MciQueueNotify(g_deviceId, MCI_NOTIFY | MCI_SCANMODE_DIALOG, MCI_SCANMODE, &parms), 0u);
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_EQ(g_timerActive + g_modeBusy, 0u);
}

TEST_F(NotifyTest, TimerFailureLeavesTheOperationUnmarked)
{
    HWND app = MakeWindow();
    PlatFailCall("SetTimer", 1, 0);
    EXPECT_EQ(Queue(MCI_SCANREAD, app, &g_scanResult), (DWORD)MCIERR_OUT_OF_MEMORY);
    EXPECT_EQ(g_scanBusy + g_timerActive, 0u);
}

TEST_F(NotifyTest, AbortNotifyClearsTheFlagAndKillsTheTimer)
{
    HWND app = MakeWindow();
    long timers = PlatLiveCount(PLAT_KIND_TIMER);
    ASSERT_EQ(Queue(MCI_SAVE, app, &g_saveResult), 0u);
    MciAbortNotify(MCI_SAVE);
    MciAbortNotify(MCI_SCANREAD); // nothing pending: no message
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_ABORTED});
    EXPECT_EQ(g_saveBusy, 0u);
    EXPECT_EQ(g_timerActive, 1u) << "close clears it itself";
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_TIMER), timers);
}

TEST_F(NotifyTest, WaitReturnsTheResultTheWorkerWrites)
{
    MciWriteResult(&g_saveResult, -1);
    tamrix_test::PlatformThread worker([] {
        MciWriteResult(&g_saveResult, MCIERR_FILE_WRITE);
        return 0u;
    });
    EXPECT_EQ(MciWaitForResult(g_deviceId, &g_saveResult), (LONG)MCIERR_FILE_WRITE);
}

} // namespace
