#include "support/image_fixture.h"

namespace tamrix_test
{

int BeginScan(SHORT colorMode, SHORT colorStep, int width, int height, DWORD *raw, DWORD *stride)
{
    g_scanParams = ScanParams{};
    g_scanParams.resolution = 90;
    g_scanParams.colorMode = colorMode;
    g_scanParams.colorStep = colorStep;
    g_scanParams.areaWidth = (SHORT)width;
    g_scanParams.areaLength = (SHORT)height;
    DWORD r, s, w, h;
    ImgComputeGeometry(&g_scanParams, &r, &s, &w, &h);
    EXPECT_EQ(w, (DWORD)width);
    EXPECT_EQ(h, (DWORD)height);
    if (raw)
        *raw = r;
    if (stride)
        *stride = s;
    return ImgCreateScanBuffers(r, s, w, h);
}

DibRows ReadDib(HDC dc, HBITMAP bitmap, const BITMAPINFOHEADER &hdr)
{
    DibRows d;
    d.hdr = hdr;
    d.stride = ((hdr.biBitCount * hdr.biWidth + 31) / 32) * 4;
    d.bits.resize((size_t)d.stride * hdr.biHeight);
    std::vector<BYTE> info(sizeof hdr + sizeof d.table);
    *(BITMAPINFOHEADER *)info.data() = hdr;
    EXPECT_EQ(GetDIBits(dc, bitmap, 0, hdr.biHeight, d.bits.data(), (BITMAPINFO *)info.data(), DIB_RGB_COLORS),
              hdr.biHeight);
    if (hdr.biBitCount <= 8) {
        EXPECT_GT(GetDIBColorTable(dc, 0, 256, d.table), 0u);
    }
    return d;
}

int DibRows::Index(int x, int y) const
{
    const BYTE *row = bits.data() + (size_t)(hdr.biHeight - 1 - y) * stride;
    int perByte = 8 / hdr.biBitCount;
    return (row[x / perByte] >> (8 - hdr.biBitCount * (x % perByte + 1))) & ((1 << hdr.biBitCount) - 1);
}

std::array<int, 3> DibRows::Rgb(int x, int y) const
{
    if (hdr.biBitCount == 24) {
        const BYTE *px = bits.data() + (size_t)(hdr.biHeight - 1 - y) * stride + 3 * x;
        return {px[2], px[1], px[0]};
    }
    const RGBQUAD &q = table[Index(x, y)];
    return {q.rgbRed, q.rgbGreen, q.rgbBlue};
}

} // namespace tamrix_test

void ImageTest::SetUp()
{
    PlatformTest::SetUp();
    g_settings.model = 4;
    g_settings.interfaceType = IF_RS232C;
    g_targetWnd = nullptr;
    g_dispReleased = 0;
    g_alignShift = g_alignFailed = 0;
}

void ImageTest::TearDown()
{
    ImgFreeScanBuffers(0);
    ImgFreeImages();
    g_dispReleased = 0;
    g_alignShift = g_alignFailed = 0;
    PlatformTest::TearDown();
}
