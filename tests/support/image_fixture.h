// Fixture and helpers of the image tests: a scanner on RS-232C with no
// target window, and every image slot freed after each test.
#pragma once

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
