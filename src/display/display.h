/* The display: the driver's own window with its thread, the repaint after a
   scan or a put, the message hook that paints into an application's
   window, and the put, where and window commands. */
#ifndef TAMRIX_DISPLAY_H
#define TAMRIX_DISPLAY_H

#include <windows.h>

#include "display/display_rects.h"
#include "image/image.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Class name and caption of the driver's own window. */
#define DISP_CLASS_NAME TEXT("TamrixWnd")
#define DISP_WINDOW_TITLE TEXT("Scanner  Image Data")
/* Size the window is created with. */
#define DISP_WINDOW_WIDTH 270
#define DISP_WINDOW_HEIGHT 350
/* Stack size the display thread is started with. */
#define DISP_THREAD_STACK 1024

/* The driver's own window, 0 while it does not exist. */
extern HWND g_displayWnd;
/* The display thread; open starts it, the thread closes the handle and
   clears this when it ends by itself. */
extern HANDLE g_dispThread;
extern DWORD g_dispThreadId; /* close asks the thread's loop to end */
/* Manual-reset event, made by open before the thread starts; the thread
   sets it once g_displayWnd holds the window (or 0 when it could not be
   made). */
extern HANDLE g_dispReadyEvent;
/* Offsets added to the origin of a painted area; 0 from window creation. */
extern LONG g_scrollX;
extern LONG g_scrollY;
/* 1 while a refresh or a put invalidates and updates the own window. */
extern LONG g_dispUpdating;
/* The paint hook while an application window is the target. */
extern HHOOK g_paintHook;
extern HOOKPROC g_paintHookProc;

/* Start routine of the display thread (no argument): makes the window,
   runs its message loop, ends the thread. */
DWORD WINAPI DispThreadProc(LPVOID param);
/* Window procedure of the "TamrixWnd" class. */
LRESULT CALLBACK DispWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
/* Rebuilds the display copy from the source rectangle of the current image
   and shows it in the target window. 0 when the application's window the
   image goes to no longer exists, else 1. */
int DispRefresh(void);
/* WH_GETMESSAGE hook: paints the display copy into the application's
   window after the window has painted itself. */
LRESULT CALLBACK DispHookProc(int code, WPARAM wParam, LPARAM lParam);

#ifdef __cplusplus
}
#endif

#endif
