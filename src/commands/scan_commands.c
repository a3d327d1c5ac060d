/* The scan commands: scanread, scanmode, stop, set and status. */
#include "driver/driver_state.h"

/* Not built yet. */
DWORD MciStop(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciSet(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciStatus(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
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
