// Line conversion: level widening and the packings the whole-scan sweep
// cannot reach (partial bytes, odd widths, headers without a packing).
#include "support/image_fixture.h"

#include <algorithm>

namespace
{

BITMAPINFOHEADER Header(LONG width, WORD bits, DWORD colours)
{
    BITMAPINFOHEADER h{};
    h.biSize = 40;
    h.biWidth = width;
    h.biHeight = 1;
    h.biPlanes = 1;
    h.biBitCount = bits;
    h.biClrUsed = colours;
    return h;
}

} // namespace

class ConversionTest : public ImageTest
{
};

TEST_F(ConversionTest, LevelsWidenToFullScale)
{
    const int cases[][3] = {{7 << 5, 5, 255},
                            {6 << 5, 5, 222},
                            {1 << 5, 5, 37},
                            {31 << 3, 3, 255},
                            {30 << 3, 3, 240},
                            {15 << 4, 4, 255},
                            {127 << 1, 1, 255},
                            {63 << 2, 2, 255},
                            {62 << 2, 2, 248},
                            {0x9C, 0, 0x9C},
                            // Other shifts only drop the low bits; nothing is left after 8 or more.
                            {0xC0, 6, 3},
                            {0xFF, 8, 0},
                            {0xFF, 33, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(ImgExpandLevel((BYTE)c[0], c[1]), c[2]) << c[0] << " shifted by " << c[1];
}

TEST_F(ConversionTest, PackedLevelsAndPasses)
{
    // Four-level grey: levels 3, 2, 1, 0 become nibbles 3 2 1 0.
    BYTE raw[8] = {0xE4};
    BYTE row[16] = {};
    BITMAPINFOHEADER h = Header(4, 4, 4);
    EXPECT_EQ(ImgConvertLine(raw, row, 1, &h, 0, 0, 0), 1);
    EXPECT_EQ(std::vector<BYTE>(row, row + 2), (std::vector<BYTE>{0x32, 0x10}));

    // Three-pass eight colours: raw 1011 in the red pass paints pixels 2
    // and 4 only; the green pass ORs its bit beside the red one.
    BYTE raw2[1] = {0xB0};
    BYTE row2[4] = {};
    h = Header(8, 4, 8);
    ImgConvertLine(raw2, row2, 1, &h, 1, 1, 0);
    EXPECT_EQ(std::vector<BYTE>(row2, row2 + 4), (std::vector<BYTE>{0x08, 0x08, 0, 0}));
    BYTE raw3[1] = {0x80};
    ImgConvertLine(raw3, row2, 1, &h, 1, 1, 1);
    EXPECT_EQ(row2[0], 0x48);

    // Odd width with 4-bit samples in three passes writes W + 1 pixels.
    std::array<BYTE, 3 * 8> row4;
    row4.fill(0xAA);
    BYTE raw4[3] = {0xFF, 0xFF, 0xFF};
    h = Header(5, 24, 4096);
    ImgConvertLine(raw4, row4.data(), 1, &h, 1, 1, 2);
    for (int px = 0; px < 6; px++)
        EXPECT_EQ(row4[3 * px], 255) << "pixel " << px;
    EXPECT_EQ(row4[3 * 6], 0xAA);
    EXPECT_EQ(row4[1], 0xAA); // other channels untouched

    // An unknown colour count, or grey without a byte packing (no depth or
    // deeper than a byte), leaves the row alone.
    struct Untouched {
        WORD bits;
        DWORD colours;
        int colour, planar;
    };
    for (const Untouched &u : {Untouched{8, 77, 0, 0}, {8, 77, 1, 0}, {8, 77, 1, 1}, {0, 0, 0, 0}, {24, 0, 0, 0}}) {
        std::array<BYTE, 8> row5;
        row5.fill(0x5A);
        h = Header(8, u.bits, u.colours);
        EXPECT_EQ(ImgConvertLine(raw4, row5.data(), 1, &h, u.colour, u.planar, 0), 1);
        EXPECT_EQ(std::count(row5.begin(), row5.end(), 0x5A), 8) << u.bits << " bits " << u.colours << " colours";
    }
}
