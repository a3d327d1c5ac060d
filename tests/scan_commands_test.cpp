// The scan commands' own rules, before any scanner traffic: stop, set and
// status, and what scanread and scanmode refuse without changing anything.
#include "driver_fixture.h"

#include "device/device.h"
#include "image/image.h"

namespace
{

class ScanCommandTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        g_settings = {2, IF_RS232C, 1, 2};
        ImgInitScanParams(2);
        g_timeFormat = UNIT_DOT;
    }
    static DWORD Status(DWORD item, DWORD_PTR *value, DWORD flags = MCI_WAIT | MCI_STATUS_ITEM)
    {
        MCI_STATUS_PARMS p{0, 0xDEAD, item, 0};
        DWORD rc = MciDispatchCommand(g_deviceId, MCI_STATUS, flags, &p);
        *value = p.dwReturn;
        return rc;
    }
    static DWORD SetTimeFormat(DWORD format, DWORD flags = MCI_WAIT | MCI_SET_TIME_FORMAT)
    {
        MCI_SET_PARMS p{0, format, 0};
        return MciDispatchCommand(g_deviceId, MCI_SET, flags, &p);
    }
};

TEST_F(ScanCommandTest, StopSetAndStatusRules)
{
    MCI_GENERIC_PARMS stop{0};
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop), 0u) << "nothing running";
    g_scanBusy = 1; // a notified scan that has not started (no scanner traffic)
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop), 0u);
    g_settings.model = 7;
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop), (DWORD)MCIERR_UNSUPPORTED_FUNCTION);
    g_settings.model = 2;

    // While a notified scan is pending the mode is "scanning" and the set
    // command is refused; the scanner is not asked (no line is open).
    DWORD_PTR value;
    EXPECT_EQ(Status(MCI_STATUS_SCANNER, &value), 0u);
    EXPECT_EQ(value, (DWORD_PTR)SCANNER_MODE_SCANNING);
    EXPECT_EQ(Status(MCI_STATUS_READY, &value), 0u);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(SetTimeFormat(UNIT_INCH), (DWORD)MCIERR_COMMAND_ORDER);
    g_scanBusy = 0;

    EXPECT_EQ(Status(MCI_STATUS_MODE, &value), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(Status(MCI_STATUS_READY, &value, MCI_WAIT), (DWORD)MCIERR_MISSING_PARAMETER);

    EXPECT_EQ(SetTimeFormat(UNIT_INCH, MCI_WAIT), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(SetTimeFormat(0x4004), (DWORD)MCIERR_BAD_TIME_FORMAT);
    EXPECT_EQ(g_timeFormat, (DWORD)UNIT_DOT);
    EXPECT_EQ(SetTimeFormat(UNIT_MILLIMETER), 0u);
    EXPECT_EQ(g_timeFormat, (DWORD)UNIT_MILLIMETER);
}

TEST_F(ScanCommandTest, RefusedScanreadAndScanmodeChangeNothing)
{
    const ScanParams before = g_scanParams;
    const ScanRect rectBefore = g_scanRect;
    ScanReadParms read{0, {0, 0, 30000, 30000}};
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANREAD, MCI_WAIT | MCI_SCANREAD_RECT, &read),
              (DWORD)MCIERR_OUTOFRANGE);
    g_saveBusy = 1;
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANREAD, MCI_WAIT, &read), (DWORD)MCIERR_COMMAND_ORDER);
    g_saveBusy = 0;

    ScanModeParms mode{0, 95, 0, 16, 0};
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANMODE, MCI_WAIT, &mode), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(
        MciDispatchCommand(g_deviceId, MCI_SCANMODE, MCI_WAIT | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_HALFTONE, &mode),
        (DWORD)MCIERR_FLAGS_NOT_COMPATIBLE);
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANMODE, MCI_WAIT | MCI_SCANMODE_RESOLUTION, &mode),
              (DWORD)MCIERR_OUTOFRANGE)
        << "95 dpi is not a step of model 2";
    g_scanBusy = 1;
    mode.resolution = 100;
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANMODE, MCI_WAIT | MCI_SCANMODE_RESOLUTION, &mode),
              (DWORD)MCIERR_COMMAND_ORDER);
    g_scanBusy = 0;
    EXPECT_EQ(memcmp(&g_scanParams, &before, sizeof before), 0);
    EXPECT_EQ(memcmp(&g_scanRect, &rectBefore, sizeof rectBefore), 0);

    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_SCANMODE, MCI_WAIT | MCI_SCANMODE_RESOLUTION, &mode), 0u);
    EXPECT_EQ(g_scanParams.resolution, 100);
    EXPECT_EQ(g_savedScanParams.resolution, before.resolution);
}

} // namespace
