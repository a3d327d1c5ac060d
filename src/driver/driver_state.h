/* The driver's shared state: locks, device state, the three long operations
   (scan, save, scan-mode dialog) with their busy flags and result words, the
   scan parameters and device settings, and the procedures of the command
   layer. One device is served at a time; every flag is a 32-bit 0/1 value.

   Locking: g_stateLock guards the busy flags, the result words and the
   device layer's abort handshake, and is never held across a device call.
   g_notifyLock is held by the notification timer procedure for its whole run
   and by close while it cancels. g_notifyLock is always taken before
   g_stateLock, never the other way round. */
#ifndef TAMRIX_DRIVER_STATE_H
#define TAMRIX_DRIVER_STATE_H

#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Constants ---------------------------------------------------------- */

/* Interfaces a scanner is reached over. */
#define IF_SCSI 1
#define IF_RS232C 2
#define IF_GPIB 3

/* Time-format units of rectangle values. */
#define UNIT_MILLIMETER 0x4001 /* 0.1 mm */
#define UNIT_INCH 0x4002       /* 0.01 inch */
#define UNIT_DOT 0x4003        /* pixels at the current resolution */

/* Messages of the driver's own commands. */
#define MCI_SCANREAD 0x0C01
#define MCI_SCANMODE 0x0C02

/* Flags of "scanmode". */
#define MCI_SCANMODE_RESOLUTION 0x00010000L
#define MCI_SCANMODE_CONTRAST 0x00020000L
#define MCI_SCANMODE_COLORSTEP 0x00040000L
#define MCI_SCANMODE_HALFTONE 0x00080000L
#define MCI_SCANMODE_DIALOG 0x00100000L
#define MCI_SCANMODE_COLORMODE 0x00200000L

/* Flag of "scanread". */
#define MCI_SCANREAD_RECT 0x00010000L

/* Colour modes as given to "scanmode" (plain integers). */
#define COLORMODE_MONO 0x4001
#define COLORMODE_COLOR 0x4002

/* Items of "status" and "capability" that are the driver's own. */
#define MCI_STATUS_SCANNER 0x4001
#define MCI_GETDEVCAPS_CAN_SCAN_COLOR 0x4001
#define MCI_GETDEVCAPS_HAS_ADF 0x4002
#define MCI_GETDEVCAPS_CAN_MANUAL_START 0x4003
#define MCI_GETDEVCAPS_CAN_STOP 0x4004
#define MCI_GETDEVCAPS_MIN_STARTX 0x4005
#define MCI_GETDEVCAPS_MIN_STARTY 0x4006
#define MCI_GETDEVCAPS_MAX_WIDTH 0x4007
#define MCI_GETDEVCAPS_MAX_LENGTH 0x4008
#define MCI_GETDEVCAPS_MAX_RESOLUTION 0x4009
#define MCI_GETDEVCAPS_MIN_RESOLUTION 0x400A
#define MCI_GETDEVCAPS_INTERVAL_RESOLUTION 0x400B
#define MCI_GETDEVCAPS_MAX_CONTRAST 0x400C
#define MCI_GETDEVCAPS_MIN_CONTRAST 0x400D
#define MCI_GETDEVCAPS_INTERVAL_CONTRAST 0x400E
#define MCI_GETDEVCAPS_MAX_COLORSTEP 0x400F
#define MCI_GETDEVCAPS_MIN_COLORSTEP 0x4010
#define MCI_GETDEVCAPS_INTERVAL_COLORSTEP 0x4011
#define MCI_GETDEVCAPS_USE_MODE_DIALOG 0x4012
#define MCI_GETDEVCAPS_CAN_SCANREAD 0x4013
#define MCI_GETDEVCAPS_CAN_HALFTONE 0x4014

/* The driver's own error codes; their texts are string resources 513, 514. */
#define MCIERR_SCANNER_ABNORMAL (MCIERR_CUSTOM_DRIVER_BASE + 1) /* 513 */
#define MCIERR_COMMAND_ORDER (MCIERR_CUSTOM_DRIVER_BASE + 2)    /* 514 */

/* Device type reported to the multimedia subsystem at open. */
#define TAMRIX_DEVTYPE MCI_DEVTYPE_SCANNER /* 518 */

/* Driver identifier answered to a plain driver open without MCI data. */
#define TAMRIX_PLAIN_DRIVER_ID 10000

/* ---- Records ------------------------------------------------------------ */

/* The scanner and how it is reached; read from the profile at every open. */
typedef struct DeviceSettings {
    DWORD model;         /* 1 to 7 (the profile yields 1 to 6) */
    DWORD interfaceType; /* IF_SCSI, IF_RS232C or IF_GPIB */
    DWORD id;            /* COM port 1..9, GP-IB address 0..30, SCSI 0 */
    DWORD baudIndex;     /* 1 = 4800, 2 = 9600, 3 = 19200; 0 when not serial */
} DeviceSettings;

/* The scan mode and scan area of the open device. */
typedef struct ScanParams {
    DWORD firstBlock; /* 1 while the first block request of a scan is due */
    SHORT resolution; /* dots per inch */
    SHORT areaX;      /* scan area, pixels at resolution */
    SHORT areaY;
    SHORT areaWidth;      /* replaced by the delivered width after a scan */
    SHORT areaLength;     /* replaced by the delivered line count after a scan */
    SHORT brightness;     /* 0 to 9 */
    SHORT contrast;       /* 0 to 9 */
    SHORT ditherPattern;  /* 1..8 first method with pattern n, 16 second, else third */
    SHORT gamma;          /* 1..5: CRT1, CRT2, PRN1, PRN2, none */
    SHORT colorStep;      /* bits per pixel 1..8, or 16 = halftone */
    SHORT colorMode;      /* 0 mono, 16 colour, 17 colour on model 3 */
    SHORT tint;           /* 0 to 9 */
    SHORT saturation;     /* 0 to 9 */
    SHORT edgeEnhance;    /* 0 or 1 */
    SHORT orProcessing;   /* 0 or 1 */
    SHORT noiseReduction; /* 0 or 1 */
} ScanParams;

/* A rectangle as x, y, width, height (signed 32-bit each). */
typedef struct ScanRect {
    LONG x;
    LONG y;
    LONG width;
    LONG height;
} ScanRect;

/* Parameter block of "scanmode". */
typedef struct ScanModeParms {
    DWORD_PTR dwCallback;
    DWORD resolution;
    DWORD contrast;
    DWORD colorStep;
    DWORD colorMode;
} ScanModeParms;

/* Parameter block of "scanread": the rectangle's left, top, right and bottom
   carry x, y, width and height in the time format's unit. */
typedef struct ScanReadParms {
    DWORD_PTR dwCallback;
    RECT rc;
} ScanReadParms;

/* One block of raw image data handed from a transport to the device layer.
   Transport reads answer 0 (failure), 1 (delivered, more follows) or 2
   (delivered, no more data). */
typedef struct ReadBlock {
    BYTE *data;     /* destination bytes */
    DWORD capacity; /* bytes the destination can take */
    DWORD count;    /* bytes delivered */
} ReadBlock;

/* What the save thread is handed. */
typedef struct SaveRequest {
    HWND callback;    /* callback window of the save command */
    LPCWSTR fileName; /* points at g_saveFileName */
} SaveRequest;

/* What the scan-mode dialog (thread) is handed. */
typedef struct ModeRequest {
    DWORD flags;           /* the scanmode command's flags */
    ScanModeParms *params; /* the command's parameter block */
} ModeRequest;

#define SAVE_FILE_NAME_CHARS 128
#define MODE_DLG_SAVED_CONTROLS 27

/* ---- Globals ------------------------------------------------------------ */

/* Module and command table. */
extern HINSTANCE g_hModule;   /* the library's instance: resources, classes */
extern UINT g_commandTableId; /* loaded command table, MCI_NO_COMMAND_TABLE when none */

/* Locks (created at process attach, deleted at detach). */
extern CRITICAL_SECTION g_stateLock;  /* busy flags, result words, abort handshake */
extern CRITICAL_SECTION g_notifyLock; /* notification delivery vs. close */

/* Device state. */
extern DWORD g_deviceOpen;           /* the MCI device is open (set last by open) */
extern MCIDEVICEID g_deviceId;       /* device identifier saved at open */
extern DeviceSettings g_settings;    /* the device's settings, read at open */
extern DWORD g_timeFormat;           /* UNIT_MILLIMETER, UNIT_INCH or UNIT_DOT */
extern ScanParams g_scanParams;      /* the current scan mode and area */
extern ScanParams g_savedScanParams; /* taken at every scanmode, put back on dialog error */
extern ScanRect g_savedScanArea;     /* area before the last scanread, put back on failure */
extern ScanRect g_scanRect;          /* last scanread rectangle, time-format units */
extern DWORD g_imageValid;           /* a scan completed since open */

/* Scan (message MCI_SCANREAD). */
extern DWORD g_scanBusy;     /* a deferred notification of the scan is pending */
extern HWND g_scanCallback;  /* where it goes */
extern LONG g_scanResult;    /* -1 (or below) while running, then 0 or an MCI error */
extern HANDLE g_hScanThread; /* the scan thread */
extern DWORD g_scanFlags;    /* the scanread flags handed to the thread */

/* Save (message MCI_SAVE). */
extern DWORD g_saveBusy;
extern HWND g_saveCallback;
extern LONG g_saveResult;
extern HANDLE g_hSaveThread;
extern SaveRequest g_saveRequest;
extern WCHAR g_saveFileName[SAVE_FILE_NAME_CHARS]; /* copy of the file name */

/* Scan-mode dialog (message MCI_SCANMODE). */
extern DWORD g_modeBusy;
extern HWND g_modeCallback;
extern LONG g_modeResult;
extern HANDLE g_hModeThread;
extern ModeRequest g_modeRequest;

/* Other operation state. */
extern DWORD g_scanStarted;                                /* scanread started a scan; stop acts only then */
extern DWORD g_scanAborted;                                /* the scan ended because of stop */
extern DWORD g_abortRequest;                               /* device layer's abort handshake */
extern LONG g_saveCancel;                                  /* asks the save thread to give up; interlocked */
extern HWND g_modeDlgWnd;                                  /* the open scan-mode dialog, 0 when none */
extern HWND g_hModeOwner;                                  /* window active when scanmode opened the dialog */
extern BOOL g_modeDlgEnableState[MODE_DLG_SAVED_CONTROLS]; /* saved while a scan runs */
extern DWORD g_timerActive;                                /* the notification timer exists */
extern UINT_PTR g_timerId;                                 /* its identifier */

/* The interface the open device holds (kept by the device layer; the
   configuration dialog reads it so as not to probe that interface). */
extern HANDLE g_openComHandle;
extern DWORD g_openComPort;
extern HANDLE g_openGpibHandle;
extern HANDLE g_openScsiHandle;

/* ---- Driver-side WINMM calls (not every SDK's mmddk.h declares them) ---- */

BOOL WINAPI mciDriverNotify(HANDLE callback, MCIDEVICEID deviceId, UINT status);
UINT WINAPI mciDriverYield(MCIDEVICEID deviceId);
UINT WINAPI mciLoadCommandResource(HINSTANCE instance, LPCWSTR resourceName, UINT type);
BOOL WINAPI mciFreeCommandResource(UINT table);

/* ---- Dispatch and notification ------------------------------------------ */

DWORD MciDispatchCommand(MCIDEVICEID deviceId, UINT message, DWORD flags, LPVOID params);
DWORD MciQueueNotify(MCIDEVICEID deviceId, DWORD flags, UINT message, LPVOID params);
void CALLBACK MciNotifyTimerProc(HWND wnd, UINT msg, UINT_PTR timerId, DWORD time);
void MciAbortNotify(UINT message);
BOOL MciCancelOperation(UINT message);
/* Threads: the driver keeps each worker's handle until it has waited for
   the thread's end. */
void MciJoinThread(HANDLE *thread);
/* The timer of a deferred notify command, made before its work starts
   (0 or MCIERR_OUT_OF_MEMORY), and dropped when the command fails. */
DWORD MciPrepareNotify(DWORD flags, UINT message);
void MciDropPreparedNotify(void);
/* Ends everything the open device has running and releases it, even when
   an operation cannot be ended: used when the library is let go. */
void MciShutdown(void);

/* Busy refusals of the handlers: 514 when the command may not run now. */
BOOL MciScanReadRefused(void);
BOOL MciScanModeRefused(void);
BOOL MciSaveRefused(void);
BOOL MciCopyRefused(void);
BOOL MciScanBusy(void); /* set, put, window */

/* Waits for a long operation started with MCI_WAIT: polls the result word
   under g_stateLock and yields between polls. Returns the result, or a
   negative value when the yield asked to stop waiting. */
LONG MciWaitForResult(MCIDEVICEID deviceId, volatile LONG *result);

/* Reads or writes a result word under g_stateLock. */
LONG MciReadResult(volatile LONG *result);
void MciWriteResult(volatile LONG *result, LONG value);

/* ---- Command handlers (each answers 0 or an MCI error code) ------------- */

DWORD MciOpen(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciClose(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciStop(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciInfo(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciGetDevCaps(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciSet(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciSave(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciStatus(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciWindow(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciPut(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciWhere(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciCopy(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciCmdScanRead(MCIDEVICEID deviceId, DWORD flags, LPVOID params);
DWORD MciCmdScanMode(MCIDEVICEID deviceId, DWORD flags, LPVOID params);

/* ---- Settings and scan parameters ---------------------------------------- */

void CfgReadSettings(const DRVCONFIGINFO *config, DeviceSettings *settings);
BOOL CfgWriteSettings(const DRVCONFIGINFO *config, const DeviceSettings *settings);
BOOL CfgCheckScanMode(DWORD flags, const ScanModeParms *params);
void CfgApplyScanMode(DWORD flags, const ScanModeParms *params);
void ImgInitScanParams(DWORD model);

/* ---- Window classes and dialogs used by the entry ------------------------ */

LRESULT CALLBACK DispWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
BOOL CfgRegisterArrowClass(HINSTANCE instance);
INT_PTR CALLBACK CfgConfigDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam);

#ifdef __cplusplus
}
#endif

#endif
