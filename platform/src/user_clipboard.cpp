// USER32's clipboard for POSIX hosts: one clipboard per process, open to one
// thread at a time. What SetClipboardData is given belongs to the clipboard
// from then on (global blocks, and GDI objects for the GDI formats) and is
// freed when the clipboard is emptied, so it stays counted as live until
// then.
//
// The clipboard never blocks; it keeps its state under a mutex of its own and
// releases the objects it frees after letting go of that mutex.
#include "core.h"
#include "gdi.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace
{

struct Clipboard {
    std::mutex mutex;
    DWORD openerThread = 0; // thread that has it open, 0 when closed
    HWND openerWnd = nullptr;
    HWND owner = nullptr;                         // set by EmptyClipboard
    std::vector<std::pair<UINT, HANDLE>> formats; // in the order they were put
};

Clipboard &Board()
{
    static Clipboard *board = new Clipboard;
    return *board;
}

using Entries = std::vector<std::pair<UINT, HANDLE>>;

bool IsGdiFormat(UINT format)
{
    return format == CF_BITMAP || format == CF_PALETTE;
}

// Frees data the clipboard owned. Called without the clipboard's mutex.
void ReleaseData(const Entries &entries)
{
    for (const auto &[format, data] : entries) {
        if (!data)
            continue;
        if (IsGdiFormat(format)) {
            auto obj = plat::Find<plat::gdi::GdiObject>(data);
            if (obj && !obj->stock())
                plat::RemoveHandle(reinterpret_cast<uintptr_t>(data));
        } else {
            GlobalFree(data);
        }
    }
}

// Whether the calling thread has the clipboard open (mutex held). A thread
// that ended while holding it has let it go.
bool OpenedByCaller(Clipboard &cb)
{
    if (cb.openerThread != 0 && !plat::ThreadById(cb.openerThread)) {
        cb.openerThread = 0;
        cb.openerWnd = nullptr;
    }
    return cb.openerThread != 0 && cb.openerThread == GetCurrentThreadId();
}

// Whether `data` is something the clipboard can hold as `format`.
bool AcceptableData(UINT format, HANDLE data)
{
    if (!data)
        return true; // rendered on request; never asked for here
    if (format == CF_PALETTE)
        return plat::Find<plat::gdi::Palette>(data) != nullptr;
    if (format == CF_BITMAP)
        return plat::Find<plat::gdi::Bitmap>(data) != nullptr;
    SetLastError(NO_ERROR);
    GlobalSize(data);
    return GetLastError() != ERROR_INVALID_HANDLE;
}

} // namespace

PLAT_INJECTABLE(OpenClipboard);
PLAT_INJECTABLE(CloseClipboard);
PLAT_INJECTABLE(EmptyClipboard);
PLAT_INJECTABLE(SetClipboardData);
PLAT_INJECTABLE(GetClipboardData);

extern "C" {

BOOL WINAPI OpenClipboard(HWND owner)
{
    if (PLAT_FAIL(OpenClipboard, ERROR_ACCESS_DENIED))
        return FALSE;
    if (owner && !IsWindow(owner)) {
        plat::SetError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    if (!OpenedByCaller(cb) && cb.openerThread != 0) {
        plat::SetError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    cb.openerThread = GetCurrentThreadId();
    cb.openerWnd = owner;
    return TRUE;
}

BOOL WINAPI CloseClipboard(void)
{
    if (PLAT_FAIL(CloseClipboard, ERROR_CLIPBOARD_NOT_OPEN))
        return FALSE;
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    if (!OpenedByCaller(cb)) {
        plat::SetError(ERROR_CLIPBOARD_NOT_OPEN);
        return FALSE;
    }
    cb.openerThread = 0;
    cb.openerWnd = nullptr;
    return TRUE;
}

BOOL WINAPI EmptyClipboard(void)
{
    if (PLAT_FAIL(EmptyClipboard, ERROR_CLIPBOARD_NOT_OPEN))
        return FALSE;
    Entries old;
    {
        Clipboard &cb = Board();
        std::lock_guard<std::mutex> guard(cb.mutex);
        if (!OpenedByCaller(cb)) {
            plat::SetError(ERROR_CLIPBOARD_NOT_OPEN);
            return FALSE;
        }
        old.swap(cb.formats);
        cb.owner = cb.openerWnd;
    }
    ReleaseData(old);
    return TRUE;
}

HANDLE WINAPI SetClipboardData(UINT format, HANDLE data)
{
    if (PLAT_FAIL(SetClipboardData, ERROR_CLIPBOARD_NOT_OPEN))
        return nullptr;
    if (format == 0) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Entries replaced;
    {
        Clipboard &cb = Board();
        std::lock_guard<std::mutex> guard(cb.mutex);
        if (!OpenedByCaller(cb)) {
            plat::SetError(ERROR_CLIPBOARD_NOT_OPEN);
            return nullptr;
        }
        // Looks the handle up in the object tables, which never call back here.
        if (!AcceptableData(format, data)) {
            plat::SetError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        auto it = std::find_if(cb.formats.begin(), cb.formats.end(), [&](const auto &e) { return e.first == format; });
        if (it == cb.formats.end()) {
            cb.formats.emplace_back(format, data);
        } else if (it->second != data) {
            replaced.emplace_back(*it);
            it->second = data;
        }
    }
    ReleaseData(replaced);
    return data;
}

HANDLE WINAPI GetClipboardData(UINT format)
{
    if (PLAT_FAIL(GetClipboardData, ERROR_CLIPBOARD_NOT_OPEN))
        return nullptr;
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    if (!OpenedByCaller(cb)) {
        plat::SetError(ERROR_CLIPBOARD_NOT_OPEN);
        return nullptr;
    }
    for (const auto &[f, data] : cb.formats) {
        if (f == format)
            return data;
    }
    return nullptr;
}

BOOL WINAPI IsClipboardFormatAvailable(UINT format)
{
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    return std::any_of(cb.formats.begin(), cb.formats.end(), [&](const auto &e) { return e.first == format; });
}

int WINAPI CountClipboardFormats(void)
{
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    return static_cast<int>(cb.formats.size());
}

UINT WINAPI EnumClipboardFormats(UINT format)
{
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    if (!OpenedByCaller(cb)) {
        plat::SetError(ERROR_CLIPBOARD_NOT_OPEN);
        return 0;
    }
    plat::SetError(NO_ERROR);
    if (format == 0)
        return cb.formats.empty() ? 0 : cb.formats.front().first;
    for (size_t i = 0; i + 1 < cb.formats.size(); ++i) {
        if (cb.formats[i].first == format)
            return cb.formats[i + 1].first;
    }
    return 0;
}

HWND WINAPI GetClipboardOwner(void)
{
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    return cb.owner;
}

HWND WINAPI GetOpenClipboardWindow(void)
{
    Clipboard &cb = Board();
    std::lock_guard<std::mutex> guard(cb.mutex);
    OpenedByCaller(cb);
    return cb.openerThread ? cb.openerWnd : nullptr;
}

void WINAPI PlatResetClipboard(void)
{
    Entries old;
    {
        Clipboard &cb = Board();
        std::lock_guard<std::mutex> guard(cb.mutex);
        old.swap(cb.formats);
        cb.openerThread = 0;
        cb.openerWnd = nullptr;
        cb.owner = nullptr;
    }
    ReleaseData(old);
}

} // extern "C"
