// Profile files: Windows' INI rules on real files in a temporary Windows
// directory.
#include "support/platform_fixture.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace
{

class ProfileTest : public PlatformTest
{
protected:
    void Put(const std::string &file, const std::string &text)
    {
        std::filesystem::create_directories(dir_);
        std::ofstream(dir_ + "/" + file, std::ios::binary) << text;
    }
    std::string Get(const std::string &file)
    {
        std::ifstream f(dir_ + "/" + file, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
    static std::u16string String(LPCWSTR app, LPCWSTR key, LPCWSTR def = u"<none>", DWORD size = 64,
                                 LPCWSTR file = u"test.ini")
    {
        WCHAR buf[64];
        DWORD n = GetPrivateProfileStringW(app, key, def, buf, size, file);
        return std::u16string(buf, n);
    }
    tamrix_test::TempDir root_{true, "windows"}; // created by the first write
    const std::string dir_ = root_ / "windows";
};

TEST_F(ProfileTest, IntegersFollowWindowsParsing)
{
    Put("win.ini", "[TAMRIX]\nA=12abc\nB=abc\nC=-3\nD =  42  \nE=+7\nF=\n[Other]\nG=5\n");
    struct Case {
        LPCWSTR app, key;
        INT def;
        UINT want;
    };
    // Then a missing key, a missing section, a key of another section, and
    // names in another case.
    for (const Case &c : {Case{u"TAMRIX", u"A", 9, 12},
                          {u"TAMRIX", u"B", 9, 0},
                          {u"TAMRIX", u"C", 9, UINT(-3)},
                          {u"TAMRIX", u"D", 9, 42},
                          {u"TAMRIX", u"E", 9, 7},
                          {u"TAMRIX", u"Z", 5, 5},
                          {u"Nothing", u"A", -1, UINT(-1)},
                          {u"TAMRIX", u"G", 2, 2},
                          {u"tamrix", u"a", 9, 12}})
        EXPECT_EQ(GetProfileIntW(c.app, c.key, c.def), c.want) << char(c.app[0]) << "/" << char(c.key[0]);
    EXPECT_EQ(GetPrivateProfileIntW(u"OTHER", u"g", 0, u"WIN.INI"), 5u);

    PlatFailCall("GetProfileIntW", 1, 0);
    EXPECT_EQ(GetProfileIntW(u"TAMRIX", u"A", 77), 77u);
}

TEST_F(ProfileTest, StringsDefaultsAndTruncation)
{
    Put("test.ini", "; comment=1\n[S]\n  Key  =  some value  \nQ=\"quoted\"\n[T]\nx=1\ny=2\n");
    EXPECT_EQ(String(u"s", u"KEY"), u"some value");
    EXPECT_EQ(String(u"S", u"Q"), u"quoted");
    EXPECT_EQ(String(u"S", u"missing", u"dflt"), u"dflt");
    EXPECT_EQ(String(u"S", u"missing", nullptr), u"");
    EXPECT_EQ(String(u"S", u"; comment"), u"<none>");
    // At most size - 1 characters.
    EXPECT_EQ(String(u"S", u"Key", nullptr, 5), u"some");
    // Key lists: NUL-separated with a final extra NUL.
    EXPECT_EQ(String(u"T", nullptr), std::u16string(u"x\0y\0", 4));
    EXPECT_EQ(String(nullptr, nullptr), std::u16string(u"S\0T\0", 4));
}

TEST_F(ProfileTest, WritesKeepEverythingElseInPlace)
{
    Put("system.ini", "; system settings\r\n[boot]\r\nshell=progman.exe\r\n\r\n[MCI32]\r\nCDAudio=mcicda.dll\r\n"
                      "scanner = OLD.DLL\r\nWaveAudio=mciwave.dll\r\n\r\n[Drivers32]\r\nScanner=TAMRIX.DLL\r\n");
    // Replace in place (with the caller's spelling of the key).
    EXPECT_TRUE(WritePrivateProfileStringW(u"mci32", u"Scanner", u"TAMRIX.DLL", u"system.ini"));
    // Delete a key; delete a missing key; add a key to an existing section.
    EXPECT_TRUE(WritePrivateProfileStringW(u"Drivers32", u"SCANNER", nullptr, u"system.ini"));
    EXPECT_TRUE(WritePrivateProfileStringW(u"Drivers32", u"nothing", nullptr, u"system.ini"));
    EXPECT_TRUE(WritePrivateProfileStringW(u"boot", u"drivers", u" mmsystem.dll ", u"SYSTEM.INI"));
    EXPECT_EQ(Get("system.ini"), "; system settings\r\n[boot]\r\nshell=progman.exe\r\ndrivers=mmsystem.dll\r\n\r\n"
                                 "[MCI32]\r\nCDAudio=mcicda.dll\r\nScanner=TAMRIX.DLL\r\nWaveAudio=mciwave.dll\r\n\r\n"
                                 "[Drivers32]\r\n");
    // Delete a whole section; add a new one at the end.
    EXPECT_TRUE(WritePrivateProfileStringW(u"boot", nullptr, nullptr, u"system.ini"));
    EXPECT_TRUE(WritePrivateProfileStringW(u"New", u"k", u"v", u"system.ini"));
    EXPECT_EQ(Get("system.ini"), "; system settings\r\n[MCI32]\r\nCDAudio=mcicda.dll\r\nScanner=TAMRIX.DLL\r\n"
                                 "WaveAudio=mciwave.dll\r\n\r\n[Drivers32]\r\n\r\n[New]\r\nk=v\r\n");
    EXPECT_EQ(GetPrivateProfileIntW(u"boot", u"drivers", 3, u"system.ini"), 3u);
}

TEST_F(ProfileTest, WindowsDirectoryIsCreatedOnFirstWrite)
{
    ASSERT_FALSE(std::filesystem::exists(dir_));
    EXPECT_EQ(GetProfileIntW(u"TAMRIX", u"Scanner", 5), 5u);
    EXPECT_FALSE(std::filesystem::exists(dir_)) << "a read created the directory";
    EXPECT_TRUE(WriteProfileStringW(u"TAMRIX", u"Scanner", u"3"));
    EXPECT_EQ(Get("win.ini"), "[TAMRIX]\r\nScanner=3\r\n");
    EXPECT_EQ(GetProfileIntW(u"TAMRIX", u"Scanner", 5), 3u);

    // Failed writes change nothing.
    PlatFailCall("WriteProfileStringW", 1, 0);
    EXPECT_FALSE(WriteProfileStringW(u"TAMRIX", u"Scanner", u"4"));
    PlatFailCall("WritePrivateProfileStringW", 1, ERROR_WRITE_FAULT);
    EXPECT_FALSE(WritePrivateProfileStringW(u"TAMRIX", u"Scanner", u"4", u"win.ini"));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_WRITE_FAULT));
    EXPECT_EQ(GetProfileIntW(u"TAMRIX", u"Scanner", 5), 3u);

    WCHAR buf[512];
    UINT n = GetWindowsDirectoryW(buf, 512);
    EXPECT_EQ(std::string(buf, buf + n), dir_);
    EXPECT_EQ(GetWindowsDirectoryW(buf, n), n + 1) << "too small a buffer answers the size needed";
    EXPECT_EQ(std::string(PlatGetWindowsDirectory()), dir_);
}

TEST_F(ProfileTest, DefaultWindowsDirectoryComesFromTheEnvironment)
{
    const char *old = std::getenv("TAMRIX_WINDIR");
    std::string saved = old ? old : "";
    setenv("TAMRIX_WINDIR", (root_ / "env").c_str(), 1);
    PlatSetWindowsDirectory(nullptr);
    EXPECT_EQ(std::string(PlatGetWindowsDirectory()), root_ / "env");
    EXPECT_TRUE(WriteProfileStringW(u"A", u"b", u"c"));
    EXPECT_TRUE(std::filesystem::exists(root_ / "env/win.ini"));
    if (old)
        setenv("TAMRIX_WINDIR", saved.c_str(), 1);
    else
        unsetenv("TAMRIX_WINDIR");
}

} // namespace
