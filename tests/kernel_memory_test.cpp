// KERNEL32 global memory and string helpers.
#include "support/platform_fixture.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

TEST_F(PlatformTest, MoveableBlockLockCountAndFree)
{
    HGLOBAL mem = GlobalAlloc(0x0142, 100);
    ASSERT_NE(mem, nullptr);
    EXPECT_EQ(GlobalSize(mem), 100u);
    auto *p = static_cast<BYTE *>(GlobalLock(mem));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::count(p, p + 100, 0), 100) << "zero-initialised";
    EXPECT_EQ(GlobalLock(mem), p);
    EXPECT_TRUE(GlobalUnlock(mem)) << "still locked once";
    SetLastError(1234);
    EXPECT_FALSE(GlobalUnlock(mem));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NO_ERROR));
    EXPECT_FALSE(GlobalUnlock(mem));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_LOCKED));
    EXPECT_EQ(GlobalFree(mem), nullptr);
    SetLastError(0);
    EXPECT_EQ(GlobalFree(mem), mem) << "second free fails";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(GlobalLock(mem), nullptr);
    EXPECT_EQ(GlobalSize(mem), 0u);
}

TEST_F(PlatformTest, FixedBlockIsItsOwnPointerAndReAllocRules)
{
    HGLOBAL mem = GlobalAlloc(GPTR, 8);
    ASSERT_NE(mem, nullptr);
    EXPECT_EQ(GlobalLock(mem), mem);
    SetLastError(1234);
    EXPECT_FALSE(GlobalUnlock(mem));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NO_ERROR));
    std::memcpy(mem, "abcdefg", 8);
    EXPECT_EQ(GlobalReAlloc(mem, 1 << 20, 0), nullptr) << "a fixed block may not move without GMEM_MOVEABLE";
    HGLOBAL grown = GlobalReAlloc(mem, 1 << 20, GMEM_MOVEABLE | GMEM_ZEROINIT);
    ASSERT_NE(grown, nullptr);
    EXPECT_STREQ(static_cast<char *>(GlobalLock(grown)), "abcdefg");
    EXPECT_EQ(static_cast<BYTE *>(grown)[(1 << 20) - 1], 0);
    EXPECT_EQ(GlobalSize(grown), static_cast<SIZE_T>(1 << 20));
    EXPECT_EQ(GlobalFree(grown), nullptr);

    // A moveable block keeps its handle and content when it grows.
    mem = GlobalAlloc(0x2002, 4);
    ASSERT_NE(mem, nullptr);
    std::memcpy(GlobalLock(mem), "xyz", 4);
    GlobalUnlock(mem);
    EXPECT_EQ(GlobalReAlloc(mem, 4096, GMEM_ZEROINIT), mem);
    auto *p = static_cast<char *>(GlobalLock(mem));
    EXPECT_STREQ(p, "xyz");
    EXPECT_EQ(p[4095], 0);
    GlobalUnlock(mem);
    EXPECT_EQ(GlobalAlloc(0x8000, 4), nullptr) << "unknown flag";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    GlobalFree(mem);
}

TEST_F(PlatformTest, WsprintfConversions)
{
    struct Case {
        std::u16string expected;
        int (*format)(LPWSTR);
    };
    const Case cases[] = {
        {u"-5|42", [](LPWSTR o) { return wsprintfW(o, u"%d|%i", -5, 42); }},
        {u"   42|42   |-0042", [](LPWSTR o) { return wsprintfW(o, u"%5d|%-5d|%05d", 42, 42, -42); }},
        {u"4294967295", [](LPWSTR o) { return wsprintfW(o, u"%u", 0xFFFFFFFFu); }},
        {u"ff|00AB|0x1f", [](LPWSTR o) { return wsprintfW(o, u"%x|%04X|%#x", 255u, 0xABu, 0x1Fu); }},
        {u"[走査]  ab|AB", [](LPWSTR o) { return wsprintfW(o, u"[%s]%4.2s|%ls", u"走査", u"abc", u"AB"); }},
        {u"%z5", [](LPWSTR o) { return wsprintfW(o, u"%%%c%ld", u'z', 5); }},
        {u"-2147483648", [](LPWSTR o) { return wsprintfW(o, u"%d", INT32_MIN); }},
    };
    for (const Case &c : cases) {
        WCHAR out[64];
        std::memset(out, 0xFF, sizeof out);
        int n = c.format(out);
        EXPECT_EQ(std::u16string(out), c.expected);
        EXPECT_EQ(n, static_cast<int>(c.expected.size()));
    }
}

TEST_F(PlatformTest, WideStringHelpers)
{
    WCHAR buf[16];
    EXPECT_EQ(lstrcpynW(buf, u"scanner", 5), buf);
    EXPECT_EQ(std::u16string(buf), u"scan");
    lstrcpyW(buf, u"KS-");
    lstrcatW(buf, u"610");
    EXPECT_EQ(std::u16string(buf), u"KS-610");
    EXPECT_EQ(lstrlenW(buf), 6);
    EXPECT_EQ(lstrlenW(nullptr), 0);
    EXPECT_EQ(std::vector<int>({lstrcmpW(u"abc", u"abd"), lstrcmpW(u"abc", u"ab"), lstrcmpiW(u"TAMRIX", u"tamrix"),
                                lstrcmpiW(u"Scanner", u"scanners")}),
              std::vector<int>({-1, 1, 0, -1}));
    EXPECT_NE(lstrcmpW(u"TAMRIX", u"tamrix"), 0);
}

TEST_F(PlatformTest, CodePageConversionsRoundTripUtf8)
{
    const char *utf8 = "走査 KS";
    int needed = MultiByteToWideChar(CP_ACP, 0, utf8, -1, nullptr, 0);
    EXPECT_EQ(needed, 6) << "five characters and the terminator";
    WCHAR wide[8];
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, -1, wide, 3), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    ASSERT_EQ(MultiByteToWideChar(CP_UTF8, 0, utf8, -1, wide, 8), 6);
    EXPECT_EQ(std::u16string(wide), u"走査 KS");

    char back[16];
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr), 10);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, 2, back, 16, nullptr, nullptr), 6) << "no terminator";
    ASSERT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, back, 16, nullptr, nullptr), 10);
    EXPECT_STREQ(back, utf8);
    EXPECT_EQ(MultiByteToWideChar(932, 0, utf8, -1, wide, 8), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}
