/* The transports under the device layer: the port layer (RS-232C through a
   COM port, GP-IB through the board library "GPIBDLL" loaded at run time)
   and the SCSI scanner device "\\.\SCNR0". Transports answer 1/0 (or a
   handle / INVALID_HANDLE_VALUE); only the device layer turns their failures
   into MCI error codes. None of them takes a lock: the device layer keeps
   one thread on the line at a time. */
#ifndef TAMRIX_TRANSPORT_H
#define TAMRIX_TRANSPORT_H

#include "driver/driver_state.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Port layer (RS-232C and GP-IB) ------------------------------------- */

extern BYTE g_lineOpen;      /* 1 while a line is open */
extern BYTE g_lineInterface; /* IF_RS232C or IF_GPIB while open, else 0 */
extern HANDLE g_lineHandle;  /* COM handle or GP-IB handle; INVALID_HANDLE_VALUE when closed */
extern DWORD g_lastBaudRate; /* line speed of the last RS-232C open, 0 before */

/* Purge flags used throughout the RS-232C side. */
#define PORT_PURGE_ALL (PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR)

/* id: COM port 1..9 or GP-IB device address; the line handle or INVALID_HANDLE_VALUE. */
HANDLE PortOpen(DWORD id, DWORD interfaceType, DWORD baudIndex);
BOOL PortClose(void);
BOOL PortWrite(const void *buffer, DWORD count);
/* Formats with wvsprintfA into a 16-byte buffer and writes the result. */
BOOL WINAPIV PortWriteFormat(LPCSTR format, ...);
/* count when all arrived, 0 on time-out, -1 on a line error. */
int PortRead(void *buffer, int count, DWORD timeoutMs);
/* RS-232C: clears the port's error state and purges both directions; 1 or 0.
   Does nothing and answers 1 on other interfaces. */
BOOL PortClearAndPurge(void);

/* ---- GP-IB -------------------------------------------------------------- */

extern HMODULE g_gpibModule; /* the board library while loaded */
extern DWORD g_gpibAddress;  /* the scanner's device address */
extern BYTE g_gpibReadPending;

/* Interface command bytes. */
#define GPIB_UNL 0x3F
#define GPIB_UNT 0x5F
#define GPIB_DCL 0x14
/* Completion code of a good serial poll. */
#define GPIB_SP_DONE 0x31

BOOL GpLoadLibrary(void);
BOOL GpFreeLibrary(void);
BOOL GpInitDevice(DWORD address);
BOOL GpWrite(const void *buffer, DWORD count);
BOOL GpRead(void *buffer, DWORD count, DWORD *received);
/* The count received, or -1. */
int GpReadBytes(void *buffer, DWORD count, DWORD timeoutMs);
BOOL GpWaitSrq(WORD wait);
/* Serial poll of the device: 1 with the status byte when the completion code was good. */
BOOL GpSerialPoll(BYTE *status);
/* Sends interface command bytes; 1 when the library reported success. */
BOOL GpWriteCommand(const BYTE *bytes, DWORD count);
/* "SetGpibTimeout" / "SetGpibDelimiter" on the open handle; 1 or 0. */
BOOL GpSetTimeout(DWORD tenths);
BOOL GpSetDelimiter(DWORD delimiter);
/* GP-IB branches of the port layer. */
HANDLE GpOpenLine(DWORD address);
BOOL GpCloseLine(void);
int GpReadTimed(void *buffer, int count, DWORD timeoutMs);

/* ---- SCSI --------------------------------------------------------------- */

extern HANDLE g_scsiHandle; /* INVALID_HANDLE_VALUE when closed */
extern DWORD g_scsiOpen;
extern DWORD g_scsiStarted;

#define IOCTL_SCNR_TEST_UNIT_READY 0x1B0004
#define IOCTL_SCNR_MODE_SELECT 0x1B800C
#define IOCTL_SCNR_REQUEST_SENSE 0x1B4018
#define IOCTL_SCNR_SET_WINDOW 0x1B801C
#define IOCTL_SCNR_GET_BUFFER_STATUS 0x1B4024
#define IOCTL_SCNR_SET_TIMEOUT 0x1B8028
#define IOCTL_SCNR_ABORT 0x1B002F
#define IOCTL_SCNR_SCAN 0x1B0030

#define SCSI_MODE_DATA_BYTES 12
#define SCSI_WINDOW_DATA_BYTES 56
#define SCSI_SENSE_BYTES 18
#define SCSI_BUFFER_STATUS_BYTES 12

HANDLE ScsiOpen(void);
BOOL ScsiClose(void);
BOOL ScsiStart(void);
BOOL ScsiFinish(void);
BOOL ScsiAbort(void);
int ScsiReadImage(ScanParams *params, ReadBlock *block);
BOOL ScsiTestUnitReady(void);
BOOL ScsiIoctl(HANDLE handle, DWORD code, LPVOID in, DWORD inLen, LPVOID out, DWORD outLen, LPDWORD returned,
               LPOVERLAPPED overlapped, DWORD timeoutMs);
void ScsiBuildModeData(BYTE *dest, const ScanParams *params);
void ScsiBuildWindow(BYTE *dest, const ScanParams *params);

#ifdef __cplusplus
}
#endif

#endif
