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

TEST_F(PlatformTest, MoveableBlockKeepsItsHandleAndContentWhenItGrows)
{
    HGLOBAL mem = GlobalAlloc(0x2002, 4);
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
