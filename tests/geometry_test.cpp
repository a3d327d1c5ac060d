// Scan geometry: rectangle conversion with the area limits and the
// alignment search, and worked line geometries (the sweep scans every mode).
#include "support/platform_fixture.h"

#include "display/display_rects.h"
#include "image/image.h"

class GeometryTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        saved_ = g_scanParams;
        g_scanParams = ScanParams{};
        g_scanParams.resolution = 90;
        g_scanParams.colorStep = 1;
        g_timeFormat = UNIT_DOT;
        Use(1, IF_RS232C);
    }
    void TearDown() override
    {
        g_scanParams = saved_;
        g_timeFormat = UNIT_DOT;
        PlatformTest::TearDown();
    }
    static void Use(DWORD model, DWORD iface)
    {
        g_settings.model = model;
        g_settings.interfaceType = iface;
    }
    static int ToPixels(LONG x, LONG y, LONG w, LONG h, ScanRect *out)
    {
        ScanRect r{x, y, w, h};
        return ImgScanRectToPixels(&r, g_scanParams.resolution, out);
    }
    struct Geo {
        DWORD raw, stride, width, lines, total;
    };
    static Geo Compute(SHORT areaWidth, SHORT areaLength)
    {
        g_scanParams.areaWidth = areaWidth;
        g_scanParams.areaLength = areaLength;
        Geo g{};
        g.total = ImgComputeGeometry(&g_scanParams, &g.raw, &g.stride, &g.width, &g.lines);
        return g;
    }

private:
    ScanParams saved_{};
};

TEST_F(GeometryTest, RectanglesAgainstModelAreas)
{
    const DWORD RS = IF_RS232C, SCSI = IF_SCSI, GPIB = IF_GPIB;
    struct Case {
        DWORD model, iface;
        int unit;
        LONG x, y, w, h;
        int ok;
    } cases[] = {
        // The default area of models 1, 2, 4 fits; the left edge must be >= 0.1 inch.
        {1, RS, UNIT_DOT, 9, 0, 704, 1051, 1},
        {2, RS, UNIT_DOT, 9, 0, 704, 1051, 1},
        {4, RS, UNIT_DOT, 9, 0, 704, 1051, 1},
        {1, RS, UNIT_DOT, 0, 0, 100, 100, 0},
        {2, RS, UNIT_DOT, 0, 0, 100, 100, 0},
        {4, RS, UNIT_DOT, 0, 0, 100, 100, 0},
        // SCSI is 0.0075 inch shorter than the serial interfaces (296.7 mm fits only the latter).
        {1, SCSI, UNIT_MILLIMETER, 26, 0, 100, 2967, 0},
        {1, SCSI, UNIT_MILLIMETER, 26, 0, 100, 2966, 1},
        {1, RS, UNIT_MILLIMETER, 26, 0, 100, 2967, 1},
        // Model 3's small area, and model 7's minimum size.
        {3, GPIB, UNIT_DOT, 0, 0, 352, 576, 1},
        {3, GPIB, UNIT_DOT, 0, 0, 379, 100, 0},
        {7, GPIB, UNIT_DOT, 0, 0, 3, 100, 1},
        {7, GPIB, UNIT_DOT, 0, 0, 2, 100, 0},
        // Undefined models are refused, and so are models 1, 2, 4 on an
        // undefined interface; the other models' areas hold on any.
        {0, RS, UNIT_DOT, 9, 0, 100, 100, 0},
        {8, RS, UNIT_DOT, 9, 0, 100, 100, 0},
        {1, 0, UNIT_DOT, 9, 0, 100, 100, 0},
        {4, 4, UNIT_DOT, 9, 0, 100, 100, 0},
        {5, 4, UNIT_DOT, 9, 0, 100, 100, 1},
        {3, 0, UNIT_DOT, 0, 0, 352, 576, 1},
    };
    ScanRect px{};
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << "model " << c.model << " if " << c.iface << " " << c.w << "x" << c.h);
        Use(c.model, c.iface);
        g_timeFormat = c.unit;
        ASSERT_EQ(ToPixels(c.x, c.y, c.w, c.h, &px), c.ok);
        if (c.ok && c.unit == UNIT_DOT) {
            EXPECT_EQ(std::vector<LONG>({px.x, px.y, px.width, px.height}), std::vector<LONG>({c.x, c.y, c.w, c.h}));
        }
    }

    // Tenths of a millimetre and hundredths of an inch: one inch is 90 dots.
    Use(1, IF_RS232C);
    g_timeFormat = UNIT_MILLIMETER;
    ASSERT_EQ(ToPixels(254, 0, 508, 254, &px), 1);
    EXPECT_EQ(std::vector<LONG>({px.x, px.width, px.height}), std::vector<LONG>({90, 180, 90}));
    g_timeFormat = UNIT_INCH;
    ASSERT_EQ(ToPixels(100, 50, 200, 100, &px), 1);
    EXPECT_EQ(std::vector<LONG>({px.x, px.y, g_scanRectPx.width}), std::vector<LONG>({90, 45, 180}));
}

TEST_F(GeometryTest, AlignmentMovesTheLeftEdge)
{
    // Model 2 widens 2- and 3-step scans to an even width, moving the window
    // left near the right edge (720 dots at 90 dpi); when no position fits,
    // the width stays as asked. Single-pass colour and other models are never
    // widened. The rectangle as asked is kept aside.
    struct Case {
        DWORD model;
        SHORT step;
        LONG x, w, alignedX, alignedW;
        int shift, failed;
    } cases[] = {
        {2, 2, 100, 50, 100, 52, 0, 0}, {2, 2, 669, 50, 668, 52, 1, 0}, {2, 2, 670, 50, 668, 52, 2, 0},
        {2, 2, 671, 49, 668, 52, 3, 0}, {2, 2, 9, 709, 9, 709, 0, 1},   {2, 3, 100, 51, 100, 52, 0, 0},
        {2, 5, 100, 51, 100, 51, 0, 0}, {4, 2, 100, 51, 100, 51, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << "model " << c.model << " step " << c.step << " x " << c.x);
        Use(c.model, IF_RS232C);
        g_scanParams.colorStep = c.step;
        ScanRect px{};
        ASSERT_EQ(ToPixels(c.x, 0, c.w, 10, &px), 1);
        EXPECT_EQ(px.x, c.alignedX);
        EXPECT_EQ(px.width, c.alignedW);
        EXPECT_EQ(g_alignShift, c.shift);
        EXPECT_EQ(g_alignFailed, c.failed);
        EXPECT_EQ(g_scanRectPx.x, c.x);
        EXPECT_EQ(g_scanRectPx.width, c.w);
    }
}

TEST_F(GeometryTest, WorkedLineGeometry)
{
    auto all = [](const Geo &g) { return std::vector<DWORD>{g.width, g.lines, g.raw, g.stride, g.total}; };
    EXPECT_EQ(all(Compute(704, 1051)), (std::vector<DWORD>{704, 1051, 88, 88, 92488}));
    EXPECT_EQ(g_scanTotalBytes, 92488u);
    EXPECT_EQ(g_rawLineBytes, 88u);

    // Model 7 gets what its window holds in whole 1/240 inch, in lines of the
    // bytes its scan information can express: at 600 dpi 100 pixels need 13
    // bytes, and the nearest width value (6/240 inch) gives 15.
    Use(7, IF_GPIB);
    g_scanParams.resolution = 90;
    EXPECT_EQ(Compute(5, 5).width, 4u);
    g_scanParams.resolution = 600;
    EXPECT_EQ(all(Compute(101, 9)), (std::vector<DWORD>{100, 7, 15, 16, 105}));

    // Model 3 colour, two levels: three passes of 8 pixels a byte, 4 bpp DIB.
    Use(3, IF_GPIB);
    g_scanParams.resolution = 90;
    g_scanParams.colorMode = 17;
    EXPECT_EQ(all(Compute(352, 576)), (std::vector<DWORD>{352, 576, 44, 176, 3 * 576 * 44}));
}

TEST_F(GeometryTest, DefaultRectangles)
{
    g_scanParams.areaWidth = 736;
    g_scanParams.areaLength = 1051;
    g_srcRect = ScanRect{5, 5, 5, 5};
    DispInitRects();
    EXPECT_EQ(g_srcRect.x, 0);
    EXPECT_EQ(g_srcRect.width, 736);
    EXPECT_EQ(g_srcRect.height, 1051);
    EXPECT_EQ(g_dstRect.width, 288);
    EXPECT_EQ(g_dstRect.height, 400);
}
