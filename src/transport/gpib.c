/* GP-IB transport: the board library "GPIBDLL" loaded at run time, the
   addressing of every transfer, service requests and serial polls, and the
   GP-IB branches of the port layer (open, close, timed read). */
#include "transport/transport.h"

HMODULE g_gpibModule;
DWORD g_gpibAddress;
BYTE g_gpibReadPending;

/* Serial poll lists as the library takes them: one device address in, its
   status byte out. The word before the status pointer is left unset. */
typedef struct GpPollDevices {
    DWORD count;
    BYTE *addresses;
} GpPollDevices;

typedef struct GpPollStatuses {
    WORD reserved;
    BYTE *status;
} GpPollStatuses;

typedef int(WINAPI *GpCreateProc)(int board);
typedef int(WINAPI *GpHandleProc)(int handle);
typedef int(WINAPI *GpSwitchProc)(int handle, BYTE *switches);
typedef int(WINAPI *GpValueProc)(int handle, DWORD value);
typedef int(WINAPI *GpWriteProc)(int handle, const BYTE *commands, DWORD commandCount, const BYTE *data, DWORD count,
                                 DWORD *transferred, DWORD mode);
typedef int(WINAPI *GpReadProc)(int handle, const BYTE *commands, DWORD commandCount, BYTE *buffer, DWORD count,
                                DWORD *transferred, DWORD mode);
typedef int(WINAPI *GpCommandProc)(int handle, const BYTE *commands, DWORD count, BYTE *result);
typedef int(WINAPI *GpPollProc)(int handle, GpPollDevices *devices, GpPollStatuses *statuses, DWORD *completion);
typedef int(WINAPI *GpWaitProc)(int handle, WORD wait);

/* The procedure table, in the order the names are resolved. */
static struct {
    GpCreateProc create;
    GpHandleProc close;
    GpReadProc read;
    GpWriteProc write;
    GpCommandProc writeCommand;
    GpSwitchProc getSwitch;
    GpValueProc setDelimiter;
    GpValueProc setTimeout;
    GpValueProc setIfc;
    GpValueProc setRen;
    GpPollProc serialPoll;
    GpWaitProc waitSrq;
    GpValueProc controlSrq;
    GpHandleProc initialize;
} s_gp;

static const char *const s_gpNames[] = {
    "CreateGpib",    "CloseGpib",        "ReadGpib",       "WriteGpib",      "WriteGpibCommand",
    "GetGpibSwitch", "SetGpibDelimiter", "SetGpibTimeout", "SetGpibIFC",     "SetGpibREN",
    "ExecuteGpibSP", "WaitGpibSRQ",      "ControlGpibSRQ", "InitializeGpib",
};

/* The board handle from "CreateGpib" while the line is open. */
static int s_gpBoard = -1;

/* Addressing bytes computed by GpInitDevice. */
static BYTE s_deviceTalk, s_deviceListen, s_boardTalk, s_boardListen;

/* Function pointers are converted through the generic void(void) type. */
#define GP_PROC(type, proc) ((type)(void (*)(void))(proc))

BOOL GpLoadLibrary(void)
{
    FARPROC procs[sizeof s_gpNames / sizeof s_gpNames[0]];
    int i;
    g_gpibModule = LoadLibraryA("GPIBDLL");
    if (g_gpibModule == NULL)
        return FALSE;
    /* A missing name leaves the library loaded: neither the open nor the
       configuration dialog frees it then. */
    for (i = 0; i < (int)(sizeof procs / sizeof procs[0]); i++) {
        procs[i] = GetProcAddress(g_gpibModule, s_gpNames[i]);
        if (procs[i] == NULL)
            return FALSE;
    }
    s_gp.create = GP_PROC(GpCreateProc, procs[0]);
    s_gp.close = GP_PROC(GpHandleProc, procs[1]);
    s_gp.read = GP_PROC(GpReadProc, procs[2]);
    s_gp.write = GP_PROC(GpWriteProc, procs[3]);
    s_gp.writeCommand = GP_PROC(GpCommandProc, procs[4]);
    s_gp.getSwitch = GP_PROC(GpSwitchProc, procs[5]);
    s_gp.setDelimiter = GP_PROC(GpValueProc, procs[6]);
    s_gp.setTimeout = GP_PROC(GpValueProc, procs[7]);
    s_gp.setIfc = GP_PROC(GpValueProc, procs[8]);
    s_gp.setRen = GP_PROC(GpValueProc, procs[9]);
    s_gp.serialPoll = GP_PROC(GpPollProc, procs[10]);
    s_gp.waitSrq = GP_PROC(GpWaitProc, procs[11]);
    s_gp.controlSrq = GP_PROC(GpValueProc, procs[12]);
    s_gp.initialize = GP_PROC(GpHandleProc, procs[13]);
    return TRUE;
}

BOOL GpFreeLibrary(void)
{
    FreeLibrary(g_gpibModule);
    g_gpibModule = NULL;
    return TRUE;
}

BOOL GpInitDevice(DWORD address)
{
    BYTE switches[4] = {0};
    BYTE board;
    if (s_gp.initialize(s_gpBoard) != 1)
        return FALSE;
    if (s_gp.getSwitch(s_gpBoard, switches) != 1)
        return FALSE;
    board = (BYTE)(switches[2] & 0x1F);
    s_deviceTalk = (BYTE)(address + 0x40);
    s_deviceListen = (BYTE)(address + 0x20);
    s_boardTalk = (BYTE)(board + 0x40);
    s_boardListen = (BYTE)(board + 0x20);
    return s_gp.setTimeout(s_gpBoard, 50) == 1 && s_gp.setIfc(s_gpBoard, 10) == 1 && s_gp.setRen(s_gpBoard, 1) == 1 &&
           s_gp.setDelimiter(s_gpBoard, 0x80) == 1;
}

/* Untalks the device after a read; 1 only when the library confirmed it. */
static BOOL GpUntalk(void)
{
    BYTE command = GPIB_UNT;
    BYTE result = 0;
    return s_gp.writeCommand(s_gpBoard, &command, 1, &result) == 1 && result == 1;
}

BOOL GpWrite(const void *buffer, DWORD count)
{
    BYTE commands[4];
    BYTE command = GPIB_UNT;
    BYTE result = 0;
    DWORD written = 0;
    commands[0] = GPIB_UNL;
    commands[1] = GPIB_UNT;
    commands[2] = s_boardTalk;
    commands[3] = s_deviceListen;
    /* A short write is accepted: the library answered success. */
    if (s_gp.write(s_gpBoard, commands, 4, (const BYTE *)buffer, count, &written, 0) == 0) {
        GetLastError();
        return FALSE;
    }
    return s_gp.writeCommand(s_gpBoard, &command, 1, &result) != 0;
}

BOOL GpRead(void *buffer, DWORD count, DWORD *received)
{
    BYTE commands[4];
    DWORD commandCount = 0;
    DWORD got = 0;
    int ret;
    if (!g_gpibReadPending) {
        commands[0] = GPIB_UNL;
        commands[1] = GPIB_UNT;
        commands[2] = s_deviceTalk;
        commands[3] = s_boardListen;
        commandCount = 4;
    }
    ret = s_gp.read(s_gpBoard, commandCount ? commands : NULL, commandCount, (BYTE *)buffer, count, &got, 0);
    if (ret == 1 && got == count) {
        g_gpibReadPending = 0;
        *received = got;
        return GpUntalk();
    }
    if (ret == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        /* The device still talks: the next read continues this message. */
        *received = count;
        g_gpibReadPending = 1;
        return TRUE;
    }
    g_gpibReadPending = 0;
    return FALSE;
}

int GpReadBytes(void *buffer, DWORD count, DWORD timeoutMs)
{
    BYTE commands[4];
    DWORD got = 0;
    int ret;
    if (s_gp.setTimeout(s_gpBoard, timeoutMs / 100) == 0)
        return -1;
    commands[0] = GPIB_UNL;
    commands[1] = GPIB_UNT;
    commands[2] = s_deviceTalk;
    commands[3] = s_boardListen;
    ret = s_gp.read(s_gpBoard, commands, 4, (BYTE *)buffer, count, &got, 0);
    if (ret == 1) {
        if (got != count)
            return -1;
    } else if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || got == 0 || ((const BYTE *)buffer)[0] != 0x06) {
        return -1;
    }
    if (!GpUntalk())
        return -1;
    return (int)got;
}

BOOL GpWaitSrq(WORD wait)
{
    int waited;
    if (s_gp.controlSrq(s_gpBoard, 0) != 1)
        return FALSE;
    waited = s_gp.waitSrq(s_gpBoard, wait);
    /* The request handling is switched back on whatever the wait gave. */
    return s_gp.controlSrq(s_gpBoard, 0x80) == 1 && waited == 1;
}

BOOL GpSerialPoll(BYTE *status)
{
    BYTE address = (BYTE)g_gpibAddress;
    GpPollDevices devices;
    GpPollStatuses statuses;
    DWORD completion = 0;
    devices.count = 1;
    devices.addresses = &address;
    statuses.status = status;
    return s_gp.serialPoll(s_gpBoard, &devices, &statuses, &completion) == 1 && completion == GPIB_SP_DONE;
}

BOOL GpWriteCommand(const BYTE *bytes, DWORD count)
{
    BYTE result = 0;
    return s_gp.writeCommand(s_gpBoard, bytes, count, &result) != 0;
}

BOOL GpSetTimeout(DWORD tenths)
{
    return s_gp.setTimeout(s_gpBoard, tenths) == 1;
}

BOOL GpSetDelimiter(DWORD delimiter)
{
    return s_gp.setDelimiter(s_gpBoard, delimiter) == 1;
}

HANDLE GpOpenLine(DWORD address)
{
    int board;
    if (g_lineOpen)
        return INVALID_HANDLE_VALUE;
    if (!GpLoadLibrary())
        return INVALID_HANDLE_VALUE;
    board = s_gp.create(0);
    if (board == -1) {
        GpFreeLibrary();
        return INVALID_HANDLE_VALUE;
    }
    s_gpBoard = board;
    if (!GpInitDevice(address)) {
        s_gp.close(board);
        s_gpBoard = -1;
        GpFreeLibrary();
        return INVALID_HANDLE_VALUE;
    }
    g_gpibAddress = address;
    return (HANDLE)(INT_PTR)board;
}

BOOL GpCloseLine(void)
{
    if (s_gp.setRen(s_gpBoard, 0) == 0 || s_gp.close(s_gpBoard) == 0)
        return FALSE;
    s_gpBoard = -1;
    return GpFreeLibrary();
}

int GpReadTimed(void *buffer, int count, DWORD timeoutMs)
{
    DWORD got = 0;
    if (s_gp.setTimeout(s_gpBoard, timeoutMs / 100) == 0)
        return -1;
    if (count <= 0)
        return count;
    while (got < (DWORD)count) {
        DWORD received = 0;
        if (!GpRead((BYTE *)buffer + got, (DWORD)count - got, &received))
            return GetLastError() == ERROR_SEM_TIMEOUT ? 0 : -1;
        got += received;
    }
    return count;
}
