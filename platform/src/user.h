// Internal state of USER32 for POSIX hosts: window classes, windows, the
// per-thread message queues with their timers, and the windows hooks.
//
// Everything here is guarded by the world lock (plat::LockWorld()). Window
// procedures, hook procedures and timer procedures are always called with
// the world lock released, because they call back into the platform.
#pragma once

#include "core.h"

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace plat
{

struct WindowClass {
    ATOM atom = 0;
    std::u16string name; // as registered; compared case-insensitively
    std::u16string menuName;
    bool menuIsOrdinal = false;
    WNDCLASSW wc{};  // lpszClassName/lpszMenuName point into the strings above
    int windows = 0; // live windows of the class
};

class Window : public Object
{
public:
    explicit Window(Kind kind = Kind::Window) : Object(kind) {}
    HWND hwnd = nullptr;
    DWORD threadId = 0;                // the creating thread, which owns the window
    std::weak_ptr<MessageQueue> queue; // that thread's queue
    std::shared_ptr<WindowClass> cls;
    WNDPROC proc = nullptr;
    DWORD style = 0;
    DWORD exStyle = 0;
    HINSTANCE instance = nullptr;
    LONG_PTR id = 0; // GWLP_ID (the menu argument of CreateWindowExW)
    LONG_PTR userData = 0;
    HWND parent = nullptr; // WS_CHILD windows only
    HWND owner = nullptr;  // owned top-level windows only
    bool messageOnly = false;
    std::vector<HWND> children; // in z order, first is the top
    std::u16string text;
    RECT rect{}; // window rectangle in the parent's client coordinates (screen for top-level)
    std::vector<BYTE> extra;
    bool destroying = false;
    // Set by painting code while the window has an invalid region; the
    // message loop then produces WM_PAINT for it once nothing else waits.
    bool needsPaint = false;
    RECT updateRect{};
    bool eraseBackground = false; // the invalidation asked for WM_ERASEBKGND
    int scrollPos[2]{};           // SB_HORZ, SB_VERT
};

// A message sent to a window of another thread, waiting for its reply.
struct SentMessage {
    HWND hwnd = nullptr;
    UINT message = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    LRESULT result = 0;
    bool done = false;
};

class Timer : public Object
{
public:
    Timer() : Object(Kind::Timer) {}
    HWND hwnd = nullptr; // null for a thread timer
    UINT_PTR id = 0;
    UINT period = 0;
    TIMERPROC proc = nullptr;
    uint64_t due = 0;
};

struct MessageQueue {
    DWORD threadId = 0;
    bool alive = true;
    std::deque<MSG> posted;
    std::deque<std::shared_ptr<SentMessage>> sent;
    std::vector<std::shared_ptr<Timer>> timers;
    bool quit = false;
    int quitCode = 0;
    DWORD messageTime = 0;
    int inSend = 0; // depth of messages from other threads being handled
    HWND active = nullptr;
    HWND focus = nullptr;
};

class Hook : public Object
{
public:
    Hook() : Object(Kind::Hook) {}
    HHOOK handle = nullptr;
    int type = 0;
    HOOKPROC proc = nullptr;
    DWORD threadFilter = 0; // 0: every thread
    DWORD installer = 0;
    bool removed = false;
};

struct UserState {
    std::vector<std::shared_ptr<WindowClass>> classes;
    std::map<uintptr_t, std::shared_ptr<Window>> windows;
    std::vector<HWND> topLevel;    // top-level windows in z order
    std::vector<HWND> messageOnly; // children of HWND_MESSAGE
    std::shared_ptr<Window> desktop;
    std::vector<std::shared_ptr<Hook>> hooks; // most recently installed first
};

// ---- State (world lock held) ----------------------------------------------
UserState &User();
// The window behind a handle (the desktop included); null when none.
std::shared_ptr<Window> WindowOf(HWND hwnd);
// Like WindowOf, and sets ERROR_INVALID_WINDOW_HANDLE when there is none.
std::shared_ptr<Window> CheckWindow(HWND hwnd);
// True when `w` is `ancestor` or one of its descendants.
bool IsSelfOrDescendant(HWND w, HWND ancestor);
// The class a window of `instance` gets for a class name or atom.
std::shared_ptr<WindowClass> FindClass(LPCWSTR name, HINSTANCE instance);

// ---- Queues ----------------------------------------------------------------
// The calling thread's queue, created on first use (world lock NOT held).
std::shared_ptr<MessageQueue> CurrentQueue();
// Calls a window's procedure on the calling thread (world lock NOT held).
LRESULT CallProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
// Removes the timers of a window from its queue (world lock held).
void RemoveWindowTimers(MessageQueue &queue, HWND hwnd);
// Ends the calling thread's user state: windows, timers, hooks, queue.
void EndThreadUser();

// ---- Hooks -----------------------------------------------------------------
// Runs the WH_GETMESSAGE chain of the calling thread on a message about to be
// returned (world lock NOT held).
void RunGetMessageHooks(MSG *msg, UINT removeFlag);
// Removes the hooks installed by a thread (world lock held); returns their
// handles, to be taken out of the handle table once the lock is released.
std::vector<HHOOK> RemoveThreadHooks(DWORD threadId);

// ---- Dialogs and controls ----------------------------------------------------
// Extra bytes of a dialog window: DWLP_MSGRESULT, DWLP_DLGPROC, DWLP_USER.
constexpr int kDialogExtra = 3 * static_cast<int>(sizeof(LONG_PTR));
// Window procedure of the dialog class "#32770" (the default dialog processing).
LRESULT CALLBACK DialogClassProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
// Adds the standard control classes and the dialog class (world lock held).
void AddSystemClasses();

// ---- Geometry ---------------------------------------------------------------
// Widths of the non-client area of a window with these styles.
RECT NonClientFrame(DWORD style, DWORD exStyle);

} // namespace plat
