/* The scan commands: scanread, scanmode, stop, set and status. */
#include "driver/driver_state.h"
#include "device/device.h"
#include "image/image.h"
#include "config/config.h"

/* Stops a notified scan that has started: the device layer waits for the
   reader to reach a block boundary and aborts the line; the timer procedure
   is then run at once so that the scan's notification goes out now. */
DWORD MciStop(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    if (g_settings.model == 7)
        return MCIERR_UNSUPPORTED_FUNCTION;
    if (!MciScanBusy() || g_scanStarted == 0)
        return 0;
    if (DevControl(DEVCTL_ABORT) == 1) {
        /* The reader has let go of the scan; its thread ends before the
           notification goes out. */
        MciJoinThread(&g_hScanThread);
        MciNotifyTimerProc(NULL, 0, 0, 0);
        return 0;
    }
    /* The scan is still marked pending: its busy flag (1) is the answer. */
    return MciScanBusy() ? 1 : 0;
}

DWORD MciSet(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    const MCI_SET_PARMS *set = (const MCI_SET_PARMS *)params;

    (void)deviceId;
    if (!(flags & MCI_SET_TIME_FORMAT))
        return MCIERR_MISSING_PARAMETER;
    if (MciScanBusy())
        return MCIERR_COMMAND_ORDER;
    if (set->dwTimeFormat != UNIT_MILLIMETER && set->dwTimeFormat != UNIT_INCH && set->dwTimeFormat != UNIT_DOT)
        return MCIERR_BAD_TIME_FORMAT;
    g_timeFormat = set->dwTimeFormat;
    return 0;
}

DWORD MciStatus(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_STATUS_PARMS *status = (MCI_STATUS_PARMS *)params;
    DWORD mode;

    (void)deviceId;
    if (!(flags & MCI_STATUS_ITEM) || (status->dwItem != MCI_STATUS_READY && status->dwItem != MCI_STATUS_SCANNER))
        return MCIERR_MISSING_PARAMETER;
    mode = DevGetMode();
    if (status->dwItem == MCI_STATUS_READY)
        status->dwReturn = mode == MCI_MODE_STOP || mode == MCI_MODE_OPEN;
    else
        status->dwReturn = mode;
    return 0;
}

/* Controls of the scan-mode dialog that a running scan disables. */
static const int g_scanLockedControls[] = {402, 401, 403, 405, 407, 414, 415, 416, 417, 418, 419, 1, 2};

/* Controls whose enable state is saved, in the order of g_modeDlgEnableState. */
static int ModeDlgControl(int index)
{
    if (index < 25)
        return index == 0 ? 402 : index == 1 ? 401 : 401 + index;
    return index == 25 ? 1 : 2;
}

static void LockModeDlgControls(void)
{
    int i;

    for (i = 0; i < MODE_DLG_SAVED_CONTROLS; i++)
        g_modeDlgEnableState[i] = IsWindowEnabled(GetDlgItem(g_modeDlgWnd, ModeDlgControl(i)));
    for (i = 0; i < (int)(sizeof g_scanLockedControls / sizeof g_scanLockedControls[0]); i++)
        EnableWindow(GetDlgItem(g_modeDlgWnd, g_scanLockedControls[i]), FALSE);
}

static void PutBackScanArea(void)
{
    g_scanParams.areaX = (SHORT)g_savedScanArea.x;
    g_scanParams.areaY = (SHORT)g_savedScanArea.y;
    g_scanParams.areaWidth = (SHORT)g_savedScanArea.width;
    g_scanParams.areaLength = (SHORT)g_savedScanArea.height;
}

DWORD MciCmdScanRead(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    const ScanReadParms *read = (const ScanReadParms *)params;
    ScanRect rect, px;
    DWORD rawBytes, stride, widthPx, lines;
    BOOL dialogUp;
    LONG result;
    int i;

    (void)deviceId;
    rect.x = read->rc.left;
    rect.y = read->rc.top;
    rect.width = read->rc.right;
    rect.height = read->rc.bottom;

    if (MciScanReadRefused())
        return MCIERR_COMMAND_ORDER;
    if (!(flags & MCI_SCANREAD_RECT))
        rect = g_scanRect;
    if (ImgScanRectToPixels(&rect, g_scanParams.resolution, &px) != 1)
        return MCIERR_OUTOFRANGE;

    g_scanRect = rect;
    g_savedScanArea.x = g_scanParams.areaX;
    g_savedScanArea.y = g_scanParams.areaY;
    g_savedScanArea.width = g_scanParams.areaWidth;
    g_savedScanArea.height = g_scanParams.areaLength;
    g_scanParams.areaX = (SHORT)px.x;
    g_scanParams.areaY = (SHORT)px.y;
    g_scanParams.areaWidth = (SHORT)px.width;
    g_scanParams.areaLength = (SHORT)px.height;

    ImgComputeGeometry(&g_scanParams, &rawBytes, &stride, &widthPx, &lines);
    if (!ImgCreateScanBuffers(rawBytes, stride, widthPx, lines)) {
        PutBackScanArea();
        return MCIERR_OUT_OF_MEMORY;
    }

    EnterCriticalSection(&g_stateLock);
    dialogUp = g_modeBusy == 1 || g_modeDlgWnd != NULL;
    LeaveCriticalSection(&g_stateLock);
    if (dialogUp)
        LockModeDlgControls();

    MciWriteResult(&g_scanResult, -1);
    g_scanStarted = 1;
    g_scanFlags = flags;

    if (flags & MCI_NOTIFY) {
        /* The previous scan's thread has ended or is ending. Started
           suspended so that the handle is stored before the thread runs. */
        MciJoinThread(&g_hScanThread);
        g_hScanThread = CreateThread(NULL, 256, ImgScanThread, &g_scanFlags, CREATE_SUSPENDED, NULL);
        if (g_hScanThread == NULL) {
            g_scanStarted = 0;
            MciWriteResult(&g_scanResult, MCIERR_OUT_OF_MEMORY);
            ImgFreeScanBuffers(0);
            ImgRestoreModeDlgControls();
            PutBackScanArea();
            return MCIERR_OUT_OF_MEMORY;
        }
        ResumeThread(g_hScanThread);
    } else {
        ImgScanThread(&g_scanFlags);
        for (i = 0; i < 25; i++)
            EnableWindow(GetDlgItem(g_modeDlgWnd, ModeDlgControl(i)), g_modeDlgEnableState[i]);
    }

    result = MciReadResult(&g_scanResult);
    if (result < 0)
        return 0;
    if (result == 0) {
        g_imageValid = 1;
        return 0;
    }
    PutBackScanArea();
    return (DWORD)result;
}

#define SCANMODE_VALUE_FLAGS                                                                                           \
    (MCI_SCANMODE_RESOLUTION | MCI_SCANMODE_CONTRAST | MCI_SCANMODE_COLORSTEP | MCI_SCANMODE_HALFTONE |                \
     MCI_SCANMODE_COLORMODE)

DWORD MciCmdScanMode(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    ScanModeParms *mode = (ScanModeParms *)params;
    LONG result;

    if (!(flags & (SCANMODE_VALUE_FLAGS | MCI_SCANMODE_DIALOG)))
        return MCIERR_MISSING_PARAMETER;
    if ((flags & MCI_SCANMODE_COLORSTEP) && (flags & MCI_SCANMODE_HALFTONE))
        return MCIERR_FLAGS_NOT_COMPATIBLE;
    if (MciScanModeRefused())
        return MCIERR_COMMAND_ORDER;

    g_savedScanParams = g_scanParams;
    if (flags & SCANMODE_VALUE_FLAGS) {
        if (!CfgCheckScanMode(flags, mode))
            return MCIERR_OUTOFRANGE;
        CfgApplyScanMode(flags, mode);
    }
    if (!(flags & MCI_SCANMODE_DIALOG))
        return 0;
    if (g_modeDlgWnd != NULL) {
        CfgRefreshModeDialog(flags);
        return 0;
    }

    MciWriteResult(&g_modeResult, -1);
    g_modeRequest.flags = flags;
    g_modeRequest.params = mode;
    g_hModeOwner = GetActiveWindow();
    if (flags & MCI_NOTIFY) {
        /* A previous dialog's thread has ended or is ending. Started
           suspended so that the handle is stored before the thread runs. */
        MciJoinThread(&g_hModeThread);
        g_hModeThread = CreateThread(NULL, 256, CfgModeSetThread, &g_modeRequest, CREATE_SUSPENDED, NULL);
        if (g_hModeThread == NULL) {
            MciWriteResult(&g_modeResult, MCIERR_CREATEWINDOW);
        } else {
            ResumeThread(g_hModeThread);
        }
    } else {
        CfgModeSetThread(&g_modeRequest);
    }

    if (flags & MCI_WAIT) {
        while (MciReadResult(&g_modeResult) < 0) {
            if (mciDriverYield(deviceId) != 0)
                break;
        }
    }

    result = MciReadResult(&g_modeResult);
    if (result <= 0)
        return 0;
    /* A dialog that failed before the command returned leaves nothing
       behind: its thread has only to end. */
    MciJoinThread(&g_hModeThread);
    g_scanParams = g_savedScanParams;
    return (DWORD)result;
}
