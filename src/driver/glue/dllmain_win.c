/* Windows: the loader calls DllMain; the driver's attach/detach logic is
   DllEntryPoint. */
#include <windows.h>

#include "driver/driver.h"

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    return DllEntryPoint(instance, reason, reserved);
}
