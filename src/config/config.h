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

#endif
