/* TAMRIXWINE.DLL: a pass-through MCI driver for running TAMRIX.DLL under
   Wine. Wine's multimedia layer opens every MCI driver with a null
   parameter string, and TAMRIX.DLL refuses such an open (a driver open
   without a parameter string is not an MCI open to it). This library loads
   TAMRIX.DLL from its own folder, hands it every message unchanged, and on
   DRV_OPEN supplies an empty parameter string in place of a null one. */
#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>

typedef LRESULT(WINAPI *DriverProcFn)(DWORD_PTR, HDRVR, UINT, LPARAM, LPARAM);

static HMODULE g_self;
static HMODULE g_driver;
static DriverProcFn g_driverProc;

static BOOL LoadTamrix(void)
{
    WCHAR path[MAX_PATH];
    DWORD n;
    if (g_driverProc)
        return TRUE;
    n = GetModuleFileNameW(g_self, path, MAX_PATH);
    while (n > 0 && path[n - 1] != L'\\')
        n--;
    if (n > 0 && n + 11 < MAX_PATH) {
        lstrcpyW(path + n, L"TAMRIX.DLL");
        g_driver = LoadLibraryW(path);
    }
    if (!g_driver)
        g_driver = LoadLibraryW(L"TAMRIX.DLL");
    if (!g_driver)
        return FALSE;
    g_driverProc = (DriverProcFn)(void *)GetProcAddress(g_driver, "DriverProc");
    if (!g_driverProc) {
        FreeLibrary(g_driver);
        g_driver = NULL;
    }
    return g_driverProc != NULL;
}

LRESULT WINAPI DriverProc(DWORD_PTR driverId, HDRVR driver, UINT message, LPARAM param1, LPARAM param2)
{
    static const WCHAR empty[] = L"";
    LRESULT result;
    if (!LoadTamrix())
        return message == DRV_LOAD ? 0 : DefDriverProc(driverId, driver, message, param1, param2);
    if (message == DRV_OPEN && param2) {
        MCI_OPEN_DRIVER_PARMS *open = (MCI_OPEN_DRIVER_PARMS *)param2;
        if (!open->lpstrParams) {
            open->lpstrParams = empty;
            result = g_driverProc(driverId, driver, message, param1, param2);
            open->lpstrParams = NULL;
            return result;
        }
    }
    result = g_driverProc(driverId, driver, message, param1, param2);
    if (message == DRV_FREE) {
        FreeLibrary(g_driver);
        g_driver = NULL;
        g_driverProc = NULL;
    }
    return result;
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        g_self = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}
