// The scan-mode dialog opened by scanmode with "dialog": modally on the
// caller's thread (wait) and on a thread of its own (notify), worked through
// its controls the way a user's clicks and keys reach them.
#include "driver_fixture.h"

#include "config/config.h"
#include "resources/resource.h"

#include <string>

namespace
{

class ModeDialogTest : public DriverTest
{
protected:
    void Configure(DWORD model, DWORD iface)
    {
        g_settings.model = model;
        g_settings.interfaceType = iface;
        ImgInitScanParams(model);
    }

    // Waits (virtual time) until the dialog is up and initialised: the
    // window is known from the start of its initialisation, and shown only
    // once that is over.
    static HWND WaitForDialog()
    {
        for (int i = 0; i < 1000 && (g_modeDlgWnd == nullptr || !IsWindowVisible(g_modeDlgWnd)); i++)
            Sleep(5);
        return g_modeDlgWnd;
    }
    static void WaitForResult()
    {
        for (int i = 0; i < 1000 && MciReadResult(&g_modeResult) < 0; i++)
            Sleep(5);
    }
    // The driver keeps the dialog thread's handle until it has waited for
    // the thread (at the next dialog or close): done here instead.
    static void WaitForThreadsGone(long baseline)
    {
        MciJoinThread(&g_hModeThread);
        for (int i = 0; i < 1000 && PlatLiveCount(PLAT_KIND_THREAD) > baseline; i++)
            Sleep(5);
    }
    static void Click(HWND dlg, int id) { SendMessageW(GetDlgItem(dlg, id), BM_CLICK, 0, 0); }
    static void Key(HWND dlg, int id, WPARAM key) { SendMessageW(GetDlgItem(dlg, id), WM_KEYDOWN, key, 0); }
    static bool Enabled(HWND dlg, int id) { return IsWindowEnabled(GetDlgItem(dlg, id)) != FALSE; }
    static LRESULT Item(HWND dlg, int id, UINT msg) { return SendDlgItemMessageW(dlg, id, msg, 0, 0); }
};

TEST_F(ModeDialogTest, ModalOkKeepsTheUsersChoicesAndTheCommandsValues)
{
    Configure(2, IF_RS232C);
    ScanModeParms p{0, 0, 0, 4, 0};
    DWORD answer = 1;
    tamrix_test::PlatformThread app([&] {
        answer = MciCmdScanMode(7, MCI_WAIT | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_DIALOG, &p);
        return 0u;
    });
    HWND dlg = WaitForDialog();
    ASSERT_NE(dlg, nullptr);
    WCHAR title[40];
    GetWindowTextW(dlg, title, 40);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(title)), u"拡張パラメータ設定  -  KS-620");
    // Model 2: OR, edge, gamma, brightness and noise; no tint, saturation or dither.
    for (int id : {IDC_MODE_OR, IDC_MODE_EDGE, IDC_MODE_NOISE, IDC_MODE_GAMMA, IDC_MODE_BRIGHT_SCROLL})
        EXPECT_TRUE(Enabled(dlg, id)) << id;
    for (int id : {IDC_MODE_TINT_SCROLL, IDC_MODE_SAT_SCROLL, IDC_MODE_DITHER, IDC_MODE_TINT_LABEL})
        EXPECT_FALSE(Enabled(dlg, id)) << id;
    EXPECT_EQ(Item(dlg, IDC_MODE_GAMMA, CB_GETCOUNT), 5);
    EXPECT_EQ(Item(dlg, IDC_MODE_GAMMA, CB_GETCURSEL), 0);
    EXPECT_EQ(GetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, nullptr, FALSE), 5u);

    Click(dlg, IDC_MODE_EDGE);
    Key(dlg, IDC_MODE_GAMMA, VK_END); // "なし"
    Key(dlg, IDC_MODE_BRIGHT_SCROLL, VK_RIGHT);
    Key(dlg, IDC_MODE_BRIGHT_SCROLL, VK_RIGHT);
    EXPECT_EQ(g_scanParams.edgeEnhance, 1) << "changes take effect at once";
    EXPECT_EQ(g_scanParams.gamma, 5);
    EXPECT_EQ(g_scanParams.brightness, 7);
    EXPECT_EQ(GetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, nullptr, FALSE), 7u);
    Click(dlg, IDOK);
    EXPECT_EQ(app.Join(), 0u);
    EXPECT_EQ(answer, 0u);
    EXPECT_EQ(g_modeResult, 0);
    EXPECT_EQ(g_modeDlgWnd, nullptr);
    EXPECT_EQ(g_scanParams.colorStep, 2);
    EXPECT_EQ(g_scanParams.brightness, 7);
}

TEST_F(ModeDialogTest, ModalCancelAndCreationFailureUndoTheCommand)
{
    Configure(3, IF_SCSI);
    const ScanParams before = g_scanParams;
    ScanModeParms p{0, 200, 0, 0, COLORMODE_COLOR};
    const DWORD flags = MCI_WAIT | MCI_SCANMODE_RESOLUTION | MCI_SCANMODE_COLORMODE | MCI_SCANMODE_DIALOG;
    DWORD answer = 0;
    {
        tamrix_test::PlatformThread app([&] {
            answer = MciCmdScanMode(7, flags, &p);
            return 0u;
        });
        HWND dlg = WaitForDialog();
        ASSERT_NE(dlg, nullptr);
        EXPECT_TRUE(Enabled(dlg, IDC_MODE_TINT_SCROLL)) << "model 3 in colour has tint";
        EXPECT_FALSE(Enabled(dlg, IDC_MODE_SAT_SCROLL));
        HWND tint = GetDlgItem(dlg, IDC_MODE_TINT_SCROLL);
        SendMessageW(tint, WM_KEYDOWN, VK_HOME, 0);
        SendMessageW(tint, WM_KEYDOWN, VK_LEFT, 0);
        EXPECT_EQ(g_scanParams.tint, 0);
        Click(dlg, IDC_MODE_OR);
        Click(dlg, IDCANCEL);
        EXPECT_EQ(app.Join(), 0u);
    }
    EXPECT_EQ(answer, (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(memcmp(&g_scanParams, &before, sizeof before), 0) << "resolution and colour mode undone too";

    PlatFailCall("DialogBoxParamW", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(MciCmdScanMode(7, flags, &p), (DWORD)MCIERR_CREATEWINDOW);
    EXPECT_EQ(memcmp(&g_scanParams, &before, sizeof before), 0);
}

TEST_F(ModeDialogTest, NotifiedDialogRefreshesAndOkReappliesTheFirstCommand)
{
    Configure(2, IF_GPIB);
    HWND callback = MakeWindow();
    const long threads = PlatLiveCount(PLAT_KIND_THREAD);
    ScanModeParms first{(DWORD_PTR)callback, 0, 0, 4, 0};
    ASSERT_EQ(MciDispatchCommand(7, MCI_SCANMODE, MCI_NOTIFY | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_DIALOG, &first),
              0u);
    HWND dlg = WaitForDialog();
    ASSERT_NE(dlg, nullptr);
    EXPECT_NE(GetWindowThreadProcessId(dlg, nullptr), GetCurrentThreadId());

    ScanModeParms second{0, 0, 0, 8, 0};
    ScanModeParms halftone{0, 0, 0, 0, 0};
    EXPECT_EQ(MciCmdScanMode(7, MCI_WAIT | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_DIALOG, &second), 0u);
    EXPECT_EQ(g_scanParams.colorStep, 3) << "the second command's value at once";
    EXPECT_EQ(MciCmdScanMode(7, MCI_WAIT | MCI_SCANMODE_HALFTONE | MCI_SCANMODE_DIALOG, &halftone), 0u);
    EXPECT_EQ(Item(dlg, IDC_MODE_GAMMA, CB_GETCOUNT), 15) << "each refresh adds the gamma names again";
    EXPECT_TRUE(Enabled(dlg, IDC_MODE_DITHER));
    EXPECT_EQ(Item(dlg, IDC_MODE_DITHER, CB_GETCOUNT), 10);
    EXPECT_EQ(Item(dlg, IDC_MODE_DITHER, CB_GETCURSEL), 8) << "pattern 16 is the second method";
    Key(dlg, IDC_MODE_DITHER, VK_END);
    EXPECT_EQ(g_scanParams.ditherPattern, 32);
    EXPECT_EQ(g_scanParams.colorStep, 16);

    Click(dlg, IDOK);
    WaitForResult();
    RunOneTick();
    EXPECT_EQ(TakeNotifications(callback), std::vector<UINT>{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_EQ(g_scanParams.colorStep, 2) << "OK applies the first command's colour step again";
    EXPECT_EQ(g_scanParams.ditherPattern, 32);
    WaitForThreadsGone(threads);
}

TEST_F(ModeDialogTest, NotifiedDialogClosedFromOutsideFailsAndRestores)
{
    Configure(4, IF_GPIB);
    HWND callback = MakeWindow();
    const long threads = PlatLiveCount(PLAT_KIND_THREAD);
    const ScanParams before = g_scanParams;
    g_scanParams.ditherPattern = 32;
    g_savedScanParams = g_scanParams;
    const ScanParams atCommand = g_scanParams;
    ScanModeParms p{(DWORD_PTR)callback, 0, 0, 0, 0};
    ASSERT_EQ(MciDispatchCommand(7, MCI_SCANMODE, MCI_NOTIFY | MCI_SCANMODE_HALFTONE | MCI_SCANMODE_DIALOG, &p), 0u);
    HWND dlg = WaitForDialog();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(Item(dlg, IDC_MODE_DITHER, CB_GETCOUNT), 9) << "model 4 on GP-IB has no third method";
    EXPECT_EQ(Item(dlg, IDC_MODE_DITHER, CB_GETCURSEL), -1);
    EXPECT_FALSE(Enabled(dlg, IDC_MODE_OR));
    EXPECT_TRUE(Enabled(dlg, IDC_MODE_SAT_SCROLL)) << "model 4 in colour";
    Key(dlg, IDC_MODE_DITHER, VK_HOME);
    EXPECT_EQ(g_scanParams.ditherPattern, 1);
    HWND sat = GetDlgItem(dlg, IDC_MODE_SAT_SCROLL);
    SendMessageW(sat, WM_KEYDOWN, VK_END, 0);
    SendMessageW(sat, WM_KEYDOWN, VK_RIGHT, 0);
    EXPECT_EQ(g_scanParams.saturation, 9);

    EXPECT_TRUE(MciCancelOperation(MCI_SCANMODE)); // WM_CLOSE, as close does
    EXPECT_EQ(MciReadResult(&g_modeResult), MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(g_scanParams.ditherPattern, 32) << "the dialog put its fields back";
    EXPECT_EQ(g_scanParams.saturation, atCommand.saturation);
    RunOneTick();
    EXPECT_EQ(TakeNotifications(callback), std::vector<UINT>{MCI_NOTIFY_FAILURE});
    EXPECT_EQ(memcmp(&g_scanParams, &atCommand, sizeof atCommand), 0);
    EXPECT_NE(memcmp(&before, &atCommand, sizeof before), 0);
    WaitForThreadsGone(threads);

    // A dialog that cannot be made fails on its thread at once: the command
    // reports it itself if the thread got there before the command looked,
    // else the failure is notified at the next tick.
    PlatFailCall("CreateDialogParamW", 1, ERROR_NOT_ENOUGH_MEMORY);
    DWORD rc = MciDispatchCommand(7, MCI_SCANMODE, MCI_NOTIFY | MCI_SCANMODE_DIALOG, &p);
    WaitForResult();
    EXPECT_EQ(MciReadResult(&g_modeResult), MCIERR_CREATEWINDOW);
    if (rc == 0) {
        RunOneTick();
        EXPECT_EQ(TakeNotifications(callback), std::vector<UINT>{MCI_NOTIFY_FAILURE});
    } else {
        EXPECT_EQ(rc, (DWORD)MCIERR_CREATEWINDOW);
        EXPECT_EQ(g_modeBusy, 0u);
        EXPECT_TRUE(TakeNotifications(callback).empty());
    }
    WaitForThreadsGone(threads);
}

} // namespace
