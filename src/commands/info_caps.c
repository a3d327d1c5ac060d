/* The info and capability commands: the product name and what the device
   can do, much of it per scanner model and in the time format's unit. */
#include "driver/driver_state.h"
#include "resource.h"

#define PRODUCT_NAME_MAX_CHARS 64

DWORD MciInfo(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_INFO_PARMS *info = (MCI_INFO_PARMS *)params;
    WCHAR whole[PRODUCT_NAME_MAX_CHARS];
    int total, loaded;

    (void)deviceId;
    if (info->lpstrReturn == NULL)
        return MCIERR_NULL_PARAMETER_BLOCK;
    if (info->dwRetSize == 0)
        return MCIERR_PARAM_OVERFLOW;
    if (!(flags & MCI_INFO_PRODUCT))
        return MCIERR_MISSING_PARAMETER;

    info->lpstrReturn[0] = 0;
    loaded = LoadStringW(g_hModule, IDS_PRODUCT, info->lpstrReturn, (int)info->dwRetSize);
    /* The size field reports bytes, not characters. */
    info->dwRetSize = (DWORD)loaded * 2;
    total = LoadStringW(g_hModule, IDS_PRODUCT, whole, PRODUCT_NAME_MAX_CHARS);
    return loaded < total ? MCIERR_PARAM_OVERFLOW : 0;
}

/* Per model 1 to 7. */
static const DWORD s_maxResolution[7] = {320, 640, 400, 320, 480, 600, 640};
static const DWORD s_minResolution[7] = {50, 90, 90, 5, 50, 50, 90};
static const DWORD s_resolutionStep[7] = {10, 10, 10, 1, 10, 10, 10};
static const DWORD s_maxColorStep[7] = {2, 256, 256, 256, 256, 256, 2};
static const DWORD s_colorStepInterval[7] = {0, 1, 1, 1, 1, 1, 0};

/* Maximum width in 0.01 inch. */
static DWORD ModelWidth(DWORD model)
{
    switch (model) {
    case 3:
        return 420;
    case 5:
    case 6:
        return 850;
    case 7:
        return 826;
    default:
        return 790;
    }
}

/* Maximum length in 0.0001 inch. */
static DWORD ModelLength(DWORD model, DWORD interfaceType)
{
    switch (model) {
    case 3:
        return 64000;
    case 5:
    case 6:
        return 116900;
    default:
        return interfaceType == IF_SCSI ? 116800 : 116875;
    }
}

static DWORD Resolution(void)
{
    return (DWORD)(LONG)g_scanParams.resolution;
}

static DWORD WidthInUnits(DWORD w)
{
    if (g_timeFormat == UNIT_MILLIMETER)
        return w * 254 / 100;
    if (g_timeFormat == UNIT_INCH)
        return w;
    return Resolution() * w / 100;
}

static DWORD LengthInUnits(DWORD l)
{
    if (g_timeFormat == UNIT_MILLIMETER)
        return l * 254 / 10000;
    if (g_timeFormat == UNIT_INCH)
        return l / 100;
    return Resolution() * l / 10000;
}

/* Models 1, 2 and 4 cannot start at the left edge (0.1 inch in). */
static DWORD MinStartX(DWORD model)
{
    if (model != 1 && model != 2 && model != 4)
        return 0;
    if (g_timeFormat == UNIT_MILLIMETER)
        return 26;
    if (g_timeFormat == UNIT_INCH)
        return 10;
    return (DWORD)(((LONG)g_scanParams.resolution + 9) / 10);
}

/* Answers an item; FALSE when the item is not one of the device's. */
static BOOL CapabilityOf(DWORD item, DWORD *value)
{
    DWORD model = g_settings.model;
    DWORD m = (model >= 1 && model <= 7) ? model - 1 : 0;

    switch (item) {
    case MCI_GETDEVCAPS_CAN_RECORD:
    case MCI_GETDEVCAPS_HAS_AUDIO:
    case MCI_GETDEVCAPS_HAS_VIDEO:
    case MCI_GETDEVCAPS_USES_FILES:
    case MCI_GETDEVCAPS_COMPOUND_DEVICE:
    case MCI_GETDEVCAPS_CAN_EJECT:
    case MCI_GETDEVCAPS_CAN_PLAY:
    case MCI_GETDEVCAPS_HAS_ADF:
    case MCI_GETDEVCAPS_CAN_MANUAL_START:
    case MCI_GETDEVCAPS_MIN_STARTY:
    case MCI_GETDEVCAPS_MIN_CONTRAST:
        *value = 0;
        return TRUE;
    case MCI_GETDEVCAPS_DEVICE_TYPE:
        *value = TAMRIX_DEVTYPE;
        return TRUE;
    case MCI_GETDEVCAPS_CAN_SAVE:
    case MCI_GETDEVCAPS_INTERVAL_CONTRAST:
    case MCI_GETDEVCAPS_USE_MODE_DIALOG:
    case MCI_GETDEVCAPS_CAN_SCANREAD:
    case MCI_GETDEVCAPS_CAN_HALFTONE:
        *value = 1;
        return TRUE;
    case MCI_GETDEVCAPS_CAN_SCAN_COLOR:
        *value = (model == 3 || model == 4 || model == 5) ? 1 : 0;
        return TRUE;
    case MCI_GETDEVCAPS_CAN_STOP:
        *value = (model == 7 && g_settings.interfaceType == IF_GPIB) ? 0 : 1;
        return TRUE;
    case MCI_GETDEVCAPS_MIN_STARTX:
        *value = MinStartX(model);
        return TRUE;
    case MCI_GETDEVCAPS_MAX_WIDTH:
        *value = WidthInUnits(ModelWidth(model));
        return TRUE;
    case MCI_GETDEVCAPS_MAX_LENGTH:
        *value = LengthInUnits(ModelLength(model, g_settings.interfaceType));
        return TRUE;
    case MCI_GETDEVCAPS_MAX_RESOLUTION:
        *value = s_maxResolution[m];
        return TRUE;
    case MCI_GETDEVCAPS_MIN_RESOLUTION:
        *value = s_minResolution[m];
        return TRUE;
    case MCI_GETDEVCAPS_INTERVAL_RESOLUTION:
        *value = s_resolutionStep[m];
        return TRUE;
    case MCI_GETDEVCAPS_MAX_CONTRAST:
        *value = 9;
        return TRUE;
    case MCI_GETDEVCAPS_MAX_COLORSTEP:
        *value = s_maxColorStep[m];
        return TRUE;
    case MCI_GETDEVCAPS_MIN_COLORSTEP:
        *value = 2;
        return TRUE;
    case MCI_GETDEVCAPS_INTERVAL_COLORSTEP:
        *value = s_colorStepInterval[m];
        return TRUE;
    default:
        return FALSE;
    }
}

DWORD MciGetDevCaps(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_GETDEVCAPS_PARMS *caps = (MCI_GETDEVCAPS_PARMS *)params;
    DWORD value;

    (void)deviceId;
    if (!(flags & MCI_GETDEVCAPS_ITEM))
        return MCIERR_MISSING_PARAMETER;
    if (!CapabilityOf(caps->dwItem, &value))
        return MCIERR_UNSUPPORTED_FUNCTION;
    caps->dwReturn = value;
    /* Every answer, numbers and yes/no alike, is reported as a resource. */
    return MCI_RESOURCE_RETURNED;
}
