/* The scan commands: scanread, scanmode, stop, set and status. */
#include "driver/driver_state.h"
#include "device/device.h"

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

/* Not built yet. */
DWORD MciCmdScanRead(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciCmdScanMode(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}
