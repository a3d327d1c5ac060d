// Scan-mode values: what each model accepts, and how accepted values are
// stored into the scan parameters; plus the parameters a model starts with.
#include "driver_fixture.h"

#include <vector>

namespace
{

class ScanModeTest : public DriverTest
{
protected:
    bool Accepts(DWORD model, DWORD flags, DWORD value)
    {
        g_settings.model = model;
        ScanModeParms p{0, value, value, value, value};
        return CfgCheckScanMode(flags, &p) != FALSE;
    }
};

TEST_F(ScanModeTest, ResolutionLimitsPerModel)
{
    struct Range {
        DWORD low, high;
    } ranges[8] = {{}, {50, 320}, {90, 640}, {90, 400}, {5, 320}, {50, 480}, {50, 600}, {90, 640}};
    for (DWORD m = 1; m <= 7; m++) {
        const DWORD step = m == 4 ? 1 : 10;
        EXPECT_TRUE(Accepts(m, MCI_SCANMODE_RESOLUTION, ranges[m].low)) << m;
        EXPECT_TRUE(Accepts(m, MCI_SCANMODE_RESOLUTION, ranges[m].high)) << m;
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_RESOLUTION, ranges[m].low - step)) << m;
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_RESOLUTION, ranges[m].high + step)) << m;
        EXPECT_EQ(Accepts(m, MCI_SCANMODE_RESOLUTION, 95), m == 4) << m;
        EXPECT_EQ(Accepts(m, MCI_SCANMODE_RESOLUTION, 45), m == 4) << m;
        EXPECT_EQ(Accepts(m, MCI_SCANMODE_RESOLUTION, 640), m == 2 || m == 7) << m;
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_RESOLUTION, (DWORD)-90)) << m;
    }
    EXPECT_TRUE(Accepts(0, MCI_SCANMODE_RESOLUTION, 12345)) << "unknown model passes";
    g_settings.model = 1;
    ScanModeParms onlyContrast{0, 9000, 3, 3, 3};
    EXPECT_TRUE(CfgCheckScanMode(MCI_SCANMODE_CONTRAST, &onlyContrast)) << "flags not given are not looked at";
}

TEST_F(ScanModeTest, ContrastStepsAndColourModesPerModel)
{
    for (DWORD m = 1; m <= 7; m++) {
        EXPECT_TRUE(Accepts(m, MCI_SCANMODE_CONTRAST, 9));
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_CONTRAST, 10));
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_CONTRAST, (DWORD)-1));
        const bool twoOnly = m == 1 || m == 7;
        EXPECT_TRUE(Accepts(m, MCI_SCANMODE_COLORSTEP, 2)) << m;
        for (DWORD steps : {4u, 16u, 256u})
            EXPECT_EQ(Accepts(m, MCI_SCANMODE_COLORSTEP, steps), !twoOnly) << m << " " << steps;
        for (DWORD steps : {0u, 1u, 3u, 6u, 512u})
            EXPECT_FALSE(Accepts(m, MCI_SCANMODE_COLORSTEP, steps)) << m << " " << steps;
        const bool colour = m == 3 || m == 4 || m == 5;
        EXPECT_TRUE(Accepts(m, MCI_SCANMODE_COLORMODE, COLORMODE_MONO));
        EXPECT_EQ(Accepts(m, MCI_SCANMODE_COLORMODE, COLORMODE_COLOR), colour) << m;
        EXPECT_FALSE(Accepts(m, MCI_SCANMODE_COLORMODE, 0));
    }
}

TEST_F(ScanModeTest, ApplyStoresTheNamedValuesHalftoneLast)
{
    g_settings.model = 3;
    ImgInitScanParams(3);
    ScanModeParms p{0, 300, 7, 16, COLORMODE_COLOR};
    CfgApplyScanMode(MCI_SCANMODE_RESOLUTION | MCI_SCANMODE_CONTRAST | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_COLORMODE,
                     &p);
    EXPECT_EQ(g_scanParams.resolution, 300);
    EXPECT_EQ(g_scanParams.contrast, 7);
    EXPECT_EQ(g_scanParams.colorStep, 4);
    EXPECT_EQ(g_scanParams.colorMode, 17);

    g_settings.model = 5;
    p.colorStep = 3; // not a step count: left as it was
    p.colorMode = 12345;
    CfgApplyScanMode(MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_COLORMODE, &p);
    EXPECT_EQ(g_scanParams.colorStep, 4);
    EXPECT_EQ(g_scanParams.colorMode, 16);

    p.colorStep = 256;
    CfgApplyScanMode(MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_HALFTONE, &p);
    EXPECT_EQ(g_scanParams.colorStep, 16);
    p.colorMode = COLORMODE_MONO;
    CfgApplyScanMode(MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_COLORMODE, &p);
    EXPECT_EQ(g_scanParams.colorStep, 8);
    EXPECT_EQ(g_scanParams.colorMode, 0);
    EXPECT_EQ(g_scanParams.resolution, 300) << "unnamed values untouched";
}

TEST_F(ScanModeTest, ModelDefaults)
{
    // Area x, y, width, length and colour mode per model.
    const std::vector<int> areas[8] = {{},
                                       {9, 0, 704, 1051, 0},
                                       {9, 0, 704, 1051, 0},
                                       {0, 0, 352, 576, 17},
                                       {9, 0, 704, 1051, 16},
                                       {0, 0, 736, 1051, 16},
                                       {0, 0, 736, 1051, 0},
                                       {0, 0, 736, 1051, 0}};
    for (DWORD m = 1; m <= 7; m++) {
        memset(&g_scanParams, 0x7F, sizeof g_scanParams);
        ImgInitScanParams(m);
        const ScanParams &s = g_scanParams;
        EXPECT_EQ((std::vector<int>{s.resolution, s.brightness + s.contrast + s.tint + s.saturation, s.ditherPattern,
                                    s.gamma, s.colorStep, s.edgeEnhance | s.orProcessing | s.noiseReduction}),
                  (std::vector<int>{90, 20, 16, 1, 1, 0}))
            << m;
        EXPECT_EQ((std::vector<int>{s.areaX, s.areaY, s.areaWidth, s.areaLength, s.colorMode}), areas[m]) << m;
        EXPECT_EQ((std::vector<int>{g_scanRect.x, g_scanRect.width, g_scanRect.height}),
                  (std::vector<int>{s.areaX, s.areaWidth, s.areaLength}));
    }
    g_scanParams.areaWidth = 123;
    ImgInitScanParams(9);
    EXPECT_EQ(g_scanParams.areaWidth, 123) << "unknown model keeps its area";
}

} // namespace
