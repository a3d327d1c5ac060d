/* The scan thread: one scan from the scanner's start to the committed
   image. The new image is built off-screen by the line store while the
   device layer reads, and shown once, after the commit. With MCI_WAIT the
   same procedure runs on the caller's thread and returns. */
#include "device/device.h"
#include "display/display.h"
#include "display/display_rects.h"
#include "image/image.h"

/* The scan-mode dialog's controls whose enable state scanread saves, in
   the order of g_modeDlgEnableState. */
static const int g_modeDlgControls[MODE_DLG_SAVED_CONTROLS] = {402, 401, 403, 404, 405, 406, 407, 408, 409,
                                                               410, 411, 412, 413, 414, 415, 416, 417, 418,
                                                               419, 420, 421, 422, 423, 424, 425, 1,   2};

void ImgRestoreModeDlgControls(void)
{
    BOOL dialogUp;
    int i;

    EnterCriticalSection(&g_stateLock);
    dialogUp = g_modeBusy == 1 || g_modeDlgWnd != NULL;
    LeaveCriticalSection(&g_stateLock);
    if (!dialogUp)
        return;
    for (i = 0; i < MODE_DLG_SAVED_CONTROLS; i++)
        EnableWindow(GetDlgItem(g_modeDlgWnd, g_modeDlgControls[i]), g_modeDlgEnableState[i]);
}

static void SetScanResult(LONG value)
{
    EnterCriticalSection(&g_stateLock);
    g_scanResult = value;
    LeaveCriticalSection(&g_stateLock);
}

/* Ends the thread, or returns to scanread when it waits. The handle is
   the driver's: stop, the next scan and close wait for this end. */
static DWORD FinishScanThread(DWORD flags)
{
    if (flags & MCI_WAIT)
        return 0;
    ExitThread(0);
    return 0;
}

/* The scan failed before the commit: the new buffers go, the current image
   stays. */
static DWORD AbandonScan(DWORD flags)
{
    ImgFreeScanBuffers(0);
    ImgRestoreModeDlgControls();
    return FinishScanThread(flags);
}

DWORD WINAPI ImgScanThread(LPVOID flagsPtr)
{
    DWORD flags = *(const DWORD *)flagsPtr;
    int shown;

    if (!DevControl(DEVCTL_START)) {
        SetScanResult(MCIERR_SCANNER_ABNORMAL);
        g_scanStarted = 0;
        return AbandonScan(flags);
    }

    /* The read (or the stop that cut it short) has set the result. */
    if (DevReadImage() != 0) {
        g_scanStarted = 0;
        return AbandonScan(flags);
    }
    g_scanStarted = 0;

    if (ImgColourCount(g_scanParams.colorStep, g_scanParams.colorMode) != 4)
        g_scanInfo->bmiHeader.biClrUsed = 0;

    if (!DevControl(DEVCTL_FINISH)) {
        SetScanResult(MCIERR_SCANNER_ABNORMAL);
        return AbandonScan(flags);
    }

    ImgFreeScanBuffers(1);
    g_scanParams.areaWidth = (SHORT)g_scanWidthPx;
    g_scanParams.areaLength = (SHORT)g_scanLines;
    g_scanInfo->bmiHeader.biWidth = g_scanRectPx.width;
    g_scanInfo->bmiHeader.biHeight = g_scanRectPx.height;

    if (g_dispReleased == 1)
        ShowWindow(g_targetWnd, SW_HIDE);
    else if (!IsWindowVisible(g_targetWnd))
        SetWindowPos(g_targetWnd, NULL, 0, 0, 0, 0, SWP_NOSIZE | SWP_NOMOVE | SWP_SHOWWINDOW);

    g_srcRect.x = 0;
    g_srcRect.y = 0;
    g_srcRect.width = g_scanRectPx.width;
    g_srcRect.height = g_scanRectPx.height;
    ImgCommitScan();

    shown = g_dispReleased == 0 ? DispRefresh() : 1;
    /* The dialog's controls come back before the result is seen, so that
       nothing of the scan is left once the notification is out. */
    ImgRestoreModeDlgControls();
    SetScanResult(shown == 1 ? 0 : MCIERR_NO_WINDOW);
    return FinishScanThread(flags);
}
