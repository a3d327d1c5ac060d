/* Open and close of the MCI device. Open reads the settings, opens the
   interface, makes the initial image and display copy and starts the
   display thread; close ends every running operation and undoes the rest in
   reverse order. */
#include "device/device.h"
#include "display/display.h"
#include "display/display_rects.h"
#include "image/image.h"

/* Size field of the configuration record open hands to the settings reader. */
#define OPEN_CONFIG_RECORD_SIZE 12

/* No image, and no scan or save under way: set by open and by close. */
static void ClearOperationFlags(void)
{
    g_imageValid = 0;
    g_scanAborted = 0;
    g_abortRequest = 0;
    g_scanStarted = 0;
    InterlockedExchange(&g_saveCancel, 0);
}

static void ResetOperationState(void)
{
    ClearOperationFlags();
    g_timerActive = 0;
    g_scanBusy = 0;
    g_saveBusy = 0;
    g_modeBusy = 0;
}

DWORD MciOpen(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    DRVCONFIGINFO config;

    (void)params;
    if (g_deviceOpen == 1)
        return MCIERR_DEVICE_OPEN;
    if (flags & MCI_OPEN_ELEMENT)
        return MCIERR_NO_ELEMENT_ALLOWED;
    if (flags & MCI_OPEN_SHAREABLE)
        return MCIERR_UNSUPPORTED_FUNCTION;

    config.dwDCISize = OPEN_CONFIG_RECORD_SIZE;
    config.lpszDCISectionName = TEXT("tamrix.dll");
    config.lpszDCIAliasName = TEXT("disablewarning");
    CfgReadSettings(&config, &g_settings);

    if (DevOpen(g_settings.id, g_settings.interfaceType) == INVALID_HANDLE_VALUE)
        return MCIERR_DEVICE_NOT_READY;

    g_dispReleased = 0;
    g_timeFormat = UNIT_DOT;
    ImgInitScanParams(g_settings.model);
    DispInitRects();

    if (!ImgCreateInitialImages()) {
        if (g_displayWnd != NULL)
            DestroyWindow(g_displayWnd);
        g_displayWnd = NULL;
        DevClose();
        return MCIERR_OUT_OF_MEMORY;
    }

    /* The display thread signals the event once its window exists (or could
       not be made). */
    g_dispReadyEvent = CreateEventW(NULL, TRUE, FALSE, NULL);
    g_dispThread = CreateThread(NULL, DISP_THREAD_STACK, DispThreadProc, NULL, 0, NULL);
    WaitForSingleObject(g_dispReadyEvent, INFINITE);
    CloseHandle(g_dispReadyEvent);
    g_dispReadyEvent = NULL;

    ResetOperationState();
    g_deviceId = deviceId;
    g_deviceOpen = 1;
    return 0;
}

/* Ends one pending operation: cancel it, then tell its caller it was
   aborted. */
static BOOL EndOperation(UINT message)
{
    if (!MciCancelOperation(message))
        return FALSE;
    MciAbortNotify(message);
    return TRUE;
}

DWORD MciClose(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    DWORD scanBusy, saveBusy, modeBusy;
    DWORD exitCode;

    (void)deviceId;
    (void)flags;
    (void)params;

    /* No notification is delivered while the operations are ended. An
       early return leaves g_notifyLock held, as the driver always has. */
    EnterCriticalSection(&g_notifyLock);
    EnterCriticalSection(&g_stateLock);
    scanBusy = g_scanBusy;
    saveBusy = g_saveBusy;
    modeBusy = g_modeBusy;
    LeaveCriticalSection(&g_stateLock);

    if (scanBusy == 1 && !EndOperation(MCI_SCANREAD))
        return MCIERR_HARDWARE;
    if ((modeBusy == 1 || g_modeDlgWnd != NULL) && !EndOperation(MCI_SCANMODE))
        return MCIERR_DRIVER_INTERNAL;
    if (saveBusy == 1 && !EndOperation(MCI_SAVE))
        return MCIERR_DRIVER_INTERNAL;
    g_timerActive = 0;
    LeaveCriticalSection(&g_notifyLock);

    ImgFreeImages();

    /* An application window that is still the target keeps the paint hook
       installed; it must not outlive the device (nor the library). */
    if (g_paintHook != NULL) {
        UnhookWindowsHookEx(g_paintHook);
        g_paintHook = NULL;
    }
    DestroyWindow(g_displayWnd);
    g_displayWnd = NULL;
    g_targetWnd = NULL;
    if (g_dispThread != NULL) {
        GetExitCodeThread(g_dispThread, &exitCode);
        TerminateThread(g_dispThread, exitCode);
        CloseHandle(g_dispThread);
        g_dispThread = NULL;
    }

    if (DevClose() != 1)
        return MCIERR_DEVICE_NOT_READY;

    g_deviceOpen = 0;
    g_deviceId = 0;
    ClearOperationFlags();
    return 0;
}
