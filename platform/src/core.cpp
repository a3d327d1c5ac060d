// Core of the host platform layer: object table, live counts, faults, last
// error, the world lock with Wait(), the real and virtual clocks and the
// registry of threads that have used the platform.
#include "core.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <list>
#include <map>
#include <set>
#include <thread>
#include <unordered_map>

namespace plat
{
namespace
{

// Everything below lives in leaked heap objects: threads may still use the
// platform while static destructors run at process exit.

std::atomic<long> g_liveCounts[PLAT_KIND_COUNT];

struct HandleTable {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Object>> objects;
    uintptr_t next = 0x1000;
};
HandleTable &Handles()
{
    static HandleTable *table = new HandleTable;
    return *table;
}

struct Fault {
    unsigned countdown = 0; // fails when it drops to 0 from 1
    bool always = false;
    DWORD error = 0;
};
struct FaultTable {
    std::mutex mutex;
    std::set<std::string> injectable;
    std::map<std::string, Fault> faults;
    std::map<std::string, unsigned> calls;
};
FaultTable &Faults()
{
    static FaultTable *table = new FaultTable;
    return *table;
}

thread_local DWORD t_lastError = 0;

// ---- Scheduler state (guarded by the world mutex unless atomic) ----------
struct Waiter {
    ThreadState *thread;
    const std::function<bool()> *ready;
    uint64_t deadline; // UINT64_MAX: none
    const void *key;   // what wakes it besides WakeAll (see Wait)
    std::condition_variable cv;
    Waiter(ThreadState *t, const std::function<bool()> *r, uint64_t d, const void *k)
        : thread(t), ready(r), deadline(d), key(k)
    {
    }
};

using RealClock = std::chrono::steady_clock;

struct World {
    std::mutex mutex;
    // Changed under both `mutex` and `listMutex`; walked under either, so
    // that WakeAll can run without the world lock.
    std::list<Waiter> waiters;
    std::mutex listMutex;
    int externalWaits = 0;
    // Registered threads (running or blocked).
    std::atomic<int> registered{0};
    std::atomic<bool> virtualClock{false};
    // Virtual time; written under the mutex.
    std::atomic<uint64_t> virtualNow{0};
    // Real time offset: Now64() = real ms since start + offset.
    std::atomic<int64_t> realOffset{0x10000};
    // Real time of the last wake-up or clock change (for the safety net).
    std::atomic<int64_t> lastActivityMs{0};
    RealClock::time_point start = RealClock::now();
};
World &W()
{
    static World *world = new World;
    return *world;
}

int64_t RealMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - W().start).count();
}

struct Registry {
    std::mutex mutex;
    std::map<DWORD, std::shared_ptr<ThreadState>> threads;
    std::atomic<DWORD> nextId{0x100};
};
Registry &Threads()
{
    static Registry *registry = new Registry;
    return *registry;
}

// The calling thread's record. Threads the platform did not start register
// on first use and unregister when they end (thread_local destructor).
struct CurrentRecord {
    std::shared_ptr<ThreadState> state;
    ~CurrentRecord()
    {
        if (state && !state->platformThread)
            DetachCurrentThread();
    }
};
thread_local CurrentRecord t_current;

std::shared_ptr<ThreadState> NewRecord()
{
    auto state = std::make_shared<ThreadState>();
    Registry &reg = Threads();
    state->id = reg.nextId.fetch_add(4);
    {
        std::lock_guard<std::mutex> guard(reg.mutex);
        reg.threads[state->id] = state;
    }
    W().registered.fetch_add(1);
    return state;
}

// A waiter can go on by itself: it is ready, timed out or to be ended.
bool Runnable(const Waiter &w, uint64_t now)
{
    return (w.thread->terminateRequested.load() && !w.thread->ending) || w.deadline <= now || (*w.ready)();
}

// Wakes the waiters `wakes` picks.
template <class Pick> void NotifyWaiters(Pick wakes)
{
    World &w = W();
    w.lastActivityMs.store(RealMs());
    std::lock_guard<std::mutex> guard(w.listMutex);
    for (Waiter &waiter : w.waiters) {
        if (wakes(waiter))
            waiter.cv.notify_one();
    }
}

void NotifyLocked()
{
    NotifyWaiters([](const Waiter &) { return true; });
}

// Under the virtual clock and the world lock: when no registered thread is
// running and no waiter can go on, jump to the earliest deadline.
void MaybeAdvanceLocked(bool force = false)
{
    World &w = W();
    if (!w.virtualClock.load())
        return;
    int blocked = static_cast<int>(w.waiters.size()) + w.externalWaits;
    if (!force && w.registered.load() > blocked)
        return;
    uint64_t now = w.virtualNow.load();
    uint64_t earliest = std::numeric_limits<uint64_t>::max();
    for (const Waiter &waiter : w.waiters) {
        if (!force && Runnable(waiter, now))
            return;
        earliest = std::min(earliest, waiter.deadline);
    }
    if (earliest == std::numeric_limits<uint64_t>::max() || earliest <= now)
        return;
    w.virtualNow.store(earliest);
    NotifyLocked();
}

void WakeExpiredLocked()
{
    uint64_t now = W().virtualNow.load();
    for (const Waiter &waiter : W().waiters) {
        if (waiter.deadline <= now) {
            NotifyLocked();
            return;
        }
    }
}

constexpr int64_t kSafetyNetMs = 1000;
constexpr auto kVirtualSlice = std::chrono::milliseconds(100);

} // namespace

// ---- Objects and handles -------------------------------------------------

Object::Object(Kind kind) : kind_(kind)
{
    int k = static_cast<int>(kind);
    if (k >= 0 && k < PLAT_KIND_COUNT)
        g_liveCounts[k].fetch_add(1);
}

Object::~Object()
{
    int k = static_cast<int>(kind_);
    if (k >= 0 && k < PLAT_KIND_COUNT)
        g_liveCounts[k].fetch_sub(1);
}

uintptr_t AddHandle(std::shared_ptr<Object> obj)
{
    HandleTable &t = Handles();
    std::lock_guard<std::mutex> guard(t.mutex);
    uintptr_t value = t.next;
    t.next += 4;
    t.objects.emplace(value, std::move(obj));
    return value;
}

std::shared_ptr<Object> FindHandle(uintptr_t handle)
{
    HandleTable &t = Handles();
    std::lock_guard<std::mutex> guard(t.mutex);
    auto it = t.objects.find(handle);
    return it == t.objects.end() ? nullptr : it->second;
}

std::shared_ptr<Object> RemoveHandle(uintptr_t handle)
{
    std::shared_ptr<Object> obj;
    HandleTable &t = Handles();
    {
        std::lock_guard<std::mutex> guard(t.mutex);
        auto it = t.objects.find(handle);
        if (it == t.objects.end())
            return nullptr;
        obj = std::move(it->second);
        t.objects.erase(it);
    }
    return obj;
}

// ---- Faults ----------------------------------------------------------------

bool RegisterInjectable(const char *api)
{
    FaultTable &f = Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    f.injectable.insert(api);
    return true;
}

bool ShouldFail(const char *api, DWORD defaultError)
{
    FaultTable &f = Faults();
    DWORD error = 0;
    {
        std::lock_guard<std::mutex> guard(f.mutex);
        ++f.calls[api];
        auto it = f.faults.find(api);
        if (it == f.faults.end())
            return false;
        Fault &fault = it->second;
        bool fail = fault.always;
        if (!fail && fault.countdown > 0)
            fail = --fault.countdown == 0;
        if (!fail)
            return false;
        error = fault.error ? fault.error : defaultError;
    }
    SetError(error);
    return true;
}

void SetError(DWORD code)
{
    t_lastError = code;
}

// ---- World lock and waiting ----------------------------------------------

std::mutex &WorldMutex()
{
    return W().mutex;
}

void WakeAll()
{
    NotifyLocked();
}

void WakeObject(const void *key, bool handleObject)
{
    NotifyWaiters(
        [key, handleObject](const Waiter &w) { return w.key == key || (handleObject && w.key == kAnyHandle); });
}

uint64_t Now64()
{
    World &w = W();
    if (w.virtualClock.load())
        return w.virtualNow.load();
    return static_cast<uint64_t>(RealMs() + w.realOffset.load());
}

DWORD Now()
{
    return static_cast<DWORD>(Now64());
}

bool Wait(Lock &lock, DWORD timeoutMs, const std::function<bool()> &ready)
{
    return Wait(lock, timeoutMs, ready, nullptr);
}

bool Wait(Lock &lock, DWORD timeoutMs, const std::function<bool()> &ready, const void *key)
{
    World &w = W();
    ThreadState &me = CurrentThread();
    auto terminating = [&me] { return me.terminateRequested.load() && !me.ending; };
    if (terminating()) {
        lock.unlock();
        EndCurrentThread();
    }
    if (ready())
        return true;
    if (timeoutMs == 0)
        return false;
    uint64_t deadline = timeoutMs == INFINITE ? std::numeric_limits<uint64_t>::max() : Now64() + timeoutMs;
    std::list<Waiter>::iterator self;
    {
        std::lock_guard<std::mutex> guard(w.listMutex);
        self = w.waiters.emplace(w.waiters.end(), &me, &ready, deadline, key);
    }
    int64_t blockedSince = RealMs();
    uint64_t clockSeen = Now64();
    bool result = false;
    bool terminate = false;
    for (;;) {
        if (terminating()) {
            terminate = true;
            break;
        }
        if (ready()) {
            result = true;
            break;
        }
        uint64_t now = Now64();
        if (now >= deadline)
            break;
        if (w.virtualClock.load()) {
            MaybeAdvanceLocked();
            if (Now64() != now)
                continue;
            self->cv.wait_for(lock, kVirtualSlice);
            // Safety net: some registered thread is blocked outside the
            // platform; let timed waits complete after a second of silence.
            int64_t real = RealMs();
            if (Now64() != clockSeen) {
                clockSeen = Now64();
                blockedSince = real;
            } else if (deadline != std::numeric_limits<uint64_t>::max() &&
                       real - std::max(blockedSince, w.lastActivityMs.load()) >= kSafetyNetMs) {
                MaybeAdvanceLocked(true);
                blockedSince = real;
            }
        } else if (deadline == std::numeric_limits<uint64_t>::max()) {
            self->cv.wait(lock);
        } else {
            self->cv.wait_for(lock, std::chrono::milliseconds(deadline - now));
        }
    }
    {
        std::lock_guard<std::mutex> guard(w.listMutex);
        w.waiters.erase(self);
    }
    if (terminate) {
        lock.unlock();
        EndCurrentThread();
    }
    return result;
}

// ---- Threads -------------------------------------------------------------

ThreadState &CurrentThread()
{
    if (!t_current.state)
        t_current.state = NewRecord();
    return *t_current.state;
}

std::shared_ptr<ThreadState> ThreadById(DWORD id)
{
    Registry &reg = Threads();
    std::lock_guard<std::mutex> guard(reg.mutex);
    auto it = reg.threads.find(id);
    return it == reg.threads.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<ThreadState>> LiveThreads()
{
    Registry &reg = Threads();
    std::lock_guard<std::mutex> guard(reg.mutex);
    std::vector<std::shared_ptr<ThreadState>> out;
    for (auto &entry : reg.threads)
        out.push_back(entry.second);
    return out;
}

void CountStranded(long count)
{
    g_liveCounts[PLAT_KIND_STRANDED].fetch_add(count);
}

std::shared_ptr<ThreadState> RegisterNewThread()
{
    auto state = NewRecord();
    state->platformThread = true;
    return state;
}

void AttachCurrentThread(const std::shared_ptr<ThreadState> &state)
{
    t_current.state = state;
}

void DetachCurrentThread()
{
    std::shared_ptr<ThreadState> state = t_current.state;
    if (!state)
        return;
    RunThreadExitHandlers();
    ForgetThread(state);
}

void RunThreadExitHandlers()
{
    std::shared_ptr<ThreadState> state = t_current.state;
    if (!state)
        return;
    {
        Lock lock = LockWorld();
        state->ending = true;
    }
    // atExit handlers may use the platform (and so this thread's record).
    while (!state->atExit.empty()) {
        std::function<void()> fn = std::move(state->atExit.back());
        state->atExit.pop_back();
        fn();
    }
}

void ForgetThread(const std::shared_ptr<ThreadState> &state)
{
    Lock lock = LockWorld();
    ForgetThreadLocked(state);
}

void ForgetThreadLocked(const std::shared_ptr<ThreadState> &state)
{
    {
        Registry &reg = Threads();
        std::lock_guard<std::mutex> guard(reg.mutex);
        reg.threads.erase(state->id);
    }
    W().registered.fetch_sub(1);
    // The waiters re-check and decide among themselves whether the clock
    // may move on.
    NotifyLocked();
}

void EndCurrentThread()
{
    ThreadState &me = CurrentThread();
    if (me.terminateRequested.load() && !me.ending)
        me.exitCode = me.terminateCode;
    // Unwinds the stack (RAII guards release their locks); a platform
    // thread's start frame finishes the thread's bookkeeping.
    pthread_exit(nullptr);
}

// ---- Strings ---------------------------------------------------------------

std::string ToUtf8(LPCWSTR s, int len)
{
    std::string out;
    if (!s)
        return out;
    size_t n = len < 0 ? std::char_traits<char16_t>::length(s) : static_cast<size_t>(len);
    for (size_t i = 0; i < n; ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < n && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c < 0xE000) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string ToUtf16(const std::string &s)
{
    std::u16string out;
    size_t i = 0;
    while (i < s.size()) {
        auto b = static_cast<unsigned char>(s[i]);
        uint32_t c;
        size_t extra;
        if (b < 0x80) {
            c = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            extra = 3;
        } else {
            out += u'\uFFFD';
            ++i;
            continue;
        }
        if (i + extra >= s.size() + (extra ? 0 : 1)) {
            out += u'\uFFFD';
            break;
        }
        bool bad = false;
        for (size_t k = 1; k <= extra; ++k) {
            auto cb = static_cast<unsigned char>(s[i + k]);
            if ((cb & 0xC0) != 0x80) {
                bad = true;
                break;
            }
            c = (c << 6) | (cb & 0x3F);
        }
        if (bad) {
            out += u'\uFFFD';
            ++i;
            continue;
        }
        i += extra + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
    }
    return out;
}

} // namespace plat

// ---- Test and tool control ------------------------------------------------

extern "C" {

long PlatLiveCount(PlatKind kind)
{
    if (static_cast<int>(kind) < 0 || kind >= PLAT_KIND_COUNT)
        return -1;
    return plat::g_liveCounts[kind].load();
}

const char *PlatKindName(PlatKind kind)
{
    static const char *const names[PLAT_KIND_COUNT] = {"global", "gdi",   "dc",   "window", "thread",  "event",
                                                       "file",   "timer", "hook", "module", "stranded"};
    if (static_cast<int>(kind) < 0 || kind >= PLAT_KIND_COUNT)
        return "?";
    return names[kind];
}

void PlatFailCall(const char *api, unsigned nth, DWORD error)
{
    plat::FaultTable &f = plat::Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    plat::Fault &fault = f.faults[api];
    fault.always = false;
    fault.countdown = nth ? nth : 1;
    fault.error = error;
}

void PlatFailAlways(const char *api, DWORD error)
{
    plat::FaultTable &f = plat::Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    plat::Fault &fault = f.faults[api];
    fault.always = true;
    fault.countdown = 0;
    fault.error = error;
}

void PlatClearFaults(void)
{
    plat::FaultTable &f = plat::Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    f.faults.clear();
    f.calls.clear();
}

unsigned PlatCallCount(const char *api)
{
    plat::FaultTable &f = plat::Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    auto it = f.calls.find(api);
    return it == f.calls.end() ? 0 : it->second;
}

int PlatInjectableApis(const char **names, int max)
{
    plat::FaultTable &f = plat::Faults();
    std::lock_guard<std::mutex> guard(f.mutex);
    int i = 0;
    for (const std::string &name : f.injectable) {
        if (names && i < max)
            names[i] = name.c_str();
        ++i;
    }
    return i;
}

void PlatUseVirtualClock(BOOL on)
{
    plat::World &w = plat::W();
    plat::Lock lock = plat::LockWorld();
    bool want = on != FALSE;
    if (w.virtualClock.load() == want)
        return;
    // Time continues where the other clock stood, so deadlines stay valid.
    if (want) {
        w.virtualNow.store(static_cast<uint64_t>(plat::RealMs() + w.realOffset.load()));
        w.virtualClock.store(true);
    } else {
        w.realOffset.store(static_cast<int64_t>(w.virtualNow.load()) - plat::RealMs());
        w.virtualClock.store(false);
    }
    plat::NotifyLocked();
}

BOOL PlatIsVirtualClock(void)
{
    return plat::W().virtualClock.load() ? TRUE : FALSE;
}

void PlatAdvanceClock(DWORD ms)
{
    plat::World &w = plat::W();
    plat::Lock lock = plat::LockWorld();
    if (w.virtualClock.load())
        w.virtualNow.store(w.virtualNow.load() + ms);
    else
        w.realOffset.fetch_add(ms);
    plat::NotifyLocked();
}

void PlatBeginExternalWait(void)
{
    plat::CurrentThread();
    plat::Lock lock = plat::LockWorld();
    ++plat::W().externalWaits;
    plat::MaybeAdvanceLocked();
}

void PlatEndExternalWait(void)
{
    plat::Lock lock = plat::LockWorld();
    if (plat::W().externalWaits > 0)
        --plat::W().externalWaits;
}

DWORD WINAPI GetLastError(void)
{
    return plat::t_lastError;
}

void WINAPI SetLastError(DWORD code)
{
    plat::t_lastError = code;
}

DWORD WINAPI GetTickCount(void)
{
    plat::World &w = plat::W();
    if (!w.virtualClock.load())
        return plat::Now();
    plat::Lock lock = plat::LockWorld();
    w.virtualNow.store(w.virtualNow.load() + 1);
    plat::WakeExpiredLocked();
    return static_cast<DWORD>(w.virtualNow.load());
}

} // extern "C"
