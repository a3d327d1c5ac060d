/* SCSI transport: the kernel scanner device "\\.\SCNR0", driven with device
   I/O control requests (one per SCSI-2 scanner command the device issues)
   and read with ReadFile. The driver only supplies the parameter data: the
   measurement-units mode page and the window descriptor built here. All
   waits are busy retries bounded by the tick count. */
#include "transport/transport.h"

#include <string.h>

HANDLE g_scsiHandle = INVALID_HANDLE_VALUE;
DWORD g_scsiOpen;
DWORD g_scsiStarted;

/* Retry budgets of the requests. */
#define SCSI_TIMEOUT_MS 4000
#define SCSI_STATUS_TIMEOUT_MS 60000
/* A scan that delivers nothing for this long has failed. */
#define SCSI_READ_LIMIT_MS 60000
/* Command time-out handed to the device at open. */
#define SCSI_DEVICE_TIMEOUT 60
/* Condition code of a hardware fault in the sense data. */
#define SCSI_CONDITION_HARDWARE 4

BOOL ScsiIoctl(HANDLE handle, DWORD code, LPVOID in, DWORD inLen, LPVOID out, DWORD outLen, LPDWORD returned,
               LPOVERLAPPED overlapped, DWORD timeoutMs)
{
    DWORD start = GetTickCount();
    for (;;) {
        BOOL result = DeviceIoControl(handle, code, in, inLen, out, outLen, returned, overlapped);
        DWORD now = GetTickCount();
        if (result == 1)
            return result;
        /* A busy device is asked again at once until the budget is spent. */
        if (GetLastError() != ERROR_NOT_READY || now - start >= timeoutMs)
            return result;
    }
}

/* A request with no data in or out. */
static BOOL ScsiSimpleRequest(DWORD code)
{
    DWORD returned = 0;
    return ScsiIoctl(g_scsiHandle, code, NULL, 0, NULL, 0, &returned, NULL, SCSI_TIMEOUT_MS) == 1;
}

/* REQUEST SENSE; 1 with the condition code (low nibble of byte 1), else 0. */
static BOOL ScsiRequestSense(DWORD *condition)
{
    BYTE sense[SCSI_SENSE_BYTES];
    DWORD returned = 0;

    memset(sense, 0, sizeof sense);
    if (ScsiIoctl(g_scsiHandle, IOCTL_SCNR_REQUEST_SENSE, NULL, 0, sense, sizeof sense, &returned, NULL,
                  SCSI_TIMEOUT_MS) != 1)
        return FALSE;
    *condition = sense[1] & 0x0F;
    return TRUE;
}

HANDLE ScsiOpen(void)
{
    DWORD value = SCSI_DEVICE_TIMEOUT;
    DWORD returned = 0;
    HANDLE handle;

    if (g_scsiOpen == 1)
        return INVALID_HANDLE_VALUE;
    handle =
        CreateFileA("\\\\.\\SCNR0", GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    if (handle == INVALID_HANDLE_VALUE)
        return INVALID_HANDLE_VALUE;
    if (ScsiIoctl(handle, IOCTL_SCNR_SET_TIMEOUT, &value, sizeof value, NULL, 0, &returned, NULL, SCSI_TIMEOUT_MS) !=
        1) {
        CloseHandle(handle);
        return INVALID_HANDLE_VALUE;
    }
    g_scsiHandle = handle;
    g_scsiOpen = 1;
    return handle;
}

BOOL ScsiClose(void)
{
    if (g_scsiOpen != 1)
        return FALSE;
    if (!CloseHandle(g_scsiHandle))
        return FALSE;
    g_scsiHandle = INVALID_HANDLE_VALUE;
    g_scsiOpen = 0;
    return TRUE;
}

BOOL ScsiStart(void)
{
    DWORD condition = 0;

    /* The first sense clears what power-on or a reset left; the second must
       be clean. */
    if (!ScsiRequestSense(&condition) || condition == SCSI_CONDITION_HARDWARE)
        return FALSE;
    if (!ScsiRequestSense(&condition) || condition != 0)
        return FALSE;
    if (ScsiTestUnitReady() != 1)
        return FALSE;
    g_scsiStarted = 1;
    return TRUE;
}

BOOL ScsiFinish(void)
{
    if (g_scsiStarted != 1)
        return FALSE;
    g_scsiStarted = 0;
    return TRUE;
}

BOOL ScsiAbort(void)
{
    DWORD condition = 0;

    if (!ScsiSimpleRequest(IOCTL_SCNR_ABORT))
        return FALSE;
    /* Clears the condition the abort leaves; its value does not matter. */
    return ScsiRequestSense(&condition);
}

BOOL ScsiTestUnitReady(void)
{
    return ScsiSimpleRequest(IOCTL_SCNR_TEST_UNIT_READY);
}

static void ScsiPut16(BYTE *dest, DWORD value)
{
    dest[0] = (BYTE)(value >> 8);
    dest[1] = (BYTE)value;
}

/* Level byte of a 0..9 parameter: 1 for 0, else (parameter + 3) x 16. */
static BYTE ScsiLevel(SHORT parameter)
{
    return parameter != 0 ? (BYTE)((parameter + 3) * 16) : 1;
}

void ScsiBuildModeData(BYTE *dest, const ScanParams *params)
{
    memset(dest, 0, SCSI_MODE_DATA_BYTES);
    dest[0] = 0x0B; /* mode data length */
    dest[4] = 0x03; /* measurement-units page */
    dest[5] = 0x06;
    dest[6] = 0; /* inch, divided by the resolution: coordinates in scan pixels */
    ScsiPut16(dest + 8, (WORD)params->resolution);
}

void ScsiBuildWindow(BYTE *dest, const ScanParams *params)
{
    BOOL colour = params->colorMode == 16 || params->colorMode == 17;
    SHORT step = params->colorStep;
    BYTE composition;

    memset(dest, 0, SCSI_WINDOW_DATA_BYTES);
    ScsiPut16(dest + 6, 48); /* window descriptor length */
    ScsiPut16(dest + 10, (WORD)params->resolution);
    ScsiPut16(dest + 12, (WORD)params->resolution);
    ScsiPut16(dest + 16, (WORD)params->areaX);
    ScsiPut16(dest + 20, (WORD)params->areaY);
    ScsiPut16(dest + 24, (WORD)params->areaWidth);
    ScsiPut16(dest + 28, (WORD)params->areaLength);
    dest[30] = ScsiLevel(params->brightness);
    dest[31] = 0x80; /* threshold */
    dest[32] = ScsiLevel(params->contrast);

    /* Two levels, halftone or multi-level; colour adds 3. */
    composition = step == 1 ? 0 : (step == 16 ? 1 : 2);
    dest[33] = (BYTE)(colour ? composition + 3 : composition);
    dest[34] = (BYTE)(step >= 2 && step <= 8 ? step : 1);
    if (params->ditherPattern == 32)
        dest[36] = 0x21;
    else if (step == 16)
        dest[36] = (BYTE)params->ditherPattern;
    else
        dest[36] = 1;

    dest[48] = 7;
    dest[49] = (BYTE)(((params->orProcessing & 1) << 7) | ((params->edgeEnhance & 1) << 6) |
                      ((params->noiseReduction & 1) << 5) | 0x08 | (params->colorMode == 17 ? 1 : 0));
    dest[51] = (BYTE)params->gamma;
    dest[52] = ScsiLevel(params->tint);
    dest[53] = ScsiLevel(params->saturation);
}

static BOOL ScsiSetWindow(const ScanParams *params)
{
    BYTE mode[SCSI_MODE_DATA_BYTES];
    BYTE window[SCSI_WINDOW_DATA_BYTES];
    DWORD returned = 0;

    ScsiBuildModeData(mode, params);
    if (ScsiIoctl(g_scsiHandle, IOCTL_SCNR_MODE_SELECT, mode, sizeof mode, NULL, 0, &returned, NULL, SCSI_TIMEOUT_MS) !=
        1)
        return FALSE;
    ScsiBuildWindow(window, params);
    return ScsiIoctl(g_scsiHandle, IOCTL_SCNR_SET_WINDOW, window, sizeof window, NULL, 0, &returned, NULL,
                     SCSI_TIMEOUT_MS) == 1;
}

/* One block of image data: 1 more follows, 2 last, 0 failure. */
static int ScsiReadData(ReadBlock *block)
{
    BYTE status[SCSI_BUFFER_STATUS_BYTES];
    DWORD returned = 0;
    DWORD start = GetTickCount();
    BOOL result;

    for (;;) {
        result = ReadFile(g_scsiHandle, block->data, block->capacity, &block->count, NULL);
        if (GetTickCount() - start > SCSI_READ_LIMIT_MS)
            return 0;
        /* An empty read is tried again, failed or not, until the limit. */
        if (block->count == 0)
            continue;
        if (result == 0)
            return 0;
        if (result == 1)
            break;
    }

    memset(status, 0, sizeof status);
    if (ScsiIoctl(g_scsiHandle, IOCTL_SCNR_GET_BUFFER_STATUS, NULL, 0, status, sizeof status, &returned, NULL,
                  SCSI_STATUS_TIMEOUT_MS) != 1)
        return 0;
    return (status[3] & 1) ? 1 : 2;
}

int ScsiReadImage(ScanParams *params, ReadBlock *block)
{
    int result;

    if (params->firstBlock == 1) {
        if (!ScsiSetWindow(params))
            return 0;
        /* Model 6 waits for SCAN; the others start on the first read. */
        if (g_settings.model == 6 && !ScsiSimpleRequest(IOCTL_SCNR_SCAN))
            return 0;
    }
    result = ScsiReadData(block);
    if (result == 0)
        block->count = 0;
    return result;
}
