/* The one definition of each piece of the driver's shared state. */
#include "driver/driver_state.h"

HINSTANCE g_hModule;
UINT g_commandTableId = MCI_NO_COMMAND_TABLE;

CRITICAL_SECTION g_stateLock;
CRITICAL_SECTION g_notifyLock;

DWORD g_deviceOpen;
MCIDEVICEID g_deviceId;
DeviceSettings g_settings;
DWORD g_timeFormat = UNIT_DOT;
ScanParams g_scanParams;
ScanParams g_savedScanParams;
ScanRect g_savedScanArea;
ScanRect g_scanRect;
DWORD g_imageValid;

DWORD g_scanBusy;
HWND g_scanCallback;
LONG g_scanResult;
HANDLE g_hScanThread;
DWORD g_scanFlags;

DWORD g_saveBusy;
HWND g_saveCallback;
LONG g_saveResult;
HANDLE g_hSaveThread;
SaveRequest g_saveRequest;
WCHAR g_saveFileName[SAVE_FILE_NAME_CHARS];

DWORD g_modeBusy;
HWND g_modeCallback;
LONG g_modeResult;
HANDLE g_hModeThread;
ModeRequest g_modeRequest;

DWORD g_scanStarted;
DWORD g_scanAborted;
DWORD g_abortRequest;
LONG g_saveCancel;
HWND g_modeDlgWnd;
HWND g_hModeOwner;
BOOL g_modeDlgEnableState[MODE_DLG_SAVED_CONTROLS];
DWORD g_timerActive;
UINT_PTR g_timerId;

HANDLE g_openComHandle;
DWORD g_openComPort;
HANDLE g_openGpibHandle;
HANDLE g_openScsiHandle;
