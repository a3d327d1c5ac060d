// The clipboard of the platform, and the copy and save commands on real
// image slots: what lands on the clipboard, the bitmap file a save writes,
// busy refusals, and clean-up after every failing step.
#include "driver_fixture.h"
#include "display/display.h"
#include "support/image_fixture.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

namespace
{

using Bytes = std::vector<BYTE>;

using ClipboardTest = PlatformTest;

TEST_F(ClipboardTest, OneOpenerAndOwnershipOfTheData)
{
    long blocks = PlatLiveCount(PLAT_KIND_GLOBAL), gdi = PlatLiveCount(PLAT_KIND_GDI);
    ASSERT_TRUE(OpenClipboard(nullptr));
    // Another thread can neither open it nor put data while this one has it.
    EXPECT_EQ(tamrix_test::RunOnPlatformThread(
                  [] { return (DWORD)OpenClipboard(nullptr) * 10 + (SetClipboardData(CF_DIB, nullptr) != nullptr); }),
              0u);
    HGLOBAL first = GlobalAlloc(GHND, 8), second = GlobalAlloc(GHND, 8);
    LOGPALETTE lp{0x300, 1, {{1, 2, 3, 0}}};
    HPALETTE pal = CreatePalette(&lp);
    EXPECT_EQ(SetClipboardData(CF_PALETTE, first), nullptr); // not a palette
    EXPECT_EQ(SetClipboardData(CF_DIB, first), first);
    EXPECT_EQ(SetClipboardData(CF_PALETTE, pal), pal);
    EXPECT_EQ(SetClipboardData(CF_DIB, second), second); // frees `first`
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GLOBAL), blocks + 1);
    ASSERT_TRUE(CloseClipboard());
    EXPECT_TRUE(!CloseClipboard() && GetLastError() == ERROR_CLIPBOARD_NOT_OPEN);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GDI), gdi + 1); // the palette lives on

    // A thread that ends with the clipboard open lets it go; emptying frees
    // what the clipboard held.
    EXPECT_EQ(tamrix_test::RunOnPlatformThread([] { return (DWORD)OpenClipboard(nullptr); }), 1u);
    ASSERT_TRUE(OpenClipboard(nullptr));
    EXPECT_TRUE(EmptyClipboard() && CloseClipboard());
    EXPECT_FALSE(IsClipboardFormatAvailable(CF_PALETTE));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GLOBAL) + PlatLiveCount(PLAT_KIND_GDI), blocks + gdi);
}

class CopySaveTest : public CurrentImageTest
{
protected:
    void SetUp() override
    {
        CurrentImageTest::SetUp();
        threads_ = PlatLiveCount(PLAT_KIND_THREAD);
    }
    void TearDown() override
    {
        // A save thread ends after its result; wait for it before counting.
        for (int i = 0; i < 100000 && PlatLiveCount(PLAT_KIND_THREAD) != threads_; i++)
            Sleep(1);
        PlatResetClipboard();
        g_displayWnd = nullptr;
        CurrentImageTest::TearDown();
    }
    // A scanned 50 x 3 image in the given mode, marked valid.
    static void MakeValidImage(SHORT colorMode, SHORT colorStep)
    {
        MakeImage(colorMode, colorStep, 50, 3);
        g_imageValid = 1;
    }
    Bytes File() { return Bytes(std::istreambuf_iterator<char>(std::ifstream(dir_ / "img.bmp").rdbuf()), {}); }
    static Bytes ImageBits() { return tamrix_test::ReadDib(g_imageDC, g_imageBitmap, g_imageInfo->bmiHeader).bits; }

    DWORD Save(DWORD flags, HWND callback = nullptr)
    {
        std::string s = dir_ / "img.bmp";
        std::copy(s.begin(), s.end(), name_);
        MCI_SAVE_PARMS parms{(DWORD_PTR)callback, name_};
        return MciDispatchCommand(g_deviceId, MCI_SAVE, flags, &parms);
    }
    DWORD Copy() { return MciDispatchCommand(g_deviceId, MCI_COPY, MCI_WAIT, &generic_); }

    tamrix_test::TempDir dir_;
    WCHAR name_[SAVE_FILE_NAME_CHARS] = {};
    MCI_GENERIC_PARMS generic_{0};
    long threads_ = 0;
};

TEST_F(CopySaveTest, CopyPutsTheImageAndItsPalette)
{
    g_displayWnd = MakeWindow();
    // 1-bit grey, 4-level grey (4 own entries in a 16-entry area), 24-bit.
    using Case = std::tuple<SHORT, SHORT, DWORD, DWORD>; // mode, step, table area, palette entries
    for (auto [mode, step, table, entries] : {Case{0, 1, 8, 2}, Case{0, 2, 64, 4}, Case{16, 8, 0, 256}}) {
        SCOPED_TRACE(step);
        MakeValidImage(mode, step);
        ASSERT_EQ(Copy(), 0u);
        EXPECT_EQ(GetClipboardOwner(), g_displayWnd);
        ASSERT_TRUE(OpenClipboard(nullptr));
        HGLOBAL mem = GetClipboardData(CF_DIB);
        HPALETTE pal = (HPALETTE)GetClipboardData(CF_PALETTE);
        ASSERT_EQ(GlobalSize(mem), 40 + table + g_imageBytes);
        const BYTE *clip = (const BYTE *)GlobalLock(mem);
        BITMAPINFOHEADER want = g_imageInfo->bmiHeader;
        want.biClrUsed = 0;
        EXPECT_EQ(std::memcmp(clip, &want, 40), 0);
        EXPECT_EQ(std::memcmp(clip + 40, g_imageInfo->bmiColors, entries == 256 ? 0 : 4 * entries), 0);
        Bytes bits = ImageBits();
        EXPECT_EQ(Bytes(clip + 40 + table, clip + 40 + table + bits.size()), bits);
        GlobalUnlock(mem);

        PALETTEENTRY e[256];
        ASSERT_EQ(GetPaletteEntries(pal, 0, 256, e), entries);
        if (entries == 256)
            EXPECT_EQ(std::vector<int>({e[9].peRed, e[9].peGreen, e[9].peBlue, e[255].peBlue}),
                      std::vector<int>({32, 32, 0, 192}));
        else
            EXPECT_EQ(std::memcmp(e, g_imageInfo->bmiColors, 4 * entries), 0);
        EXPECT_TRUE(CloseClipboard());
    }
}

TEST_F(CopySaveTest, RefusalsAndFailingStepsLeakNothing)
{
    // Right after open: no image a scan has made; then a notified scan.
    EXPECT_EQ(Copy() + Save(MCI_WAIT), 2u * MCIERR_COMMAND_ORDER);
    MakeValidImage(0, 1);
    g_scanBusy = 1;
    EXPECT_EQ(Copy() + Save(MCI_WAIT), 2u * MCIERR_COMMAND_ORDER);
    g_scanBusy = 0;

    const std::tuple<const char *, unsigned, DWORD> faults[] = {
        {"GlobalAlloc", 1, MCIERR_OUT_OF_MEMORY},      {"GlobalAlloc", 2, MCIERR_OUT_OF_MEMORY},
        {"GlobalLock", 1, MCIERR_OUT_OF_MEMORY},       {"GlobalLock", 2, MCIERR_OUT_OF_MEMORY},
        {"GetDIBits", 1, MCIERR_OUT_OF_MEMORY},        {"OpenClipboard", 1, MCIERR_CREATEWINDOW},
        {"SetClipboardData", 1, MCIERR_OUT_OF_MEMORY}, {"SetClipboardData", 2, MCIERR_OUT_OF_MEMORY},
    };
    for (const auto &[api, nth, result] : faults) {
        SCOPED_TRACE(::testing::Message() << api << " " << nth);
        tamrix_test::LiveCounts before = tamrix_test::SnapshotLiveCounts();
        PlatFailCall(api, nth, 0);
        EXPECT_EQ(Copy(), result);
        PlatClearFaults();
        // Only a failed put leaves the clipboard open (to this thread).
        EXPECT_EQ(CloseClipboard(), std::string(api) == "SetClipboardData");
        PlatResetClipboard();
        EXPECT_EQ(tamrix_test::LiveCountDifferences(before), "");
    }
    // A save whose thread cannot be made, and one whose file cannot be made.
    PlatFailCall("CreateThread", 1, 0);
    EXPECT_EQ(Save(MCI_WAIT), (DWORD)MCIERR_OUT_OF_MEMORY);
    PlatFailAlways("CreateFileW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(Save(MCI_WAIT), (DWORD)MCIERR_FILENAME_REQUIRED);
}

TEST_F(CopySaveTest, SaveWithWaitAndWithNotify)
{
    MakeValidImage(0, 1);
    ASSERT_EQ(Save(MCI_WAIT), 0u);
    Bytes f = File(), bits = ImageBits();
    ASSERT_EQ(f.size(), 62 + bits.size());
    EXPECT_EQ(Bytes(f.begin() + 62, f.end()), bits);

    // Notified: back at once; a second save is refused until the timer has
    // reported the first.
    std::remove((dir_ / "img.bmp").c_str());
    HWND app = MakeWindow();
    ASSERT_EQ(Save(MCI_NOTIFY, app), 0u);
    EXPECT_EQ(Save(MCI_NOTIFY, app), (DWORD)MCIERR_COMMAND_ORDER);
    std::vector<UINT> codes;
    for (int tick = 0; tick < 10 && codes.empty(); tick++) {
        RunOneTick();
        codes = TakeNotifications(app);
    }
    EXPECT_EQ(codes, std::vector<UINT>{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_EQ(g_saveBusy + g_timerActive, 0u);
    EXPECT_EQ(File(), f);
}

} // namespace
