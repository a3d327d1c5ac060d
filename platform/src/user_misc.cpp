// Cursors and icons, the keyboard state, message boxes, system colours and
// the rectangle helpers.
#include <windows.h>

#include "user.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>

namespace plat
{
namespace
{

// Cursors and icons are shared: loading the same one again gives the same
// handle, and they stay for the life of the process.
class SharedImage : public Object
{
public:
    SharedImage() : Object(Kind::Uncounted) {}
    bool isIcon = false;
};

using ImageKey = std::tuple<bool, HINSTANCE, std::u16string>;

std::map<ImageKey, uintptr_t> &Images()
{
    static auto *images = new std::map<ImageKey, uintptr_t>;
    return *images;
}

HCURSOR g_cursor = nullptr;

std::u16string KeyName(LPCWSTR name)
{
    if (IS_INTRESOURCE(name))
        return u"#" + std::u16string(1, static_cast<char16_t>(reinterpret_cast<uintptr_t>(name)));
    std::u16string s = reinterpret_cast<const char16_t *>(name);
    for (auto &c : s) {
        if (c >= u'a' && c <= u'z')
            c = static_cast<char16_t>(c - u'a' + u'A');
    }
    return s;
}

HICON LoadShared(bool icon, HINSTANCE instance, LPCWSTR name)
{
    if (name == nullptr) {
        SetError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return nullptr;
    }
    if (instance == nullptr) {
        // System images: the predefined ordinals only.
        auto id = reinterpret_cast<uintptr_t>(name);
        if (!IS_INTRESOURCE(name) || id < 32512 || id > 32650) {
            SetError(ERROR_RESOURCE_NAME_NOT_FOUND);
            return nullptr;
        }
    } else {
        SetLastError(0);
        HRSRC res = FindResourceW(instance, name, icon ? RT_GROUP_ICON : RT_GROUP_CURSOR);
        if (res == nullptr) {
            if (GetLastError() == 0)
                SetError(ERROR_RESOURCE_NAME_NOT_FOUND);
            return nullptr;
        }
    }
    ImageKey key{icon, instance, KeyName(name)};
    {
        auto lock = LockWorld();
        auto it = Images().find(key);
        if (it != Images().end())
            return ToHandle<HICON>(it->second);
    }
    auto image = std::make_shared<SharedImage>();
    image->isIcon = icon;
    uintptr_t handle = AddHandle(image);
    auto lock = LockWorld();
    auto inserted = Images().emplace(key, handle);
    if (!inserted.second) { // loaded meanwhile by another thread
        lock.unlock();
        RemoveHandle(handle);
        lock.lock();
    }
    return ToHandle<HICON>(inserted.first->second);
}

} // namespace
} // namespace plat

using namespace plat;

extern "C" HCURSOR WINAPI LoadCursorW(HINSTANCE instance, LPCWSTR name)
{
    return LoadShared(false, instance, name);
}

extern "C" HICON WINAPI LoadIconW(HINSTANCE instance, LPCWSTR name)
{
    return LoadShared(true, instance, name);
}

extern "C" HCURSOR WINAPI SetCursor(HCURSOR cursor)
{
    auto lock = LockWorld();
    HCURSOR prev = g_cursor;
    g_cursor = cursor;
    return prev;
}

extern "C" BOOL WINAPI DestroyIcon(HICON icon)
{
    auto image = Find<SharedImage>(icon);
    if (!image) {
        SetError(ERROR_INVALID_CURSOR_HANDLE);
        return FALSE;
    }
    return TRUE; // shared icons stay loaded
}

extern "C" short WINAPI GetKeyState(int key)
{
    (void)key;
    return 0;
}

extern "C" int WINAPI MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type)
{
    (void)owner;
    (void)type;
    std::fprintf(stderr, "[%s] %s\n", ToUtf8(caption ? caption : TEXT("Error")).c_str(),
                 ToUtf8(text ? text : TEXT("")).c_str());
    return IDOK;
}

extern "C" DWORD WINAPI GetSysColor(int index)
{
    switch (index) {
    case COLOR_WINDOW:
    case COLOR_BTNHIGHLIGHT:
        return RGB(255, 255, 255);
    case COLOR_WINDOWTEXT:
    case COLOR_BTNTEXT:
    case COLOR_3DDKSHADOW:
        return RGB(0, 0, 0);
    case COLOR_BTNFACE:
    case COLOR_3DLIGHT:
        return RGB(192, 192, 192);
    case COLOR_BTNSHADOW:
    case COLOR_GRAYTEXT:
        return RGB(128, 128, 128);
    default:
        return RGB(192, 192, 192);
    }
}

// ---- Rectangles ------------------------------------------------------------------

extern "C" BOOL WINAPI SetRect(LPRECT rect, int left, int top, int right, int bottom)
{
    if (rect == nullptr)
        return FALSE;
    *rect = RECT{left, top, right, bottom};
    return TRUE;
}

extern "C" BOOL WINAPI SetRectEmpty(LPRECT rect)
{
    return SetRect(rect, 0, 0, 0, 0);
}

extern "C" BOOL WINAPI CopyRect(LPRECT dst, const RECT *src)
{
    if (dst == nullptr || src == nullptr)
        return FALSE;
    *dst = *src;
    return TRUE;
}

extern "C" BOOL WINAPI InflateRect(LPRECT rect, int dx, int dy)
{
    if (rect == nullptr)
        return FALSE;
    rect->left -= dx;
    rect->top -= dy;
    rect->right += dx;
    rect->bottom += dy;
    return TRUE;
}

extern "C" BOOL WINAPI OffsetRect(LPRECT rect, int dx, int dy)
{
    if (rect == nullptr)
        return FALSE;
    rect->left += dx;
    rect->top += dy;
    rect->right += dx;
    rect->bottom += dy;
    return TRUE;
}

extern "C" BOOL WINAPI PtInRect(const RECT *rect, POINT pt)
{
    return rect != nullptr && pt.x >= rect->left && pt.x < rect->right && pt.y >= rect->top && pt.y < rect->bottom;
}

extern "C" BOOL WINAPI IsRectEmpty(const RECT *rect)
{
    return rect == nullptr || rect->right <= rect->left || rect->bottom <= rect->top;
}

extern "C" BOOL WINAPI IntersectRect(LPRECT dst, const RECT *a, const RECT *b)
{
    if (dst == nullptr || a == nullptr || b == nullptr)
        return FALSE;
    RECT r{std::max(a->left, b->left), std::max(a->top, b->top), std::min(a->right, b->right),
           std::min(a->bottom, b->bottom)};
    if (IsRectEmpty(&r) || IsRectEmpty(a) || IsRectEmpty(b)) {
        SetRectEmpty(dst);
        return FALSE;
    }
    *dst = r;
    return TRUE;
}
