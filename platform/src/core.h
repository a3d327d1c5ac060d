// Core of the host platform layer: the process-wide object table with live
// counts per kind, fault injection, the world lock every blocking call waits
// under, the clock (real or virtual) and the registry of platform threads.
//
// Every blocking platform call waits through Wait(): it releases the world
// lock, honours the virtual clock and ends the thread when TerminateThread
// has been called on it. State that waiters look at is changed under the
// world lock and followed by WakeAll().
#pragma once

#include <windows.h>
#include <tamrix/platform.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace plat
{

enum class Kind : int {
    Global = PLAT_KIND_GLOBAL,
    Gdi = PLAT_KIND_GDI,
    Dc = PLAT_KIND_DC,
    Window = PLAT_KIND_WINDOW,
    Thread = PLAT_KIND_THREAD,
    Event = PLAT_KIND_EVENT,
    File = PLAT_KIND_FILE,
    Timer = PLAT_KIND_TIMER,
    Hook = PLAT_KIND_HOOK,
    Module = PLAT_KIND_MODULE,
    // Objects in the table that are not counted (stock GDI objects, icons, cursors).
    Uncounted = 100,
};

// Base of every object behind a handle. The live count of its kind goes up in
// the constructor and down in the destructor, so an object kept alive by a
// forgotten reference shows up as a leak.
class Object
{
public:
    explicit Object(Kind kind);
    virtual ~Object();
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;
    Kind kind() const { return kind_; }
    // Waitable objects (events, threads) answer whether they are signalled;
    // Acquire() consumes the signal of an auto-reset object. Both are called
    // under the world lock.
    virtual bool Signalled() const { return false; }
    virtual void Acquire() {}
    // Whether CloseHandle accepts this object (kernel objects: events,
    // threads, files). Windows, GDI objects and modules have their own
    // release calls.
    virtual bool ClosedByCloseHandle() const
    {
        return kind_ == Kind::Event || kind_ == Kind::Thread || kind_ == Kind::File;
    }
    // Called by CloseHandle after the handle left the table, without the
    // world lock. The object itself goes when its last reference does. False
    // (last error set) makes CloseHandle fail, the handle closed all the same.
    virtual bool OnClose() { return true; }

private:
    Kind kind_;
};

// ---- Handle table --------------------------------------------------------
// Handle values are never reused within a process, so a stale handle is
// always recognised as invalid.
uintptr_t AddHandle(std::shared_ptr<Object> obj);
// Looks a handle up; null when it is not in the table.
std::shared_ptr<Object> FindHandle(uintptr_t handle);
template <class T> std::shared_ptr<T> Find(const void *handle)
{
    return std::dynamic_pointer_cast<T>(FindHandle(reinterpret_cast<uintptr_t>(handle)));
}
// Removes a handle from the table; returns the object (null if absent).
std::shared_ptr<Object> RemoveHandle(uintptr_t handle);
template <class H> H ToHandle(uintptr_t value)
{
    return reinterpret_cast<H>(value);
}

// ---- Fault injection -----------------------------------------------------
// Registers `api` as injectable (done once per API by the PLAT_INJECTABLE
// macro at static-initialisation time).
bool RegisterInjectable(const char *api);
// Counts a call of `api`; returns true when this call must fail, after
// setting the last error to the configured code or `defaultError`.
bool ShouldFail(const char *api, DWORD defaultError);

#define PLAT_INJECTABLE(api) static const bool plat_injectable_##api [[maybe_unused]] = ::plat::RegisterInjectable(#api)
// Use at the top of an injectable API: `if (PLAT_FAIL(GlobalAlloc, ERROR_NOT_ENOUGH_MEMORY)) return nullptr;`
#define PLAT_FAIL(api, defaultError) ::plat::ShouldFail(#api, (defaultError))

// ---- Last error ----------------------------------------------------------
void SetError(DWORD code);

// ---- World lock, waiting and the clock -----------------------------------
std::mutex &WorldMutex();
using Lock = std::unique_lock<std::mutex>;
inline Lock LockWorld()
{
    return Lock(WorldMutex());
}
// Wakes every waiter so it re-checks its condition. Call with or without the
// world lock held, after changing state under it.
void WakeAll();
// Wakes only the waiters keyed to `key`: for state that only they look at,
// such as a critical section's owner or an event's signal. With
// `handleObject` (a waitable object behind a handle) the waits on several
// handles (key kAnyHandle) are woken too. Same locking as WakeAll.
void WakeObject(const void *key, bool handleObject);
// Key of the waits on several handles at once.
inline const char kAnyHandleTag = 0;
inline const void *const kAnyHandle = &kAnyHandleTag;

// Current tick count in ms (real or virtual) without side effects. Use this,
// not GetTickCount, inside the platform: GetTickCount takes the world lock.
DWORD Now();
// 64-bit millisecond time, for deadlines.
uint64_t Now64();

// Waits, with `lock` (the world lock) held, until `ready()` is true or
// `timeoutMs` has passed (INFINITE: no limit). `ready` is evaluated under the
// lock. Returns true when ready, false on time-out. Ends the calling thread
// if TerminateThread has been called on it.
bool Wait(Lock &lock, DWORD timeoutMs, const std::function<bool()> &ready);
// The same, for a condition that changes only where WakeObject(key) (or
// WakeAll) follows: other wake-ups pass this waiter by. A null key waits for
// WakeAll only.
bool Wait(Lock &lock, DWORD timeoutMs, const std::function<bool()> &ready, const void *key);

// ---- Threads -------------------------------------------------------------
struct MessageQueue; // USER32's per-thread queue (user32 owns the type)

// Per-thread record of every thread that has used the platform.
struct ThreadState {
    DWORD id = 0;
    std::atomic<bool> terminateRequested{false};
    DWORD terminateCode = 0;
    // USER32's message queue of this thread; created on first use by user32.
    std::shared_ptr<MessageQueue> queue;
    // Set by user32 while the thread waits in a way that must also return
    // when a message is sent to it (GetMessage, SendMessage's reply wait).
    bool wakeOnSentMessage = false;
    // Handle of the thread object when created by CreateThread, else 0.
    uintptr_t handle = 0;
    // Called (with the world lock NOT held) when the thread ends, in reverse
    // order of registration; user32 destroys the thread's windows here.
    std::vector<std::function<void()>> atExit;
    // Exit code when the thread ends (ExitThread, TerminateThread or the
    // start routine's result).
    DWORD exitCode = 0;
    // Set while the thread runs its end-of-thread work; termination requests
    // are ignored from then on.
    bool ending = false;
    // True for threads started by CreateThread (they end with pthread_exit).
    bool platformThread = false;
    // The start routine given to CreateThread (null for other threads).
    const void *start = nullptr;
};

// The calling thread's record, registered on first use.
ThreadState &CurrentThread();
// Every registered thread, now.
std::vector<std::shared_ptr<ThreadState>> LiveThreads();
// Adds to the count of code found live in a module being unloaded.
void CountStranded(long count);
// The record of a live thread by id; null if no such thread.
std::shared_ptr<ThreadState> ThreadById(DWORD id);
// Registers a record for a thread about to be started by CreateThread, so it
// counts as running (holding the virtual clock) before it gets going.
std::shared_ptr<ThreadState> RegisterNewThread();
// Makes `state` the calling thread's record (first thing a new thread does).
void AttachCurrentThread(const std::shared_ptr<ThreadState> &state);
// End-of-thread work: runs atExit (world lock not held) and unregisters.
void DetachCurrentThread();
// First half of it: marks the calling thread as ending and runs atExit.
void RunThreadExitHandlers();
// Unregisters a thread record (ended, or never started). The Locked form is
// called with the world lock held, so that a thread can be unregistered in
// the same step as its handle becomes signalled.
void ForgetThread(const std::shared_ptr<ThreadState> &state);
void ForgetThreadLocked(const std::shared_ptr<ThreadState> &state);
// Ends the calling thread now: unwinds it (pthread_exit) without returning.
[[noreturn]] void EndCurrentThread();

// Converts between UTF-16 and UTF-8.
std::string ToUtf8(LPCWSTR s, int len = -1);
std::u16string ToUtf16(const std::string &s);

} // namespace plat
