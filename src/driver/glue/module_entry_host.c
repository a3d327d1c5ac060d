/* POSIX hosts: the module's constructor and destructor stand in for the
   Windows loader and call DllEntryPoint with the same reasons. */
#include <windows.h>
#include <tamrix/platform.h>

#include "driver/driver.h"

static HINSTANCE s_instance;

__attribute__((constructor)) static void ModuleAttach(void)
{
    s_instance = PlatModuleFromAddress((const void *)&ModuleAttach);
    DllEntryPoint(s_instance, DLL_PROCESS_ATTACH, NULL);
}

__attribute__((destructor)) static void ModuleDetach(void)
{
    DllEntryPoint(s_instance, DLL_PROCESS_DETACH, NULL);
}
