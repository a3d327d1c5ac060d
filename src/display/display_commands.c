/* The window, put and where commands of the display. */
#include "driver/driver_state.h"

/* Not built yet. */
DWORD MciWindow(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciPut(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciWhere(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}
