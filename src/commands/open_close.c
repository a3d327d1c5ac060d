/* Open and close of the MCI device. */
#include "driver/driver_state.h"

/* Not built yet: the device is opened by a later change. */
DWORD MciOpen(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciClose(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}
