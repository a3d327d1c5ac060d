// Fixture and helpers of the image tests: a scanner on RS-232C with no
// target window, and every image slot freed after each test.
#pragma once

#include "driver_fixture.h"
#include "support/platform_fixture.h"

#include "display/display_rects.h"
#include "image/image.h"

#include <array>
#include <vector>

namespace tamrix_test
{

// Makes the scan buffers for a width x height scan at 90 dpi in the given
// mode; returns ImgCreateScanBuffers' result. `raw` and `stride` receive
// the raw line and DIB row sizes.
int BeginScan(SHORT colorMode, SHORT colorStep, int width, int height, DWORD *raw = nullptr, DWORD *stride = nullptr);

// The rows of a DIB section selected into `dc`, read back in its own format.
struct DibRows {
    BITMAPINFOHEADER hdr{};
    DWORD stride = 0;
    std::vector<BYTE> bits;
    RGBQUAD table[256] = {};
    // Colour index of pixel x of row y (top row first), 8 bpp or less.
    int Index(int x, int y) const;
    // Red, green, blue of the pixel, through the colour table if it has one.
    std::array<int, 3> Rgb(int x, int y) const;
};
DibRows ReadDib(HDC dc, HBITMAP bitmap, const BITMAPINFOHEADER &hdr);

} // namespace tamrix_test

class ImageTest : public PlatformTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

// A device with its initial images, for the tests of what is done with a
// scanned image (copy, save); MakeImage scans a patterned picture into the
// current image.
class CurrentImageTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        g_settings.model = 4;
        g_settings.interfaceType = IF_RS232C;
        g_targetWnd = nullptr;
        g_dstRect = ScanRect{0, 0, 16, 16};
        g_dispReleased = 0;
        ASSERT_EQ(ImgCreateInitialImages(), 1);
    }
    void TearDown() override
    {
        ImgFreeImages();
        DriverTest::TearDown();
    }

    // Scans a width x height picture in the given mode into a new current
    // image, with a pattern that uses many levels.
    static void MakeImage(SHORT colorMode, SHORT colorStep, int width, int height)
    {
        g_alignShift = g_alignFailed = 0;
        DWORD raw;
        ASSERT_EQ(tamrix_test::BeginScan(colorMode, colorStep, width, height, &raw), 1);
        ImgStoreLine(0);
        for (int y = 0; y < height; y++) {
            for (DWORD i = 0; i < raw; i++)
                g_rawLine[i] = (BYTE)(i * 37 + y * 101 + (i * i) / 5);
            ImgStoreLine(1);
        }
        ImgFreeScanBuffers(1);
        ImgCommitScan();
    }
};
