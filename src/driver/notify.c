/* Notification of the long operations (scan, save, scan-mode dialog): the
   notification step after a successful notify command, the 1000 ms thread
   timer that delivers deferred notifications, and the helpers close and
   the handlers use to cancel, refuse and wait. */
#include "driver/driver_state.h"

#define NOTIFY_TIMER_ID 1
#define NOTIFY_TIMER_PERIOD 1000
#define SAVE_CANCEL_POLL_MS 1000
#define JOIN_TRIES 100
#define JOIN_RETRY_MS 10

/* The timer made for a deferred notify command before its work started. */
static UINT_PTR s_readyTimer;
/* Whether the notify command being dispatched reports later, decided
   before its handler ran. */
static BOOL s_decided;
static BOOL s_defers;

/* Busy flag of an operation: scan, save, else the mode dialog. */
static DWORD *BusyFlagOf(UINT message)
{
    if (message == MCI_SCANREAD)
        return &g_scanBusy;
    if (message == MCI_SAVE)
        return &g_saveBusy;
    return &g_modeBusy;
}

static HWND *CallbackOf(UINT message)
{
    if (message == MCI_SCANREAD)
        return &g_scanCallback;
    if (message == MCI_SAVE)
        return &g_saveCallback;
    return &g_modeCallback;
}

static DWORD ReadFlag(const DWORD *flag)
{
    DWORD value;

    EnterCriticalSection(&g_stateLock);
    value = *flag;
    LeaveCriticalSection(&g_stateLock);
    return value;
}

static void WriteFlag(DWORD *flag, DWORD value)
{
    EnterCriticalSection(&g_stateLock);
    *flag = value;
    LeaveCriticalSection(&g_stateLock);
}

static void Notify(HWND callback, UINT code)
{
    /* The window may be gone by now; nothing to do about it. */
    mciDriverNotify((HANDLE)callback, g_deviceId, code);
}

/* Waits for a thread the driver started and closes its handle; the handle
   is the driver's, not the thread's, so the thread has left the driver's
   code once this returns. */
void MciJoinThread(HANDLE *thread)
{
    int failures = 0;
    MSG msg;

    if (*thread == NULL)
        return;
    /* The thread may send to a window of this thread on its way out (a
       dialog's owner, a target window): sent messages are taken in while
       waiting. */
    while (failures < JOIN_TRIES) {
        DWORD woke = MsgWaitForMultipleObjects(1, thread, FALSE, INFINITE, QS_ALLINPUT);
        if (woke == WAIT_OBJECT_0)
            break;
        if (woke == WAIT_OBJECT_0 + 1) {
            PeekMessageW(&msg, NULL, 0, 0, PM_NOREMOVE);
            if (WaitForSingleObject(*thread, JOIN_RETRY_MS) == WAIT_OBJECT_0)
                break;
            continue;
        }
        failures++;
        Sleep(JOIN_RETRY_MS);
    }
    CloseHandle(*thread);
    *thread = NULL;
}

/* Closes the handle of a thread that has already ended; one still running
   is left for a later join. */
static void ReapThread(HANDLE *thread)
{
    if (*thread != NULL && WaitForSingleObject(*thread, 0) == WAIT_OBJECT_0) {
        CloseHandle(*thread);
        *thread = NULL;
    }
}

/* A notify command whose notification comes later: its timer is made
   before the work starts, so that a timer that cannot be made refuses the
   command with nothing started. */
static BOOL Defers(DWORD flags, UINT message)
{
    return message == MCI_SCANREAD || message == MCI_SAVE ||
           (message == MCI_SCANMODE && (flags & MCI_SCANMODE_DIALOG) && g_modeDlgWnd == NULL);
}

DWORD MciPrepareNotify(DWORD flags, UINT message)
{
    if (!(flags & MCI_NOTIFY))
        return 0;
    /* Decided before the handler runs: a dialog thread that has its window
       by the time the notification step looks still came from this
       command. */
    s_decided = TRUE;
    s_defers = Defers(flags, message);
    if (!s_defers || g_timerActive == 1 || s_readyTimer != 0)
        return 0;
    s_readyTimer = SetTimer(NULL, NOTIFY_TIMER_ID, NOTIFY_TIMER_PERIOD, MciNotifyTimerProc);
    return s_readyTimer == 0 ? MCIERR_OUT_OF_MEMORY : 0;
}

void MciDropPreparedNotify(void)
{
    s_decided = FALSE;
    if (s_readyTimer != 0) {
        KillTimer(NULL, s_readyTimer);
        s_readyTimer = 0;
    }
}

LONG MciReadResult(volatile LONG *result)
{
    LONG value;

    EnterCriticalSection(&g_stateLock);
    value = *result;
    LeaveCriticalSection(&g_stateLock);
    return value;
}

void MciWriteResult(volatile LONG *result, LONG value)
{
    EnterCriticalSection(&g_stateLock);
    *result = value;
    LeaveCriticalSection(&g_stateLock);
}

LONG MciWaitForResult(MCIDEVICEID deviceId, volatile LONG *result)
{
    for (;;) {
        LONG value = MciReadResult(result);
        if (value >= 0)
            return value;
        if (mciDriverYield(deviceId) != 0)
            return value;
    }
}

BOOL MciScanReadRefused(void)
{
    BOOL refused;

    EnterCriticalSection(&g_stateLock);
    refused = g_scanBusy == 1 || (g_modeBusy == 1 && g_modeDlgWnd == NULL) || g_saveBusy == 1;
    LeaveCriticalSection(&g_stateLock);
    return refused;
}

BOOL MciScanModeRefused(void)
{
    BOOL refused;

    EnterCriticalSection(&g_stateLock);
    refused = g_scanBusy == 1 || (g_modeBusy == 1 && g_modeDlgWnd == NULL);
    LeaveCriticalSection(&g_stateLock);
    return refused;
}

BOOL MciSaveRefused(void)
{
    BOOL refused;

    EnterCriticalSection(&g_stateLock);
    refused = g_imageValid != 1 || g_saveBusy == 1 || g_scanBusy == 1;
    LeaveCriticalSection(&g_stateLock);
    return refused;
}

BOOL MciCopyRefused(void)
{
    BOOL refused;

    EnterCriticalSection(&g_stateLock);
    refused = g_imageValid != 1 || g_scanBusy == 1;
    LeaveCriticalSection(&g_stateLock);
    return refused;
}

BOOL MciScanBusy(void)
{
    return ReadFlag(&g_scanBusy) == 1;
}

BOOL MciCancelOperation(UINT message)
{
    if (ReadFlag(BusyFlagOf(message)) != 1 && !(message == MCI_SCANMODE && g_modeDlgWnd != NULL))
        return TRUE;

    if (message == MCI_SCANREAD) {
        MCI_GENERIC_PARMS stop;
        stop.dwCallback = 0;
        return MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop) == 0;
    }
    if (message == MCI_SAVE) {
        DWORD exitCode;
        InterlockedExchange(&g_saveCancel, 1);
        while (InterlockedCompareExchange(&g_saveCancel, 1, 1) == 1 && GetExitCodeThread(g_hSaveThread, &exitCode) &&
               exitCode == STILL_ACTIVE)
            Sleep(SAVE_CANCEL_POLL_MS);
        InterlockedExchange(&g_saveCancel, 0);
        return TRUE;
    }
    SendMessageW(g_modeDlgWnd, WM_CLOSE, 0, 0);
    return TRUE;
}

void MciAbortNotify(UINT message)
{
    DWORD *busy = BusyFlagOf(message);
    DWORD wasBusy;

    EnterCriticalSection(&g_stateLock);
    wasBusy = *busy;
    *busy = 0;
    LeaveCriticalSection(&g_stateLock);
    if (wasBusy == 1)
        Notify(*CallbackOf(message), MCI_NOTIFY_ABORTED);

    /* The flag stays set: close clears it after it has aborted all three. */
    if (g_timerActive == 1) {
        KillTimer(NULL, g_timerId);
        g_timerId = 0;
    }
}

DWORD MciQueueNotify(MCIDEVICEID deviceId, DWORD flags, UINT message, LPVOID params)
{
    HWND callback = (HWND)((MCI_GENERIC_PARMS *)params)->dwCallback;

    /* A new notify command supersedes the pending one, whatever it is. Its
       busy flag stays set, so the timer still reports how it ended. */
    if (g_timerActive == 1) {
        UINT pending;
        if (ReadFlag(&g_scanBusy) == 1)
            pending = MCI_SCANREAD;
        else if (ReadFlag(&g_saveBusy) == 1)
            pending = MCI_SAVE;
        else
            pending = MCI_SCANMODE;
        MciCancelOperation(pending);
        if (pending == MCI_SCANMODE && g_modeDlgWnd != NULL)
            g_modeDlgWnd = NULL;
        Notify(*CallbackOf(pending), MCI_NOTIFY_SUPERSEDED);
    }

    if (!(s_decided ? s_defers : Defers(flags, message))) {
        mciDriverNotify((HANDLE)callback, deviceId, MCI_NOTIFY_SUCCESSFUL);
        return 0;
    }

    if (g_timerActive == 0) {
        g_timerId =
            s_readyTimer != 0 ? s_readyTimer : SetTimer(NULL, NOTIFY_TIMER_ID, NOTIFY_TIMER_PERIOD, MciNotifyTimerProc);
        s_readyTimer = 0;
        if (g_timerId == 0)
            return MCIERR_OUT_OF_MEMORY;
        g_timerActive = 1;
    }
    *CallbackOf(message) = callback;
    WriteFlag(BusyFlagOf(message), 1);
    return 0;
}

void CALLBACK MciNotifyTimerProc(HWND wnd, UINT msg, UINT_PTR timerId, DWORD time)
{
    LONG scanResult, saveResult, modeResult;
    DWORD scanBusy, saveBusy, modeBusy;

    (void)wnd;
    (void)msg;
    (void)timerId;
    (void)time;

    EnterCriticalSection(&g_notifyLock);
    EnterCriticalSection(&g_stateLock);
    scanResult = g_scanResult;
    saveResult = g_saveResult;
    modeResult = g_modeResult;
    scanBusy = g_scanBusy;
    saveBusy = g_saveBusy;
    modeBusy = g_modeBusy;
    LeaveCriticalSection(&g_stateLock);

    if (scanResult >= 0 && scanBusy == 1) {
        if (scanResult == 0) {
            Notify(g_scanCallback, MCI_NOTIFY_SUCCESSFUL);
            g_imageValid = 1;
        } else {
            g_scanParams.areaX = (SHORT)g_savedScanArea.x;
            g_scanParams.areaY = (SHORT)g_savedScanArea.y;
            g_scanParams.areaWidth = (SHORT)g_savedScanArea.width;
            g_scanParams.areaLength = (SHORT)g_savedScanArea.height;
            if (g_scanAborted == 1) {
                g_scanAborted = 0;
                Notify(g_scanCallback, MCI_NOTIFY_ABORTED);
            } else {
                Notify(g_scanCallback, MCI_NOTIFY_FAILURE);
            }
        }
        WriteFlag(&g_scanBusy, 0);
        /* After its result the scan thread only gives the scan-mode
           dialog's controls back, which needs the dialog's thread: with no
           dialog it is waited for, else it is left to a later join. */
        if (g_modeDlgWnd == NULL && modeBusy == 0)
            MciJoinThread(&g_hScanThread);
        else
            ReapThread(&g_hScanThread);
    }

    if (saveResult >= 0 && saveBusy == 1) {
        Notify(g_saveCallback, saveResult == 0 ? MCI_NOTIFY_SUCCESSFUL : MCI_NOTIFY_FAILURE);
        WriteFlag(&g_saveBusy, 0);
        /* The save thread does nothing after its result but end. */
        MciJoinThread(&g_hSaveThread);
    }

    if (modeResult >= 0 && modeBusy == 1) {
        if (modeResult > 0)
            g_scanParams = g_savedScanParams;
        Notify(g_modeCallback, modeResult == 0 ? MCI_NOTIFY_SUCCESSFUL : MCI_NOTIFY_FAILURE);
        WriteFlag(&g_modeBusy, 0);
        /* After its result the dialog's thread only destroys its window
           (which may send to its owner, taken in while waiting) and ends. */
        MciJoinThread(&g_hModeThread);
    }

    EnterCriticalSection(&g_stateLock);
    if (g_scanBusy == 0 && g_saveBusy == 0 && g_modeBusy == 0) {
        KillTimer(NULL, g_timerId);
        g_timerActive = 0;
    }
    LeaveCriticalSection(&g_stateLock);

    LeaveCriticalSection(&g_notifyLock);
}
