// MCI devices through WINMM with the real driver module (tamrix.so, found
// through TAMRIX_MODULE_PATH): the driver-message sequence of open and
// close, aliases and device ids, error mapping, return formatting,
// notification and yield. The command messages the driver would need a
// scanner for are answered by a recording hook in front of the driver.
#include "../platform/src/winmm.h"
#include "support/platform_fixture.h"

#include <mmsystem.h>

#include <string>
#include <vector>

namespace
{

struct Sent {
    UINT msg = 0;
    LPARAM param1 = 0;
    // Copies of what the blocks said while the call was made.
    MCI_OPEN_DRIVER_PARMSW openDriver{};
    std::u16string type, alias;
    DWORD_PTR callback = 0;
};

std::vector<Sent> g_sent;
LRESULT g_openAnswer = 0;
LRESULT g_stopAnswer = 0;

std::u16string Copy(LPCWSTR s)
{
    return s ? std::u16string(s) : u"<null>";
}

bool Hook(HDRVR, UINT msg, LPARAM p1, LPARAM p2, LRESULT &result)
{
    Sent s;
    s.msg = msg;
    s.param1 = p1;
    if (msg >= DRV_MCI_FIRST && p2)
        s.callback = reinterpret_cast<MCI_GENERIC_PARMS *>(p2)->dwCallback;
    result = 0;
    if (msg == MCI_OPEN_DRIVER) {
        auto *o = reinterpret_cast<MCI_OPEN_PARMSW *>(p2);
        s.type = Copy(o->lpstrDeviceType);
        s.alias = (p1 & MCI_OPEN_ALIAS) ? Copy(o->lpstrAlias) : u"";
        s.openDriver.wDeviceID = o->wDeviceID;
        result = g_openAnswer;
    } else if (msg == MCI_GETDEVCAPS) {
        reinterpret_cast<MCI_GETDEVCAPS_PARMS *>(p2)->dwReturn = MCI_DEVTYPE_SCANNER;
        result = MCI_RESOURCE_RETURNED;
    } else if (msg == MCI_STOP) {
        result = g_stopAnswer;
    }
    g_sent.push_back(s);
    // Driver messages go on to the driver (which fills the DRV_OPEN block).
    return msg >= DRV_MCI_FIRST;
}

std::vector<UINT> Messages()
{
    std::vector<UINT> m;
    for (const Sent &s : g_sent)
        m.push_back(s.msg);
    return m;
}

class WinmmMciTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
        g_sent.clear();
        g_openAnswer = 0;
        g_stopAnswer = 0;
        mm::SetDriverHook(Hook);
    }
    void TearDown() override
    {
        mm::SetDriverHook(nullptr);
        PlatformTest::TearDown();
    }
    DWORD Send(const char16_t *cmd, HWND cb = nullptr)
    {
        ret_[0] = u'?';
        return mciSendStringW(cmd, ret_, 128, cb);
    }
    std::u16string Ret() const { return ret_; }
    tamrix_test::TempDir windir_{true};
    WCHAR ret_[128];
};

TEST_F(WinmmMciTest, OpenAndCloseRunTheDriverMessagesInOrder)
{
    ASSERT_EQ(Send(u"open scanner alias s wait"), 0u);
    EXPECT_TRUE(Ret() == u"1");
    ASSERT_EQ(Messages(), (std::vector<UINT>{DRV_LOAD, DRV_ENABLE, DRV_OPEN, MCI_OPEN_DRIVER}));
    const Sent &open = g_sent[3];
    EXPECT_EQ(open.param1, LPARAM(MCI_OPEN_TYPE | MCI_OPEN_ALIAS | MCI_WAIT));
    EXPECT_TRUE(open.type == u"scanner");
    EXPECT_TRUE(open.alias == u"s");
    EXPECT_EQ(open.openDriver.wDeviceID, 1u);
    EXPECT_EQ(mciGetDeviceIDW(u"S"), 1u);

    // A second device of the same driver: no second load, a new id.
    g_sent.clear();
    EXPECT_EQ(Send(u"open scanner alias s wait"), DWORD(MCIERR_DUPLICATE_ALIAS));
    ASSERT_EQ(Send(u"open scanner alias t wait"), 0u);
    EXPECT_TRUE(Ret() == u"2");
    EXPECT_EQ(Messages(), (std::vector<UINT>{DRV_OPEN, DRV_CLOSE, DRV_OPEN, MCI_OPEN_DRIVER}));

    g_sent.clear();
    ASSERT_EQ(Send(u"close s wait"), 0u);
    EXPECT_EQ(Messages(), (std::vector<UINT>{MCI_CLOSE_DRIVER, DRV_CLOSE}));
    EXPECT_EQ(Send(u"stop s wait"), DWORD(MCIERR_INVALID_DEVICE_NAME));
    g_sent.clear();
    ASSERT_EQ(Send(u"close t wait"), 0u);
    EXPECT_EQ(Messages(), (std::vector<UINT>{MCI_CLOSE_DRIVER, DRV_CLOSE, DRV_DISABLE, DRV_FREE}));
    EXPECT_EQ(mciGetDeviceIDW(u"t"), 0u);
}

TEST_F(WinmmMciTest, TheDriverFillsTheOpenDriverBlock)
{
    // The block as WINMM hands it to DRV_OPEN.
    static MCI_OPEN_DRIVER_PARMSW seen;
    static std::u16string params;
    mm::SetDriverHook([](HDRVR, UINT msg, LPARAM, LPARAM p2, LRESULT &result) {
        if (msg == DRV_OPEN) {
            seen = *reinterpret_cast<MCI_OPEN_DRIVER_PARMSW *>(p2);
            params = Copy(seen.lpstrParams);
        }
        result = 0;
        return msg == MCI_OPEN_DRIVER || msg == MCI_CLOSE_DRIVER;
    });
    MCI_OPEN_PARMSW p{};
    p.lpstrDeviceType = u"scanner";
    ASSERT_EQ(mciSendCommandW(0, MCI_OPEN, MCI_OPEN_TYPE | MCI_WAIT, reinterpret_cast<DWORD_PTR>(&p)), 0u);
    EXPECT_EQ(p.wDeviceID, 1u);
    EXPECT_EQ(seen.wDeviceID, 1u);
    EXPECT_TRUE(params == u"");
    MCI_GENERIC_PARMS g{};
    EXPECT_EQ(mciSendCommandW(1, MCI_CLOSE, MCI_WAIT, reinterpret_cast<DWORD_PTR>(&g)), 0u);
    EXPECT_EQ(mciSendCommandW(1, MCI_STOP, MCI_WAIT, reinterpret_cast<DWORD_PTR>(&g)), DWORD(MCIERR_INVALID_DEVICE_ID));
}

TEST_F(WinmmMciTest, OpenFailuresLeaveNothingOpen)
{
    g_openAnswer = MCIERR_DEVICE_NOT_READY;
    EXPECT_EQ(Send(u"open scanner alias s wait"), DWORD(MCIERR_DEVICE_NOT_READY));
    EXPECT_EQ(Messages(),
              (std::vector<UINT>{DRV_LOAD, DRV_ENABLE, DRV_OPEN, MCI_OPEN_DRIVER, DRV_CLOSE, DRV_DISABLE, DRV_FREE}));
    EXPECT_EQ(mciGetDeviceIDW(u"s"), 0u);

    EXPECT_EQ(Send(u"open camera wait"), DWORD(MCIERR_DEVICE_NOT_INSTALLED));
    WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Phantom"), TEXT("NOSUCH.DLL"), TEXT("system.ini"));
    EXPECT_EQ(Send(u"open phantom wait"), DWORD(MCIERR_CANNOT_LOAD_DRIVER));
    g_openAnswer = 0;
    // A keyword the open command does not know unloads the driver again.
    g_sent.clear();
    EXPECT_EQ(Send(u"open scanner alias s loudly wait"), DWORD(MCIERR_UNRECOGNIZED_KEYWORD));
    EXPECT_EQ(Messages().back(), UINT(DRV_FREE));
}

TEST_F(WinmmMciTest, CommandsReachTheDriverOnlyWhenTheyParse)
{
    ASSERT_EQ(Send(u"open scanner alias s wait"), 0u);
    g_sent.clear();
    EXPECT_EQ(Send(u"set s time format inch wait"), DWORD(MCIERR_UNRECOGNIZED_COMMAND));
    EXPECT_TRUE(g_sent.empty());
    EXPECT_EQ(Send(u"set s time format millimeter wait"), 0u);
    ASSERT_EQ(Messages(), (std::vector<UINT>{MCI_SET}));
    EXPECT_EQ(g_sent[0].param1, LPARAM(MCI_SET_TIME_FORMAT | MCI_WAIT));

    // An integer returned as a resource names WINMM's string.
    EXPECT_EQ(Send(u"capability s device type wait"), 0u);
    EXPECT_TRUE(Ret() == u"scanner");

    // The callback window given with the string is the block's callback.
    g_sent.clear();
    EXPECT_EQ(Send(u"stop s notify", reinterpret_cast<HWND>(0x777)), 0u);
    EXPECT_EQ(g_sent.at(0).callback, 0x777u);
    EXPECT_EQ(Send(u"close s wait"), 0u);
}

std::u16string ErrorText(DWORD err, UINT size = 128)
{
    WCHAR text[128];
    return mciGetErrorStringW(err, text, size) ? std::u16string(text) : u"<none>";
}

TEST_F(WinmmMciTest, DriverErrorsCarryTheDeviceAndTheDriversText)
{
    ASSERT_EQ(Send(u"open scanner alias s wait"), 0u);
    g_stopAnswer = MCIERR_CUSTOM_DRIVER_BASE + 2;
    DWORD err = Send(u"stop s wait");
    EXPECT_EQ(err, DWORD(MAKELONG(514, 1)));
    EXPECT_TRUE(ErrorText(err) == u"コマンドの実行手順が不正です。");
    g_stopAnswer = MCIERR_CUSTOM_DRIVER_BASE + 1;
    EXPECT_TRUE(ErrorText(Send(u"stop s wait")) == u"スキャナ装置の異常状態を通知するレスポンスが返りました。");
    g_stopAnswer = MCIERR_HARDWARE;
    EXPECT_EQ(Send(u"stop s wait"), DWORD(MCIERR_HARDWARE));
    EXPECT_EQ(Send(u"close s wait"), 0u);
    // After the close the driver's text is still found.
    EXPECT_TRUE(ErrorText(MCIERR_CUSTOM_DRIVER_BASE + 2) == u"コマンドの実行手順が不正です。");
    EXPECT_TRUE(ErrorText(MCIERR_UNRECOGNIZED_COMMAND) == u"The driver cannot recognize the specified command.");
    EXPECT_TRUE(ErrorText(MCIERR_PARAM_OVERFLOW, 8) == u"The out");
    EXPECT_TRUE(ErrorText(999) == u"<none>");
}

LRESULT CALLBACK PlainProc(HWND w, UINT m, WPARAM wp, LPARAM lp)
{
    return DefWindowProcW(w, m, wp, lp);
}
UINT CALLBACK CountingYield(MCIDEVICEID id, DWORD data)
{
    return id * 100 + data;
}

TEST_F(WinmmMciTest, NotifyPostsToWindowsAndYieldRunsTheDevicesProc)
{
    WNDCLASSW wc{};
    wc.lpfnWndProc = PlainProc;
    wc.lpszClassName = u"WinmmNotifyTest";
    ASSERT_NE(RegisterClassW(&wc), 0);
    HWND wnd = CreateWindowExW(0, u"WinmmNotifyTest", u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(wnd, nullptr);
    EXPECT_TRUE(mciDriverNotify(wnd, 3, MCI_NOTIFY_ABORTED));
    MSG msg;
    ASSERT_TRUE(PeekMessageW(&msg, wnd, 0, 0, PM_REMOVE));
    EXPECT_EQ(msg.message, UINT(MM_MCINOTIFY));
    EXPECT_EQ(msg.wParam, WPARAM(MCI_NOTIFY_ABORTED));
    EXPECT_EQ(msg.lParam, 3);
    DestroyWindow(wnd);
    EXPECT_FALSE(mciDriverNotify(wnd, 3, MCI_NOTIFY_SUCCESSFUL));
    EXPECT_FALSE(PeekMessageW(&msg, nullptr, MM_MCINOTIFY, MM_MCINOTIFY, PM_REMOVE));
    UnregisterClassW(u"WinmmNotifyTest", nullptr);

    ASSERT_EQ(Send(u"open scanner alias s wait"), 0u);
    EXPECT_EQ(mciDriverYield(1), 0u);
    EXPECT_TRUE(mciSetYieldProc(1, CountingYield, 7));
    EXPECT_EQ(mciDriverYield(1), 107u);
    DWORD data = 0;
    EXPECT_EQ(mciGetYieldProc(1, &data), CountingYield);
    EXPECT_EQ(data, 7u);
    EXPECT_FALSE(mciSetYieldProc(2, CountingYield, 7));
    EXPECT_EQ(Send(u"close s wait"), 0u);
}

} // namespace
