/* The library entry point and the exported driver procedure: installable-
   driver messages are answered here, MCI command messages go to the
   dispatcher. */
#include "driver/driver.h"
#include "driver/driver_state.h"
#include "resource.h"

#define COMMAND_TABLE_NAME_CHARS 32
#define CONFIG_DIALOG_ID 1001
/* Messages handed to the command dispatcher. */
#define MCI_MESSAGE_FIRST 0x0800
#define MCI_MESSAGE_LAST 0x17FF
#define DISPLAY_CLASS_STYLE (CS_VREDRAW | CS_HREDRAW | CS_NOCLOSE)

static const WCHAR s_displayClass[] = TEXT("TamrixWnd");
static const WCHAR s_arrowClass[] = TEXT("scanArrow");
static const WCHAR s_systemIni[] = TEXT("system.ini");
static const WCHAR s_keyScanner[] = TEXT("Scanner");

BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        InitializeCriticalSection(&g_stateLock);
        InitializeCriticalSection(&g_notifyLock);
        g_deviceOpen = 0;
        g_openComHandle = 0;
        g_openComPort = 0;
        g_hModule = instance;
    } else if (reason == DLL_PROCESS_DETACH) {
        DeleteCriticalSection(&g_stateLock);
        DeleteCriticalSection(&g_notifyLock);
    }
    return TRUE;
}

/* The class of the image display window. Its registration result is not
   looked at: a class left over from an earlier load is as good. */
static void RegisterDisplayClass(void)
{
    WNDCLASSW wc;

    wc.style = DISPLAY_CLASS_STYLE;
    wc.lpfnWndProc = DispWndProc;
    wc.cbClsExtra = 0;
    wc.cbWndExtra = 0;
    wc.hInstance = g_hModule;
    wc.hIcon = LoadIconW(g_hModule, TEXT("scanicon"));
    wc.hCursor = LoadCursorW(NULL, IDC_ARROW);
    wc.hbrBackground = (HBRUSH)GetStockObject(WHITE_BRUSH);
    wc.lpszMenuName = NULL;
    wc.lpszClassName = s_displayClass;
    RegisterClassW(&wc);
}

static LRESULT DrvLoad(void)
{
    WCHAR tableName[COMMAND_TABLE_NAME_CHARS];

    RegisterDisplayClass();
    if (LoadStringW(g_hModule, IDS_COMMAND_TABLE, tableName, COMMAND_TABLE_NAME_CHARS) == 0)
        return 0;
    g_commandTableId = mciLoadCommandResource(g_hModule, tableName, 0);
    return g_commandTableId == MCI_NO_COMMAND_TABLE ? 0 : 1;
}

static LRESULT DrvFree(void)
{
    /* Nothing the device started may outlive the library, not even after a
       close that failed. */
    MciShutdown();
    UnregisterClassW(s_displayClass, g_hModule);
    if (g_commandTableId != MCI_NO_COMMAND_TABLE) {
        mciFreeCommandResource(g_commandTableId);
        g_commandTableId = MCI_NO_COMMAND_TABLE;
    }
    return 1;
}

static LRESULT DrvOpen(LPARAM param2)
{
    MCI_OPEN_DRIVER_PARMS *open = (MCI_OPEN_DRIVER_PARMS *)param2;

    if (open == NULL)
        return TAMRIX_PLAIN_DRIVER_ID;
    open->wCustomCommandTable = g_commandTableId;
    open->wType = TAMRIX_DEVTYPE;
    if (open->lpstrParams == NULL)
        return 0;
    return open->wDeviceID;
}

static LRESULT DrvClose(void)
{
    if (g_modeDlgWnd != NULL) {
        g_modeDlgWnd = NULL;
        return 0;
    }
    return 1;
}

static LRESULT DrvConfigure(LPARAM param1, LPARAM param2)
{
    DRVCONFIGINFO *config = (DRVCONFIGINFO *)param2;
    HWND parent = (HWND)param1;
    INT_PTR result;

    if (config == NULL || parent == NULL || config->dwDCISize != sizeof(DRVCONFIGINFO))
        return 0;
    if (!CfgRegisterArrowClass(g_hModule))
        return 0;
    result = DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(CONFIG_DIALOG_ID), parent, CfgConfigDlgProc, (LPARAM)config);
    UnregisterClassW(s_arrowClass, g_hModule);
    return result == -1 ? 0 : result;
}

static LRESULT DrvInstall(void)
{
    if (WritePrivateProfileStringW(TEXT("MCI32"), s_keyScanner, TEXT("TAMRIX.DLL"), s_systemIni) != 1)
        return 0;
    return WritePrivateProfileStringW(TEXT("Drivers32"), s_keyScanner, NULL, s_systemIni);
}

static LRESULT DrvRemove(void)
{
    if (WritePrivateProfileStringW(TEXT("MCI32"), s_keyScanner, NULL, s_systemIni) != 1)
        return 0;
    return WritePrivateProfileStringW(TEXT("Drivers32"), s_keyScanner, NULL, s_systemIni);
}

LRESULT CALLBACK DriverProc(DWORD_PTR driverId, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    switch (msg) {
    case DRV_LOAD:
        return DrvLoad();
    case DRV_ENABLE:
    case DRV_DISABLE:
    case DRV_QUERYCONFIGURE:
        return 1;
    case DRV_OPEN:
        return DrvOpen(param2);
    case DRV_CLOSE:
        return DrvClose();
    case DRV_FREE:
        return DrvFree();
    case DRV_CONFIGURE:
        return DrvConfigure(param1, param2);
    case DRV_INSTALL:
        return DrvInstall();
    case DRV_REMOVE:
        return DrvRemove();
    default:
        break;
    }
    if (driverId <= 0xFFFF && msg >= MCI_MESSAGE_FIRST && msg <= MCI_MESSAGE_LAST)
        return (LRESULT)MciDispatchCommand((MCIDEVICEID)driverId, msg, (DWORD)param1, (LPVOID)param2);
    return DefDriverProc(driverId, driver, msg, param1, param2);
}
