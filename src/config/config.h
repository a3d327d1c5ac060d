/* The scan-mode dialog and the spin-arrow control. */
#ifndef TAMRIX_CONFIG_CONFIG_H
#define TAMRIX_CONFIG_CONFIG_H

#include "driver/driver_state.h"

/* Runs the scan-mode dialog for a ModeRequest: modally on the caller's
   thread without MCI_NOTIFY, modelessly with a message loop of its own
   (as the body of the dialog thread) with it. */
DWORD WINAPI CfgModeSetThread(LPVOID request);
INT_PTR CALLBACK CfgModeDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam);
/* Brings the open dialog's controls in line with the live scan parameters
   after another scanmode command (its flags) with "dialog". */
void CfgRefreshModeDialog(DWORD flags);

/* The spin-arrow control ("scanArrow"). */
LRESULT CALLBACK CfgArrowWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
void CALLBACK CfgArrowRepeatTimer(HWND wnd, UINT msg, UINT_PTR id, DWORD time);
void CfgArrowHalfRect(HWND wnd, DWORD state, RECT *rect);
void CfgArrowPaint(HWND wnd, DWORD state);
void CfgArrowDrawEdge(HDC dc, const RECT *rect, BOOL pressed, HPEN highlight, HPEN shadow);

/* The configuration dialog and its RS-232C and GP-IB sub-dialogs. */
#define CFG_PORT_COUNT 9
/* What the probe found for one COM port: present, and took 19200 baud. */
typedef struct CfgPortInfo {
    BYTE present;
    BYTE fast;
} CfgPortInfo;
/* Ports 1 to 9 by number; slot 0 is never probed and counts as present. */
extern CfgPortInfo g_cfgPorts[CFG_PORT_COUNT + 1];
/* The configuration dialog and the sub-dialog it runs, from the end of
   their initialisation until they end. */
extern HWND g_cfgDlgWnd;
extern HWND g_cfgSubDlgWnd;

/* Steps, limits and fixed values of a spin-controlled number, and the
   outcome of the last step (0 in range, 1 unknown code, 2 clamped to the
   maximum, 4 clamped to the minimum). */
typedef struct SpinRecord {
    SHORT lineUp, lineDown, pageUp, pageDown;
    SHORT maximum, minimum;
    SHORT thumbPosition, thumbTrack;
    BYTE status;
} SpinRecord;

INT_PTR CALLBACK CfgSerialDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam);
INT_PTR CALLBACK CfgGpibDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam);
SHORT CfgSpinStep(WORD code, SHORT value, SpinRecord *spin);
/* The port to use for a stored one: the stored port if present, else the
   first present of 1, 2, 3 ... with the stored one skipped; -1 when none. */
int CfgFindPort(DWORD stored);
/* Port n's name (string entry 90 + n) into a buffer of 8 WCHARs. */
void CfgLoadPortName(DWORD port, LPWSTR name);

#endif
