// DriverProc: the installable-driver messages and the hand-over of MCI
// command messages to the dispatcher.
#include "driver_fixture.h"

#include <string>

namespace
{

using DriverEntryTest = DriverTest;

LRESULT Send(DWORD_PTR id, UINT msg, LPARAM p1 = 0, LPARAM p2 = 0)
{
    return DriverProc(id, nullptr, msg, p1, p2);
}

TEST_F(DriverEntryTest, OpenFillsTheBlockAndAnswersItsDeviceOnlyWithAParameterString)
{
    EXPECT_EQ(Send(0, DRV_OPEN), 10000);

    g_commandTableId = 0x1234;
    MCI_OPEN_DRIVER_PARMS open{};
    open.wDeviceID = 42;
    EXPECT_EQ(Send(0, DRV_OPEN, 0, (LPARAM)&open), 0) << "a null parameter string refuses the open";
    EXPECT_EQ(open.wCustomCommandTable, 0x1234u);
    EXPECT_EQ(open.wType, (UINT)MCI_DEVTYPE_SCANNER);

    open.lpstrParams = TEXT("");
    EXPECT_EQ(Send(0, DRV_OPEN, 0, (LPARAM)&open), 42);
    g_commandTableId = MCI_NO_COMMAND_TABLE;
}

TEST_F(DriverEntryTest, CloseReportsAndClearsARecordedModeDialog)
{
    g_modeDlgWnd = (HWND)(uintptr_t)0x55;
    EXPECT_EQ(Send(1, DRV_CLOSE), 0);
    EXPECT_EQ(g_modeDlgWnd, nullptr);
    EXPECT_EQ(Send(1, DRV_CLOSE), 1);
}

TEST_F(DriverEntryTest, OnlyMciRangeMessagesOfAShortDriverIdReachTheDispatcher)
{
    MCI_GENERIC_PARMS parms{};
    EXPECT_EQ(Send(1, 0x0800, MCI_WAIT, (LPARAM)&parms), (LRESULT)MCIERR_UNRECOGNIZED_COMMAND);
    EXPECT_EQ(Send(1, 0x17FF, MCI_WAIT, (LPARAM)&parms), (LRESULT)MCIERR_UNRECOGNIZED_COMMAND);
    // Flags 0 would make the dispatcher answer 273; DefDriverProc does not.
    EXPECT_EQ(Send(1, 0x1800, 0, (LPARAM)&parms), DefDriverProc(1, nullptr, 0x1800, 0, (LPARAM)&parms));
    EXPECT_EQ(Send(0x10001, MCI_STOP, 0, (LPARAM)&parms), DefDriverProc(0x10001, nullptr, MCI_STOP, 0, (LPARAM)&parms));
    EXPECT_NE(Send(0x10001, MCI_STOP, 0, (LPARAM)&parms), (LRESULT)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(Send(1, MCI_STOP, 0, (LPARAM)&parms), (LRESULT)MCIERR_MISSING_PARAMETER);
}

TEST_F(DriverEntryTest, LoadThenFreeTwiceReleasesTheCommandTableOnce)
{
    ASSERT_EQ(Send(0, DRV_LOAD), 1);
    EXPECT_NE(g_commandTableId, MCI_NO_COMMAND_TABLE);
    WNDCLASSW wc{};
    EXPECT_TRUE(GetClassInfoW(GetModuleHandleW(nullptr), TEXT("TamrixWnd"), &wc));
    EXPECT_EQ(wc.style, 0x0203u);

    EXPECT_EQ(Send(0, DRV_FREE), 1);
    EXPECT_EQ(g_commandTableId, MCI_NO_COMMAND_TABLE);
    EXPECT_FALSE(GetClassInfoW(GetModuleHandleW(nullptr), TEXT("TamrixWnd"), &wc));
    EXPECT_EQ(Send(0, DRV_FREE), 1);
    EXPECT_EQ(g_commandTableId, MCI_NO_COMMAND_TABLE);
    EXPECT_EQ(PlatCallCount("mciFreeCommandResource"), 1u);
}

TEST_F(DriverEntryTest, LoadFailsWithoutTheTableNameOrTheTable)
{
    for (const char *api : {"LoadStringW", "mciLoadCommandResource"}) {
        PlatFailCall(api, 1, 0);
        EXPECT_EQ(Send(0, DRV_LOAD), 0) << api;
        EXPECT_EQ(g_commandTableId, MCI_NO_COMMAND_TABLE) << api;
        EXPECT_EQ(Send(0, DRV_FREE), 1);
    }
}

TEST_F(DriverEntryTest, ConfigureIsRefusedWithoutShowingAnything)
{
    HWND parent = MakeWindow();
    DRVCONFIGINFO config{sizeof(DRVCONFIGINFO), TEXT("TAMRIX"), TEXT("scanner")};
    long windows = PlatLiveCount(PLAT_KIND_WINDOW);

    DRVCONFIGINFO wrongSize = config;
    wrongSize.dwDCISize = 16;
    EXPECT_EQ(Send(0, DRV_CONFIGURE, (LPARAM)parent, (LPARAM)&wrongSize), 0);
    EXPECT_EQ(Send(0, DRV_CONFIGURE, 0, (LPARAM)&config), 0);
    EXPECT_EQ(Send(0, DRV_CONFIGURE, (LPARAM)parent, 0), 0);
    // The spin-arrow class cannot be registered: refused the same way.
    PlatFailCall("RegisterClassW", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(Send(0, DRV_CONFIGURE, (LPARAM)parent, (LPARAM)&config), 0);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_WINDOW), windows);
    EXPECT_EQ(Send(0, DRV_QUERYCONFIGURE), 1);
}

class SystemIniTest : public DriverEntryTest
{
protected:
    static std::u16string Read(const WCHAR *section)
    {
        WCHAR buffer[64] = {};
        GetPrivateProfileStringW(section, TEXT("Scanner"), TEXT("<none>"), buffer, 64, TEXT("system.ini"));
        return std::u16string((const char16_t *)buffer);
    }
    tamrix_test::TempDir windir_{true};
};

TEST_F(SystemIniTest, InstallAndRemoveLeaveNoScannerUnderDrivers32)
{
    WritePrivateProfileStringW(TEXT("Drivers32"), TEXT("Scanner"), TEXT("stale.drv"), TEXT("system.ini"));
    // Install stops when the MCI entry cannot be written.
    PlatFailCall("WritePrivateProfileStringW", 1, 0);
    EXPECT_EQ(Send(0, DRV_INSTALL), 0);
    EXPECT_EQ(Read(TEXT("Drivers32")), u"stale.drv");
    PlatClearFaults();

    EXPECT_EQ(Send(0, DRV_INSTALL), 1);
    EXPECT_EQ(Read(TEXT("MCI32")), u"TAMRIX.DLL");
    EXPECT_EQ(Read(TEXT("Drivers32")), u"<none>");

    EXPECT_EQ(Send(0, DRV_REMOVE), 1);
    EXPECT_EQ(Read(TEXT("MCI32")), u"<none>");
    EXPECT_EQ(Read(TEXT("Drivers32")), u"<none>");
}

} // namespace
