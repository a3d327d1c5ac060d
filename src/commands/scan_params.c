/* Checking and storing the values of a "scanmode" command for the model of
   the open device. */
#include "driver/driver_state.h"

#define MAX_CONTRAST 9

typedef struct ResolutionRange {
    DWORD low;
    DWORD high;
    BOOL tens; /* must be a multiple of 10 */
} ResolutionRange;

/* Models 1 to 7. */
static const ResolutionRange s_resolutions[7] = {
    {50, 320, TRUE}, {90, 640, TRUE}, {90, 400, TRUE}, {5, 320, FALSE},
    {50, 480, TRUE}, {50, 600, TRUE}, {90, 640, TRUE},
};

/* Bits per sample for 2, 4, ... 256 colour steps; 0 when not a step count. */
static SHORT StepCode(DWORD steps)
{
    SHORT bits;

    for (bits = 1; bits <= 8; bits++) {
        if (steps == (DWORD)1 << bits)
            return bits;
    }
    return 0;
}

static BOOL ModelHasColor(DWORD model)
{
    return model == 3 || model == 4 || model == 5;
}

BOOL CfgCheckScanMode(DWORD flags, const ScanModeParms *params)
{
    DWORD model = g_settings.model;

    if ((flags & MCI_SCANMODE_RESOLUTION) && model >= 1 && model <= 7) {
        const ResolutionRange *range = &s_resolutions[model - 1];
        if (params->resolution < range->low || params->resolution > range->high)
            return FALSE;
        if (range->tens && params->resolution % 10 != 0)
            return FALSE;
    }
    if ((flags & MCI_SCANMODE_CONTRAST) && params->contrast > MAX_CONTRAST)
        return FALSE;
    if (flags & MCI_SCANMODE_COLORSTEP) {
        if (model == 1 || model == 7) {
            if (params->colorStep != 2)
                return FALSE;
        } else if (StepCode(params->colorStep) == 0) {
            return FALSE;
        }
    }
    if (flags & MCI_SCANMODE_COLORMODE) {
        if (params->colorMode != COLORMODE_MONO && !(ModelHasColor(model) && params->colorMode == COLORMODE_COLOR))
            return FALSE;
    }
    return TRUE;
}

void CfgApplyScanMode(DWORD flags, const ScanModeParms *params)
{
    if (flags & MCI_SCANMODE_RESOLUTION)
        g_scanParams.resolution = (SHORT)params->resolution;
    if (flags & MCI_SCANMODE_CONTRAST)
        g_scanParams.contrast = (SHORT)params->contrast;
    if (flags & MCI_SCANMODE_COLORSTEP) {
        SHORT code = StepCode(params->colorStep);
        if (code != 0)
            g_scanParams.colorStep = code;
    }
    if (flags & MCI_SCANMODE_COLORMODE) {
        if (params->colorMode == COLORMODE_MONO)
            g_scanParams.colorMode = 0;
        else
            g_scanParams.colorMode = g_settings.model == 3 ? 17 : 16;
    }
    /* Halftone comes last, so it wins over a colour step in the same command. */
    if (flags & MCI_SCANMODE_HALFTONE)
        g_scanParams.colorStep = 16;
}
