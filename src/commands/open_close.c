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
#define MODE_CLOSE_POLL_MS 10

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

/* Starts the display thread and waits until its window exists. The wait
   also ends when the thread does (its window or the event failed), so open
   never waits for ever; then nothing of the thread is left. */
static BOOL StartDisplayThread(void)
{
    HANDLE waits[2];

    g_dispThread = NULL;
    g_dispReadyEvent = CreateEventW(NULL, TRUE, FALSE, NULL);
    if (g_dispReadyEvent == NULL)
        return FALSE;
    g_dispThread = CreateThread(NULL, DISP_THREAD_STACK, DispThreadProc, NULL, 0, &g_dispThreadId);
    if (g_dispThread != NULL) {
        waits[0] = g_dispReadyEvent;
        waits[1] = g_dispThread;
        WaitForMultipleObjects(2, waits, FALSE, INFINITE);
    }
    CloseHandle(g_dispReadyEvent);
    g_dispReadyEvent = NULL;
    if (g_displayWnd != NULL)
        return TRUE;
    MciJoinThread(&g_dispThread);
    g_targetWnd = NULL;
    return FALSE;
}

/* Ends the display thread: its loop ends at the quit message, and the
   thread destroys its own window. */
static void EndDisplayThread(void)
{
    if (g_dispThread == NULL)
        return;
    if (!PostThreadMessageW(g_dispThreadId, WM_QUIT, 0, 0))
        TerminateThread(g_dispThread, 0);
    MciJoinThread(&g_dispThread);
    g_displayWnd = NULL;
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

    if (!StartDisplayThread()) {
        ImgFreeImages();
        DevClose();
        return MCIERR_OUT_OF_MEMORY;
    }

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

/* Waits for every worker thread still there: a save is asked to give up
   first; a scan has been stopped and a dialog closed by then. */
static void JoinWorkers(void)
{
    MSG msg;

    if (g_hSaveThread != NULL) {
        InterlockedExchange(&g_saveCancel, 1);
        MciJoinThread(&g_hSaveThread);
        InterlockedExchange(&g_saveCancel, 0);
    }
    /* A dialog thread that had not made its window when close sent
       WM_CLOSE is told again once the window is there. */
    while (g_hModeThread != NULL && WaitForSingleObject(g_hModeThread, MODE_CLOSE_POLL_MS) != WAIT_OBJECT_0) {
        if (g_modeDlgWnd != NULL)
            SendMessageW(g_modeDlgWnd, WM_CLOSE, 0, 0);
        PeekMessageW(&msg, NULL, 0, 0, PM_NOREMOVE);
    }
    MciJoinThread(&g_hModeThread);
    MciJoinThread(&g_hScanThread);
}

/* The timer goes with the operations it reported on. */
static void StopNotifyTimer(void)
{
    if (g_timerActive == 1 && g_timerId != 0)
        KillTimer(NULL, g_timerId);
    g_timerId = 0;
    g_timerActive = 0;
}

/* Close proper. With force (the library is let go) an operation that
   cannot be ended does not stop the release. */
static DWORD CloseDevice(BOOL force)
{
    DWORD scanBusy, saveBusy, modeBusy;
    DWORD error = 0;

    /* No notification is delivered while the operations are ended. */
    EnterCriticalSection(&g_notifyLock);
    EnterCriticalSection(&g_stateLock);
    scanBusy = g_scanBusy;
    saveBusy = g_saveBusy;
    modeBusy = g_modeBusy;
    LeaveCriticalSection(&g_stateLock);

    if (scanBusy == 1 && !EndOperation(MCI_SCANREAD))
        error = MCIERR_HARDWARE;
    if (error == 0 && (modeBusy == 1 || g_modeDlgWnd != NULL) && !EndOperation(MCI_SCANMODE))
        error = MCIERR_DRIVER_INTERNAL;
    if (error == 0 && saveBusy == 1 && !EndOperation(MCI_SAVE))
        error = MCIERR_DRIVER_INTERNAL;
    if (error != 0 && !force) {
        /* The device stays open with the operation pending. Whatever has
           let go of the driver is waited for; the timer goes on reporting
           to this thread. */
        LeaveCriticalSection(&g_notifyLock);
        return error;
    }
    JoinWorkers();
    StopNotifyTimer();
    LeaveCriticalSection(&g_notifyLock);

    /* An application window that is still the target keeps the paint hook
       installed; it must not outlive the device (nor the library). The
       display thread ends before the images it paints from go. */
    if (g_paintHook != NULL) {
        UnhookWindowsHookEx(g_paintHook);
        g_paintHook = NULL;
    }
    EndDisplayThread();
    g_targetWnd = NULL;
    ImgFreeImages();

    if (DevClose() != 1 && !force)
        return MCIERR_DEVICE_NOT_READY;

    g_deviceOpen = 0;
    g_deviceId = 0;
    ClearOperationFlags();
    return 0;
}

DWORD MciClose(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    (void)deviceId;
    (void)flags;
    (void)params;
    return CloseDevice(FALSE);
}

void MciShutdown(void)
{
    if (g_deviceOpen == 1)
        CloseDevice(TRUE);
    else
        StopNotifyTimer();
}
