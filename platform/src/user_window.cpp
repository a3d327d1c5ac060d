// Windows: creation and destruction, the window tree, state flags, text,
// window fields, geometry, activation and focus, DefWindowProcW.
#include <windows.h>

#include "gdi.h"
#include "user.h"

#include <algorithm>
#include <unistd.h>

namespace plat
{
namespace
{

constexpr int kScreenWidth = 1024;
constexpr int kScreenHeight = 768;
constexpr int kCaption = 19;
constexpr int kFrame = 4;
constexpr int kDlgFrame = 3;
constexpr int kBorder = 1;
constexpr int kMenu = 19;
constexpr int kScrollBar = 16;
constexpr LONG_PTR kHwndParentIndex = -8; // GWLP_HWNDPARENT

std::vector<HWND> *SiblingsOf(const Window &w)
{
    if (w.parent != nullptr) {
        auto p = WindowOf(w.parent);
        return p ? &p->children : nullptr;
    }
    return w.messageOnly ? &User().messageOnly : &User().topLevel;
}

void Unlink(const Window &w)
{
    if (auto *list = SiblingsOf(w))
        list->erase(std::remove(list->begin(), list->end(), w.hwnd), list->end());
}

HWND RootOf(HWND hwnd)
{
    auto w = WindowOf(hwnd);
    while (w && (w->style & WS_CHILD) && w->parent != nullptr)
        w = WindowOf(w->parent);
    return w ? w->hwnd : nullptr;
}

POINT ClientOrigin(const Window &w)
{
    POINT p{0, 0};
    if (w.parent != nullptr) {
        if (auto parent = WindowOf(w.parent))
            p = ClientOrigin(*parent);
    }
    RECT f = NonClientFrame(w.style, w.exStyle);
    p.x += w.rect.left + f.left;
    p.y += w.rect.top + f.top;
    return p;
}

SIZE ClientSize(const Window &w)
{
    RECT f = NonClientFrame(w.style, w.exStyle);
    LONG cx = (w.rect.right - w.rect.left) - f.left - f.right;
    LONG cy = (w.rect.bottom - w.rect.top) - f.top - f.bottom;
    return SIZE{std::max<LONG>(cx, 0), std::max<LONG>(cy, 0)};
}

void MarkDestroying(Window &w)
{
    w.destroying = true;
    for (HWND c : w.children) {
        if (auto child = WindowOf(c))
            MarkDestroying(*child);
    }
}

// Takes a destroyed window out of every table.
void FreeWindow(HWND hwnd)
{
    std::shared_ptr<Window> w;
    {
        auto lock = LockWorld();
        w = WindowOf(hwnd);
        if (!w)
            return;
        Unlink(*w);
        User().windows.erase(reinterpret_cast<uintptr_t>(hwnd));
        if (w->cls)
            w->cls->windows--;
        if (auto q = w->queue.lock()) {
            RemoveWindowTimers(*q, hwnd);
            if (q->active == hwnd)
                q->active = nullptr;
            if (q->focus == hwnd)
                q->focus = nullptr;
        }
        for (auto &entry : User().windows) {
            if (entry.second->owner == hwnd)
                entry.second->owner = nullptr;
        }
        WakeAll();
    }
    RemoveHandle(reinterpret_cast<uintptr_t>(hwnd));
    gdi::DropWindowSurface(hwnd);
}

// WM_DESTROY goes to a window before its children, WM_NCDESTROY after them.
void SendDestroy(HWND hwnd)
{
    SendMessageW(hwnd, WM_DESTROY, 0, 0);
    std::vector<HWND> children;
    {
        auto lock = LockWorld();
        if (auto w = WindowOf(hwnd))
            children = w->children;
    }
    for (HWND c : children)
        SendDestroy(c);
    SendMessageW(hwnd, WM_NCDESTROY, 0, 0);
    FreeWindow(hwnd);
}

bool ActivatingShow(int cmd)
{
    return cmd == SW_SHOWNORMAL || cmd == SW_SHOW || cmd == SW_SHOWMAXIMIZED || cmd == SW_RESTORE ||
           cmd == SW_SHOWDEFAULT || cmd == SW_SHOWMINIMIZED;
}

LPARAM PackPoint(LONG x, LONG y)
{
    return static_cast<LPARAM>(MAKELONG(static_cast<WORD>(x), static_cast<WORD>(y)));
}

} // namespace

UserState &User()
{
    static UserState *state = new UserState; // outlives every static destructor
    return *state;
}

std::shared_ptr<Window> WindowOf(HWND hwnd)
{
    auto &windows = User().windows;
    auto it = windows.find(reinterpret_cast<uintptr_t>(hwnd));
    return it == windows.end() ? nullptr : it->second;
}

std::shared_ptr<Window> CheckWindow(HWND hwnd)
{
    auto w = WindowOf(hwnd);
    if (!w)
        SetError(ERROR_INVALID_WINDOW_HANDLE);
    return w;
}

bool IsSelfOrDescendant(HWND hwnd, HWND ancestor)
{
    auto w = WindowOf(hwnd);
    while (w) {
        if (w->hwnd == ancestor)
            return true;
        w = w->parent ? WindowOf(w->parent) : nullptr;
    }
    return false;
}

RECT NonClientFrame(DWORD style, DWORD exStyle)
{
    LONG b = 0;
    if (style & WS_THICKFRAME)
        b = kFrame;
    else if ((style & WS_DLGFRAME) || (exStyle & WS_EX_DLGMODALFRAME))
        b = kDlgFrame;
    else if (style & WS_BORDER)
        b = kBorder;
    if (exStyle & WS_EX_CLIENTEDGE)
        b += 2;
    RECT f{b, b, b, b};
    if ((style & WS_CAPTION) == WS_CAPTION)
        f.top += kCaption;
    return f;
}

} // namespace plat

using namespace plat;

// ---- Creation and destruction ------------------------------------------------

extern "C" HWND WINAPI CreateWindowExW(DWORD exStyle, LPCWSTR className, LPCWSTR windowName, DWORD style, int x, int y,
                                       int width, int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID param)
{
    auto queue = CurrentQueue();
    DWORD me = CurrentThread().id;
    auto win = std::make_shared<Window>();
    std::shared_ptr<WindowClass> cls;
    {
        auto lock = LockWorld();
        cls = FindClass(className, instance);
        if (!cls) {
            SetError(ERROR_CANNOT_FIND_WND_CLASS);
            return nullptr;
        }
        if (parent == HWND_MESSAGE) {
            win->messageOnly = true;
            style &= ~static_cast<DWORD>(WS_CHILD);
        } else if (style & WS_CHILD) {
            if (parent == nullptr) {
                SetError(ERROR_TLW_WITH_WSCHILD);
                return nullptr;
            }
            if (!CheckWindow(parent))
                return nullptr;
            win->parent = parent;
        } else if (parent != nullptr) {
            if (!CheckWindow(parent))
                return nullptr;
            win->owner = RootOf(parent);
        }
        win->threadId = me;
        win->queue = queue;
        win->cls = cls;
        win->proc = cls->wc.lpfnWndProc;
        win->style = style;
        win->exStyle = exStyle;
        win->instance = instance;
        win->id = reinterpret_cast<LONG_PTR>(menu);
        win->extra.assign(static_cast<size_t>(cls->wc.cbWndExtra), 0);
        if (style & WS_CHILD) {
            if (x == CW_USEDEFAULT)
                x = y = 0;
            if (width == CW_USEDEFAULT)
                width = height = 0;
        } else {
            if (x == CW_USEDEFAULT) {
                x = 32;
                y = 32;
            }
            if (width == CW_USEDEFAULT) {
                width = kScreenWidth * 3 / 4;
                height = kScreenHeight * 3 / 4;
            }
        }
        win->rect = RECT{x, y, x + std::max(width, 0), y + std::max(height, 0)};
    }
    uintptr_t handle = AddHandle(win);
    HWND hwnd = ToHandle<HWND>(handle);
    {
        auto lock = LockWorld();
        win->hwnd = hwnd;
        User().windows[handle] = win;
        cls->windows++;
        if (win->parent != nullptr) {
            if (auto p = WindowOf(win->parent))
                p->children.push_back(hwnd);
        } else if (win->messageOnly) {
            User().messageOnly.insert(User().messageOnly.begin(), hwnd);
        } else {
            User().topLevel.insert(User().topLevel.begin(), hwnd);
        }
    }

    CREATESTRUCTW cs{};
    cs.lpCreateParams = param;
    cs.hInstance = instance;
    cs.hMenu = menu;
    cs.hwndParent = parent;
    cs.cy = height;
    cs.cx = width;
    cs.y = y;
    cs.x = x;
    cs.style = static_cast<LONG>(style);
    cs.lpszName = windowName;
    cs.lpszClass = className;
    cs.dwExStyle = exStyle;
    if (!SendMessageW(hwnd, WM_NCCREATE, 0, reinterpret_cast<LPARAM>(&cs))) {
        {
            auto lock = LockWorld();
            if (auto w = WindowOf(hwnd))
                MarkDestroying(*w);
        }
        SendMessageW(hwnd, WM_NCDESTROY, 0, 0);
        FreeWindow(hwnd);
        return nullptr;
    }
    if (SendMessageW(hwnd, WM_CREATE, 0, reinterpret_cast<LPARAM>(&cs)) == -1) {
        DestroyWindow(hwnd);
        return nullptr;
    }
    SIZE size;
    POINT origin;
    {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        if (!w)
            return nullptr; // destroyed by its own creation messages
        size = ClientSize(*w);
        RECT f = NonClientFrame(w->style, w->exStyle);
        origin = POINT{w->rect.left + f.left, w->rect.top + f.top};
    }
    SendMessageW(hwnd, WM_SIZE, 0, PackPoint(size.cx, size.cy));
    SendMessageW(hwnd, WM_MOVE, 0, PackPoint(origin.x, origin.y));
    if (style & WS_VISIBLE) {
        SendMessageW(hwnd, WM_SHOWWINDOW, TRUE, 0);
        if (!(style & WS_CHILD) && !win->messageOnly)
            SetActiveWindow(hwnd);
    }
    return IsWindow(hwnd) ? hwnd : nullptr;
}

extern "C" BOOL WINAPI DestroyWindow(HWND hwnd)
{
    DWORD me = CurrentThread().id;
    std::vector<HWND> owned;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        if (w == User().desktop || w->threadId != me) {
            SetError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        if (w->destroying)
            return TRUE;
        for (auto &entry : User().windows) {
            if (entry.second->owner == hwnd && !entry.second->destroying)
                owned.push_back(entry.second->hwnd);
        }
    }
    for (HWND o : owned)
        DestroyWindow(o);
    {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        if (!w || w->destroying)
            return TRUE;
        MarkDestroying(*w);
        if (auto q = w->queue.lock()) {
            if (q->focus != nullptr && IsSelfOrDescendant(q->focus, hwnd))
                q->focus = nullptr;
            if (q->active == hwnd)
                q->active = nullptr;
        }
    }
    SendDestroy(hwnd);
    return TRUE;
}

extern "C" BOOL WINAPI IsWindow(HWND hwnd)
{
    auto lock = LockWorld();
    return WindowOf(hwnd) != nullptr;
}

extern "C" HWND WINAPI GetDesktopWindow(void)
{
    {
        auto lock = LockWorld();
        if (User().desktop)
            return User().desktop->hwnd;
    }
    auto desk = std::make_shared<Window>(Kind::Uncounted);
    desk->style = WS_VISIBLE | WS_CLIPCHILDREN;
    desk->rect = RECT{0, 0, kScreenWidth, kScreenHeight};
    uintptr_t handle = AddHandle(desk);
    auto lock = LockWorld();
    if (User().desktop) { // another thread got there first
        lock.unlock();
        RemoveHandle(handle);
        lock.lock();
        return User().desktop->hwnd;
    }
    desk->hwnd = ToHandle<HWND>(handle);
    User().desktop = desk;
    User().windows[handle] = desk;
    return desk->hwnd;
}

// ---- State flags ---------------------------------------------------------------

extern "C" BOOL WINAPI IsWindowVisible(HWND hwnd)
{
    auto lock = LockWorld();
    auto w = WindowOf(hwnd);
    if (!w)
        return FALSE;
    for (; w; w = w->parent ? WindowOf(w->parent) : nullptr) {
        if (!(w->style & WS_VISIBLE))
            return FALSE;
    }
    return TRUE;
}

extern "C" BOOL WINAPI IsWindowEnabled(HWND hwnd)
{
    auto lock = LockWorld();
    auto w = WindowOf(hwnd);
    return w && !(w->style & WS_DISABLED);
}

extern "C" BOOL WINAPI IsIconic(HWND hwnd)
{
    auto lock = LockWorld();
    auto w = WindowOf(hwnd);
    return w && (w->style & WS_MINIMIZE);
}

extern "C" BOOL WINAPI IsZoomed(HWND hwnd)
{
    auto lock = LockWorld();
    auto w = WindowOf(hwnd);
    return w && (w->style & WS_MAXIMIZE);
}

extern "C" BOOL WINAPI EnableWindow(HWND hwnd, BOOL enable)
{
    bool wasDisabled;
    bool loseFocus = false;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        wasDisabled = (w->style & WS_DISABLED) != 0;
        if (enable)
            w->style &= ~static_cast<DWORD>(WS_DISABLED);
        else
            w->style |= WS_DISABLED;
        if (!enable) {
            auto q = w->queue.lock();
            loseFocus =
                q && q->focus != nullptr && IsSelfOrDescendant(q->focus, hwnd) && w->threadId == CurrentThread().id;
        }
    }
    if (wasDisabled == !enable)
        return wasDisabled;
    if (loseFocus)
        SetFocus(nullptr);
    SendMessageW(hwnd, WM_ENABLE, enable ? TRUE : FALSE, 0);
    return wasDisabled;
}

extern "C" BOOL WINAPI ShowWindow(HWND hwnd, int cmdShow)
{
    DWORD me = CurrentThread().id;
    bool wasVisible, topLevelOfMine;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        wasVisible = (w->style & WS_VISIBLE) != 0;
        topLevelOfMine = !(w->style & WS_CHILD) && !w->messageOnly && w->threadId == me;
        const DWORD states = WS_MINIMIZE | WS_MAXIMIZE;
        switch (cmdShow) {
        case SW_HIDE:
            w->style &= ~static_cast<DWORD>(WS_VISIBLE);
            break;
        case SW_SHOWMINIMIZED:
        case SW_MINIMIZE:
        case SW_SHOWMINNOACTIVE:
            w->style = (w->style & ~states) | WS_MINIMIZE | WS_VISIBLE;
            break;
        case SW_SHOWMAXIMIZED:
            w->style = (w->style & ~states) | WS_MAXIMIZE | WS_VISIBLE;
            break;
        case SW_SHOWNORMAL:
        case SW_RESTORE:
        case SW_SHOWDEFAULT:
            w->style = (w->style & ~states) | WS_VISIBLE;
            break;
        default:
            w->style |= WS_VISIBLE;
            break;
        }
        if (cmdShow == SW_HIDE) {
            if (auto q = w->queue.lock()) {
                if (q->active == hwnd)
                    q->active = nullptr;
            }
        }
    }
    bool visible = cmdShow != SW_HIDE;
    if (visible != wasVisible)
        SendMessageW(hwnd, WM_SHOWWINDOW, visible ? TRUE : FALSE, 0);
    // As on Windows, a window that comes into view is painted whole: what
    // it drew while hidden is not on the screen.
    if (visible && !wasVisible)
        InvalidateRect(hwnd, nullptr, TRUE);
    if (topLevelOfMine && ActivatingShow(cmdShow))
        SetActiveWindow(hwnd);
    return wasVisible ? TRUE : FALSE;
}

// ---- Tree ------------------------------------------------------------------------

extern "C" HWND WINAPI GetParent(HWND hwnd)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return nullptr;
    if (w->style & WS_CHILD)
        return w->parent;
    if (w->style & WS_POPUP)
        return w->owner;
    return nullptr;
}

extern "C" HWND WINAPI GetWindow(HWND hwnd, UINT cmd)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return nullptr;
    if (cmd == GW_OWNER)
        return w->owner;
    if (cmd == GW_CHILD) {
        // The desktop's children are the top-level windows.
        const std::vector<HWND> &children = w == User().desktop ? User().topLevel : w->children;
        return children.empty() ? nullptr : children.front();
    }
    std::vector<HWND> *list = SiblingsOf(*w);
    if (w == User().desktop || list == nullptr || list->empty())
        return nullptr;
    auto it = std::find(list->begin(), list->end(), hwnd);
    switch (cmd) {
    case GW_HWNDFIRST:
        return list->front();
    case 1: // GW_HWNDLAST
        return list->back();
    case GW_HWNDNEXT:
        return (it == list->end() || it + 1 == list->end()) ? nullptr : *(it + 1);
    case 3: // GW_HWNDPREV
        return (it == list->begin() || it == list->end()) ? nullptr : *(it - 1);
    default:
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
}

extern "C" DWORD WINAPI GetWindowThreadProcessId(HWND hwnd, LPDWORD processId)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return 0;
    if (processId != nullptr)
        *processId = static_cast<DWORD>(getpid());
    return w->threadId;
}

// ---- Text ---------------------------------------------------------------------------

extern "C" BOOL WINAPI SetWindowTextW(HWND hwnd, LPCWSTR text)
{
    {
        auto lock = LockWorld();
        if (!CheckWindow(hwnd))
            return FALSE;
    }
    return SendMessageW(hwnd, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text)) != 0;
}

extern "C" int WINAPI GetWindowTextW(HWND hwnd, LPWSTR text, int max)
{
    {
        auto lock = LockWorld();
        if (!CheckWindow(hwnd))
            return 0;
    }
    if (text == nullptr || max <= 0)
        return 0;
    text[0] = 0;
    return static_cast<int>(SendMessageW(hwnd, WM_GETTEXT, static_cast<WPARAM>(max), reinterpret_cast<LPARAM>(text)));
}

// The class name as registered, cut to fit; the characters copied.
extern "C" int WINAPI GetClassNameW(HWND hwnd, LPWSTR name, int max)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || !w->cls)
        return 0;
    if (name == nullptr || max <= 0) {
        SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    const std::u16string &s = w->cls->name;
    int n = static_cast<int>(std::min<size_t>(s.size(), static_cast<size_t>(max - 1)));
    std::copy(s.begin(), s.begin() + n, reinterpret_cast<char16_t *>(name));
    name[n] = 0;
    return n;
}

extern "C" int WINAPI GetWindowTextLengthW(HWND hwnd)
{
    {
        auto lock = LockWorld();
        if (!CheckWindow(hwnd))
            return 0;
    }
    return static_cast<int>(SendMessageW(hwnd, WM_GETTEXTLENGTH, 0, 0));
}

// ---- Window fields -------------------------------------------------------------------

namespace
{

// Reads or writes one field; `size` is 4 for the LONG calls and the pointer
// size for the LONG_PTR calls (it matters for the extra bytes only).
bool AccessField(HWND hwnd, int index, size_t size, const LONG_PTR *newValue, LONG_PTR *oldValue)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return false;
    LONG_PTR *field = nullptr;
    LONG_PTR scratch = 0;
    switch (index) {
    case GWLP_WNDPROC:
        scratch = reinterpret_cast<LONG_PTR>(w->proc);
        *oldValue = scratch;
        if (newValue)
            w->proc = reinterpret_cast<WNDPROC>(*newValue);
        return true;
    case GWLP_HINSTANCE:
        scratch = reinterpret_cast<LONG_PTR>(w->instance);
        *oldValue = scratch;
        if (newValue)
            w->instance = reinterpret_cast<HINSTANCE>(*newValue);
        return true;
    case kHwndParentIndex:
        *oldValue = reinterpret_cast<LONG_PTR>((w->style & WS_CHILD) ? w->parent : w->owner);
        if (newValue && !(w->style & WS_CHILD))
            w->owner = reinterpret_cast<HWND>(*newValue);
        return true;
    case GWLP_ID:
        field = &w->id;
        break;
    case GWLP_USERDATA:
        field = &w->userData;
        break;
    case GWL_STYLE:
        *oldValue = static_cast<LONG>(w->style);
        if (newValue)
            w->style = static_cast<DWORD>(*newValue);
        return true;
    case GWL_EXSTYLE:
        *oldValue = static_cast<LONG>(w->exStyle);
        if (newValue)
            w->exStyle = static_cast<DWORD>(*newValue);
        return true;
    default:
        if (index < 0 || static_cast<size_t>(index) + size > w->extra.size()) {
            SetError(ERROR_INVALID_INDEX);
            return false;
        }
        if (size == sizeof(LONG)) {
            LONG v;
            memcpy(&v, &w->extra[static_cast<size_t>(index)], sizeof v);
            *oldValue = v;
            if (newValue) {
                v = static_cast<LONG>(*newValue);
                memcpy(&w->extra[static_cast<size_t>(index)], &v, sizeof v);
            }
        } else {
            memcpy(oldValue, &w->extra[static_cast<size_t>(index)], sizeof(LONG_PTR));
            if (newValue)
                memcpy(&w->extra[static_cast<size_t>(index)], newValue, sizeof(LONG_PTR));
        }
        return true;
    }
    *oldValue = *field;
    if (newValue)
        *field = *newValue;
    return true;
}

} // namespace

extern "C" LONG WINAPI GetWindowLongW(HWND hwnd, int index)
{
    LONG_PTR v = 0;
    return AccessField(hwnd, index, sizeof(LONG), nullptr, &v) ? static_cast<LONG>(v) : 0;
}

extern "C" LONG WINAPI SetWindowLongW(HWND hwnd, int index, LONG value)
{
    LONG_PTR v = 0, n = value;
    return AccessField(hwnd, index, sizeof(LONG), &n, &v) ? static_cast<LONG>(v) : 0;
}

extern "C" LONG_PTR WINAPI GetWindowLongPtrW(HWND hwnd, int index)
{
    LONG_PTR v = 0;
    return AccessField(hwnd, index, sizeof(LONG_PTR), nullptr, &v) ? v : 0;
}

extern "C" LONG_PTR WINAPI SetWindowLongPtrW(HWND hwnd, int index, LONG_PTR value)
{
    LONG_PTR v = 0;
    return AccessField(hwnd, index, sizeof(LONG_PTR), &value, &v) ? v : 0;
}

// ---- Geometry ------------------------------------------------------------------------

extern "C" BOOL WINAPI SetWindowPos(HWND hwnd, HWND after, int x, int y, int cx, int cy, UINT flags)
{
    DWORD me = CurrentThread().id;
    bool moved = false, sized = false, activate = false, shown = false, hidden = false;
    SIZE size{};
    POINT origin{};
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        if (w == User().desktop) {
            SetError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        RECT r = w->rect;
        if (!(flags & SWP_NOMOVE)) {
            moved = r.left != x || r.top != y;
            r = RECT{x, y, x + (r.right - r.left), y + (r.bottom - r.top)};
        }
        if (!(flags & SWP_NOSIZE)) {
            cx = std::max(cx, 0);
            cy = std::max(cy, 0);
            sized = (r.right - r.left) != cx || (r.bottom - r.top) != cy;
            r.right = r.left + cx;
            r.bottom = r.top + cy;
        }
        w->rect = r;
        if (!(flags & SWP_NOZORDER)) {
            if (auto *list = SiblingsOf(*w)) {
                list->erase(std::remove(list->begin(), list->end(), hwnd), list->end());
                auto pos = list->begin();
                if (after == reinterpret_cast<HWND>(1)) // HWND_BOTTOM
                    pos = list->end();
                else if (after != HWND_TOP && after != hwnd) {
                    auto it = std::find(list->begin(), list->end(), after);
                    pos = it == list->end() ? list->begin() : it + 1;
                }
                list->insert(pos, hwnd);
            }
        }
        bool wasVisible = (w->style & WS_VISIBLE) != 0;
        if ((flags & SWP_SHOWWINDOW) && !wasVisible) {
            w->style |= WS_VISIBLE;
            shown = true;
        }
        if ((flags & SWP_HIDEWINDOW) && wasVisible) {
            w->style &= ~static_cast<DWORD>(WS_VISIBLE);
            hidden = true;
        }
        activate = (flags & SWP_SHOWWINDOW) && !(flags & SWP_NOACTIVATE) && !(w->style & WS_CHILD) && !w->messageOnly &&
                   w->threadId == me;
        size = ClientSize(*w);
        RECT f = NonClientFrame(w->style, w->exStyle);
        origin = POINT{r.left + f.left, r.top + f.top};
    }
    (void)hidden;
    if (shown)
        InvalidateRect(hwnd, nullptr, TRUE);
    if (moved)
        SendMessageW(hwnd, WM_MOVE, 0, PackPoint(origin.x, origin.y));
    if (sized)
        SendMessageW(hwnd, WM_SIZE, 0, PackPoint(size.cx, size.cy));
    if (activate)
        SetActiveWindow(hwnd);
    return TRUE;
}

extern "C" BOOL WINAPI MoveWindow(HWND hwnd, int x, int y, int width, int height, BOOL repaint)
{
    (void)repaint;
    return SetWindowPos(hwnd, nullptr, x, y, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
}

extern "C" BOOL WINAPI GetClientRect(HWND hwnd, LPRECT rect)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || rect == nullptr)
        return FALSE;
    SIZE s = ClientSize(*w);
    *rect = RECT{0, 0, s.cx, s.cy};
    return TRUE;
}

extern "C" BOOL WINAPI GetWindowRect(HWND hwnd, LPRECT rect)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || rect == nullptr)
        return FALSE;
    POINT base{0, 0};
    if (w->parent != nullptr) {
        if (auto p = WindowOf(w->parent))
            base = ClientOrigin(*p);
    }
    *rect = w->rect;
    OffsetRect(rect, base.x, base.y);
    return TRUE;
}

extern "C" BOOL WINAPI AdjustWindowRect(LPRECT rect, DWORD style, BOOL menu)
{
    if (rect == nullptr)
        return FALSE;
    RECT f = NonClientFrame(style, 0);
    rect->left -= f.left;
    rect->top -= f.top + (menu ? kMenu : 0);
    rect->right += f.right;
    rect->bottom += f.bottom;
    return TRUE;
}

namespace
{

// Moves point from the window's client coordinates to the screen's, or back.
BOOL MoveByClientOrigin(HWND hwnd, LPPOINT point, bool toScreen)
{
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w || point == nullptr)
        return FALSE;
    POINT o = ClientOrigin(*w);
    if (toScreen) {
        point->x += o.x;
        point->y += o.y;
    } else {
        point->x -= o.x;
        point->y -= o.y;
    }
    return TRUE;
}

} // namespace

extern "C" BOOL WINAPI ClientToScreen(HWND hwnd, LPPOINT point)
{
    return MoveByClientOrigin(hwnd, point, true);
}

extern "C" BOOL WINAPI ScreenToClient(HWND hwnd, LPPOINT point)
{
    return MoveByClientOrigin(hwnd, point, false);
}

extern "C" int WINAPI GetSystemMetrics(int index)
{
    switch (index) {
    case SM_CXSCREEN:
        return kScreenWidth;
    case SM_CYSCREEN:
        return kScreenHeight;
    case SM_CXVSCROLL:
    case SM_CYHSCROLL:
        return kScrollBar;
    case SM_CYCAPTION:
        return kCaption;
    case SM_CXBORDER:
    case SM_CYBORDER:
        return kBorder;
    case SM_CXDLGFRAME:
    case SM_CYDLGFRAME:
        return kDlgFrame;
    case SM_CXFRAME:
    case SM_CYFRAME:
        return kFrame;
    case 15: // SM_CYMENU
        return kMenu;
    default:
        return 0;
    }
}

// ---- Activation and focus ---------------------------------------------------------------

extern "C" HWND WINAPI GetActiveWindow(void)
{
    auto q = CurrentQueue();
    auto lock = LockWorld();
    return WindowOf(q->active) ? q->active : nullptr;
}

extern "C" HWND WINAPI SetActiveWindow(HWND hwnd)
{
    auto q = CurrentQueue();
    DWORD me = CurrentThread().id;
    HWND prev;
    {
        auto lock = LockWorld();
        if (hwnd != nullptr) {
            auto w = CheckWindow(hwnd);
            if (!w)
                return nullptr;
            if (w->threadId != me) {
                SetError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            hwnd = RootOf(hwnd);
        }
        prev = WindowOf(q->active) ? q->active : nullptr;
        if (prev == hwnd)
            return prev;
        q->active = hwnd;
    }
    if (prev != nullptr)
        SendMessageW(prev, WM_ACTIVATE, 0 /* WA_INACTIVE */, reinterpret_cast<LPARAM>(hwnd));
    if (hwnd != nullptr)
        SendMessageW(hwnd, WM_ACTIVATE, 1 /* WA_ACTIVE */, reinterpret_cast<LPARAM>(prev));
    return prev;
}

extern "C" BOOL WINAPI SetForegroundWindow(HWND hwnd)
{
    {
        auto lock = LockWorld();
        if (!CheckWindow(hwnd))
            return FALSE;
    }
    SetActiveWindow(hwnd);
    return TRUE;
}

extern "C" HWND WINAPI GetFocus(void)
{
    auto q = CurrentQueue();
    auto lock = LockWorld();
    return WindowOf(q->focus) ? q->focus : nullptr;
}

extern "C" HWND WINAPI SetFocus(HWND hwnd)
{
    auto q = CurrentQueue();
    DWORD me = CurrentThread().id;
    HWND original, root = nullptr;
    {
        auto lock = LockWorld();
        original = WindowOf(q->focus) ? q->focus : nullptr;
        if (hwnd != nullptr) {
            auto w = CheckWindow(hwnd);
            if (!w)
                return nullptr;
            if (w->threadId != me) {
                SetError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            root = RootOf(hwnd);
        }
    }
    if (root != nullptr && GetActiveWindow() != root)
        SetActiveWindow(root);
    HWND prev;
    {
        auto lock = LockWorld();
        prev = WindowOf(q->focus) ? q->focus : nullptr;
        if (prev == hwnd)
            return original;
        q->focus = hwnd;
    }
    if (prev != nullptr)
        SendMessageW(prev, WM_KILLFOCUS, reinterpret_cast<WPARAM>(hwnd), 0);
    if (hwnd != nullptr)
        SendMessageW(hwnd, WM_SETFOCUS, reinterpret_cast<WPARAM>(prev), 0);
    return original;
}

// ---- Default processing -------------------------------------------------------------------

extern "C" LRESULT WINAPI DefWindowProcW(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_NCCREATE: {
        auto *cs = reinterpret_cast<const CREATESTRUCTW *>(lParam);
        if (cs != nullptr && cs->lpszName != nullptr && !IS_INTRESOURCE(cs->lpszName) && cs->lpszName[0] != 0xFFFF) {
            auto lock = LockWorld();
            if (auto w = WindowOf(hwnd))
                w->text = reinterpret_cast<const char16_t *>(cs->lpszName);
        }
        return TRUE;
    }
    case WM_CLOSE:
        DestroyWindow(hwnd);
        return 0;
    case WM_SETTEXT: {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        if (!w)
            return FALSE;
        w->text = lParam ? reinterpret_cast<const char16_t *>(lParam) : u"";
        return TRUE;
    }
    case WM_GETTEXT: {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        auto *buf = reinterpret_cast<char16_t *>(lParam);
        if (!w || buf == nullptr || wParam == 0)
            return 0;
        size_t n = std::min<size_t>(w->text.size(), wParam - 1);
        std::copy_n(w->text.data(), n, buf);
        buf[n] = 0;
        return static_cast<LRESULT>(n);
    }
    case WM_GETTEXTLENGTH: {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        return w ? static_cast<LRESULT>(w->text.size()) : 0;
    }
    case WM_ACTIVATE:
        if (LOWORD(wParam) != 0 && !IsIconic(hwnd))
            SetFocus(hwnd);
        return 0;
    case WM_PAINT: {
        // Nothing to draw by default: the window becomes valid.
        auto lock = LockWorld();
        if (auto w = WindowOf(hwnd))
            w->needsPaint = false;
        return 0;
    }
    case WM_NCHITTEST:
        return 1; // HTCLIENT
    case WM_MOUSEACTIVATE:
        return 1; // MA_ACTIVATE
    default:
        return 0;
    }
}

extern "C" LRESULT WINAPI CallWindowProcW(WNDPROC proc, HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (proc == nullptr)
        return 0;
    return proc(hwnd, msg, wParam, lParam);
}
