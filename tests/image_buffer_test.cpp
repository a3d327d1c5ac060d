// Image slots: bit depth and colour table per scan mode, the initial blank
// image and the commit (failures while the buffers are made are in the
// fault sweep's scans).
#include "support/image_fixture.h"

#include <string>
#include <vector>

class ImageBufferTest : public ImageTest
{
protected:
    void SetUp() override
    {
        ImageTest::SetUp();
        g_dstRect = ScanRect{0, 0, 288, 400};
    }
    // Makes the scan buffers for a 30 x 5 scan in the given mode.
    static int Create(SHORT colorMode, SHORT colorStep, DWORD *stride = nullptr)
    {
        return tamrix_test::BeginScan(colorMode, colorStep, 30, 5, nullptr, stride);
    }
    static int Grey(const RGBQUAD &q) { return q.rgbRed == q.rgbGreen && q.rgbGreen == q.rgbBlue ? q.rgbRed : -1; }
};

TEST_F(ImageBufferTest, DepthAndTablePerMode)
{
    struct Case {
        SHORT mode, step;
        WORD bits;
        DWORD entries, storedClrUsed, convClrUsed;
    };
    const Case cases[] = {
        {0, 1, 1, 2, 0, 0},          {0, 16, 1, 2, 0, 0},  {0, 2, 4, 4, 4, 4},     {0, 3, 4, 16, 0, 0},
        {0, 4, 4, 16, 0, 0},         {0, 5, 8, 256, 0, 0}, {0, 6, 8, 256, 0, 0},   {0, 7, 8, 256, 0, 0},
        {0, 8, 8, 256, 0, 0},        {16, 1, 4, 16, 0, 8}, {16, 2, 8, 256, 0, 64}, {16, 3, 24, 0, 0, 512},
        {16, 8, 24, 0, 0, 16777216},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " step " << c.step);
        DWORD stride = 0;
        ASSERT_EQ(Create(c.mode, c.step, &stride), 1);
        const BITMAPINFOHEADER &h = g_scanInfo->bmiHeader;
        const RGBQUAD *t = g_scanInfo->bmiColors;
        EXPECT_EQ(std::vector<LONG>({h.biWidth, h.biHeight, h.biBitCount}), std::vector<LONG>({30, 5, c.bits}));
        EXPECT_EQ(h.biClrUsed, c.storedClrUsed);
        EXPECT_EQ(g_scanClrUsed, c.convClrUsed);
        EXPECT_EQ(GlobalSize(g_scanInfoMem), 40 + 4 * c.entries);
        EXPECT_EQ(g_scanBytes, 5 * stride);
        // The DIB section spans the whole stride.
        DIBSECTION ds{};
        ASSERT_NE(GetObjectW(g_scanBitmap, sizeof ds, &ds), 0);
        EXPECT_EQ((DWORD)ds.dsBm.bmWidth, stride * 8 / c.bits);
        // The new display copy has the destination's size.
        ASSERT_NE(g_newDispInfo, nullptr);
        EXPECT_EQ(std::vector<LONG>({g_newDispInfo->bmiHeader.biWidth, g_newDispInfo->bmiHeader.biHeight, g_dispWidth}),
                  std::vector<LONG>({288, 400, 288}));

        if (c.mode == 0 && c.bits == 1) {
            EXPECT_EQ(std::vector<int>({Grey(t[0]), Grey(t[1])}), std::vector<int>({255, 0}));
        } else if (c.mode == 0 && c.step == 2) {
            for (int i = 0; i < 4; i++)
                EXPECT_EQ(Grey(t[i]), 85 * i);
        } else if (c.mode == 0 && c.step == 3) {
            for (int i = 0; i < 16; i++)
                EXPECT_EQ(Grey(t[i]), i == 14 ? 255 : i % 2 ? 0 : 37 * (i / 2)) << i;
        } else if (c.mode == 0 && c.step == 4) {
            EXPECT_EQ(Grey(t[15]), 255);
            EXPECT_EQ(Grey(t[3]), 51);
        } else if (c.mode == 0 && c.bits == 8) {
            int stepSize = 1 << (8 - c.step);
            for (int i = 0; i < 256; i++) {
                int want = i == 256 - stepSize ? 255 : i % stepSize ? 0 : i;
                ASSERT_EQ(Grey(t[i]), want) << i;
            }
        } else if (c.mode == 16 && c.bits == 4) {
            for (int k = 0; k < 8; k++) {
                EXPECT_EQ(*(const DWORD *)&t[2 * k], *(const DWORD *)&t[2 * k + 1]);
                EXPECT_EQ(t[2 * k].rgbRed, k & 4 ? 255 : 0);
                EXPECT_EQ(t[2 * k].rgbGreen, k & 2 ? 255 : 0);
                EXPECT_EQ(t[2 * k].rgbBlue, k & 1 ? 255 : 0);
            }
        } else if (c.mode == 16 && c.bits == 8) {
            EXPECT_EQ(t[16 * 3 + 4 * 1 + 2].rgbRed, 255);
            EXPECT_EQ(t[16 * 3 + 4 * 1 + 2].rgbGreen, 85);
            EXPECT_EQ(t[16 * 3 + 4 * 1 + 2].rgbBlue, 170);
            EXPECT_EQ(t[64].rgbRed + t[200].rgbGreen + t[255].rgbBlue, 0);
        }
        ImgFreeScanBuffers(0);
    }
}

TEST_F(ImageBufferTest, InitialImageAndCommit)
{
    ASSERT_EQ(ImgCreateInitialImages(), 1);
    const BITMAPINFOHEADER &h = g_imageInfo->bmiHeader;
    EXPECT_EQ(std::vector<LONG>({LONG(g_imageBytes), g_dispWidth, h.biWidth, h.biBitCount}),
              std::vector<LONG>({4, 32, 32, 1}));
    EXPECT_EQ(std::vector<int>({Grey(g_imageInfo->bmiColors[0]), Grey(g_imageInfo->bmiColors[1])}),
              std::vector<int>({0, 255}));
    BYTE info[40 + 8] = {};
    *(BITMAPINFOHEADER *)info = g_imageInfo->bmiHeader;
    BYTE row[4] = {};
    ASSERT_EQ(GetDIBits(g_imageDC, g_imageBitmap, 0, 1, row, (BITMAPINFO *)info, DIB_RGB_COLORS), 1);
    for (BYTE b : row)
        EXPECT_EQ(b, 0xFF); // white is index 1 here

    tamrix_test::LiveCounts before = tamrix_test::SnapshotLiveCounts();
    ASSERT_EQ(Create(0, 2), 1);
    BITMAPINFO *newInfo = g_scanInfo;
    HDC newDC = g_scanDC;
    HDC newDisp = g_newDispDC;
    DWORD bytes = g_scanBytes;
    ImgFreeScanBuffers(1);
    ImgCommitScan();
    EXPECT_TRUE(g_imageInfo == newInfo && g_imageDC == newDC && g_dispDC == newDisp && g_imageBytes == bytes);
    EXPECT_TRUE(g_scanInfo == nullptr && g_newDispDC == nullptr);
    // The old slots are gone: as many objects live as before the scan.
    EXPECT_EQ(tamrix_test::LiveCountDifferences(before), "");
}

TEST_F(ImageBufferTest, ReleasedDisplayCopyIsNotRebuilt)
{
    g_dispReleased = 1;
    g_dispWidth = 77;
    ASSERT_EQ(Create(0, 1), 1);
    EXPECT_EQ(g_newDispInfo, nullptr);
    EXPECT_EQ(g_newDispDC, nullptr);
    EXPECT_EQ(g_dispWidth, 77);
}
