/* The block dialect of models 1 to 6 on RS-232C and GP-IB: the ready check
   (ENQ/ACK), the start, the scan parameters as escape commands with the
   scanner's window in dots of the model's base resolution, the 38-byte scan
   information, and the framed lines (raw, or run-length coded and XOR-ed
   with the line before). Model 7 speaks the polled dialect; the operations
   here hand over to it. Everything reaches the line through the port layer. */
#include "protocol/protocol.h"

#include "transport/transport.h"

#include <string.h>

DWORD g_lineStarted;
DWORD g_protDetail;

#define PROT_INFO_BYTES 38
#define PROT_FORMAT_RAW 1
#define PROT_FORMAT_COMPRESSED 5
#define PROT_FRAME_DATA 0x40
#define PROT_FRAME_END 0x80
#define PROT_FRAME_KIND 0xC0
#define PROT_END_ABNORMAL 2

/* Line geometry of the current scan, set by the window fits. */
static LONG s_scannerLineBytes;   /* bytes the scanner sends per line */
static LONG s_deliveredLineBytes; /* bytes of the requested width */
static LONG s_surplusLineBytes;   /* dropped from the end of each line */
static LONG s_windowLines;        /* lines the window gives per pass */
static LONG s_wantedLines;        /* lines asked for per pass */
static LONG s_keptLines;          /* lines of the current pass handed out */
static LONG s_droppedLines;       /* surplus lines of the current pass dropped */

/* Work area of one scan: information block, pending line (3 header bytes and
   the decoded line), previous decoded line, received frame. */
static HGLOBAL s_workMem;
static BYTE *s_work;
static BYTE *s_info;
static BYTE *s_pending;
static BYTE *s_previous;
static BYTE *s_frame;
static LONG s_frameBytes;
static LONG s_pendingCount; /* decoded bytes not yet handed out, at s_pending */
static BOOL s_ended;        /* the end frame was seen */

/* Body of a drained reply (a frame length is 16 bits). */
static BYTE s_drain[0x10000 + 1];

static BOOL ProtSendByte(BYTE value)
{
    return PortWrite(&value, 1);
}

static BOOL ProtSendText(LPCSTR text)
{
    return PortWrite(text, (DWORD)strlen(text));
}

static DWORD ProtModel(void)
{
    return g_settings.model;
}

/* ---- Work area ---------------------------------------------------------- */

static void ProtReleaseWorkArea(void)
{
    if (s_workMem == NULL)
        return;
    GlobalUnlock(s_workMem);
    GlobalFree(s_workMem);
    s_workMem = NULL;
    s_work = s_info = s_pending = s_previous = s_frame = NULL;
    s_frameBytes = 0;
}

static BOOL ProtAllocWorkArea(void)
{
    LONG line = s_scannerLineBytes;
    DWORD size = (DWORD)(5 * line + 46);
    s_workMem = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_DISCARDABLE, size);
    if (s_workMem == NULL)
        return FALSE;
    s_work = (BYTE *)GlobalLock(s_workMem);
    if (s_work == NULL) {
        GlobalFree(s_workMem);
        s_workMem = NULL;
        return FALSE;
    }
    s_info = s_work;
    s_pending = s_info + PROT_INFO_BYTES;
    s_previous = s_pending + line + 3;
    s_frame = s_previous + line;
    s_frameBytes = (LONG)size - (LONG)(s_frame - s_work);
    return TRUE;
}

/* ---- Ready check -------------------------------------------------------- */

/* Reads single bytes until none comes within the time-out; 0 on a line error. */
static BOOL ProtDiscardInput(DWORD timeoutMs)
{
    BYTE junk;
    for (;;) {
        int got = PortRead(&junk, 1, timeoutMs);
        if (got < 0)
            return FALSE;
        if (got == 0)
            return TRUE;
    }
}

BOOL ProtWaitReady(void)
{
    DWORD budget, attempts, attempt;
    BOOL received = FALSE;
    BYTE reply = 0;

    if (ProtModel() == 7)
        return PollWaitReady() ? TRUE : FALSE;
    if (!ProtDiscardInput(100))
        return FALSE;

    budget = ProtModel() == 3 ? 8000 : 10000;
    attempts = budget / 66 + 1;
    for (attempt = 0; attempt < attempts; attempt++) {
        if (received)
            return reply == PROT_ACK;
        if (ProtSendByte(PROT_ENQ)) {
            int got;
            if (g_lineInterface == IF_GPIB)
                got = GpReadBytes(&reply, 1, 5000);
            else
                got = PortRead(&reply, 1, 5000);
            received = got > 0;
        }
    }
    /* The reply to the last attempt is not looked at. */
    return FALSE;
}

/* ---- Start, finish ------------------------------------------------------ */

BOOL ProtStart(void)
{
    if (!g_lineOpen)
        return FALSE;

    if (ProtModel() == 7) {
        if (!PollStart())
            return FALSE;
    } else {
        if (g_lineInterface == IF_RS232C) {
            if (!PortClearAndPurge())
                return FALSE;
        } else if (g_lineInterface == IF_GPIB) {
            BYTE reply = 0;
            if (!GpInitDevice(g_gpibAddress))
                return FALSE;
            if (!ProtSendByte(PROT_ENQ))
                return FALSE;
            if (PortRead(&reply, 1, 10000) != 1 || reply != PROT_ACK)
                return FALSE;
        }
        if (!ProtSendText("\033I"))
            return FALSE;
    }

    Sleep(9000);
    if (!ProtWaitReady())
        return FALSE;

    if (ProtModel() == 7) {
        if (!ProtSendText("\033@2"))
            return FALSE;
    } else {
        if (!ProtSendText("\033@3") || !ProtSendText("\033L"))
            return FALSE;
    }
    g_lineStarted = 1;
    return TRUE;
}

BOOL ProtFinish(void)
{
    if (!g_lineStarted)
        return FALSE;
    g_lineStarted = 0;
    return TRUE;
}

/* ---- Scan parameters ---------------------------------------------------- */

/* Adjusts the window width (base dots) to cover the requested pixels and
   works out the line bytes of the scan. */
static LONG ProtFitWidth(LONG size, LONG base, const ScanParams *params)
{
    LONG r = params->resolution;
    LONG width = params->areaWidth;
    LONG p, q;

    if ((size * r + base - 1) / base < width)
        size++;

    q = 1;
    if (params->colorMode == 16) {
        if (params->colorStep == 1 || params->colorStep == 16) {
            p = 2;
        } else {
            p = 1;
            q = 3;
        }
    } else if (params->colorStep == 1 || params->colorStep == 16) {
        p = 8;
    } else if (params->colorStep == 2) {
        p = 4;
    } else if (params->colorStep == 3 || params->colorStep == 4) {
        p = 2;
    } else {
        p = 1;
    }

    s_scannerLineBytes = ((size * r + base - 1) / base + p - 1) * q / p;
    s_surplusLineBytes = s_scannerLineBytes + ((1 - width - p) * q / p);
    s_deliveredLineBytes = s_scannerLineBytes - s_surplusLineBytes;
    return size;
}

static LONG ProtLinesOf(LONG size, LONG base, LONG r)
{
    /* Model 4 counts whole lines only; the others count a started one. */
    if (ProtModel() == 4)
        return size * r / base;
    return (size * r + base - 1) / base;
}

/* Adjusts the window length (base dots) to cover the requested lines and
   notes how many lines the window gives: those past the requested length
   are surplus that the read drops. */
static LONG ProtFitLength(LONG size, LONG base, const ScanParams *params)
{
    LONG r = params->resolution;
    LONG length = params->areaLength;

    if (length > ProtLinesOf(size, base, r))
        size++;
    s_wantedLines = length;
    s_windowLines = ProtLinesOf(size, base, r);
    return size;
}

static BOOL ProtSendWindow(BYTE letter, LONG start, LONG size)
{
    BYTE cmd[6];
    cmd[0] = PROT_ESC;
    cmd[1] = letter;
    cmd[2] = (BYTE)((start >> 8) & 0xFF);
    cmd[3] = (BYTE)(start & 0xFF);
    cmd[4] = (BYTE)((size >> 8) & 0xFF);
    cmd[5] = (BYTE)(size & 0xFF);
    return PortWrite(cmd, sizeof cmd);
}

static BOOL ProtSendScanParams(const ScanParams *params)
{
    DWORD model = ProtModel();
    LONG r = params->resolution;
    LONG base, startMin, startEnd, acrossEnd, downEnd;
    LONG start, size;

    if (!ProtWaitReady())
        return FALSE;
    if (model == 7)
        return PollSendScanParams(params) ? TRUE : FALSE;
    if (r <= 0)
        return FALSE;

    ProtSendText("\033J1");
    ProtSendText("\033T3");
    ProtSendText("\033M1");
    ProtSendText("\033K2");
    ProtSendText("\033K3");
    ProtSendText("\033f3");
    ProtSendText("\033e3");
    if (params->colorStep == 1 || (params->colorStep == 16 && params->colorMode != 16))
        ProtSendText("\033C5");
    else
        ProtSendText("\033C1");
    ProtSendText(params->orProcessing == 1 ? "\033O2" : "\033O1");
    ProtSendText(params->edgeEnhance == 1 ? "\033U2" : "\033U1");
    ProtSendText(params->noiseReduction == 1 ? "\033c2" : "\033c1");
    PortWriteFormat("\033h%d", (int)params->brightness);
    PortWriteFormat("\033S%d", (int)params->contrast);
    if (params->colorStep != 16) {
        ProtSendText("\033D1");
        PortWriteFormat("\033H%d", (int)params->colorStep);
    } else if (params->ditherPattern < 16) {
        ProtSendText("\033D2");
        PortWriteFormat("\033P%d", (int)params->ditherPattern);
    } else {
        PortWriteFormat("\033D%d", (int)(params->ditherPattern / 16 + 2));
    }
    PortWriteFormat("\033m%d", (int)params->gamma);
    if (params->colorMode == 0)
        ProtSendText("\033B1");
    else if (params->colorMode == 16)
        ProtSendText("\033B3");
    else if (params->colorMode == 17)
        ProtSendText("\033B2");
    PortWriteFormat("\033g%d", (int)params->tint);
    PortWriteFormat("\033s%d", (int)params->saturation);
    PortWriteFormat("\033r%04d%04d", (int)r, (int)r);
    if (model == 5 || model == 6)
        PortWriteFormat("\033F%04d", (int)r);

    if (model == 3) {
        base = 200;
        startMin = 0;
        acrossEnd = 840;
        downEnd = 1280;
    } else if (model == 5 || model == 6) {
        base = r;
        startMin = 0;
        acrossEnd = (r * 85 + 9) / 10;
        downEnd = (r * 1169 + 99) / 100;
    } else {
        base = 320;
        startMin = 32;
        acrossEnd = 2560;
        downEnd = 3740;
    }
    startEnd = model == 3 ? 839 : (model == 5 || model == 6) ? acrossEnd - 1 : 2560;

    start = params->areaX * base / r;
    if (start < startMin || start > startEnd)
        return FALSE;
    size = ProtFitWidth(params->areaWidth * base / r, base, params);
    if (start + size < 1 || start + size > acrossEnd)
        return FALSE;
    ProtSendWindow('X', start, size);

    start = params->areaY * base / r;
    if (start < 0 || start > downEnd - 1)
        return FALSE;
    size = ProtFitLength(params->areaLength * base / r, base, params);
    if (start + size < 1 || start + size > downEnd)
        return FALSE;
    ProtSendWindow('Y', start, size);
    return TRUE;
}

/* ---- Frames ------------------------------------------------------------- */

/* Expands a run-length coded line into `out` and XORs it with the previous
   line. Output stops at the scanner's line length: once it is reached every
   further count byte is a repeat of length 0 (it and its byte are
   consumed); a run that would pass it keeps its kind and becomes
   run + produced - line length long. Returns the bytes produced. */
static LONG ProtExpandLine(const BYTE *in, LONG inBytes, BYTE *out, LONG lineBytes)
{
    LONG i = 0, produced = 0, k;

    while (i < inBytes) {
        BYTE count = in[i++];
        LONG run = count & 0x7F;
        if (produced >= lineBytes) {
            i++;
            continue;
        }
        if (produced + run > lineBytes)
            run = run + produced - lineBytes;
        if (count & 0x80) {
            for (k = 0; k < run && i < inBytes; k++, i++, produced++)
                if (produced < lineBytes)
                    out[produced] = in[i];
        } else {
            BYTE value = i < inBytes ? in[i] : 0;
            i++;
            for (k = 0; k < run; k++, produced++)
                if (produced < lineBytes)
                    out[produced] = value;
        }
    }
    for (k = 0; k < produced && k < lineBytes; k++) {
        out[k] ^= s_previous[k];
        s_previous[k] = out[k];
    }
    return produced;
}

/* One frame into `dest` (two length bytes, the type, the decoded line).
   Returns the decoded length + 3, 3 for an end frame, -1 on error. */
static int ProtReadBlock(BYTE *dest)
{
    BYTE header[3];
    LONG length, result;
    BYTE type, trailer;

    if (!ProtSendByte(PROT_ACK))
        return -1;
    if (PortRead(header, 3, 60000) != 3)
        return -1;
    dest[0] = header[1];
    dest[1] = header[2];
    length = ((LONG)header[1] << 8) | header[2];
    if (length < 1 || length + 1 > s_frameBytes)
        return -1;
    if (PortRead(s_frame, (int)(length + 1), 60000) != length + 1)
        return -1;

    type = s_frame[0];
    trailer = s_frame[length];
    if ((type & PROT_FRAME_KIND) != PROT_FRAME_DATA && (type & PROT_FRAME_KIND) != PROT_FRAME_END)
        return -1;
    dest[2] = type;

    if ((type & PROT_FRAME_KIND) == PROT_FRAME_END) {
        if (trailer != PROT_ETX)
            return -1;
        ProtSendByte(PROT_ACK);
        result = 3;
    } else {
        if (trailer != PROT_ETB)
            return -1;
        if (s_info[12] == PROT_FORMAT_RAW) {
            if (length - 1 > s_scannerLineBytes)
                return -1;
            memcpy(dest + 3, s_frame + 1, (size_t)(length - 1));
            result = length + 2;
        } else {
            LONG lineBytes = ((LONG)s_info[13] << 8) | s_info[14];
            result = ProtExpandLine(s_frame + 1, length - 1, dest + 3, lineBytes) + 3;
        }
    }

    if (g_lineInterface == IF_RS232C && !SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL))
        return -1;
    return (int)result;
}

/* Drains the scanner's reply to an abort: data frames up to the end frame. */
static BOOL ProtReadReply(void)
{
    for (;;) {
        BYTE header[3];
        LONG length;
        BYTE type, trailer;

        if (!ProtSendByte(PROT_ACK))
            return FALSE;
        if (PortRead(header, 3, 60000) != 3 || header[0] != PROT_STX)
            return FALSE;
        length = ((LONG)header[1] << 8) | header[2];
        if (PortRead(s_drain, (int)(length + 1), 15000) != length + 1)
            return FALSE;
        type = s_drain[0];
        trailer = s_drain[length];
        if ((type & PROT_FRAME_KIND) == PROT_FRAME_DATA && trailer == PROT_ETB)
            continue;
        if ((type & PROT_FRAME_KIND) == PROT_FRAME_END && trailer == PROT_ETX) {
            ProtSendByte(PROT_ACK);
            return TRUE;
        }
        return FALSE;
    }
}

/* ---- Read --------------------------------------------------------------- */

static int ProtFailRead(DWORD detail)
{
    g_protDetail = detail;
    ProtReleaseWorkArea();
    return 0;
}

static BOOL ProtBeginScan(void)
{
    LONG lineLength;

    if (!ProtAllocWorkArea())
        return FALSE;
    if (!ProtSendByte(PROT_DC2))
        return FALSE;
    if (PortRead(s_info, PROT_INFO_BYTES, 15000) != PROT_INFO_BYTES)
        return FALSE;
    if ((s_info[3] & 0xC0) != 0)
        return FALSE;
    if (s_info[12] != PROT_FORMAT_RAW && s_info[12] != PROT_FORMAT_COMPRESSED)
        return FALSE;
    if (s_info[37] != PROT_ETB)
        return FALSE;
    lineLength = ((LONG)s_info[13] << 8) | s_info[14];
    if (lineLength > s_scannerLineBytes)
        return FALSE;
    s_pendingCount = 0;
    s_ended = FALSE;
    s_keptLines = 0;
    s_droppedLines = 0;
    return TRUE;
}

int ProtReadImage(ScanParams *params, ReadBlock *block)
{
    BYTE *out = block->data;
    LONG room = (LONG)block->capacity;

    block->count = 0;
    if (params->firstBlock) {
        g_protDetail = 0;
        if (s_workMem != NULL)
            return ProtFailRead(PROT_DETAIL_VIOLATION);
        if (!ProtSendScanParams(params))
            return ProtFailRead(PROT_DETAIL_PARAMS);
        if (ProtModel() == 7)
            return PollReadImage(params, block);
        if (!ProtBeginScan())
            return ProtFailRead(PROT_DETAIL_VIOLATION);
    } else if (ProtModel() == 7) {
        return PollReadImage(params, block);
    } else if (s_workMem == NULL) {
        return ProtFailRead(PROT_DETAIL_VIOLATION);
    }

    if (s_pendingCount > 0) {
        if (s_pendingCount > room) {
            memcpy(out, s_pending, (size_t)room);
            memmove(s_pending, s_pending + room, (size_t)(s_pendingCount - room));
            s_pendingCount -= room;
            block->count = (DWORD)room;
            return 1;
        }
        memcpy(out, s_pending, (size_t)s_pendingCount);
        out += s_pendingCount;
        room -= s_pendingCount;
        block->count += (DWORD)s_pendingCount;
        s_pendingCount = 0;
    }

    for (;;) {
        int got;
        BYTE type;

        if (s_ended) {
            if (s_pendingCount > 0)
                return 1;
            ProtReleaseWorkArea();
            return 2;
        }
        got = ProtReadBlock(s_pending);
        if (got < 0)
            return ProtFailRead(PROT_DETAIL_VIOLATION);
        type = s_pending[2];
        if ((type & PROT_FRAME_KIND) == PROT_FRAME_END) {
            s_ended = TRUE;
            if ((type & 0x0F) == PROT_END_ABNORMAL)
                return ProtFailRead(PROT_DETAIL_ABNORMAL_END);
            continue;
        }
        if (got - 3 != s_scannerLineBytes)
            return ProtFailRead(PROT_DETAIL_VIOLATION);
        /* The driver counts the lines itself rather than trusting the
           scanner's "beyond the requested length" bit, which not every
           scanner sets on the same lines: after the requested lines of a pass
           come the surplus lines the window's rounding gives, dropped
           whatever their flag. Any other line starts the next pass (three
           passes on model 3), or is excess that the device layer refuses. */
        if (s_keptLines == s_wantedLines) {
            if (s_droppedLines < s_windowLines - s_wantedLines) {
                s_droppedLines++;
                continue;
            }
            s_keptLines = 0;
            s_droppedLines = 0;
        }
        s_keptLines++;
        if (room >= s_deliveredLineBytes) {
            memcpy(out, s_pending + 3, (size_t)s_deliveredLineBytes);
            out += s_deliveredLineBytes;
            room -= s_deliveredLineBytes;
            block->count += (DWORD)s_deliveredLineBytes;
            continue;
        }
        memcpy(out, s_pending + 3, (size_t)room);
        block->count += (DWORD)room;
        s_pendingCount = s_deliveredLineBytes - room;
        memmove(s_pending, s_pending + 3 + room, (size_t)s_pendingCount);
        return 1;
    }
}

/* ---- Abort -------------------------------------------------------------- */

BOOL ProtAbort(void)
{
    if (ProtModel() == 7)
        return FALSE;

    if (g_lineInterface == IF_RS232C) {
        if (!PortClearAndPurge()) {
            ProtReleaseWorkArea();
            return FALSE;
        }
        if (!ProtDiscardInput(500)) {
            ProtReleaseWorkArea();
            return FALSE;
        }
    }
    if (!ProtSendByte(PROT_DC4) || !ProtReadReply() || !ProtWaitReady()) {
        ProtReleaseWorkArea();
        return FALSE;
    }
    ProtReleaseWorkArea();
    return TRUE;
}
