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
    struct Case {
        const char *text;
        DWORD iface, id;
    } cases[] = {
        {"Scanner=2\nInterface=3\nID=31\n", IF_GPIB, 2},
        {"Scanner=2\nInterface=3\nID=0\n", IF_GPIB, 0},
        {"Scanner=2\nInterface=3\nID=30\n", IF_GPIB, 30},
        {"Scanner=2\nInterface=2\nID=0\n", IF_RS232C, 1},
        {"Scanner=2\nInterface=2\nID=9\n", IF_RS232C, 9},
        {"Scanner=2\nInterface=2\nID=10\n", IF_RS232C, 1},
        {"Scanner=2\nInterface=1\nID=4\n", IF_SCSI, 0},
        // The ID is judged before the model rules move the interface.
        {"Scanner=1\nInterface=3\nID=25\n", IF_RS232C, 25},
        {"Scanner=1\nInterface=3\nID=0\n", IF_RS232C, 0},
        {"Scanner=3\nInterface=1\nID=0\n", IF_RS232C, 0},
        {"Scanner=1\nInterface=1\nID=0\n", IF_RS232C, 0},
        {"Scanner=3\nInterface=3\nID=5\n", IF_GPIB, 5},
        {"Scanner=4\nInterface=1\nID=0\n", IF_SCSI, 0},
    };
    for (const Case &c : cases) {
        WriteWinIni(c.text);
        DeviceSettings s = Read();
        EXPECT_EQ(s.interfaceType, c.iface) << c.text;
        EXPECT_EQ(s.id, c.id) << c.text;
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
