// Host GDI: DIB sections, blits through colour tables, DIB transfers, object
// selection rules, injected failures.
#include "support/platform_fixture.h"

#include <cstring>
#include <functional>
#include <vector>

namespace
{

const COLORREF kWhite = RGB(255, 255, 255), kBlack = RGB(0, 0, 0), kRed = RGB(255, 0, 0), kGreen = RGB(0, 255, 0),
               kBlue = RGB(0, 0, 255);

// A BITMAPINFO with room for a full 256-entry table.
struct Info {
    BITMAPINFOHEADER h{};
    RGBQUAD table[256]{};
    Info(int width, int height, int bpp, std::vector<COLORREF> colors = {}, DWORD clrUsed = 0)
    {
        h.biSize = sizeof(BITMAPINFOHEADER);
        h.biWidth = width;
        h.biHeight = height;
        h.biPlanes = 1;
        h.biBitCount = static_cast<WORD>(bpp);
        h.biClrUsed = clrUsed;
        for (size_t i = 0; i < colors.size(); ++i)
            table[i] = RGBQUAD{GetBValue(colors[i]), GetGValue(colors[i]), GetRValue(colors[i]), 0};
    }
    BITMAPINFO *bmi() { return reinterpret_cast<BITMAPINFO *>(this); }
};

int Stride(int width, int bpp)
{
    return ((width * bpp + 31) / 32) * 4;
}

class GdiTest : public PlatformTest
{
protected:
    // A DIB section selected into a fresh memory DC; both freed in TearDown.
    HDC Dib(Info info, void **bits = nullptr)
    {
        void *p = nullptr;
        HBITMAP bmp = CreateDIBSection(nullptr, info.bmi(), DIB_RGB_COLORS, &p, nullptr, 0);
        EXPECT_NE(bmp, nullptr);
        HDC dc = CreateCompatibleDC(nullptr);
        HGDIOBJ old = SelectObject(dc, bmp);
        EXPECT_NE(old, nullptr);
        made_.push_back({dc, bmp, old});
        if (bits)
            *bits = p;
        return dc;
    }
    HBITMAP BitmapOf(HDC dc) { return static_cast<HBITMAP>(GetCurrentObject(dc, OBJ_BITMAP)); }
    void TearDown() override
    {
        for (auto it = made_.rbegin(); it != made_.rend(); ++it) {
            SelectObject(it->dc, it->old);
            EXPECT_TRUE(DeleteObject(it->bmp));
            EXPECT_TRUE(DeleteDC(it->dc));
        }
        PlatformTest::TearDown();
    }
    struct Made {
        HDC dc;
        HBITMAP bmp;
        HGDIOBJ old;
    };
    std::vector<Made> made_;
};

TEST_F(GdiTest, DibSectionsOfEachDepthHaveDibLayoutAndTheirTable)
{
    for (int bpp : {1, 4, 8, 24}) {
        SCOPED_TRACE(bpp);
        void *bits = nullptr;
        HDC dc = Dib(Info(13, 3, bpp, {kRed, kGreen, kBlue}), &bits);
        DIBSECTION ds{};
        ASSERT_EQ(GetObjectW(BitmapOf(dc), sizeof ds, &ds), int(sizeof ds));
        EXPECT_EQ(ds.dsBm.bmWidthBytes, Stride(13, bpp));
        EXPECT_EQ(ds.dsBm.bmBits, bits);
        EXPECT_EQ(ds.dsBm.bmBitsPixel, bpp);
        EXPECT_EQ(ds.dsBmih.biSizeImage, DWORD(Stride(13, bpp) * 3));
        // The first row in memory is the bottom row of a bottom-up DIB.
        auto *b = static_cast<uint8_t *>(bits);
        if (bpp == 24) {
            b[0] = 0x30, b[1] = 0x20, b[2] = 0x10;
            EXPECT_EQ(GetPixel(dc, 0, 2), RGB(0x10, 0x20, 0x30));
        } else {
            b[0] = static_cast<uint8_t>(bpp == 8 ? 2 : bpp == 4 ? 0x20 : 0x80);
            EXPECT_EQ(GetPixel(dc, 0, 2), bpp == 1 ? kGreen : kBlue);
        }
        EXPECT_EQ(GetPixel(dc, 0, 0), bpp == 24 ? kBlack : kRed);
        if (bpp <= 8) {
            RGBQUAD t[256];
            EXPECT_EQ(GetDIBColorTable(dc, 0, 256, t), UINT(1u << bpp)); // biClrUsed 0: the full table
            EXPECT_EQ(t[1].rgbGreen, 255);
        }
    }
    // Top-down: the first row in memory is the top row; biClrUsed limits the table.
    void *bits = nullptr;
    HDC dc = Dib(Info(8, -2, 8, {kRed, kGreen, kBlue, kWhite}, 4), &bits);
    static_cast<uint8_t *>(bits)[0] = 3;
    EXPECT_EQ(GetPixel(dc, 0, 0), kWhite);
    RGBQUAD t[256];
    EXPECT_EQ(GetDIBColorTable(dc, 0, 256, t), 4u);
}

TEST_F(GdiTest, BltBetweenDepthsGoesThroughTheColourTables)
{
    HDC rgb = Dib(Info(4, 1, 24));
    const COLORREF row[4] = {kRed, RGB(250, 10, 10), kWhite, RGB(20, 20, 20)};
    for (int x = 0; x < 4; ++x)
        SetPixel(rgb, x, 0, row[x]);

    // To 4 bpp: nearest entry of the destination's table.
    void *bits4 = nullptr;
    HDC pal4 = Dib(Info(4, 1, 4, {kBlack, kWhite, kRed, kGreen}, 4), &bits4);
    ASSERT_TRUE(BitBlt(pal4, 0, 0, 4, 1, rgb, 0, 0, SRCCOPY));
    auto *b4 = static_cast<uint8_t *>(bits4);
    EXPECT_EQ(b4[0], 0x22); // red, near-red
    EXPECT_EQ(b4[1], 0x10); // white, near-black

    // 1 bpp with white at index 0 (a scanned image's table).
    void *bits1 = nullptr;
    HDC mono = Dib(Info(4, 1, 1, {kWhite, kBlack}), &bits1);
    ASSERT_TRUE(BitBlt(mono, 0, 0, 4, 1, pal4, 0, 0, SRCCOPY));
    EXPECT_EQ(static_cast<uint8_t *>(bits1)[0], 0xD0); // red→black, red→black, white, black

    // Back up to 24 bpp through the source table.
    HDC back = Dib(Info(4, 1, 24));
    ASSERT_TRUE(BitBlt(back, 0, 0, 4, 1, mono, 0, 0, SRCCOPY));
    EXPECT_EQ(GetPixel(back, 0, 0), kBlack);
    EXPECT_EQ(GetPixel(back, 2, 0), kWhite);
}

TEST_F(GdiTest, FillsAndClipping)
{
    HDC mono = Dib(Info(40, 2, 1, {kWhite, kBlack}));
    ASSERT_TRUE(BitBlt(mono, 0, 0, 40, 2, nullptr, 0, 0, BLACKNESS));
    ASSERT_TRUE(BitBlt(mono, 0, 0, 40, 2, nullptr, 0, 0, WHITENESS));
    EXPECT_EQ(GetPixel(mono, 39, 1), kWhite); // white, whatever its index
    // Fills that start and end inside a byte leave the pixels beside them.
    ASSERT_TRUE(BitBlt(mono, 3, 0, 34, 1, nullptr, 0, 0, BLACKNESS));
    HDC nibbles = Dib(Info(9, 1, 4, {kBlack, kWhite}));
    ASSERT_TRUE(BitBlt(nibbles, 1, 0, 7, 1, nullptr, 0, 0, WHITENESS));
    for (int x : {2, 3, 36, 37}) {
        EXPECT_EQ(GetPixel(mono, x, 0), x == 2 || x == 37 ? kWhite : kBlack) << x;
        EXPECT_EQ(GetPixel(mono, x, 1), kWhite) << x;
    }
    for (int x = 0; x < 9; ++x)
        EXPECT_EQ(GetPixel(nibbles, x, 0), x == 0 || x == 8 ? kBlack : kWhite) << x;
    void *bits = nullptr;
    HDC dst = Dib(Info(3, 1, 24), &bits);
    HDC src = Dib(Info(3, 1, 24));
    ASSERT_TRUE(BitBlt(dst, 1, 0, 5, 5, nullptr, 0, 0, WHITENESS)); // clipped to the bitmap
    EXPECT_EQ(GetPixel(dst, 2, 0), kWhite);
    // A source partly outside its bitmap copies only what exists.
    SetPixel(src, 2, 0, kRed);
    ASSERT_TRUE(BitBlt(dst, 0, 0, 3, 1, src, 2, 0, SRCCOPY));
    EXPECT_EQ(GetPixel(dst, 0, 0), kRed);
    EXPECT_EQ(GetPixel(dst, 1, 0), kWhite);
    EXPECT_EQ(static_cast<uint8_t *>(bits)[3 * 3], 0);             // row padding untouched
    EXPECT_FALSE(BitBlt(dst, 0, 0, 1, 1, src, 0, 0, 0x00AA0029u)); // unsupported operation
}

TEST_F(GdiTest, StretchBltScalesMirrorsAndKeepsLoneBlackPixels)
{
    HDC src = Dib(Info(4, 1, 24));
    const COLORREF row[4] = {kRed, kGreen, kBlue, kWhite};
    for (int x = 0; x < 4; ++x)
        SetPixel(src, x, 0, row[x]);
    HDC wide = Dib(Info(8, 1, 24));
    ASSERT_TRUE(StretchBlt(wide, 0, 0, 8, 1, src, 0, 0, 4, 1, SRCCOPY));
    for (int x = 0; x < 8; ++x)
        EXPECT_EQ(GetPixel(wide, x, 0), row[x / 2]) << x;
    HDC mirror = Dib(Info(4, 1, 24));
    ASSERT_TRUE(StretchBlt(mirror, 4, 0, -4, 1, src, 0, 0, 4, 1, SRCCOPY));
    EXPECT_EQ(GetPixel(mirror, 0, 0), kWhite);
    EXPECT_EQ(GetPixel(mirror, 3, 0), kRed);

    // Shrinking 1 bpp 8 → 2: BLACKONWHITE (the default) keeps a lone black
    // pixel.
    HDC line = Dib(Info(8, 1, 1, {kWhite, kBlack}));
    ASSERT_TRUE(BitBlt(line, 0, 0, 8, 1, nullptr, 0, 0, WHITENESS));
    SetPixel(line, 0, 0, kBlack);
    HDC small = Dib(Info(2, 1, 1, {kWhite, kBlack}));
    EXPECT_EQ(GetStretchBltMode(small), BLACKONWHITE);
    ASSERT_TRUE(StretchBlt(small, 0, 0, 2, 1, line, 0, 0, 8, 1, SRCCOPY));
    EXPECT_EQ(GetPixel(small, 0, 0), kBlack);
    // Colour and indexed pixels merge by their colours (red AND blue is
    // black, whatever their indices) over every source row a destination row
    // takes; COLORONCOLOR samples one pixel of each block.
    for (int bpp : {24, 8}) {
        const std::vector<COLORREF> table = {kWhite, kBlack, kRed, kBlue};
        HDC colour = Dib(Info(8, 2, bpp, table));
        ASSERT_TRUE(BitBlt(colour, 0, 0, 8, 2, nullptr, 0, 0, WHITENESS));
        SetPixel(colour, 2, 0, kRed);
        SetPixel(colour, 1, 1, kBlue);
        SetPixel(colour, 6, 1, kRed);
        HDC smallColour = Dib(Info(2, 1, bpp, table));
        ASSERT_TRUE(StretchBlt(smallColour, 0, 0, 2, 1, colour, 0, 0, 8, 2, SRCCOPY));
        EXPECT_EQ(GetPixel(smallColour, 0, 0), kBlack) << bpp;
        EXPECT_EQ(GetPixel(smallColour, 1, 0), kRed) << bpp;
        SetStretchBltMode(smallColour, COLORONCOLOR);
        ASSERT_TRUE(StretchBlt(smallColour, 0, 0, 2, 1, colour, 0, 0, 8, 2, SRCCOPY));
        EXPECT_EQ(GetPixel(smallColour, 0, 0), kWhite) << bpp;
        EXPECT_EQ(GetPixel(smallColour, 1, 0), kRed) << bpp;
    }
}

TEST_F(GdiTest, GetDIBitsWritesSizeAndColourTableBackIntoTheCallersHeader)
{
    // A 4 bpp DIB made with a 4-entry table, read with biClrUsed 4: exactly
    // four entries come back, the memory after them is left alone.
    void *bits = nullptr;
    HDC dc = Dib(Info(8, 2, 4, {kBlack, RGB(85, 85, 85), RGB(170, 170, 170), kWhite}, 4), &bits);
    auto *b = static_cast<uint8_t *>(bits);
    b[0] = 0x01, b[1] = 0x23; // bottom row
    b[4] = 0x32, b[5] = 0x10; // top row
    Info req(8, 2, 4, {}, 4);
    std::memset(req.table, 0xEE, sizeof req.table);
    uint8_t out[8];
    std::memset(out, 0xEE, sizeof out);
    ASSERT_EQ(GetDIBits(dc, BitmapOf(dc), 0, 2, out, req.bmi(), DIB_RGB_COLORS), 2);
    EXPECT_EQ(req.h.biSizeImage, 8u);
    EXPECT_EQ(req.table[1].rgbRed, 85);
    EXPECT_EQ(req.table[3].rgbBlue, 255);
    EXPECT_EQ(req.table[4].rgbRed, 0xEE);
    EXPECT_EQ(out[0], 0x01);
    EXPECT_EQ(out[4], 0x32);

    // One line from the bottom-up numbering, with a header narrower and
    // lower than the bitmap (the bytes of that width, row padding zeroed).
    Info narrow(3, 1, 4, {}, 4);
    std::memset(out, 0xEE, sizeof out);
    ASSERT_EQ(GetDIBits(dc, BitmapOf(dc), 0, 1, out, narrow.bmi(), DIB_RGB_COLORS), 1);
    EXPECT_EQ(out[0], 0x01);
    EXPECT_EQ(out[1] & 0xF0, 0x20);
    EXPECT_EQ(out[3], 0);
    EXPECT_EQ(out[4], 0xEE);

    // Without bits: header and table only. Bit count 0: the bitmap's format.
    Info query(8, 2, 4);
    EXPECT_NE(GetDIBits(dc, BitmapOf(dc), 0, 2, nullptr, query.bmi(), DIB_RGB_COLORS), 0);
    EXPECT_EQ(query.h.biSizeImage, 8u);
    EXPECT_EQ(query.table[2].rgbGreen, 170);
    Info format(0, 0, 0);
    EXPECT_NE(GetDIBits(dc, BitmapOf(dc), 0, 0, nullptr, format.bmi(), DIB_RGB_COLORS), 0);
    EXPECT_EQ(format.h.biWidth, 8);
    EXPECT_EQ(format.h.biBitCount, 4);

    // Other depth: 24 bpp rows from the table's colours.
    Info rgb(8, 2, 24);
    uint8_t rows[2 * 24];
    ASSERT_EQ(GetDIBits(dc, BitmapOf(dc), 0, 2, rows, rgb.bmi(), DIB_RGB_COLORS), 2);
    EXPECT_EQ(rows[3], 85);       // bottom row, pixel 1
    EXPECT_EQ(rows[24 + 0], 255); // top row, pixel 0 is index 3
}

TEST_F(GdiTest, SetDIBitsRoundTripsAndConvertsThroughTheCallersTable)
{
    HDC dc = Dib(Info(5, 3, 24));
    uint8_t rows[3][16] = {}, back[3][16] = {};
    for (int i = 0; i < 3 * 16; ++i)
        rows[i / 16][i % 16] = i % 16 < 15 ? static_cast<uint8_t>(i + 1) : 0;
    Info h(5, 3, 24);
    ASSERT_EQ(SetDIBits(dc, BitmapOf(dc), 0, 3, rows, h.bmi(), DIB_RGB_COLORS), 3);
    ASSERT_EQ(GetDIBits(dc, BitmapOf(dc), 0, 3, back, h.bmi(), DIB_RGB_COLORS), 3);
    EXPECT_EQ(std::memcmp(rows, back, sizeof rows), 0);
    // One line at scan line 2 of a bottom-up DIB is the top row.
    uint8_t line[16] = {1, 2, 3};
    ASSERT_EQ(SetDIBits(dc, BitmapOf(dc), 2, 1, line, h.bmi(), DIB_RGB_COLORS), 1);
    EXPECT_EQ(GetPixel(dc, 0, 0), RGB(3, 2, 1));

    // Caller's 1 bpp table is black/white, the bitmap's white/black: the
    // colours survive, so the bits come out inverted.
    void *bits = nullptr;
    HDC mono = Dib(Info(8, 1, 1, {kWhite, kBlack}), &bits);
    Info caller(8, 1, 1, {kBlack, kWhite});
    uint8_t in[4] = {0xF0};
    ASSERT_EQ(SetDIBits(mono, BitmapOf(mono), 0, 1, in, caller.bmi(), DIB_RGB_COLORS), 1);
    EXPECT_EQ(static_cast<uint8_t *>(bits)[0], 0x0F);
}

TEST_F(GdiTest, SelectionAndDeletionRules)
{
    long gdi = PlatLiveCount(PLAT_KIND_GDI), dcs = PlatLiveCount(PLAT_KIND_DC);
    HDC a = CreateCompatibleDC(nullptr), b = CreateCompatibleDC(a);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_DC), dcs + 2);
    BITMAP bm{};
    HGDIOBJ defaultBitmap = GetCurrentObject(a, OBJ_BITMAP);
    HBITMAP bmp = CreateCompatibleBitmap(a, 4, 4); // monochrome like the DC's 1 x 1 bitmap
    ASSERT_EQ(GetObjectW(bmp, sizeof bm, &bm), int(sizeof bm));
    EXPECT_EQ(bm.bmBitsPixel, 1);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GDI), gdi + 1);
    EXPECT_EQ(SelectObject(a, bmp), defaultBitmap);
    EXPECT_EQ(SelectObject(b, bmp), nullptr); // already in a
    EXPECT_FALSE(DeleteObject(bmp));          // still selected
    EXPECT_EQ(SelectObject(a, defaultBitmap), bmp);
    EXPECT_NE(SelectObject(b, bmp), nullptr);
    EXPECT_TRUE(DeleteDC(b)); // deleting the DC frees the bitmap for deletion
    EXPECT_TRUE(DeleteObject(bmp));
    EXPECT_EQ(GetObjectType(bmp), 0u);
    EXPECT_FALSE(DeleteObject(bmp));

    // Stock objects survive DeleteObject.
    HGDIOBJ white = GetStockObject(WHITE_BRUSH);
    EXPECT_TRUE(DeleteObject(white));
    EXPECT_EQ(GetObjectType(white), DWORD(OBJ_BRUSH));
    EXPECT_EQ(GetCurrentObject(a, OBJ_BRUSH), white);

    EXPECT_TRUE(DeleteDC(a));
}

TEST_F(GdiTest, ScreenAndWindowDcsAreCountedAndDrawIntoTheirSurface)
{
    long dcs = PlatLiveCount(PLAT_KIND_DC);
    HDC screen = GetDC(nullptr);
    ASSERT_NE(screen, nullptr);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_DC), dcs + 1);
    EXPECT_NE(SetPixel(screen, 3, 3, kRed), CLR_INVALID);
    EXPECT_EQ(GetPixel(screen, 3, 3), kRed);
    EXPECT_EQ(ReleaseDC(nullptr, screen), 1);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_DC), dcs);
    EXPECT_EQ(GetDC(reinterpret_cast<HWND>(uintptr_t(0x7FFF0))), nullptr);

    WNDCLASSW wc{};
    wc.lpfnWndProc = DefWindowProcW;
    wc.lpszClassName = u"GdiTestWnd";
    ASSERT_NE(RegisterClassW(&wc), 0);
    HWND wnd = CreateWindowExW(0, u"GdiTestWnd", u"", WS_POPUP, 0, 0, 40, 30, nullptr, nullptr, nullptr, nullptr);
    RECT client{}, all{0, 0, 6, 6}, inner{1, 1, 5, 5};
    ASSERT_TRUE(GetClientRect(wnd, &client));
    HDC dc = GetDC(wnd);
    ASSERT_NE(dc, nullptr);
    HBRUSH red = CreateSolidBrush(kRed), blue = CreateSolidBrush(kBlue);
    EXPECT_EQ(FillRect(dc, &all, red), 1);
    EXPECT_EQ(FrameRect(dc, &inner, blue), 1);
    MoveToEx(dc, 0, 5, nullptr);
    EXPECT_TRUE(LineTo(dc, 3, 5)); // the end point is not drawn
    EXPECT_EQ(ReleaseDC(wnd, dc), 1);
    // A later DC of the same window sees what the first one drew.
    dc = GetDC(wnd);
    const std::pair<POINT, COLORREF> seen[] = {{{0, 0}, kRed},   {{4, 1}, kBlue}, {{2, 2}, kRed},
                                               {{2, 5}, kBlack}, {{3, 5}, kRed},  {{6, 6}, kWhite}};
    for (auto &[p, colour] : seen)
        EXPECT_EQ(GetPixel(dc, p.x, p.y), colour) << p.x << "," << p.y;
    EXPECT_EQ(GetPixel(dc, client.right, 0), CLR_INVALID); // outside the client area
    EXPECT_EQ(ReleaseDC(wnd, dc), 1);
    DeleteObject(red);
    DeleteObject(blue);
    EXPECT_TRUE(DestroyWindow(wnd));
    EXPECT_EQ(GetDC(wnd), nullptr);
    EXPECT_TRUE(UnregisterClassW(u"GdiTestWnd", nullptr));
}

TEST_F(GdiTest, InjectedFailuresReturnTheFailureValueAndTheError)
{
    HDC dc = Dib(Info(4, 4, 24));
    Info info(4, 4, 24);
    uint8_t rows[64] = {};
    LOGPALETTE lp = {0x300, 1, {{0, 0, 0, 0}}};
    const DWORD kError = 0xBEEF;
    struct Case {
        const char *api;
        std::function<bool()> failed; // calls the API, true when it reported failure
    };
    void *bits = reinterpret_cast<void *>(1);
    const Case cases[] = {
        {"CreateDIBSection",
         [&] { return !CreateDIBSection(dc, info.bmi(), DIB_RGB_COLORS, &bits, nullptr, 0) && !bits; }},
        {"CreateCompatibleDC", [&] { return !CreateCompatibleDC(dc); }},
        {"SelectObject", [&] { return !SelectObject(dc, GetStockObject(BLACK_BRUSH)); }},
        {"GetDC", [&] { return !GetDC(nullptr); }},
        {"BitBlt", [&] { return !BitBlt(dc, 0, 0, 1, 1, nullptr, 0, 0, WHITENESS); }},
        {"StretchBlt", [&] { return !StretchBlt(dc, 0, 0, 1, 1, dc, 0, 0, 2, 2, SRCCOPY); }},
        {"GetDIBits", [&] { return GetDIBits(dc, BitmapOf(dc), 0, 4, rows, info.bmi(), DIB_RGB_COLORS) == 0; }},
        {"SetDIBits", [&] { return SetDIBits(dc, BitmapOf(dc), 0, 4, rows, info.bmi(), DIB_RGB_COLORS) == 0; }},
        {"CreatePalette", [&] { return !CreatePalette(&lp); }},
        {"CreateCompatibleBitmap", [&] { return !CreateCompatibleBitmap(dc, 2, 2); }},
        {"DeleteObject", [&] { return !DeleteObject(GetStockObject(WHITE_BRUSH)); }},
        {"SetMapMode", [&] { return SetMapMode(dc, MM_TEXT) == 0; }},
        {"CreateSolidBrush", [&] { return !CreateSolidBrush(kRed); }},
        {"CreatePen", [&] { return !CreatePen(PS_SOLID, 1, kRed); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.api);
        PlatClearFaults();
        PlatFailCall(c.api, 1, kError);
        SetLastError(0);
        EXPECT_TRUE(c.failed());
        EXPECT_EQ(GetLastError(), kError);
        EXPECT_EQ(PlatCallCount(c.api), 1u);
        PlatClearFaults();
    }
}

} // namespace
