// The configuration dialog run through DRV_CONFIGURE on an application
// thread and worked from the test thread: what the probes find decides the
// interface list, the RS-232C and GP-IB dialogs edit port, speed and address,
// OK stores the choice in win.ini. Also the mouse capture the spin control
// relies on.
#include "driver_fixture.h"

#include "block_scanner.h"
#include "gpib_bus.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include "config/config.h"
#include "resources/resource.h"

#include <tamrix/help.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace
{

using Names = std::vector<std::u16string>;

class ConfigDialogTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        sim::ResetGpibBus();
    }
    void TearDown() override
    {
        app_.reset();
        ports_.clear();
        scsi_.reset();
        g_openComHandle = g_openGpibHandle = g_openScsiHandle = nullptr;
        sim::ResetGpibBus();
        DriverTest::TearDown();
    }

    void Profile(const std::string &section) { std::ofstream(windir_ / "win.ini") << "[TAMRIX]\n" << section; }
    void AttachPorts(std::initializer_list<unsigned> ports)
    {
        for (unsigned n : ports) {
            ports_.push_back(std::make_unique<sim::SerialLink>(n, std::make_shared<sim::BlockScanner>(2)));
            ASSERT_TRUE(ports_.back()->attached());
        }
    }
    void AttachScsi() { scsi_ = sim::ScsiScanner::Attach(2); }
    static void NoGpib() { PlatFailAlways("LoadLibraryA", ERROR_MOD_NOT_FOUND); }

    // Starts the configure request on an application thread of its own and
    // waits (virtual time) until the dialog is up.
    HWND Open()
    {
        app_ = std::make_unique<tamrix_test::PlatformThread>([this] {
            HWND parent = CreateWindowExW(0, TEXT("STATIC"), TEXT(""), 0, 0, 0, 10, 10, nullptr, nullptr,
                                          GetModuleHandleW(nullptr), nullptr);
            DRVCONFIGINFO config{sizeof(DRVCONFIGINFO), TEXT("Drivers32"), TEXT("Scanner")};
            answer_ = DriverProc(0, nullptr, DRV_CONFIGURE, (LPARAM)parent, (LPARAM)&config);
            DestroyWindow(parent);
            return 0u;
        });
        return WaitFor(g_cfgDlgWnd);
    }
    static HWND WaitFor(HWND &wnd)
    {
        for (int i = 0; i < 1000 && wnd == nullptr; i++)
            Sleep(5);
        return wnd;
    }
    // Posts the button's click: it is seen once a sub-dialog that has just
    // ended has handed its result to the dialog.
    LRESULT Finish(HWND dlg, int button)
    {
        PostMessageW(dlg, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED), (LPARAM)GetDlgItem(dlg, button));
        app_->Join();
        return answer_;
    }
    // Opens the sub-dialog by posting Settings: it runs modally inside the
    // configuration dialog's loop.
    static HWND OpenSettings(HWND dlg)
    {
        PostMessageW(dlg, WM_COMMAND, IDC_CFG_SETTINGS, (LPARAM)GetDlgItem(dlg, IDC_CFG_SETTINGS));
        return WaitFor(g_cfgSubDlgWnd);
    }

    static void Click(HWND dlg, int id) { SendMessageW(GetDlgItem(dlg, id), BM_CLICK, 0, 0); }
    static bool Enabled(HWND dlg, int id) { return IsWindowEnabled(GetDlgItem(dlg, id)) != FALSE; }
    static LRESULT Selected(HWND dlg, int id) { return SendDlgItemMessageW(dlg, id, CB_GETCURSEL, 0, 0); }
    // Selects entry `pos` of a list as the user does (with the change notification).
    static void Choose(HWND dlg, int id, int pos)
    {
        SendDlgItemMessageW(dlg, id, CB_SETCURSEL, pos, 0);
        SendMessageW(dlg, WM_COMMAND, MAKEWPARAM(id, CBN_SELCHANGE), (LPARAM)GetDlgItem(dlg, id));
    }
    static Names Entries(HWND dlg, int id)
    {
        Names names;
        LRESULT n = SendDlgItemMessageW(dlg, id, CB_GETCOUNT, 0, 0);
        for (LRESULT i = 0; i < n; i++) {
            WCHAR text[32] = {};
            SendDlgItemMessageW(dlg, id, CB_GETLBTEXT, i, (LPARAM)text);
            names.emplace_back(reinterpret_cast<char16_t *>(text));
        }
        return names;
    }
    // The profile as read back; the line speed as written (0 reads as 9600).
    static void ExpectStored(DWORD model, DWORD iface, DWORD id, DWORD baud)
    {
        DeviceSettings s{};
        CfgReadSettings(nullptr, &s);
        EXPECT_EQ(s.model, model);
        EXPECT_EQ(s.interfaceType, iface);
        EXPECT_EQ(s.id, id);
        EXPECT_EQ(GetProfileIntW(TEXT("TAMRIX"), TEXT("Baudrate"), 99), baud);
    }

    tamrix_test::TempDir windir_{true};
    std::vector<std::unique_ptr<sim::SerialLink>> ports_;
    std::shared_ptr<sim::ScsiScanner> scsi_;
    std::unique_ptr<tamrix_test::PlatformThread> app_;
    LRESULT answer_ = -7;
};

TEST_F(ConfigDialogTest, SerialOnlyMachineCancelWritesNothingOkWritesTheChoice)
{
    AttachPorts({1, 2});
    NoGpib();
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF), Names{u"RS-232C"});
    EXPECT_EQ(Selected(dlg, IDC_CFG_IF), 0);
    EXPECT_EQ(Entries(dlg, IDC_CFG_MODEL).size(), 6u) << "KT-700 is not offered";
    EXPECT_EQ(Entries(dlg, IDC_CFG_MODEL)[Selected(dlg, IDC_CFG_MODEL)], u"Korvane KS-650");
    EXPECT_TRUE(Enabled(dlg, IDC_CFG_SETTINGS));
    EXPECT_TRUE(Enabled(dlg, IDOK));

    const LONG helps = PlatHelpCalls(nullptr, 0, nullptr);
    Click(dlg, IDC_CFG_HELP);
    WCHAR file[32];
    UINT command = 0;
    EXPECT_EQ(PlatHelpCalls(file, 32, &command), helps + 1);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(file)), u"scandrv.hlp");
    EXPECT_EQ(command, (UINT)HELP_CONTENTS);

    Choose(dlg, IDC_CFG_MODEL, 1);
    EXPECT_EQ(Finish(dlg, IDCANCEL), 0);
    EXPECT_EQ(g_cfgDlgWnd, nullptr);
    EXPECT_EQ(GetProfileIntW(TEXT("TAMRIX"), TEXT("Scanner"), 99), 99u) << "cancel leaves the profile alone";

    dlg = Open();
    ASSERT_NE(dlg, nullptr);
    Choose(dlg, IDC_CFG_MODEL, 1);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(2, IF_RS232C, 1, 2);
}

TEST_F(ConfigDialogTest, InterfacesHeldByTheOpenDeviceAreNotProbedButOffered)
{
    AttachScsi(); // present, but held: the probe must not open it
    g_openComHandle = g_openScsiHandle = (HANDLE)0x1234;
    Profile("Scanner=4\nInterface=3\nID=9\n");
    unsigned opens = PlatCallCount("CreateFileW");
    unsigned loads = PlatCallCount("LoadLibraryA");
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(PlatCallCount("CreateFileW"), opens);
    EXPECT_EQ(PlatCallCount("LoadLibraryA"), loads + 1) << "GP-IB is still probed";
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF), (Names{u"SCSI", u"RS-232C", u"GP-IB"}));
    EXPECT_EQ(Selected(dlg, IDC_CFG_IF), 2);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(4, IF_GPIB, 9, 2); // the speed as read, untouched

    g_openGpibHandle = (HANDLE)0x5678;
    g_openComHandle = g_openScsiHandle = nullptr;
    scsi_.reset();
    NoGpib(); // would hide GP-IB if it were probed
    loads = PlatCallCount("LoadLibraryA");
    dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(PlatCallCount("LoadLibraryA"), loads);
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF), Names{u"GP-IB"});
    EXPECT_EQ(Finish(dlg, IDCANCEL), 0);
}

TEST_F(ConfigDialogTest, ModelChoiceReshapesTheInterfaceList)
{
    AttachScsi();
    AttachPorts({3});
    Profile("Scanner=2\nInterface=1\n");
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF).size(), 3u);
    EXPECT_EQ(Selected(dlg, IDC_CFG_IF), 0);
    EXPECT_FALSE(Enabled(dlg, IDC_CFG_SETTINGS)) << "SCSI has no settings";

    Choose(dlg, IDC_CFG_MODEL, 0); // KS-610: RS-232C only
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF), Names{u"RS-232C"});
    EXPECT_EQ(Selected(dlg, IDC_CFG_IF), 0);
    EXPECT_TRUE(Enabled(dlg, IDC_CFG_SETTINGS));

    Choose(dlg, IDC_CFG_MODEL, 2); // KS-630: no SCSI
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF), (Names{u"RS-232C", u"GP-IB"}));
    Choose(dlg, IDC_CFG_IF, 1);
    EXPECT_TRUE(Enabled(dlg, IDC_CFG_SETTINGS));
    Choose(dlg, IDC_CFG_MODEL, 3); // KS-640: everything again, GP-IB kept
    EXPECT_EQ(Entries(dlg, IDC_CFG_IF).size(), 3u);
    EXPECT_EQ(Selected(dlg, IDC_CFG_IF), 2);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(4, IF_GPIB, 2, 0);

    // KS-630 on a machine with SCSI only: nothing to choose, no OK.
    ports_.clear();
    NoGpib();
    Profile("Scanner=3\nInterface=1\n");
    dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_TRUE(Entries(dlg, IDC_CFG_IF).empty());
    for (int id : {IDC_CFG_IF, IDC_CFG_IF_LABEL, IDOK, IDC_CFG_SETTINGS})
        EXPECT_FALSE(Enabled(dlg, id)) << id;
    EXPECT_EQ(Finish(dlg, IDCANCEL), 0);
}

TEST_F(ConfigDialogTest, AbsentStoredPortAndRefusedSpeedAreRepaired)
{
    AttachPorts({1, 5});
    NoGpib();
    PlatFailAlways("SetCommState", ERROR_INVALID_PARAMETER); // no port takes 19200
    Profile("Scanner=2\nInterface=2\nID=3\nBaudrate=3\n");
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(2, IF_RS232C, 1, 2);
}

TEST_F(ConfigDialogTest, SerialDialogListsPresentPortsAndTheirSpeeds)
{
    AttachPorts({1, 3, 4});
    NoGpib();
    // The probe sets 19200 and back on each port in turn: the third call,
    // port 3's, is refused.
    PlatFailCall("SetCommState", 3, ERROR_INVALID_PARAMETER);
    Profile("Scanner=2\nInterface=2\nID=4\nBaudrate=3\n");
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    HWND sub = OpenSettings(dlg);
    ASSERT_NE(sub, nullptr);
    EXPECT_EQ(Entries(sub, IDC_SER_PORT), (Names{u"COM1", u"COM3", u"COM4"}));
    EXPECT_EQ(Selected(sub, IDC_SER_PORT), 2);
    EXPECT_EQ(Entries(sub, IDC_SER_SPEED), (Names{u"4800", u"9600", u"19200"}));
    EXPECT_EQ(Selected(sub, IDC_SER_SPEED), 2);
    Choose(sub, IDC_SER_PORT, 1); // COM3 refused 19200
    EXPECT_EQ(Entries(sub, IDC_SER_SPEED).size(), 2u);
    EXPECT_EQ(Selected(sub, IDC_SER_SPEED), 1);
    Choose(sub, IDC_SER_PORT, 2);
    EXPECT_EQ(Entries(sub, IDC_SER_SPEED).size(), 3u);
    EXPECT_EQ(Selected(sub, IDC_SER_SPEED), 1) << "9600 is kept";
    Click(sub, IDCANCEL);
    EXPECT_EQ(g_cfgSubDlgWnd, nullptr);

    sub = OpenSettings(dlg);
    ASSERT_NE(sub, nullptr);
    Choose(sub, IDC_SER_PORT, 0);
    Choose(sub, IDC_SER_SPEED, 0);
    Click(sub, IDOK);
    EXPECT_EQ(g_cfgSubDlgWnd, nullptr);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(2, IF_RS232C, 1, 1);
}

TEST_F(ConfigDialogTest, GpibDialogStepsTheAddressWithinItsRange)
{
    Profile("Scanner=2\nInterface=3\nID=29\n");
    HWND dlg = Open();
    ASSERT_NE(dlg, nullptr);
    HWND sub = OpenSettings(dlg);
    ASSERT_NE(sub, nullptr);
    auto address = [&] { return GetDlgItemInt(sub, IDC_GPIB_ADDRESS, nullptr, FALSE); };
    HWND spin = GetDlgItem(sub, IDC_GPIB_SPIN);
    RECT r;
    GetClientRect(spin, &r);
    auto press = [&](UINT down, UINT up, int y) {
        SendMessageW(spin, down, 0, MAKELPARAM(1, y));
        SendMessageW(spin, up, 0, MAKELPARAM(1, y));
    };
    EXPECT_EQ(address(), 29u);
    press(WM_LBUTTONDOWN, WM_LBUTTONUP, 0);
    EXPECT_EQ(address(), 30u);
    press(WM_LBUTTONDOWN, WM_LBUTTONUP, 0);
    EXPECT_EQ(address(), 30u) << "clamped to the maximum";
    SetDlgItemTextW(sub, IDC_GPIB_ADDRESS, TEXT("3"));
    press(WM_RBUTTONDOWN, WM_RBUTTONUP, r.bottom - 1);
    EXPECT_EQ(address(), 0u) << "page down clamped to the minimum";
    press(WM_RBUTTONDOWN, WM_RBUTTONUP, 0);
    EXPECT_EQ(address(), 5u);

    // Held: a step at once, at 200 ms, then every 50 ms, also when dragged
    // out; the other button is ignored during the press, and the release
    // ends the repeat. Shift jumps once to the end.
    SetDlgItemTextW(sub, IDC_GPIB_ADDRESS, TEXT("3"));
    SendMessageW(spin, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(1, 0));
    Sleep(225);
    SendMessageW(spin, WM_MOUSEMOVE, MK_LBUTTON, MAKELPARAM(1, r.bottom + 20));
    press(WM_RBUTTONDOWN, WM_RBUTTONUP, r.bottom - 1);
    Sleep(50);
    SendMessageW(spin, WM_LBUTTONUP, 0, MAKELPARAM(1, 0));
    Sleep(500);
    EXPECT_EQ(address(), 6u);
    SendMessageW(spin, WM_LBUTTONDOWN, MK_LBUTTON | MK_SHIFT, MAKELPARAM(1, r.bottom - 1));
    SendMessageW(spin, WM_LBUTTONUP, 0, MAKELPARAM(1, r.bottom - 1));
    EXPECT_EQ(address(), 0u);

    // Typed, the field keeps to two digits.
    HWND edit = GetDlgItem(sub, IDC_GPIB_ADDRESS);
    SendMessageW(edit, EM_SETSEL, 0, -1);
    for (WCHAR c : {u'1', u'7', u'9'})
        SendMessageW(edit, WM_CHAR, c, 0);
    EXPECT_EQ(address(), 17u);

    SetDlgItemTextW(sub, IDC_GPIB_ADDRESS, TEXT("45"));
    Click(sub, IDOK);
    EXPECT_EQ(g_cfgSubDlgWnd, sub) << "an address above 30 keeps the dialog open";
    SetDlgItemTextW(sub, IDC_GPIB_ADDRESS, TEXT("7"));
    Click(sub, IDOK);
    EXPECT_EQ(g_cfgSubDlgWnd, nullptr);
    EXPECT_EQ(Finish(dlg, IDOK), 1);
    ExpectStored(2, IF_GPIB, 7, 2);
}

// ---- Mouse capture ------------------------------------------------------------

LPARAM g_changedTo[2];
int g_changes[2];

template <int N> LRESULT CALLBACK CaptureProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_CAPTURECHANGED) {
        g_changes[N]++;
        g_changedTo[N] = lParam;
    }
    return DefWindowProcW(wnd, msg, wParam, lParam);
}

TEST_F(ConfigDialogTest, CaptureIsPerThreadAndItsLossIsAnnounced)
{
    HWND a = MakeWindow(CaptureProc<0>);
    HWND b = MakeWindow(CaptureProc<1>);
    g_changes[0] = g_changes[1] = 0;
    EXPECT_EQ(SetCapture(a), nullptr);
    EXPECT_EQ(GetCapture(), a);
    EXPECT_EQ(SetCapture(b), a);
    EXPECT_EQ(g_changes[0], 1);
    EXPECT_EQ(g_changedTo[0], (LPARAM)b);
    EXPECT_EQ(tamrix_test::RunOnPlatformThread([&] {
                  SetCapture(a);
                  return GetCapture() == nullptr ? 0u : 1u;
              }),
              0u)
        << "another thread has no capture and cannot take a foreign window";
    EXPECT_EQ(GetCapture(), b);
    EXPECT_TRUE(ReleaseCapture());
    EXPECT_EQ(g_changes[1], 1);
    EXPECT_EQ(g_changedTo[1], 0);
    EXPECT_EQ(GetCapture(), nullptr);
    EXPECT_TRUE(ReleaseCapture());
    EXPECT_EQ(g_changes[1], 1) << "nothing to lose";
    SetCapture(a);
    DestroyWindow(a);
    EXPECT_EQ(GetCapture(), nullptr);
}

} // namespace
