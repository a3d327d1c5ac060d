// Painting: the update rectangle of a window (InvalidateRect, ValidateRect,
// GetUpdateRect), BeginPaint/EndPaint, UpdateWindow, and the scroll
// positions read by painting code (a scroll-bar control's own position is
// asked of the control).
//
// A window keeps one update rectangle, the bounding box of everything
// invalidated since it was last painted; the message loop of the owning
// thread produces WM_PAINT while it is set. UpdateWindow sends WM_PAINT,
// so a window of another thread is painted by that thread while the caller
// waits, as on Windows.
#include <windows.h>

#include "user.h"

#include <algorithm>
#include <utility>

PLAT_INJECTABLE(BeginPaint);

namespace plat
{
namespace
{

bool IsEmpty(const RECT &r)
{
    return r.right <= r.left || r.bottom <= r.top;
}

RECT Intersect(const RECT &a, const RECT &b)
{
    return RECT{std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
                std::min(a.bottom, b.bottom)};
}

RECT Union(const RECT &a, const RECT &b)
{
    return RECT{std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
                std::max(a.bottom, b.bottom)};
}

bool Contains(const RECT &outer, const RECT &inner)
{
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom;
}

// Takes the window's update state away (world lock held).
void Validate(Window &w)
{
    w.needsPaint = false;
    w.eraseBackground = false;
    w.updateRect = RECT{};
}

} // namespace
} // namespace plat

using namespace plat;

extern "C" BOOL WINAPI InvalidateRect(HWND hwnd, const RECT *rect, BOOL erase)
{
    RECT client{};
    if (hwnd == nullptr)
        return TRUE; // the whole screen: nothing of ours keeps a picture of it
    if (!GetClientRect(hwnd, &client))
        return FALSE;
    RECT area = rect ? Intersect(*rect, client) : client;
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return FALSE;
    if (IsEmpty(area))
        return TRUE;
    w->updateRect = w->needsPaint ? Union(w->updateRect, area) : area;
    w->needsPaint = true;
    w->eraseBackground = w->eraseBackground || erase;
    WakeAll();
    return TRUE;
}

extern "C" BOOL WINAPI ValidateRect(HWND hwnd, const RECT *rect)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return FALSE;
    // One rectangle cannot hold what is left after a partial validation;
    // it stays whole unless everything in it was validated.
    if (rect == nullptr || Contains(*rect, w->updateRect))
        Validate(*w);
    return TRUE;
}

extern "C" BOOL WINAPI GetUpdateRect(HWND hwnd, LPRECT rect, BOOL erase)
{
    bool pending, eraseDue;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        pending = w->needsPaint;
        eraseDue = pending && erase && w->eraseBackground;
        if (rect)
            *rect = pending ? w->updateRect : RECT{};
        if (eraseDue)
            w->eraseBackground = false;
    }
    if (eraseDue) {
        HDC dc = GetDC(hwnd);
        if (dc) {
            SendMessageW(hwnd, WM_ERASEBKGND, reinterpret_cast<WPARAM>(dc), 0);
            ReleaseDC(hwnd, dc);
        }
    }
    return pending ? TRUE : FALSE;
}

extern "C" HDC WINAPI BeginPaint(HWND hwnd, LPPAINTSTRUCT ps)
{
    if (ps == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    *ps = PAINTSTRUCT{};
    if (PLAT_FAIL(BeginPaint, ERROR_INVALID_HANDLE))
        return nullptr;
    bool erase;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return nullptr;
        ps->rcPaint = w->needsPaint ? w->updateRect : RECT{};
        erase = w->needsPaint && w->eraseBackground;
        Validate(*w);
    }
    HDC dc = GetDC(hwnd);
    if (dc == nullptr)
        return nullptr;
    ps->hdc = dc;
    ps->fErase = erase ? TRUE : FALSE;
    if (erase && SendMessageW(hwnd, WM_ERASEBKGND, reinterpret_cast<WPARAM>(dc), 0) != 0)
        ps->fErase = FALSE;
    return dc;
}

extern "C" BOOL WINAPI EndPaint(HWND hwnd, const PAINTSTRUCT *ps)
{
    if (ps == nullptr || ps->hdc == nullptr)
        return TRUE;
    ReleaseDC(hwnd, ps->hdc);
    return TRUE;
}

extern "C" BOOL WINAPI UpdateWindow(HWND hwnd)
{
    bool due;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        due = w->needsPaint && !w->destroying;
    }
    if (due)
        SendMessageW(hwnd, WM_PAINT, 0, 0);
    return TRUE;
}

extern "C" int WINAPI GetScrollPos(HWND hwnd, int bar)
{
    if (bar == SB_CTL)
        return static_cast<int>(SendMessageW(hwnd, SBM_GETPOS, 0, 0));
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || (bar != SB_HORZ && bar != SB_VERT))
        return 0;
    return w->scrollPos[bar];
}

extern "C" int WINAPI SetScrollPos(HWND hwnd, int bar, int pos, BOOL redraw)
{
    if (bar == SB_CTL)
        return static_cast<int>(SendMessageW(hwnd, SBM_SETPOS, static_cast<WPARAM>(pos), redraw));
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || (bar != SB_HORZ && bar != SB_VERT))
        return 0;
    return std::exchange(w->scrollPos[bar], pos);
}
