// Mouse capture: each thread has at most one capture window, one of its own
// windows. Taking or releasing the capture tells the window that loses it
// with WM_CAPTURECHANGED (second parameter: the new capture window or null).
#include <windows.h>

#include "user.h"

#include <map>

namespace plat
{
namespace
{

// Capture window per thread (world lock held).
std::map<DWORD, HWND> &Captures()
{
    static auto *captures = new std::map<DWORD, HWND>;
    return *captures;
}

// The calling thread's capture window, forgetting one that is gone (world lock held).
HWND CurrentCapture(DWORD thread)
{
    auto &captures = Captures();
    auto it = captures.find(thread);
    if (it == captures.end())
        return nullptr;
    if (WindowOf(it->second) == nullptr) {
        captures.erase(it);
        return nullptr;
    }
    return it->second;
}

} // namespace

} // namespace plat

extern "C" HWND WINAPI SetCapture(HWND hwnd)
{
    const DWORD thread = GetCurrentThreadId();
    HWND previous;
    {
        auto lock = plat::LockWorld();
        auto w = plat::CheckWindow(hwnd);
        if (w == nullptr || w->threadId != thread || w == plat::User().desktop)
            return nullptr;
        previous = plat::CurrentCapture(thread);
        plat::Captures()[thread] = hwnd;
    }
    if (previous != nullptr && previous != hwnd)
        SendMessageW(previous, WM_CAPTURECHANGED, 0, reinterpret_cast<LPARAM>(hwnd));
    return previous;
}

extern "C" BOOL WINAPI ReleaseCapture(void)
{
    const DWORD thread = GetCurrentThreadId();
    HWND previous;
    {
        auto lock = plat::LockWorld();
        previous = plat::CurrentCapture(thread);
        plat::Captures().erase(thread);
    }
    if (previous != nullptr)
        SendMessageW(previous, WM_CAPTURECHANGED, 0, 0);
    return TRUE;
}

extern "C" HWND WINAPI GetCapture(void)
{
    auto lock = plat::LockWorld();
    return plat::CurrentCapture(GetCurrentThreadId());
}
