/* The device interface layer: the one door between the command layer and
   scan thread and the scanner. It routes every operation to the SCSI
   transport or to the character-line protocol (RS-232C and GP-IB) by the
   interface of g_settings, owns the stop handshake with a running read and
   turns transport failures into MCI error codes. */
#ifndef TAMRIX_DEVICE_H
#define TAMRIX_DEVICE_H

#include "driver/driver_state.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Operations of DevControl. */
#define DEVCTL_ABORT 1  /* from stop, on the command's thread */
#define DEVCTL_FINISH 2 /* from the scan thread after a successful read */
#define DEVCTL_START 3  /* from the scan thread before the read */

/* Driver-specific mode answered while a notified scan is pending. */
#define SCANNER_MODE_SCANNING 1281

/* Opens the configured interface; the handle, or INVALID_HANDLE_VALUE. */
HANDLE DevOpen(DWORD id, DWORD interfaceType);
/* 1 closed, 0 failure. */
BOOL DevClose(void);
/* DEVCTL_START, DEVCTL_FINISH or DEVCTL_ABORT; 1 done, 0 failure. */
BOOL DevControl(DWORD op);
/* Reads the whole image through ImgStoreLine; 0, or 513. */
DWORD DevReadImage(void);
/* SCANNER_MODE_SCANNING, MCI_MODE_NOT_READY, MCI_MODE_STOP or MCI_MODE_OPEN. */
DWORD DevGetMode(void);

#ifdef __cplusplus
}
#endif

#endif
