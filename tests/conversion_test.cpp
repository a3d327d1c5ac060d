// Line conversion: level widening, the packings of every scan mode, and a
// round trip from a row packed as the scanner sends it to the pixel colours
// read back from the new image through its colour table.
#include "support/platform_fixture.h"

#include "display/display_rects.h"
#include "image/image.h"

#include <array>
#include <vector>

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

// Colour value of an n-bit scanner level as the driver shows it: 1 bit is
// black/white, otherwise the level is spread over 0..255 with the top
// level always full white.
int Shown(int v, int bits)
{
    int top = (1 << bits) - 1;
    if (bits == 1)
        return v ? 255 : 0;
    if (bits == 2)
        return v * 85;
    if (bits == 3)
        return v == top ? 255 : v * 37;
    if (bits == 4)
        return v * 17;
    if (bits == 8)
        return v;
    return v == top ? 255 : v << (8 - bits);
}

} // namespace

class ConversionTest : public PlatformTest
{
};

TEST_F(ConversionTest, LevelsWidenToFullScale)
{
    EXPECT_EQ(ImgExpandLevel(7 << 5, 5), 255);
    EXPECT_EQ(ImgExpandLevel(6 << 5, 5), 222);
    EXPECT_EQ(ImgExpandLevel(1 << 5, 5), 37);
    EXPECT_EQ(ImgExpandLevel(31 << 3, 3), 255);
    EXPECT_EQ(ImgExpandLevel(30 << 3, 3), 240);
    EXPECT_EQ(ImgExpandLevel(15 << 4, 4), 255);
    EXPECT_EQ(ImgExpandLevel(127 << 1, 1), 255);
    EXPECT_EQ(ImgExpandLevel(63 << 2, 2), 255);
    EXPECT_EQ(ImgExpandLevel(62 << 2, 2), 248);
    EXPECT_EQ(ImgExpandLevel(0x9C, 0), 0x9C);
    // Other shifts only drop the low bits; nothing is left after 8 or more.
    EXPECT_EQ(ImgExpandLevel(0xC0, 6), 3);
    EXPECT_EQ(ImgExpandLevel(0xFF, 8), 0);
    EXPECT_EQ(ImgExpandLevel(0xFF, 33), 0);
}

TEST_F(ConversionTest, PackedLevelsAndPasses)
{
    // Four-level grey: levels 3, 2, 1, 0 become nibbles 3 2 1 0.
    BYTE raw[8] = {0xE4};
    BYTE row[16] = {};
    BITMAPINFOHEADER h = Header(4, 4, 4);
    EXPECT_EQ(ImgConvertLine(raw, row, 1, &h, 0, 0, 0), 1);
    EXPECT_EQ(row[0], 0x32);
    EXPECT_EQ(row[1], 0x10);

    // Three-pass eight colours: raw 1011 in the red pass paints pixels 2
    // and 4 only.
    BYTE raw2[1] = {0xB0};
    BYTE row2[4] = {};
    h = Header(8, 4, 8);
    ImgConvertLine(raw2, row2, 1, &h, 1, 1, 0);
    EXPECT_EQ(row2[0], 0x08);
    EXPECT_EQ(row2[1], 0x08);
    EXPECT_EQ(row2[2], 0x00);
    EXPECT_EQ(row2[3], 0x00);
    // The green pass ORs its bit beside the red one.
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

    // An unknown colour count leaves the row alone.
    std::array<BYTE, 8> row5;
    row5.fill(0x5A);
    for (int colour = 0; colour <= 1; colour++) {
        for (int planar = 0; planar <= colour; planar++) {
            h = Header(8, 8, 77);
            EXPECT_EQ(ImgConvertLine(raw4, row5.data(), 1, &h, colour, planar, 0), 1);
            for (BYTE b : row5)
                EXPECT_EQ(b, 0x5A);
        }
    }
    // Grey without a byte packing (no depth, or deeper than a byte) likewise.
    for (WORD depth : {0, 24}) {
        h = Header(8, depth, 0);
        EXPECT_EQ(ImgConvertLine(raw4, row5.data(), 1, &h, 0, 0, 0), 1);
        for (BYTE b : row5)
            EXPECT_EQ(b, 0x5A) << "depth " << depth;
    }
}

// ---- Round trip through a real scan image ---------------------------------

namespace
{

constexpr int kWidth = 37;

struct Mode {
    DWORD model;
    SHORT colorMode;
    SHORT colorStep;
};

// Level of channel c (0 red, 1 green, 2 blue; 0 for grey) at pixel x, row y.
int Level(int c, int x, int y, int bits)
{
    return (x * 7 + y * 3 + c * 5 + (x * x) / 3) % (1 << bits);
}

// Packs n-bit fields most significant first.
void PutField(std::vector<BYTE> &line, int index, int fieldBits, int value)
{
    int bit = index * fieldBits;
    for (int i = 0; i < fieldBits; i++, bit++) {
        if (value & (1 << (fieldBits - 1 - i)))
            line[bit / 8] |= (BYTE)(0x80 >> (bit % 8));
    }
}

// The raw line of pass `pass` (0 for single-pass scans) as the scanner sends it.
std::vector<BYTE> PackLine(const Mode &m, int bits, int width, int y, int pass, size_t rawBytes)
{
    std::vector<BYTE> line(rawBytes, 0);
    if (m.colorMode == 0) {
        int field = bits == 1 ? 1 : bits == 2 ? 2 : bits <= 4 ? 4 : 8;
        for (int x = 0; x < width; x++)
            PutField(line, x, field, Level(0, x, y, bits) << (field - bits));
    } else if (m.colorMode == 16) {
        for (int x = 0; x < width; x++) {
            if (bits == 1) {
                int nib = Level(0, x, y, 1) << 3 | Level(1, x, y, 1) << 2 | Level(2, x, y, 1) << 1;
                PutField(line, x, 4, nib);
            } else {
                for (int c = 0; c < 3; c++)
                    line[3 * x + c] = (BYTE)(Level(c, x, y, bits) << (8 - bits));
            }
        }
    } else {
        static const int channelOfPass[3] = {1, 0, 2}; // green, red, blue
        int c = channelOfPass[pass];
        int field = bits == 1 ? 1 : bits == 2 ? 2 : bits <= 4 ? 4 : 8;
        for (int x = 0; x < width; x++)
            PutField(line, x, field, Level(c, x, y, bits) << (field - bits));
    }
    return line;
}

// The colour the driver must show for channel c at pixel x, row y.
int Expected(const Mode &m, int c, int x, int y, int bits)
{
    if (m.colorMode == 0) {
        int v = Level(0, x, y, bits);
        return bits == 1 ? (v ? 0 : 255) : Shown(v, bits); // a set bit is black
    }
    if (m.colorMode == 17 && bits == 1) {
        // The three-pass eight-colour table paints raw 1011 as 0101.
        int group = x / 4 * 4, nib = 0;
        for (int i = 0; i < 4; i++)
            nib = nib << 1 | (group + i < kWidth ? Level(c, group + i, y, 1) : 0);
        if (nib == 0xB)
            nib = 0x5;
        return (nib >> (3 - x % 4)) & 1 ? 255 : 0;
    }
    return Shown(Level(c, x, y, bits), bits);
}

} // namespace

class ConversionRoundTripTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_settings.interfaceType = IF_RS232C;
        g_targetWnd = nullptr;
        g_dispReleased = 1; // no display copy needed here
        g_alignShift = 0;
        g_alignFailed = 0;
    }
    void TearDown() override
    {
        ImgFreeScanBuffers(0);
        g_dispReleased = 0;
        PlatformTest::TearDown();
    }

    void RoundTrip(const Mode &m)
    {
        const int width = kWidth, height = 3;
        int bits = m.colorStep == 16 ? 1 : m.colorStep;
        g_settings.model = m.model;
        g_scanParams = ScanParams{};
        g_scanParams.resolution = 90;
        g_scanParams.areaWidth = width;
        g_scanParams.areaLength = height;
        g_scanParams.colorMode = m.colorMode;
        g_scanParams.colorStep = m.colorStep;
        DWORD raw, stride, w, h;
        ImgComputeGeometry(&g_scanParams, &raw, &stride, &w, &h);
        ASSERT_EQ(w, (DWORD)width);
        ASSERT_EQ(h, (DWORD)height);
        ASSERT_EQ(ImgCreateScanBuffers(raw, stride, w, h), 1);

        ImgStoreLine(0);
        int passes = m.colorMode == 17 ? 3 : 1;
        for (int pass = 0; pass < passes; pass++) {
            for (int y = 0; y < height; y++) {
                std::vector<BYTE> line = PackLine(m, bits, width, y, pass, raw);
                std::copy(line.begin(), line.end(), g_rawLine);
                ImgStoreLine(1);
            }
        }

        // Read the picture back in its own format and look every pixel up.
        BITMAPINFOHEADER hdr = g_scanInfo->bmiHeader;
        std::vector<BYTE> info(sizeof(BITMAPINFOHEADER) + 256 * sizeof(RGBQUAD));
        std::copy((BYTE *)&hdr, (BYTE *)&hdr + sizeof hdr, info.begin());
        std::vector<BYTE> bits_(stride * height);
        ASSERT_EQ(GetDIBits(g_scanDC, g_scanBitmap, 0, height, bits_.data(), (BITMAPINFO *)info.data(), DIB_RGB_COLORS),
                  height);
        RGBQUAD table[256] = {};
        if (hdr.biBitCount <= 8) {
            ASSERT_GT(GetDIBColorTable(g_scanDC, 0, 256, table), 0u);
        }
        for (int y = 0; y < height; y++) {
            const BYTE *row = bits_.data() + (size_t)(height - 1 - y) * stride;
            for (int x = 0; x < width; x++) {
                int rgb[3];
                if (hdr.biBitCount == 24) {
                    rgb[0] = row[3 * x + 2];
                    rgb[1] = row[3 * x + 1];
                    rgb[2] = row[3 * x];
                } else {
                    int perByte = 8 / hdr.biBitCount;
                    int shift = 8 - hdr.biBitCount * (x % perByte + 1);
                    int index = (row[x / perByte] >> shift) & ((1 << hdr.biBitCount) - 1);
                    rgb[0] = table[index].rgbRed;
                    rgb[1] = table[index].rgbGreen;
                    rgb[2] = table[index].rgbBlue;
                }
                for (int c = 0; c < 3; c++) {
                    int want = Expected(m, m.colorMode ? c : 0, x, y, bits);
                    ASSERT_EQ(rgb[c], want) << "model " << m.model << " mode " << m.colorMode << " step " << m.colorStep
                                            << " pixel " << x << "," << y << " channel " << c;
                }
            }
        }
    }
};

TEST_F(ConversionRoundTripTest, MonochromeModes)
{
    for (SHORT step : {1, 2, 3, 4, 5, 6, 7, 8, 16}) {
        RoundTrip({2, 0, step});
        ImgFreeScanBuffers(0);
    }
}

TEST_F(ConversionRoundTripTest, SinglePassColour)
{
    for (SHORT step : {1, 2, 3, 4, 5, 6, 7, 8}) {
        RoundTrip({4, 16, step});
        ImgFreeScanBuffers(0);
    }
}

TEST_F(ConversionRoundTripTest, ThreePassColour)
{
    for (SHORT step : {1, 2, 3, 4, 5, 6, 7, 8}) {
        RoundTrip({3, 17, step});
        ImgFreeScanBuffers(0);
    }
}
