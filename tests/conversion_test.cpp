// Line conversion: level widening, the packings of every scan mode, and a
// round trip from a row packed as the scanner sends it to the pixel colours
// read back from the new image through its colour table.
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

class ConversionRoundTripTest : public ImageTest
{
protected:
    void RoundTrip(const Mode &m)
    {
        const int width = kWidth, height = 3;
        int bits = m.colorStep == 16 ? 1 : m.colorStep;
        g_settings.model = m.model;
        g_dispReleased = 1; // no display copy needed here
        DWORD raw;
        ASSERT_EQ(tamrix_test::BeginScan(m.colorMode, m.colorStep, width, height, &raw), 1);
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
        tamrix_test::DibRows dib = tamrix_test::ReadDib(g_scanDC, g_scanBitmap, g_scanInfo->bmiHeader);
        for (int y = 0; y < height; y++) {
            for (int x = 0; x < width; x++) {
                std::array<int, 3> rgb = dib.Rgb(x, y);
                for (int c = 0; c < 3; c++)
                    ASSERT_EQ(rgb[c], Expected(m, m.colorMode ? c : 0, x, y, bits))
                        << "pixel " << x << "," << y << " channel " << c;
            }
        }
    }
};

TEST_F(ConversionRoundTripTest, MonochromeSinglePassAndThreePassColour)
{
    const Mode modes[] = {{2, 0, 0}, {4, 16, 0}, {3, 17, 0}};
    for (const Mode &mode : modes) {
        for (SHORT step : {1, 2, 3, 4, 5, 6, 7, 8, 16}) {
            if (step == 16 && mode.colorMode != 0)
                continue;
            SCOPED_TRACE(::testing::Message()
                         << "model " << mode.model << " mode " << mode.colorMode << " step " << step);
            RoundTrip({mode.model, mode.colorMode, step});
            ImgFreeScanBuffers(0);
        }
    }
}
