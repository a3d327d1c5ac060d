// The settings store: reading win.ini's "TAMRIX" section with its defaults,
// ranges and model rules, and writing it back.
#include "driver_fixture.h"

#include "config/settings.h"

#include <fstream>
#include <string>

namespace
{

class SettingsTest : public DriverTest
{
protected:
    // Replaces win.ini with `section` as the body of [TAMRIX].
    void WriteWinIni(const std::string &section)
    {
        std::ofstream(windir_ / "win.ini") << "[Other]\nScanner=3\n[TAMRIX]\n" << section;
    }
    DeviceSettings Read()
    {
        DeviceSettings s;
        memset(&s, 0xAB, sizeof s);
        CfgReadSettings(nullptr, &s);
        return s;
    }
    tamrix_test::TempDir windir_{true};
};

void ExpectSettings(const DeviceSettings &s, DWORD model, DWORD iface, DWORD id, DWORD baud)
{
    EXPECT_EQ(s.model, model);
    EXPECT_EQ(s.interfaceType, iface);
    EXPECT_EQ(s.id, id);
    EXPECT_EQ(s.baudIndex, baud);
}

TEST_F(SettingsTest, MissingOrBadValuesReadAsTheDefaults)
{
    ExpectSettings(Read(), 5, IF_RS232C, 1, 2); // no win.ini at all
    for (const char *model : {"7", "0", "-1", "abc"}) {
        WriteWinIni(std::string("Scanner=") + model + "\nInterface=9\nBaudrate=4\n");
        ExpectSettings(Read(), 5, IF_RS232C, 1, 2);
    }
    WriteWinIni("Scanner=6\nInterface=1\nID=0\nBaudrate=0\n");
    ExpectSettings(Read(), 6, IF_SCSI, 0, 2);
}

TEST_F(SettingsTest, IdRangeFollowsTheInterfaceAsStored)
{
    // Scanner, Interface and ID as stored; interface and ID read back. The
    // ID is judged before the model rules move the interface (models 1, 3).
    const DWORD cases[][5] = {
        {2, 3, 31, IF_GPIB, 2},  {2, 3, 0, IF_GPIB, 0},    {2, 3, 30, IF_GPIB, 30}, {2, 2, 0, IF_RS232C, 1},
        {2, 2, 9, IF_RS232C, 9}, {2, 2, 10, IF_RS232C, 1}, {2, 1, 4, IF_SCSI, 0},   {1, 3, 25, IF_RS232C, 25},
        {1, 3, 0, IF_RS232C, 0}, {3, 1, 0, IF_RS232C, 0},  {1, 1, 0, IF_RS232C, 0}, {3, 3, 5, IF_GPIB, 5},
        {4, 1, 0, IF_SCSI, 0},
    };
    for (const auto &c : cases) {
        std::string text = "Scanner=" + std::to_string(c[0]) + "\nInterface=" + std::to_string(c[1]) +
                           "\nID=" + std::to_string(c[2]) + "\n";
        WriteWinIni(text);
        DeviceSettings s = Read();
        EXPECT_EQ(s.interfaceType, c[3]) << text;
        EXPECT_EQ(s.id, c[4]) << text;
    }
}

TEST_F(SettingsTest, WriteThenReadRoundTrips)
{
    const DeviceSettings records[] = {
        {2, IF_GPIB, 30, 1}, {6, IF_SCSI, 0, 3}, {1, IF_RS232C, 9, 2}, {4, IF_GPIB, 0, 0}};
    for (const DeviceSettings &r : records) {
        EXPECT_TRUE(CfgWriteSettings(nullptr, &r));
        DeviceSettings back = Read();
        ExpectSettings(back, r.model, r.interfaceType, r.id, r.baudIndex == 0 ? 2 : r.baudIndex);
    }
    WCHAR text[16] = {};
    GetProfileStringW(TEXT("TAMRIX"), TEXT("ID"), TEXT(""), text, 16);
    EXPECT_EQ(std::u16string((const char16_t *)text), u"0");
}

} // namespace
