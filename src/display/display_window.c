/* The image display window: its thread and message loop, its painting, the
   repaint after a scan, and the hook that paints into an application's
   window. Everything painted comes from the display copy, placed at the
   destination rectangle; the rest of the window is white. */
#include "display/display.h"

/* The window the image is shown in: the display window unless the window
   command named another one. */
HWND g_targetWnd;

HWND g_displayWnd;
HANDLE g_dispThread;
DWORD g_dispThreadId;
HANDLE g_dispReadyEvent;
LONG g_scrollX;
LONG g_scrollY;
LONG g_dispUpdating;
HHOOK g_paintHook;
HOOKPROC g_paintHookProc;

DWORD WINAPI DispThreadProc(LPVOID param)
{
    HWND wnd;
    MSG msg;

    (void)param;
    wnd = CreateWindowExW(0, DISP_CLASS_NAME, DISP_WINDOW_TITLE, WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, CW_USEDEFAULT,
                          DISP_WINDOW_WIDTH, DISP_WINDOW_HEIGHT, NULL, NULL, g_hModule, NULL);
    g_displayWnd = wnd;
    /* The target is set before open is let go, so that a command following
       open at once finds it. */
    if (wnd != NULL)
        g_targetWnd = wnd;
    /* Open waits for the event or for this thread's end: a window that
       could not be made, or an event that cannot be set, ends the thread
       and fails the open. */
    if (!SetEvent(g_dispReadyEvent) || wnd == NULL) {
        if (wnd != NULL)
            DestroyWindow(wnd);
        g_displayWnd = NULL;
        return 0;
    }
    /* Close posts the quit message and waits for this thread's end; the
       handle is open's and close's, not the thread's. */
    while (GetMessageW(&msg, NULL, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
    DestroyWindow(wnd);
    g_displayWnd = NULL;
    return 0;
}

/* Paints the damaged part of the own window: white everywhere, then the
   display copy where the damage meets the destination rectangle. */
static void DispPaint(void)
{
    PAINTSTRUCT ps;
    HDC dc;
    HBRUSH brush;
    HGDIOBJ oldBrush;
    LONG x, y, w, h;

    dc = BeginPaint(g_displayWnd, &ps);
    if (dc == NULL) {
        /* Nothing to paint with: marked painted, not asked again at once. */
        ValidateRect(g_displayWnd, NULL);
        return;
    }
    x = ps.rcPaint.left + g_scrollX;
    y = ps.rcPaint.top + g_scrollY;
    w = ps.rcPaint.right;
    h = ps.rcPaint.bottom;
    DispClipToDest(&x, &y, &w, &h);

    brush = CreateSolidBrush(RGB(255, 255, 255));
    oldBrush = SelectObject(dc, brush);
    FillRect(dc, &ps.rcPaint, brush);
    SelectObject(dc, oldBrush);
    DeleteObject(brush);

    if (GetMapMode(dc) == MM_TEXT && GetMapMode(g_dispDC) == MM_TEXT) {
        BitBlt(dc, x, y, w, h, g_dispDC, x - g_dstRect.x, y - g_dstRect.y, SRCCOPY);
        EndPaint(g_displayWnd, &ps);
    }
}

LRESULT CALLBACK DispWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_CREATE:
        g_scrollX = 0;
        g_scrollY = 0;
        return 0;
    case WM_DESTROY:
        /* Shrinks the window to nothing; the message loop goes on. */
        SetWindowPos(g_displayWnd, NULL, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
        return 0;
    case WM_PAINT:
        DispPaint();
        return 0;
    default:
        return DefWindowProcW(wnd, msg, wParam, lParam);
    }
}

int DispRefresh(void)
{
    const ScanRect *d = &g_dstRect;
    const ScanRect *s = &g_srcRect;

    StretchBlt(g_dispDC, 0, 0, d->width, d->height, g_imageDC, s->x, s->y, s->width, s->height, SRCCOPY);

    if (g_targetWnd != g_displayWnd) {
        RECT client;
        LONG x = d->x, y = d->y, w = d->width, h = d->height;
        HDC dc;

        if (!IsWindow(g_targetWnd))
            return 0;
        GetClientRect(g_targetWnd, &client);
        DispClipToClient(&client, &x, &y, &w, &h);
        dc = GetDC(g_targetWnd);
        BitBlt(dc, x, y, w, h, g_dispDC, 0, 0, SRCCOPY);
        ReleaseDC(g_targetWnd, dc);
    } else {
        RECT area;

        area.left = d->x;
        area.top = d->y;
        area.right = d->x + d->width;
        area.bottom = d->y + d->height;
        g_dispUpdating = 1;
        InvalidateRect(g_displayWnd, &area, TRUE);
        /* The display thread paints while this thread waits. */
        UpdateWindow(g_displayWnd);
        g_dispUpdating = 0;
    }
    return 1;
}

LRESULT CALLBACK DispHookProc(int code, WPARAM wParam, LPARAM lParam)
{
    const MSG *msg = (const MSG *)lParam;

    if (msg->hwnd == g_targetWnd && msg->message == WM_PAINT) {
        HWND wnd = msg->hwnd;
        RECT damage;
        HDC dc;
        int oldMode;
        LONG x, y, w, h;

        dc = GetDC(wnd);
        oldMode = SetMapMode(dc, MM_TEXT);
        GetUpdateRect(wnd, &damage, FALSE);
        SetMapMode(dc, oldMode);
        ReleaseDC(wnd, dc);

        /* The application paints its window first. */
        UpdateWindow(wnd);

        dc = GetDC(wnd);
        oldMode = SetMapMode(dc, MM_TEXT);
        x = damage.left;
        y = damage.top;
        w = damage.right;
        h = damage.bottom;
        DispClipToDest(&x, &y, &w, &h);
        BitBlt(dc, x, y, w, h, g_dispDC, x - g_dstRect.x, y - g_dstRect.y, SRCCOPY);
        SetMapMode(dc, oldMode);
        ReleaseDC(wnd, dc);
        return 0;
    }
    CallNextHookEx(g_paintHook, code, wParam, lParam);
    return 0;
}
