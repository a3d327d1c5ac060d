/* The driver side of WINMM: what an installable MCI driver calls and
   receives. */
#ifndef TAMRIX_MMDDK_H
#define TAMRIX_MMDDK_H

#include "mmsystem.h"

TAMRIX_EXTERN_C_BEGIN

#define DRV_MCI_FIRST DRV_RESERVED
#define DRV_MCI_LAST (DRV_RESERVED + 0xFFF)

#define MCI_OPEN_DRIVER 0x0801
#define MCI_CLOSE_DRIVER 0x0802

/* Command table entry types */
#define MCI_COMMAND_HEAD 0
#define MCI_STRING 1
#define MCI_INTEGER 2
#define MCI_END_COMMAND 3
#define MCI_RETURN 4
#define MCI_FLAG 5
#define MCI_END_COMMAND_LIST 6
#define MCI_RECT 7
#define MCI_CONSTANT 8
#define MCI_END_CONSTANT 9
#define MCI_HWND 10
#define MCI_HPAL 11
#define MCI_HDC 12
#define MCI_INTEGER64 13

#define MCI_NO_COMMAND_TABLE 0xFFFFFFFFu

typedef struct {
    MCIDEVICEID wDeviceID;
    LPCWSTR lpstrParams;
    UINT wCustomCommandTable;
    UINT wType;
} MCI_OPEN_DRIVER_PARMSW, *LPMCI_OPEN_DRIVER_PARMSW;
typedef MCI_OPEN_DRIVER_PARMSW MCI_OPEN_DRIVER_PARMS;
typedef LPMCI_OPEN_DRIVER_PARMSW LPMCI_OPEN_DRIVER_PARMS;

WINMMAPI BOOL WINAPI mciDriverNotify(HANDLE callback, MCIDEVICEID deviceId, UINT status);
WINMMAPI UINT WINAPI mciDriverYield(MCIDEVICEID deviceId);
WINMMAPI UINT WINAPI mciLoadCommandResource(HINSTANCE instance, LPCWSTR resourceName, UINT type);
WINMMAPI BOOL WINAPI mciFreeCommandResource(UINT table);
WINMMAPI BOOL WINAPI mciSetDriverData(MCIDEVICEID deviceId, DWORD_PTR data);
WINMMAPI DWORD_PTR WINAPI mciGetDriverData(MCIDEVICEID deviceId);

TAMRIX_EXTERN_C_END

#endif
