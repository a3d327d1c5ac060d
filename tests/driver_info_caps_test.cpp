// The info and capability commands, driven through the dispatcher.
#include "driver_fixture.h"

#include <string>

namespace
{

class InfoCapsTest : public DriverTest
{
protected:
    // Capability `item` with wait; the value, or ~0 when refused.
    DWORD Cap(DWORD item, DWORD *result = nullptr)
    {
        MCI_GETDEVCAPS_PARMS caps{0, 0xDEAD, item};
        DWORD r = MciDispatchCommand(1, MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, &caps);
        if (result)
            *result = r;
        return r == MCI_RESOURCE_RETURNED ? caps.dwReturn : ~0u;
    }
};

TEST_F(InfoCapsTest, DimensionsFollowTheTimeFormat)
{
    g_settings = {5, IF_RS232C, 1, 2};
    g_scanParams.resolution = 90;
    const struct {
        DWORD unit, width, length, startX;
    } rows[] = {{UNIT_MILLIMETER, 2159, 2969, 0}, {UNIT_INCH, 850, 1169, 0}, {UNIT_DOT, 765, 1052, 0}};
    for (const auto &row : rows) {
        g_timeFormat = row.unit;
        EXPECT_EQ(Cap(MCI_GETDEVCAPS_MAX_WIDTH), row.width) << row.unit;
        EXPECT_EQ(Cap(MCI_GETDEVCAPS_MAX_LENGTH), row.length) << row.unit;
        EXPECT_EQ(Cap(MCI_GETDEVCAPS_MIN_STARTX), row.startX) << row.unit;
    }
    g_settings.model = 2;
    const DWORD startX[] = {26, 10, 9};
    const DWORD units[] = {UNIT_MILLIMETER, UNIT_INCH, UNIT_DOT};
    for (int i = 0; i < 3; i++) {
        g_timeFormat = units[i];
        EXPECT_EQ(Cap(MCI_GETDEVCAPS_MIN_STARTX), startX[i]);
    }
    g_settings.interfaceType = IF_SCSI;
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_MAX_LENGTH), 90u * 116800 / 10000);
}

TEST_F(InfoCapsTest, PerModelAnswersAndRefusals)
{
    g_settings = {7, IF_GPIB, 2, 2};
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_CAN_STOP), 0u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_MAX_COLORSTEP), 2u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_INTERVAL_COLORSTEP), 0u);
    g_settings.interfaceType = IF_RS232C;
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_CAN_STOP), 1u);
    g_settings.model = 4;
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_CAN_SCAN_COLOR), 1u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_MIN_RESOLUTION), 5u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_INTERVAL_RESOLUTION), 1u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_DEVICE_TYPE), 518u);
    g_settings.model = 6;
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_CAN_SCAN_COLOR), 0u);
    EXPECT_EQ(Cap(MCI_GETDEVCAPS_MAX_RESOLUTION), 600u);

    DWORD result = 0;
    for (DWORD item : {0u, 10u, 0x4000u, 0x4015u}) {
        EXPECT_EQ(Cap(item, &result), ~0u);
        EXPECT_EQ(result, (DWORD)MCIERR_UNSUPPORTED_FUNCTION) << item;
    }
    MCI_GETDEVCAPS_PARMS caps{0, 0, MCI_GETDEVCAPS_CAN_SAVE};
    EXPECT_EQ(MciDispatchCommand(1, MCI_GETDEVCAPS, MCI_WAIT, &caps), (DWORD)MCIERR_MISSING_PARAMETER);
}

TEST_F(InfoCapsTest, NotifiedCapabilityDropsTheReturnBits)
{
    g_settings = {5, IF_RS232C, 1, 2};
    HWND app = MakeWindow();
    MCI_GETDEVCAPS_PARMS caps{(DWORD_PTR)app, 0, MCI_GETDEVCAPS_CAN_SAVE};
    EXPECT_EQ(MciDispatchCommand(g_deviceId, MCI_GETDEVCAPS, MCI_NOTIFY | MCI_GETDEVCAPS_ITEM, &caps), 0u);
    EXPECT_EQ(caps.dwReturn, 1u);
    EXPECT_EQ(TakeNotifications(app), std::vector<UINT>{MCI_NOTIFY_SUCCESSFUL});
}

TEST_F(InfoCapsTest, InfoReportsBytesAndOverflow)
{
    WCHAR buffer[64];
    MCI_INFO_PARMS info{0, buffer, 64};
    ASSERT_EQ(MciDispatchCommand(1, MCI_INFO, MCI_WAIT | MCI_INFO_PRODUCT, &info), 0u);
    const std::u16string name = u"Ｋｏｒｖａｎｅ　イメージスキャナ";
    EXPECT_EQ(std::u16string((const char16_t *)buffer), name);
    EXPECT_EQ(info.dwRetSize, 2 * name.size());

    info.dwRetSize = 8;
    EXPECT_EQ(MciDispatchCommand(1, MCI_INFO, MCI_WAIT | MCI_INFO_PRODUCT, &info), (DWORD)MCIERR_PARAM_OVERFLOW);
    EXPECT_EQ(std::u16string((const char16_t *)buffer), name.substr(0, 7));
    EXPECT_EQ(info.dwRetSize, 14u);

    info.dwRetSize = 0;
    EXPECT_EQ(MciDispatchCommand(1, MCI_INFO, MCI_WAIT | MCI_INFO_PRODUCT, &info), (DWORD)MCIERR_PARAM_OVERFLOW);
    info = {0, nullptr, 64};
    EXPECT_EQ(MciDispatchCommand(1, MCI_INFO, MCI_WAIT | MCI_INFO_PRODUCT, &info), (DWORD)MCIERR_NULL_PARAMETER_BLOCK);
    info = {0, buffer, 64};
    EXPECT_EQ(MciDispatchCommand(1, MCI_INFO, MCI_WAIT, &info), (DWORD)MCIERR_MISSING_PARAMETER);
}

} // namespace
