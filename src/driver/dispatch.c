/* The command dispatcher: the checks common to every command, the routing
   to one handler per message, and the notification step after a successful
   command with MCI_NOTIFY. */
#include "driver/driver_state.h"

typedef DWORD (*MciHandler)(MCIDEVICEID deviceId, DWORD flags, LPVOID params);

typedef struct MciRoute {
    UINT message;
    MciHandler handler;
} MciRoute;

static const MciRoute s_routes[] = {
    {MCI_OPEN_DRIVER, MciOpen},
    {MCI_CLOSE_DRIVER, MciClose},
    {MCI_STOP, MciStop},
    {MCI_INFO, MciInfo},
    {MCI_GETDEVCAPS, MciGetDevCaps},
    {MCI_SET, MciSet},
    {MCI_SAVE, MciSave},
    {MCI_STATUS, MciStatus},
    {MCI_WINDOW, MciWindow},
    {MCI_PUT, MciPut},
    {MCI_WHERE, MciWhere},
    {MCI_COPY, MciCopy},
    {MCI_SCANREAD, MciCmdScanRead},
    {MCI_SCANMODE, MciCmdScanMode},
};

/* Commands the multimedia subsystem knows that this device does not do. */
static const UINT s_unsupported[] = {
    MCI_PLAY,     MCI_SEEK, MCI_PAUSE, MCI_STEP,  MCI_RECORD, MCI_CUE,    MCI_REALIZE, MCI_FREEZE,
    MCI_UNFREEZE, MCI_LOAD, MCI_CUT,   MCI_PASTE, MCI_UPDATE, MCI_RESUME, MCI_DELETE,
};

static DWORD RouteCommand(MCIDEVICEID deviceId, UINT message, DWORD flags, LPVOID params)
{
    size_t i;

    for (i = 0; i < sizeof(s_routes) / sizeof(s_routes[0]); i++) {
        if (s_routes[i].message == message)
            return s_routes[i].handler(deviceId, flags, params);
    }
    for (i = 0; i < sizeof(s_unsupported) / sizeof(s_unsupported[0]); i++) {
        if (s_unsupported[i] == message)
            return MCIERR_UNSUPPORTED_FUNCTION;
    }
    return MCIERR_UNRECOGNIZED_COMMAND;
}

DWORD MciDispatchCommand(MCIDEVICEID deviceId, UINT message, DWORD flags, LPVOID params)
{
    DWORD result;

    if (params == NULL)
        return MCIERR_MISSING_PARAMETER;
    /* Every command carries exactly one of notify and wait. */
    if ((flags & (MCI_NOTIFY | MCI_WAIT)) == 0)
        return MCIERR_MISSING_PARAMETER;
    if ((flags & MCI_NOTIFY) && (flags & MCI_WAIT))
        return MCIERR_FLAGS_NOT_COMPATIBLE;
    if ((flags & MCI_NOTIFY) && !IsWindow((HWND)((MCI_GENERIC_PARMS *)params)->dwCallback))
        return MCIERR_MISSING_PARAMETER;

    if (!(flags & MCI_NOTIFY))
        return RouteCommand(deviceId, message, flags, params);
    /* A notification that comes later needs its timer before the work
       starts; one that cannot be made refuses the command. */
    result = MciPrepareNotify(flags, message);
    if (result != 0)
        return result;
    result = RouteCommand(deviceId, message, flags, params);
    if (LOWORD(result) == 0)
        result = MciQueueNotify(deviceId, flags, message, params);
    MciDropPreparedNotify();
    return result;
}
