/* The spin-arrow control "scanArrow": a narrow button split into an upper
   and a lower half that sends WM_VSCROLL to its parent (low word the scroll
   code, high word the control's id), repeating while a half is held down. */
#include "config/config.h"
#include "config/settings.h"

/* Bits of the state word kept in the window's extra bytes. */
#define ARROW_DISABLED 1
#define ARROW_HIDDEN 2
#define ARROW_OUTSIDE 4
#define ARROW_UPPER 8
#define ARROW_LOWER 16
#define ARROW_PRESSED (ARROW_UPPER | ARROW_LOWER)

#define ARROW_FIRST_REPEAT_MS 200
#define ARROW_NEXT_REPEAT_MS 50

/* One press at a time in the process, whichever control it is on. */
static UINT s_pressMsg;        /* WM_LBUTTONDOWN or WM_RBUTTONDOWN, 0 when none */
static HWND s_notifyWnd;       /* the parent at the time of the press */
static UINT_PTR s_repeatTimer; /* id of the running repeat timer, 0 when none */

BOOL CfgRegisterArrowClass(HINSTANCE instance)
{
    WNDCLASSW wc;

    wc.style = CS_HREDRAW | CS_VREDRAW;
    wc.lpfnWndProc = CfgArrowWndProc;
    wc.cbClsExtra = 0;
    wc.cbWndExtra = 4;
    wc.hInstance = instance;
    wc.hIcon = NULL;
    wc.hCursor = LoadCursorW(NULL, IDC_ARROW);
    wc.hbrBackground = (HBRUSH)(INT_PTR)(COLOR_WINDOW + 1);
    wc.lpszMenuName = NULL;
    wc.lpszClassName = TEXT("scanArrow");
    return RegisterClassW(&wc) != 0;
}

static DWORD GetState(HWND wnd)
{
    return (DWORD)GetWindowLongW(wnd, 0);
}

static void SetState(HWND wnd, DWORD state)
{
    SetWindowLongW(wnd, 0, (LONG)state);
}

static void Notify(HWND wnd, int code)
{
    SendMessageW(s_notifyWnd, WM_VSCROLL, (WPARAM)MAKELONG(code, GetDlgCtrlID(wnd)), (LPARAM)wnd);
}

void CfgArrowHalfRect(HWND wnd, DWORD state, RECT *rect)
{
    GetClientRect(wnd, rect);
    if (state & ARROW_LOWER)
        rect->top = rect->bottom / 2;
    else
        rect->bottom = rect->bottom / 2 + 1;
}

static void RepaintHalf(HWND wnd, DWORD state)
{
    RECT half;

    CfgArrowHalfRect(wnd, state, &half);
    InvalidateRect(wnd, &half, TRUE);
    UpdateWindow(wnd);
}

static void StopRepeat(HWND wnd)
{
    if (s_repeatTimer != 0) {
        Notify(wnd, SB_ENDSCROLL);
        KillTimer(wnd, s_repeatTimer);
        s_repeatTimer = 0;
    }
}

static void OnButtonDown(HWND wnd, UINT msg, WPARAM keys, LPARAM pos)
{
    RECT client;
    DWORD state = GetState(wnd);
    BOOL right = msg == WM_RBUTTONDOWN;
    int code;

    if (s_pressMsg != 0)
        return;
    s_pressMsg = msg;
    s_notifyWnd = GetParent(wnd);
    GetClientRect(wnd, &client);
    if ((short)HIWORD(pos) <= client.bottom / 2) {
        code = 0;
        state |= ARROW_UPPER;
    } else {
        code = 1;
        state |= ARROW_LOWER;
    }
    SetState(wnd, state);
    RepaintHalf(wnd, state);
    SetCapture(wnd);
    if (!(keys & MK_SHIFT)) {
        if (right)
            code += 2;
        s_repeatTimer = SetTimer(wnd, (UINT_PTR)GetDlgCtrlID(wnd), ARROW_FIRST_REPEAT_MS, CfgArrowRepeatTimer);
    } else {
        /* Shift jumps: to the ends with the left button, thumb codes with the right. */
        code += right ? 4 : 6;
    }
    Notify(wnd, code);
}

static void OnMouseMove(HWND wnd, LPARAM pos)
{
    DWORD state = GetState(wnd);
    DWORD moved;
    RECT half;
    POINT pt;

    if (!(state & ARROW_PRESSED))
        return;
    CfgArrowHalfRect(wnd, state, &half);
    pt.x = (short)LOWORD(pos);
    pt.y = (short)HIWORD(pos);
    moved = PtInRect(&half, pt) ? state & ~(DWORD)ARROW_OUTSIDE : state | ARROW_OUTSIDE;
    if (moved != state) {
        SetState(wnd, moved);
        RepaintHalf(wnd, moved);
    }
}

static void OnButtonUp(HWND wnd, UINT msg)
{
    DWORD state = GetState(wnd);

    if ((msg == WM_LBUTTONUP && s_pressMsg != WM_LBUTTONDOWN) || (msg == WM_RBUTTONUP && s_pressMsg != WM_RBUTTONDOWN))
        return;
    s_pressMsg = 0;
    ReleaseCapture();
    StopRepeat(wnd);
    if (state & ARROW_PRESSED) {
        SetState(wnd, state & ~(DWORD)(ARROW_OUTSIDE | ARROW_PRESSED));
        RepaintHalf(wnd, state);
    }
}

void CALLBACK CfgArrowRepeatTimer(HWND wnd, UINT msg, UINT_PTR id, DWORD time)
{
    DWORD state = GetState(wnd);

    (void)msg;
    (void)time;
    if (state & ARROW_PRESSED)
        Notify(wnd, ((state & ARROW_UPPER) ? 0 : 1) + (s_pressMsg == WM_RBUTTONDOWN ? 2 : 0));
    SetTimer(wnd, id, ARROW_NEXT_REPEAT_MS, CfgArrowRepeatTimer);
}

void CfgArrowDrawEdge(HDC dc, const RECT *r, BOOL pressed, HPEN highlight, HPEN shadow)
{
    HGDIOBJ old = SelectObject(dc, shadow);

    if (pressed) {
        MoveToEx(dc, r->left + 1, r->bottom - 1, NULL);
        LineTo(dc, r->left + 1, r->top + 1);
        LineTo(dc, r->right, r->top + 1);
    } else {
        MoveToEx(dc, r->left + 1, r->bottom - 1, NULL);
        LineTo(dc, r->right - 1, r->bottom - 1);
        LineTo(dc, r->right - 1, r->top);
        MoveToEx(dc, r->left + 2, r->bottom - 2, NULL);
        LineTo(dc, r->right - 2, r->bottom - 2);
        LineTo(dc, r->right - 2, r->top + 1);
        SelectObject(dc, highlight);
        MoveToEx(dc, r->left + 1, r->bottom - 2, NULL);
        LineTo(dc, r->left + 1, r->top + 1);
        LineTo(dc, r->right - 1, r->top + 1);
    }
    SelectObject(dc, old);
}

static void Line(HDC dc, int x0, int y0, int x1, int y1)
{
    MoveToEx(dc, x0, y0, NULL);
    LineTo(dc, x1, y1);
}

void CfgArrowPaint(HWND wnd, DWORD state)
{
    PAINTSTRUCT ps;
    RECT client, edge;
    HDC dc = BeginPaint(wnd, &ps);
    COLORREF face = GetSysColor(COLOR_BTNFACE), text = GetSysColor(COLOR_BTNTEXT);
    COLORREF shadow = GetSysColor(COLOR_BTNSHADOW), light = GetSysColor(COLOR_BTNHIGHLIGHT);
    HPEN facePen = CreatePen(PS_SOLID, 1, face), textPen = CreatePen(PS_SOLID, 1, text);
    HPEN shadowPen = CreatePen(PS_SOLID, 1, shadow), lightPen = CreatePen(PS_SOLID, 1, light);
    HPEN framePen = CreatePen(PS_SOLID, 1, GetSysColor(COLOR_WINDOWFRAME));
    HBRUSH faceBrush = CreateSolidBrush(face), textBrush = CreateSolidBrush(text);
    HGDIOBJ oldPen, oldBrush;
    int w, h, hh, cx, qy, up = 0, down = 0;
    POINT tri[3];

    /* Without a paint DC the arrows are not drawn this time; the window is
       marked painted all the same, or it would be asked again at once. */
    if (dc == NULL)
        ValidateRect(wnd, NULL);
    GetClientRect(wnd, &client);
    w = client.right;
    h = client.bottom;
    hh = h / 2;
    cx = w / 2;
    qy = hh / 2;
    if (!(state & ARROW_OUTSIDE)) {
        up = (state & ARROW_UPPER) ? 1 : 0;
        down = !up && (state & ARROW_LOWER) ? 1 : 0;
    }
    if (dc != NULL) {
        oldBrush = SelectObject(dc, faceBrush);
        oldPen = SelectObject(dc, framePen);
        Rectangle(dc, 0, 0, w, h);
        Line(dc, 0, hh, w, hh);
        SetRect(&edge, 0, 0, w - 1, hh);
        CfgArrowDrawEdge(dc, &edge, up, lightPen, shadowPen);
        SetRect(&edge, 0, hh, w - 1, h - 1);
        CfgArrowDrawEdge(dc, &edge, down, lightPen, shadowPen);
        SelectObject(dc, textPen);
        if (!(state & ARROW_DISABLED)) {
            SelectObject(dc, textBrush);
            tri[0].x = cx + up;
            tri[0].y = qy + up - 2;
            tri[1].x = cx + up - 3;
            tri[1].y = qy + up + 1;
            tri[2].x = cx + up + 3;
            tri[2].y = qy + up + 1;
            Polygon(dc, tri, 3);
            tri[0].x = cx + down;
            tri[0].y = hh + qy + down + 1;
            tri[1].x = cx + down - 3;
            tri[1].y = hh + qy + down - 2;
            tri[2].x = cx + down + 3;
            tri[2].y = hh + qy + down - 2;
            Polygon(dc, tri, 3);
        } else {
            /* Hollow arrows, etched in the highlight colour. */
            Line(dc, cx, qy - 2, cx - 3, qy + 1);
            Line(dc, cx - 3, hh + qy - 2, cx + 3, hh + qy - 2);
            SelectObject(dc, lightPen);
            Line(dc, cx - 3, qy + 1, cx + 3, qy + 1);
            Line(dc, cx + 3, hh + qy - 2, cx, hh + qy + 1);
            SetPixel(dc, cx, hh + qy + 1, light);
        }
        SelectObject(dc, oldPen);
        SelectObject(dc, oldBrush);
    }
    EndPaint(wnd, &ps);
    DeleteObject(faceBrush);
    DeleteObject(textBrush);
    DeleteObject(facePen);
    DeleteObject(textPen);
    DeleteObject(shadowPen);
    DeleteObject(lightPen);
    DeleteObject(framePen);
}

LRESULT CALLBACK CfgArrowWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    DWORD state;

    switch (msg) {
    case WM_CREATE:
        SetState(wnd, 0);
        return 0;
    case WM_ENABLE:
        state = GetState(wnd);
        SetState(wnd, wParam ? state & ~(DWORD)ARROW_DISABLED : state | ARROW_DISABLED);
        InvalidateRect(wnd, NULL, TRUE);
        UpdateWindow(wnd);
        return 0;
    case WM_SHOWWINDOW:
        state = GetState(wnd);
        SetState(wnd, wParam ? state & ~(DWORD)ARROW_HIDDEN : state | ARROW_HIDDEN);
        return 0;
    case WM_PAINT:
        CfgArrowPaint(wnd, GetState(wnd));
        return 0;
    case WM_LBUTTONDOWN:
    case WM_RBUTTONDOWN:
        OnButtonDown(wnd, msg, wParam, lParam);
        return 0;
    case WM_MOUSEMOVE:
        OnMouseMove(wnd, lParam);
        return 0;
    case WM_LBUTTONUP:
    case WM_RBUTTONUP:
        OnButtonUp(wnd, msg);
        return 0;
    case WM_CANCELMODE:
        StopRepeat(wnd);
        ReleaseCapture();
        return 0;
    default:
        return DefWindowProcW(wnd, msg, wParam, lParam);
    }
}
