/* The device interface layer. Every operation is routed by the interface of
   the device settings: SCSI to the SCSI transport, RS-232C and GP-IB to the
   character-line protocol. The stop handshake lets the stop command wait for
   the reader to reach the end of a block before the abort goes out, so two
   threads are never on the line at once. */
#include "device/device.h"

#include "image/image.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

static BOOL IsScsi(void)
{
    return g_settings.interfaceType == IF_SCSI;
}

static BOOL IsCharacterLine(void)
{
    return g_settings.interfaceType == IF_RS232C || g_settings.interfaceType == IF_GPIB;
}

/* ---- Routing ------------------------------------------------------------ */

static BOOL RouteStart(void)
{
    if (IsScsi())
        return ScsiStart();
    return IsCharacterLine() ? ProtStart() : FALSE;
}

static BOOL RouteFinish(void)
{
    if (IsScsi())
        return ScsiFinish();
    return IsCharacterLine() ? ProtFinish() : FALSE;
}

static BOOL RouteAbort(void)
{
    if (IsScsi())
        return ScsiAbort();
    return IsCharacterLine() ? ProtAbort() : FALSE;
}

static int RouteRead(ReadBlock *block)
{
    if (IsScsi())
        return ScsiReadImage(&g_scanParams, block);
    return IsCharacterLine() ? ProtReadImage(&g_scanParams, block) : 0;
}

static BOOL RouteReady(void)
{
    if (IsScsi())
        return ScsiTestUnitReady();
    return IsCharacterLine() ? ProtWaitReady() : FALSE;
}

static void SetScanResult(LONG value)
{
    EnterCriticalSection(&g_stateLock);
    g_scanResult = value;
    LeaveCriticalSection(&g_stateLock);
}

/* ---- Operations --------------------------------------------------------- */

HANDLE DevOpen(DWORD id, DWORD interfaceType)
{
    HANDLE handle = INVALID_HANDLE_VALUE;
    BOOL opened;

    if (interfaceType == IF_SCSI)
        handle = ScsiOpen();
    else if (interfaceType == IF_RS232C || interfaceType == IF_GPIB)
        handle = PortOpen(id, interfaceType, g_settings.baudIndex);
    opened = handle != INVALID_HANDLE_VALUE;

    g_openComHandle = opened && interfaceType == IF_RS232C ? handle : NULL;
    g_openComPort = opened && interfaceType == IF_RS232C ? id : 0;
    g_openGpibHandle = opened && interfaceType == IF_GPIB ? handle : NULL;
    g_openScsiHandle = opened && interfaceType == IF_SCSI ? handle : NULL;
    return handle;
}

BOOL DevClose(void)
{
    BOOL closed = FALSE;

    if (IsScsi())
        closed = ScsiClose();
    else if (IsCharacterLine())
        closed = PortClose();
    if (closed) {
        g_openComHandle = NULL;
        g_openComPort = 0;
        g_openGpibHandle = NULL;
        g_openScsiHandle = NULL;
    }
    return closed;
}

/* The stop side of the handshake: raise the request, wait (spinning on the
   lock, no sleep) until the reader acknowledges at a block boundary or the
   scan ends by itself, then abort and finish on the line. A scan that ends
   by itself may send to a window of this thread on its way (the
   application's window it shows the image in): that is taken in while
   spinning, else each thread would wait for the other. */
static BOOL DevAbortScan(void)
{
    LONG result;
    MSG msg;

    EnterCriticalSection(&g_stateLock);
    result = g_scanResult;
    g_abortRequest = 1;
    while (result < 0) {
        LeaveCriticalSection(&g_stateLock);
        PeekMessageW(&msg, NULL, 0, 0, PM_NOREMOVE);
        EnterCriticalSection(&g_stateLock);
        result = g_scanResult;
        if (g_abortRequest != 1)
            break;
    }
    g_abortRequest = 0;
    if (result >= 0) {
        LeaveCriticalSection(&g_stateLock);
        return TRUE;
    }
    g_scanResult = MCIERR_SCANNER_ABNORMAL;
    LeaveCriticalSection(&g_stateLock);

    if (!RouteAbort()) {
        SetScanResult(MCIERR_HARDWARE);
        return FALSE;
    }
    if (RouteFinish())
        return TRUE;
    SetScanResult(MCIERR_DRIVER_INTERNAL);
    return FALSE;
}

BOOL DevControl(DWORD op)
{
    switch (op) {
    case DEVCTL_START:
        return RouteStart();
    case DEVCTL_FINISH:
        return RouteFinish();
    case DEVCTL_ABORT:
        return DevAbortScan();
    default:
        return FALSE;
    }
}

/* Ends a read that went wrong on the line: abort and, if that worked,
   finish; their results do not change the outcome. */
static DWORD FailRead(BOOL abortFirst)
{
    if (abortFirst && RouteAbort())
        RouteFinish();
    SetScanResult(MCIERR_SCANNER_ABNORMAL);
    return MCIERR_SCANNER_ABNORMAL;
}

DWORD DevReadImage(void)
{
    SHORT userEdge = g_scanParams.edgeEnhance;
    DWORD total = g_scanTotalBytes;
    DWORD received = 0;

    /* Model 4 scans two-level images with edge enhancement on, whatever the
       user chose; the choice is put back after the first block. */
    g_scanParams.firstBlock = 1;
    if (g_settings.model == 4 && g_scanParams.colorStep == 1)
        g_scanParams.edgeEnhance = 1;

    ImgStoreLine(0);
    while (received < total) {
        ReadBlock block;
        int status;

        block.data = g_rawLine;
        block.capacity = g_rawLineBytes;
        block.count = 0;
        status = RouteRead(&block);
        g_scanParams.firstBlock = 0;
        g_scanParams.edgeEnhance = userEdge;
        SetScanResult(-2);

        if (status == 0)
            return FailRead(TRUE);
        received += block.count;

        EnterCriticalSection(&g_stateLock);
        if (g_abortRequest == 1) {
            /* Acknowledge the stop; it sets the result and aborts the line.
               The scan is marked aborted before the stop can see the
               acknowledgement, so that the notification it delivers at
               once says so. */
            g_scanAborted = 1;
            g_abortRequest = 0;
            LeaveCriticalSection(&g_stateLock);
            return MCIERR_SCANNER_ABNORMAL;
        }
        g_scanResult = -1;
        LeaveCriticalSection(&g_stateLock);

        ImgStoreLine(1);
        if (status == 2 && received < total)
            return FailRead(FALSE); /* the scanner ended early */
        if (status == 1 && received >= total)
            return FailRead(TRUE); /* the scanner has more than the image */
    }
    EnterCriticalSection(&g_stateLock);
    g_abortRequest = 0;
    LeaveCriticalSection(&g_stateLock);
    return 0;
}

DWORD DevGetMode(void)
{
    DWORD busy;

    EnterCriticalSection(&g_stateLock);
    busy = g_scanBusy;
    LeaveCriticalSection(&g_stateLock);
    if (busy == 1)
        return SCANNER_MODE_SCANNING;
    if (RouteReady() == 1)
        return g_imageValid ? MCI_MODE_STOP : MCI_MODE_OPEN;
    return MCI_MODE_NOT_READY;
}
