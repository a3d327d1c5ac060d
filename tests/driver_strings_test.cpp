// The driver's command layer as an application reaches it: command strings
// through WINMM to the real tamrix.so, which opens the virtual scanner the
// default settings name (a KS-650 on COM1).
#include "support/platform_fixture.h"

#include "block_scanner.h"
#include "serial_link.h"

#include "driver/driver_state.h"

#include <mmsystem.h>

#include <memory>
#include <string>

namespace
{

LRESULT CALLBACK PlainProc(HWND w, UINT m, WPARAM wp, LPARAM lp)
{
    return DefWindowProcW(w, m, wp, lp);
}

class DriverStringsTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
        WNDCLASSW wc{};
        wc.lpfnWndProc = PlainProc;
        wc.lpszClassName = u"DriverStringsTest";
        ASSERT_NE(RegisterClassW(&wc), 0);
        wnd_ = CreateWindowExW(0, u"DriverStringsTest", u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        ASSERT_EQ(Send(u"open scanner alias s wait"), 0u);
    }
    void TearDown() override
    {
        EXPECT_EQ(Send(u"close s wait"), 0u);
        DestroyWindow(wnd_);
        UnregisterClassW(u"DriverStringsTest", nullptr);
        PlatformTest::TearDown();
    }
    DWORD Send(const char16_t *cmd, HWND callback = nullptr)
    {
        ret_[0] = 0;
        return mciSendStringW(cmd, ret_, 64, callback);
    }
    // Codes of the MM_MCINOTIFY messages waiting for `wnd`.
    std::u16string Notifications(HWND wnd)
    {
        std::u16string codes;
        MSG msg;
        while (PeekMessageW(&msg, wnd, MM_MCINOTIFY, MM_MCINOTIFY, PM_REMOVE))
            codes += char16_t(u'0' + msg.wParam);
        return codes;
    }
    tamrix_test::TempDir windir_{true};
    std::shared_ptr<sim::BlockScanner> scanner_ = std::make_shared<sim::BlockScanner>(5, 5);
    sim::SerialLink link_{1, scanner_};
    HWND wnd_ = nullptr;
    WCHAR ret_[64];
};

TEST_F(DriverStringsTest, DispatcherChecksAndRoutingFromCommandStrings)
{
    EXPECT_EQ(Send(u"status s ready"), DWORD(MCIERR_MISSING_PARAMETER));
    EXPECT_EQ(Send(u"info s product wait"), 0u);
    EXPECT_TRUE(std::u16string(ret_) == u"Ｋｏｒｖａｎｅ　イメージスキャナ");
    // The scanner is there: ready before a scan ("open" mode), a scan, then
    // "stopped" mode; the default area of the model at its default
    // resolution reached the scanner.
    EXPECT_EQ(Send(u"status s scanner wait"), 0u);
    EXPECT_TRUE(std::u16string(ret_) == u"530");
    EXPECT_EQ(Send(u"scanread s wait"), 0u);
    EXPECT_TRUE(scanner_->FinalAckSeen());
    EXPECT_TRUE(scanner_->ProtocolErrors().empty());
    EXPECT_EQ(Send(u"status s scanner wait"), 0u);
    EXPECT_TRUE(std::u16string(ret_) == u"525");
    EXPECT_EQ(Send(u"open scanner alias t wait"), DWORD(MCIERR_DEVICE_OPEN));
    // The image goes to the application's window through the paint hook;
    // close (in TearDown) removes the hook with everything else.
    std::string handle = std::to_string(reinterpret_cast<uintptr_t>(wnd_));
    EXPECT_EQ(Send((u"window s handle " + std::u16string(handle.begin(), handle.end()) + u" wait").c_str()), 0u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_HOOK), 1);
}

// Close during a notified scan stops it through the internal stop: the
// scanner gets the abort, the scan's callback hears "aborted" once, and
// close succeeds.
TEST_F(DriverStringsTest, CloseStopsANotifiedScan)
{
    sim::BlockScanner::Faults slow;
    slow.lateMs = 40;
    scanner_->SetFaults(slow);
    EXPECT_EQ(Send(u"scanread s notify", wnd_), 0u);
    Sleep(12000); // the start and some lines
    EXPECT_EQ(Send(u"status s scanner wait"), 0u);
    EXPECT_TRUE(std::u16string(ret_) == u"1281") << "scanning";
    EXPECT_EQ(Send(u"close s wait"), 0u);
    EXPECT_EQ(scanner_->Dc4Count(), 1);
    EXPECT_TRUE(scanner_->ProtocolErrors().empty());
    Sleep(3000); // no timer is left to deliver anything more
    EXPECT_TRUE(Notifications(wnd_) == u"4") << "one MCI_NOTIFY_ABORTED";
    scanner_->SetFaults({});
    EXPECT_EQ(Send(u"open scanner alias s wait"), 0u);
}

// Close ends a pending save and a pending scan-mode dialog: each callback
// hears "aborted", and nothing of either is left once close has returned
// (the driver is unloaded by then; the leak check sees any thread, timer or
// window procedure of it still live).
TEST_F(DriverStringsTest, CloseAbortsAPendingSaveAndDialog)
{
    tamrix_test::TempDir out;
    HWND dialogWnd = CreateWindowExW(0, u"DriverStringsTest", u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(Send(u"scanread s wait"), 0u);
    std::string file = out / "page.bmp";
    EXPECT_EQ(Send((u"save s " + std::u16string(file.begin(), file.end()) + u" notify").c_str(), wnd_), 0u);
    EXPECT_EQ(Send(u"scanmode s dialog notify", dialogWnd), 0u);
    EXPECT_TRUE(Notifications(wnd_) == u"2") << "the save is superseded by the dialog";
    EXPECT_EQ(Send(u"close s wait"), 0u);
    EXPECT_TRUE(Notifications(dialogWnd) == u"4") << "one MCI_NOTIFY_ABORTED";
    EXPECT_TRUE(Notifications(wnd_) == u"4") << "one MCI_NOTIFY_ABORTED";
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_STRANDED), 0);
    DestroyWindow(dialogWnd);

    // Open refuses what it cannot do before it touches the scanner.
    EXPECT_EQ(Send(u"open scanner alias t shareable wait"), DWORD(MCIERR_UNSUPPORTED_FUNCTION));
    EXPECT_EQ(Send(u"open scanner alias s wait"), 0u);
}

// Save checks the name it is given, reports a write that fails, and a
// waited save is over (its thread gone) when close comes right after it.
TEST_F(DriverStringsTest, SaveNamesAndFailedWrites)
{
    EXPECT_EQ(Send(u"scanread s wait"), 0u);
    EXPECT_EQ(Send(u"save s wait"), DWORD(MCIERR_FILENAME_REQUIRED));
    std::u16string longName(SAVE_FILE_NAME_CHARS, u'a');
    EXPECT_EQ(Send((u"save s /tmp/" + longName + u" wait").c_str()), DWORD(MCIERR_PARAM_OVERFLOW));
    EXPECT_NE(Send(u"save s /dev/full wait"), 0u) << "a full device";
    tamrix_test::TempDir out;
    std::string file = out / "page.bmp";
    EXPECT_EQ(Send((u"save s " + std::u16string(file.begin(), file.end()) + u" wait").c_str()), 0u);
    EXPECT_EQ(Send(u"close s wait"), 0u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_STRANDED), 0);
    EXPECT_EQ(Send(u"open scanner alias s wait"), 0u);
}

} // namespace
