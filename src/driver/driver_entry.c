/* Placeholder entry until the driver messages are implemented. */
#include "driver/driver.h"

BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    return TRUE;
}

LRESULT CALLBACK DriverProc(DWORD_PTR driverId, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    return 0;
}
