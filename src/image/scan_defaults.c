/* The scan parameters a model starts with when the device is opened. */
#include "driver/driver_state.h"

typedef struct ModelArea {
    SHORT x;
    SHORT y;
    SHORT width;
    SHORT length;
    SHORT colorMode;
} ModelArea;

/* Models 1 to 7: the full scan area at 90 dpi and the colour mode. */
static const ModelArea s_modelAreas[7] = {
    {9, 0, 704, 1051, 0},  {9, 0, 704, 1051, 0}, {0, 0, 352, 576, 17}, {9, 0, 704, 1051, 16},
    {0, 0, 736, 1051, 16}, {0, 0, 736, 1051, 0}, {0, 0, 736, 1051, 0},
};

void ImgInitScanParams(DWORD model)
{
    g_scanParams.resolution = 90;
    g_scanParams.ditherPattern = 16;
    g_scanParams.brightness = 5;
    g_scanParams.contrast = 5;
    g_scanParams.gamma = 1;
    g_scanParams.colorStep = 1;
    g_scanParams.tint = 5;
    g_scanParams.saturation = 5;
    g_scanParams.edgeEnhance = 0;
    g_scanParams.orProcessing = 0;
    g_scanParams.noiseReduction = 0;

    if (model >= 1 && model <= 7) {
        const ModelArea *area = &s_modelAreas[model - 1];
        g_scanParams.areaX = area->x;
        g_scanParams.areaY = area->y;
        g_scanParams.areaWidth = area->width;
        g_scanParams.areaLength = area->length;
        g_scanParams.colorMode = area->colorMode;
    }

    /* Open sets dot units, so the rectangle equals the area. */
    g_scanRect.x = g_scanParams.areaX;
    g_scanRect.y = g_scanParams.areaY;
    g_scanRect.width = g_scanParams.areaWidth;
    g_scanRect.height = g_scanParams.areaLength;
}
