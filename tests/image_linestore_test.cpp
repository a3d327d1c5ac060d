// The line store: the left-edge shift after the window was moved left, the
// repair when no aligned window fitted, and where each row lands.
#include "support/platform_fixture.h"

#include "display/display_rects.h"
#include "image/image.h"

#include <vector>

class LineStoreTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_settings.model = 2;
        g_settings.interfaceType = IF_RS232C;
        g_targetWnd = nullptr;
        g_dispReleased = 1;
    }
    void TearDown() override
    {
        ImgFreeScanBuffers(0);
        g_dispReleased = 0;
        g_alignShift = g_alignFailed = 0;
        PlatformTest::TearDown();
    }
    // Stores the given raw lines into a new 8-pixel grey image of colorStep
    // `step` and returns the 4-bit pixel indices of each row, top row first.
    std::vector<std::vector<int>> Store(SHORT step, LONG shift, LONG failed,
                                        const std::vector<std::vector<BYTE>> &lines)
    {
        g_scanParams = ScanParams{};
        g_scanParams.resolution = 90;
        g_scanParams.colorStep = step;
        g_scanParams.areaWidth = 8;
        g_scanParams.areaLength = (SHORT)lines.size();
        DWORD raw, stride, w, h;
        ImgComputeGeometry(&g_scanParams, &raw, &stride, &w, &h);
        EXPECT_EQ(ImgCreateScanBuffers(raw, stride, w, h), 1);
        g_alignShift = shift;
        g_alignFailed = failed;
        ImgStoreLine(0);
        for (const auto &line : lines) {
            EXPECT_EQ(line.size(), raw);
            std::copy(line.begin(), line.end(), g_rawLine);
            EXPECT_EQ(ImgStoreLine(1), 1);
        }
        std::vector<BYTE> info(40 + 64);
        *(BITMAPINFOHEADER *)info.data() = g_scanInfo->bmiHeader;
        std::vector<BYTE> bits(stride * h);
        EXPECT_EQ(GetDIBits(g_scanDC, g_scanBitmap, 0, h, bits.data(), (BITMAPINFO *)info.data(), DIB_RGB_COLORS),
                  (int)h);
        std::vector<std::vector<int>> rows;
        for (DWORD y = 0; y < h; y++) {
            const BYTE *row = bits.data() + (h - 1 - y) * stride;
            std::vector<int> px;
            for (int x = 0; x < 8; x++)
                px.push_back(x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4);
            rows.push_back(px);
        }
        return rows;
    }
};

TEST_F(LineStoreTest, AddedLeftPixelsAreDropped)
{
    // Four levels, one pixel added at the left (level 3), two rows.
    auto rows = Store(2, 1, 0, {{0xDB, 0x1B}, {0xC0, 0x00}});
    EXPECT_EQ(g_lineShiftBits, 2);
    EXPECT_EQ(g_lineShiftMask, 0xC0);
    EXPECT_EQ(g_lineKeepClrUsed, 0);
    EXPECT_EQ(rows[0], (std::vector<int>{1, 2, 3, 0, 1, 2, 3, 0}));
    EXPECT_EQ(rows[1], (std::vector<int>{0, 0, 0, 0, 0, 0, 0, 0}));
    ImgFreeScanBuffers(0);

    // Eight levels (3-bit level in the top of each nibble), one added pixel.
    rows = Store(3, 1, 0, {{0xE2, 0x46, 0x8A, 0xCE}});
    EXPECT_EQ(g_lineShiftBits, 4);
    EXPECT_EQ(g_lineShiftMask, 0xF0);
    EXPECT_EQ(rows[0], (std::vector<int>{2, 4, 6, 8, 10, 12, 14, 0}));
    ImgFreeScanBuffers(0);

    // Three added pixels at four levels: the whole first byte minus one.
    rows = Store(2, 3, 0, {{0xFF, 0x6C}});
    EXPECT_EQ(g_lineShiftBits, 6);
    EXPECT_EQ(rows[0], (std::vector<int>{3, 1, 2, 3, 0, 0, 0, 0}));
    ImgFreeScanBuffers(0);

    // Two added pixels at 16 levels move a whole byte.
    rows = Store(4, 2, 0, {{0xFE, 0x12, 0x34, 0x56}});
    EXPECT_EQ(rows[0], (std::vector<int>{1, 2, 3, 4, 5, 6, 0, 0}));
}

TEST_F(LineStoreTest, UnalignedWindowRepeatsTheLastByte)
{
    auto rows = Store(2, 2, 1, {{0x1B, 0xE4}});
    EXPECT_EQ(g_lineShiftBits, 0);
    EXPECT_EQ(rows[0], (std::vector<int>{0, 1, 2, 3, 0, 1, 2, 3}));
}
