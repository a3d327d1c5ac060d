/* Temporary scaffolding while the device layer's files land one by one in a
   shared tree: weak fall-backs so that the test program links when one of
   the transports or protocols is not there yet. Every real definition
   replaces its fall-back. Removed once all of them have landed. */
#include "device/device.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

#define PENDING __attribute__((weak))

PENDING BYTE g_lineOpen;
PENDING BYTE g_lineInterface;
PENDING HANDLE g_lineHandle = INVALID_HANDLE_VALUE;
PENDING DWORD g_lastBaudRate;
PENDING HMODULE g_gpibModule;
PENDING DWORD g_gpibAddress;
PENDING BYTE g_gpibReadPending;
PENDING HANDLE g_scsiHandle = INVALID_HANDLE_VALUE;
PENDING DWORD g_scsiOpen;
PENDING DWORD g_scsiStarted;
PENDING DWORD g_lineStarted;
PENDING DWORD g_protDetail;

PENDING HANDLE PortOpen(DWORD id, DWORD interfaceType, DWORD baudIndex)
{
    (void)id, (void)interfaceType, (void)baudIndex;
    return INVALID_HANDLE_VALUE;
}
PENDING BOOL PortClose(void)
{
    return FALSE;
}
PENDING BOOL PortWrite(const void *buffer, DWORD count)
{
    (void)buffer, (void)count;
    return FALSE;
}
PENDING BOOL WINAPIV PortWriteFormat(LPCSTR format, ...)
{
    (void)format;
    return FALSE;
}
PENDING int PortRead(void *buffer, int count, DWORD timeoutMs)
{
    (void)buffer, (void)count, (void)timeoutMs;
    return -1;
}
PENDING BOOL PortClearAndPurge(void)
{
    return FALSE;
}
PENDING BOOL GpLoadLibrary(void)
{
    return FALSE;
}
PENDING BOOL GpFreeLibrary(void)
{
    return TRUE;
}
PENDING BOOL GpInitDevice(DWORD address)
{
    (void)address;
    return FALSE;
}
PENDING BOOL GpWrite(const void *buffer, DWORD count)
{
    (void)buffer, (void)count;
    return FALSE;
}
PENDING BOOL GpRead(void *buffer, DWORD count, DWORD *received)
{
    (void)buffer, (void)count, (void)received;
    return FALSE;
}
PENDING int GpReadBytes(void *buffer, DWORD count, DWORD timeoutMs)
{
    (void)buffer, (void)count, (void)timeoutMs;
    return -1;
}
PENDING BOOL GpWaitSrq(WORD wait)
{
    (void)wait;
    return FALSE;
}
PENDING BOOL GpSerialPoll(BYTE *status)
{
    (void)status;
    return FALSE;
}
PENDING BOOL GpWriteCommand(const BYTE *bytes, DWORD count)
{
    (void)bytes, (void)count;
    return FALSE;
}
PENDING BOOL GpSetTimeout(DWORD tenths)
{
    (void)tenths;
    return FALSE;
}
PENDING BOOL GpSetDelimiter(DWORD delimiter)
{
    (void)delimiter;
    return FALSE;
}
PENDING HANDLE GpOpenLine(DWORD address)
{
    (void)address;
    return INVALID_HANDLE_VALUE;
}
PENDING BOOL GpCloseLine(void)
{
    return FALSE;
}
PENDING int GpReadTimed(void *buffer, int count, DWORD timeoutMs)
{
    (void)buffer, (void)count, (void)timeoutMs;
    return -1;
}
PENDING HANDLE ScsiOpen(void)
{
    return INVALID_HANDLE_VALUE;
}
PENDING BOOL ScsiClose(void)
{
    return FALSE;
}
PENDING BOOL ScsiStart(void)
{
    return FALSE;
}
PENDING BOOL ScsiFinish(void)
{
    return FALSE;
}
PENDING BOOL ScsiAbort(void)
{
    return FALSE;
}
PENDING int ScsiReadImage(ScanParams *params, ReadBlock *block)
{
    (void)params, (void)block;
    return 0;
}
PENDING BOOL ScsiTestUnitReady(void)
{
    return FALSE;
}
PENDING BOOL ProtStart(void)
{
    return FALSE;
}
PENDING BOOL ProtFinish(void)
{
    return FALSE;
}
PENDING BOOL ProtAbort(void)
{
    return FALSE;
}
PENDING BOOL ProtWaitReady(void)
{
    return FALSE;
}
PENDING int ProtReadImage(ScanParams *params, ReadBlock *block)
{
    (void)params, (void)block;
    return 0;
}
PENDING BOOL PollStart(void)
{
    return FALSE;
}
PENDING BOOL PollWaitReady(void)
{
    return FALSE;
}
PENDING BOOL PollCheckStatus(void)
{
    return FALSE;
}
PENDING int PollSerialPoll(void)
{
    return 0;
}
PENDING BOOL PollSendScanParams(const ScanParams *params)
{
    (void)params;
    return FALSE;
}
PENDING BOOL PollReadInfo(BYTE *dest)
{
    (void)dest;
    return FALSE;
}
PENDING int PollReadImage(ScanParams *params, ReadBlock *block)
{
    (void)params, (void)block;
    return 0;
}
