/* A small MCI driver used to test the command shell: it uses the scanner's
   command table, opens without a device, answers every command at once with
   success and notifies the callback window when asked to. */
#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>
#include <tamrix/platform.h>

static UINT s_table = MCI_NO_COMMAND_TABLE;

LRESULT CALLBACK DriverProc(DWORD_PTR driverId, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    switch (msg) {
    case DRV_LOAD:
        s_table = mciLoadCommandResource(PlatModuleFromAddress(&s_table), TEXT("#96"), 0);
        return s_table != MCI_NO_COMMAND_TABLE;
    case DRV_FREE:
        mciFreeCommandResource(s_table);
        s_table = MCI_NO_COMMAND_TABLE;
        return 1;
    case DRV_OPEN:
        if (param2 == 0)
            return 1;
        ((MCI_OPEN_DRIVER_PARMS *)param2)->wCustomCommandTable = s_table;
        ((MCI_OPEN_DRIVER_PARMS *)param2)->wType = MCI_DEVTYPE_OTHER;
        return ((MCI_OPEN_DRIVER_PARMS *)param2)->wDeviceID;
    case DRV_CLOSE:
    case DRV_ENABLE:
    case DRV_DISABLE:
        return 1;
    default:
        break;
    }
    if (msg >= DRV_MCI_FIRST && msg <= DRV_MCI_LAST) {
        const MCI_GENERIC_PARMS *block = (const MCI_GENERIC_PARMS *)param2;
        if ((param1 & MCI_NOTIFY) && block != NULL)
            mciDriverNotify((HANDLE)block->dwCallback, (MCIDEVICEID)driverId, MCI_NOTIFY_SUCCESSFUL);
        return 0;
    }
    return DefDriverProc(driverId, driver, msg, param1, param2);
}
