/* The copy and save commands. */
#include "driver/driver_state.h"

/* Not built yet. */
DWORD MciCopy(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}

/* Not built yet. */
DWORD MciSave(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return MCIERR_UNSUPPORTED_FUNCTION;
}
