// Window classes: registration, lookup by name or atom, unregistration.
#include <windows.h>

#include "user.h"

namespace plat
{
namespace
{

char16_t Fold(char16_t c)
{
    if (c >= u'a' && c <= u'z')
        return static_cast<char16_t>(c - u'a' + u'A');
    if (c >= 0xFF41 && c <= 0xFF5A) // full-width latin
        return static_cast<char16_t>(c - 0xFF41 + 0xFF21);
    return c;
}

bool SameName(const std::u16string &a, LPCWSTR b)
{
    size_t i = 0;
    for (; i < a.size(); ++i) {
        if (b[i] == 0 || Fold(a[i]) != Fold(b[i]))
            return false;
    }
    return b[i] == 0;
}

bool Matches(const WindowClass &c, LPCWSTR name)
{
    if (IS_INTRESOURCE(name))
        return c.atom == static_cast<ATOM>(reinterpret_cast<uintptr_t>(name));
    return SameName(c.name, name);
}

ATOM g_nextAtom = 0xC000;

} // namespace

// Finds the class a window of `instance` gets for `name`: a class of that
// instance first, then a global class or one registered without an instance.
std::shared_ptr<WindowClass> FindClass(LPCWSTR name, HINSTANCE instance)
{
    if (name == nullptr)
        return nullptr;
    AddSystemClasses();
    for (auto &c : User().classes) {
        if (c->wc.hInstance == instance && Matches(*c, name))
            return c;
    }
    for (auto &c : User().classes) {
        if (((c->wc.style & CS_GLOBALCLASS) != 0 || c->wc.hInstance == nullptr) && Matches(*c, name))
            return c;
    }
    return nullptr;
}

} // namespace plat

using namespace plat;

PLAT_INJECTABLE(RegisterClassW);

extern "C" ATOM WINAPI RegisterClassW(const WNDCLASSW *wc)
{
    if (PLAT_FAIL(RegisterClassW, ERROR_NOT_ENOUGH_MEMORY))
        return 0;
    if (wc == nullptr || wc->lpszClassName == nullptr || wc->cbClsExtra < 0 || wc->cbWndExtra < 0) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto lock = LockWorld();
    for (auto &c : User().classes) {
        if (c->wc.hInstance == wc->hInstance && Matches(*c, wc->lpszClassName)) {
            SetError(ERROR_CLASS_ALREADY_EXISTS);
            return 0;
        }
    }
    auto cls = std::make_shared<WindowClass>();
    cls->wc = *wc;
    if (IS_INTRESOURCE(wc->lpszClassName)) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    cls->name = reinterpret_cast<const char16_t *>(wc->lpszClassName);
    cls->wc.lpszClassName = reinterpret_cast<LPCWSTR>(cls->name.c_str());
    if (wc->lpszMenuName != nullptr && !IS_INTRESOURCE(wc->lpszMenuName)) {
        cls->menuName = reinterpret_cast<const char16_t *>(wc->lpszMenuName);
        cls->wc.lpszMenuName = reinterpret_cast<LPCWSTR>(cls->menuName.c_str());
    }
    cls->atom = g_nextAtom++;
    User().classes.push_back(cls);
    return cls->atom;
}

extern "C" BOOL WINAPI UnregisterClassW(LPCWSTR className, HINSTANCE instance)
{
    auto lock = LockWorld();
    auto &classes = User().classes;
    for (auto it = classes.begin(); it != classes.end(); ++it) {
        if ((*it)->wc.hInstance == instance && className != nullptr && Matches(**it, className)) {
            if ((*it)->windows > 0) {
                SetError(ERROR_CLASS_HAS_WINDOWS);
                return FALSE;
            }
            classes.erase(it);
            return TRUE;
        }
    }
    SetError(ERROR_CLASS_DOES_NOT_EXIST);
    return FALSE;
}

extern "C" BOOL WINAPI GetClassInfoW(HINSTANCE instance, LPCWSTR className, LPWNDCLASSW wc)
{
    auto lock = LockWorld();
    auto cls = FindClass(className, instance);
    if (cls == nullptr) {
        SetError(ERROR_CLASS_DOES_NOT_EXIST);
        return FALSE;
    }
    if (wc != nullptr)
        *wc = cls->wc;
    return TRUE;
}
