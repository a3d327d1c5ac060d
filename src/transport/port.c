/* The port layer: the byte pipe under the block dialect. One line is open at
   a time, on RS-232C through a COM port or on GP-IB through the board
   library; each operation takes the branch of the interface the line was
   opened on. */
#include "transport/transport.h"

#include "resource.h"

BYTE g_lineOpen = 0;
BYTE g_lineInterface = 0;
HANDLE g_lineHandle = INVALID_HANDLE_VALUE;
DWORD g_lastBaudRate = 0;

/* Port names "COM1".."COM9" are string resources 91..99. */
#define PORT_NAME_CHARS 10
/* A ReadFile of n bytes waits at most n * 56 + 10 ms. */
#define PORT_READ_BYTE_MS 56
#define PORT_READ_CONSTANT_MS 10
#define PORT_WRITE_BYTE_MS 500
#define PORT_WRITE_CONSTANT_MS 1
#define PORT_DCB_LENGTH 28
#define PORT_FORMAT_BYTES 16

static DWORD PortBaudRate(DWORD baudIndex)
{
    switch (baudIndex) {
    case 1:
        g_lastBaudRate = CBR_4800;
        break;
    case 2:
        g_lastBaudRate = CBR_9600;
        break;
    case 3:
        g_lastBaudRate = CBR_19200;
        break;
    default:
        break; /* keeps the speed of the last open */
    }
    return g_lastBaudRate;
}

/* Line settings laid over what the port reported; the fields not named here
   (fDsrSensitivity, fTXContinueOnXoff, the XON/XOFF limits and characters)
   keep the port's values. */
static void PortSetLine(DCB *dcb, DWORD baudRate)
{
    dcb->DCBlength = PORT_DCB_LENGTH;
    dcb->BaudRate = baudRate;
    dcb->fBinary = 1;
    dcb->fParity = 0;
    dcb->fOutxCtsFlow = 1;
    dcb->fOutxDsrFlow = 1;
    dcb->fDtrControl = DTR_CONTROL_HANDSHAKE;
    dcb->fOutX = 0;
    dcb->fInX = 0;
    dcb->fErrorChar = 0;
    dcb->fNull = 0;
    dcb->fRtsControl = RTS_CONTROL_HANDSHAKE;
    dcb->fAbortOnError = 1;
    dcb->ByteSize = 8;
    dcb->Parity = NOPARITY;
    dcb->StopBits = ONESTOPBIT;
}

static HANDLE PortOpenSerial(DWORD id, DWORD baudIndex)
{
    CHAR name[PORT_NAME_CHARS];
    COMMTIMEOUTS timeouts;
    DCB dcb;
    HANDLE handle;

    name[0] = 0;
    LoadStringA(g_hModule, IDS_PORT_COM1 - 1 + id, name, PORT_NAME_CHARS);
    handle = CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    if (handle == INVALID_HANDLE_VALUE)
        return INVALID_HANDLE_VALUE;

    timeouts.ReadIntervalTimeout = MAXDWORD;
    timeouts.ReadTotalTimeoutMultiplier = PORT_READ_BYTE_MS;
    timeouts.ReadTotalTimeoutConstant = PORT_READ_CONSTANT_MS;
    timeouts.WriteTotalTimeoutMultiplier = PORT_WRITE_BYTE_MS;
    timeouts.WriteTotalTimeoutConstant = PORT_WRITE_CONSTANT_MS;
    if (!SetCommTimeouts(handle, &timeouts) || !GetCommState(handle, &dcb))
        goto fail;
    PortSetLine(&dcb, PortBaudRate(baudIndex));
    if (!SetCommState(handle, &dcb) || !PurgeComm(handle, PORT_PURGE_ALL))
        goto fail;

    g_lineHandle = handle;
    g_lineInterface = IF_RS232C;
    g_lineOpen = 1;
    return handle;

fail:
    CloseHandle(handle);
    return INVALID_HANDLE_VALUE;
}

HANDLE PortOpen(DWORD id, DWORD interfaceType, DWORD baudIndex)
{
    HANDLE handle = INVALID_HANDLE_VALUE;

    if (g_lineOpen == 1)
        return INVALID_HANDLE_VALUE;
    if (interfaceType == IF_RS232C) {
        handle = PortOpenSerial(id, baudIndex);
    } else if (interfaceType == IF_GPIB) {
        handle = GpOpenLine(id);
        if (handle != INVALID_HANDLE_VALUE) {
            g_lineHandle = handle;
            g_lineInterface = IF_GPIB;
            g_lineOpen = 1;
        }
    }
    return handle;
}

BOOL PortClose(void)
{
    if (!g_lineOpen)
        return FALSE;
    if (g_lineInterface == IF_RS232C) {
        if (!CloseHandle(g_lineHandle))
            return FALSE;
    } else if (g_lineInterface == IF_GPIB) {
        if (!GpCloseLine())
            return FALSE;
    }
    g_lineInterface = 0;
    g_lineOpen = 0;
    g_lineHandle = INVALID_HANDLE_VALUE;
    return TRUE;
}

BOOL PortWrite(const void *buffer, DWORD count)
{
    DWORD written = 0;
    DWORD errors;
    COMSTAT stat;

    if (g_lineInterface == IF_GPIB)
        return GpWrite(buffer, count);
    if (g_lineInterface != IF_RS232C)
        return TRUE;
    if (!WriteFile(g_lineHandle, buffer, count, &written, NULL)) {
        ClearCommError(g_lineHandle, &errors, &stat);
        return FALSE;
    }
    if (written < count) {
        /* Nothing of a half-sent command may linger on the line. */
        PurgeComm(g_lineHandle, PORT_PURGE_ALL);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPIV PortWriteFormat(LPCSTR format, ...)
{
    CHAR text[PORT_FORMAT_BYTES];
    va_list args;
    int length;

    va_start(args, format);
    length = wvsprintfA(text, format, args);
    va_end(args);
    if (length < 0)
        return FALSE;
    return PortWrite(text, (DWORD)length);
}

static int PortReadSerial(BYTE *buffer, int count, DWORD timeoutMs)
{
    DWORD remaining = (DWORD)count;
    DWORD emptyReads = 0;
    DWORD received;
    DWORD errors;
    COMSTAT stat;

    while (remaining > 0) {
        received = 0;
        if (!ReadFile(g_lineHandle, buffer, remaining, &received, NULL)) {
            ClearCommError(g_lineHandle, &errors, &stat);
            return -1;
        }
        errors = 0;
        ClearCommError(g_lineHandle, &errors, &stat);
        if (errors != 0)
            return -1;
        if (received > 0) {
            buffer += received;
            remaining -= received;
        } else {
            /* The allowance of empty reads follows the bytes still missing. */
            ++emptyReads;
            if (timeoutMs / (remaining * PORT_READ_BYTE_MS + PORT_READ_CONSTANT_MS) < emptyReads)
                return 0;
        }
    }
    return count;
}

int PortRead(void *buffer, int count, DWORD timeoutMs)
{
    if (g_lineInterface == IF_GPIB)
        return GpReadTimed(buffer, count, timeoutMs);
    if (g_lineInterface != IF_RS232C || count <= 0)
        return count;
    return PortReadSerial((BYTE *)buffer, count, timeoutMs);
}

BOOL PortClearAndPurge(void)
{
    DWORD errors;
    COMSTAT stat;

    if (g_lineInterface != IF_RS232C)
        return TRUE;
    if (!ClearCommError(g_lineHandle, &errors, &stat))
        return FALSE;
    return PurgeComm(g_lineHandle, PORT_PURGE_ALL);
}
