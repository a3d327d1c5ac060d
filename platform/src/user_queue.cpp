// Per-thread message queues: posting, cross-thread sending, retrieval with
// the WH_GETMESSAGE hooks, dispatching, timers, waiting for input, and the
// end of a thread's user state.
#include <windows.h>

#include "user.h"

#include <algorithm>
#include <set>

PLAT_INJECTABLE(SetTimer);

namespace plat
{
namespace
{

constexpr UINT kMinTimerPeriod = 10; // USER_TIMER_MINIMUM
constexpr UINT kMaxTimerPeriod = 0x7FFFFFFF;
const HWND kThreadMessagesOnly = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1));

thread_local bool t_userEnded = false;

std::set<UINT_PTR> &ThreadTimerIds()
{
    static auto *ids = new std::set<UINT_PTR>;
    return *ids;
}

UINT_PTR AllocateThreadTimerId()
{
    static UINT_PTR next = 0x7FFF;
    for (;;) {
        UINT_PTR id = next;
        next = next > 0x100 ? next - 1 : 0x7FFF;
        if (ThreadTimerIds().insert(id).second)
            return id;
    }
}

bool InRange(UINT msg, UINT lo, UINT hi)
{
    return (lo == 0 && hi == 0) || (msg >= lo && msg <= hi);
}

bool HwndMatches(HWND msgHwnd, HWND filter)
{
    if (filter == nullptr)
        return true;
    if (filter == kThreadMessagesOnly)
        return msgHwnd == nullptr;
    return msgHwnd != nullptr && IsSelfOrDescendant(msgHwnd, filter);
}

struct Filter {
    HWND hwnd;
    UINT lo;
    UINT hi;
    bool Accepts(HWND h, UINT msg) const { return HwndMatches(h, hwnd) && InRange(msg, lo, hi); }
};

const Filter kAnything{nullptr, 0, 0};

// Everything below is called with the world lock held.

std::deque<MSG>::iterator FindPosted(MessageQueue &q, const Filter &f)
{
    return std::find_if(q.posted.begin(), q.posted.end(), [&](const MSG &m) { return f.Accepts(m.hwnd, m.message); });
}

std::shared_ptr<Window> FindPaint(MessageQueue &q, const Filter &f)
{
    for (auto &entry : User().windows) {
        auto &w = entry.second;
        if (w->needsPaint && w->threadId == q.threadId && !w->destroying && f.Accepts(w->hwnd, WM_PAINT))
            return w;
    }
    return nullptr;
}

std::shared_ptr<Timer> FindDueTimer(MessageQueue &q, const Filter &f, uint64_t now)
{
    std::shared_ptr<Timer> best;
    for (auto &t : q.timers) {
        if (t->due <= now && f.Accepts(t->hwnd, WM_TIMER) && (!best || t->due < best->due))
            best = t;
    }
    return best;
}

uint64_t NextTimerDue(MessageQueue &q, const Filter &f)
{
    uint64_t next = UINT64_MAX;
    for (auto &t : q.timers) {
        if (f.Accepts(t->hwnd, WM_TIMER))
            next = std::min(next, t->due);
    }
    return next;
}

bool QuitMatches(const MessageQueue &q, const Filter &f)
{
    return q.quit && InRange(WM_QUIT, f.lo, f.hi);
}

bool HasInput(MessageQueue &q, const Filter &f)
{
    return !q.sent.empty() || FindPosted(q, f) != q.posted.end() || QuitMatches(q, f) || FindPaint(q, f) ||
           FindDueTimer(q, f, Now64());
}

// Time-out for a wait that must end when the next timer is due.
DWORD TimeoutUntil(uint64_t due)
{
    if (due == UINT64_MAX)
        return INFINITE;
    uint64_t now = Now64();
    if (due <= now)
        return 0;
    return static_cast<DWORD>(std::min<uint64_t>(due - now, 0x7FFFFFFF));
}

// Takes the next retrievable message off the queue, in the order of Windows:
// posted messages, the quit request, paint, then timers.
bool TakeMessage(MessageQueue &q, const Filter &f, UINT flags, MSG &out)
{
    bool remove = (flags & PM_REMOVE) != 0;
    auto it = FindPosted(q, f);
    if (it != q.posted.end()) {
        out = *it;
        if (remove)
            q.posted.erase(it);
        return true;
    }
    if (QuitMatches(q, f)) {
        out = MSG{nullptr, WM_QUIT, static_cast<WPARAM>(static_cast<LONG_PTR>(q.quitCode)), 0, Now(), {0, 0}};
        if (remove)
            q.quit = false;
        return true;
    }
    if (auto w = FindPaint(q, f)) {
        out = MSG{w->hwnd, WM_PAINT, 0, 0, Now(), {0, 0}};
        return true;
    }
    uint64_t now = Now64();
    if (auto t = FindDueTimer(q, f, now)) {
        out = MSG{t->hwnd, WM_TIMER, t->id, reinterpret_cast<LPARAM>(t->proc), Now(), {0, 0}};
        if (remove)
            t->due = now + t->period;
        return true;
    }
    return false;
}

// Marks a sent message answered when its handler returns or its thread ends
// inside the handler.
struct ReplyGuard {
    MessageQueue &queue;
    SentMessage &sent;
    LRESULT result = 0;
    ~ReplyGuard()
    {
        auto lock = LockWorld();
        queue.inSend--;
        sent.result = result;
        sent.done = true;
        WakeAll();
    }
};

void HandleSent(MessageQueue &q, const std::shared_ptr<SentMessage> &sm)
{
    {
        auto lock = LockWorld();
        q.inSend++;
    }
    ReplyGuard guard{q, *sm};
    guard.result = CallProc(sm->hwnd, sm->message, sm->wParam, sm->lParam);
}

// Handles the messages other threads have sent to this one; the world lock
// is held on entry and on return.
bool HandleAllSent(MessageQueue &q, Lock &lock)
{
    bool any = false;
    while (!q.sent.empty()) {
        auto sm = q.sent.front();
        q.sent.pop_front();
        lock.unlock();
        HandleSent(q, sm);
        lock.lock();
        any = true;
    }
    return any;
}

// The heart of GetMessageW and PeekMessageW.
bool Retrieve(MSG *msg, const Filter &f, UINT flags, bool wait)
{
    auto q = CurrentQueue();
    ThreadState &ts = CurrentThread();
    MSG m{};
    {
        auto lock = LockWorld();
        for (;;) {
            HandleAllSent(*q, lock);
            if (TakeMessage(*q, f, flags, m)) {
                q->messageTime = m.time;
                break;
            }
            if (!wait)
                return false;
            ts.wakeOnSentMessage = true;
            Wait(lock, TimeoutUntil(NextTimerDue(*q, f)), [&] { return HasInput(*q, f); });
            ts.wakeOnSentMessage = false;
        }
    }
    RunGetMessageHooks(&m, flags & PM_REMOVE);
    *msg = m;
    return true;
}

bool CheckFilterWindow(HWND hwnd)
{
    if (hwnd == nullptr || hwnd == kThreadMessagesOnly)
        return true;
    DWORD me = CurrentThread().id;
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return false;
    if (w->threadId != me) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    return true;
}

bool PostTo(MessageQueue &q, HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    q.posted.push_back(MSG{hwnd, msg, wParam, lParam, Now(), {0, 0}});
    WakeAll();
    return true;
}

} // namespace

std::shared_ptr<MessageQueue> CurrentQueue()
{
    ThreadState &ts = CurrentThread();
    {
        auto lock = LockWorld();
        if (ts.queue)
            return ts.queue;
    }
    auto q = std::make_shared<MessageQueue>();
    q->threadId = ts.id;
    if (!t_userEnded)
        ts.atExit.push_back([] { EndThreadUser(); });
    auto lock = LockWorld();
    ts.queue = q;
    return q;
}

LRESULT CallProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    WNDPROC proc;
    {
        auto lock = LockWorld();
        auto w = WindowOf(hwnd);
        if (!w || w == User().desktop)
            return 0;
        proc = w->proc;
    }
    return proc ? proc(hwnd, msg, wParam, lParam) : DefWindowProcW(hwnd, msg, wParam, lParam);
}

void RemoveWindowTimers(MessageQueue &queue, HWND hwnd)
{
    auto &t = queue.timers;
    t.erase(std::remove_if(t.begin(), t.end(), [&](const std::shared_ptr<Timer> &x) { return x->hwnd == hwnd; }),
            t.end());
}

void EndThreadUser()
{
    ThreadState &ts = CurrentThread();
    DWORD me = ts.id;
    t_userEnded = true;
    for (;;) {
        HWND victim = nullptr;
        {
            auto lock = LockWorld();
            for (auto &entry : User().windows) {
                auto &w = entry.second;
                if (w->threadId != me || w->destroying)
                    continue;
                auto parent = w->parent ? WindowOf(w->parent) : nullptr;
                if (!parent || parent->threadId != me) {
                    victim = w->hwnd;
                    break;
                }
            }
        }
        if (victim == nullptr)
            break;
        DestroyWindow(victim);
    }
    std::vector<std::shared_ptr<Timer>> timers;
    std::shared_ptr<MessageQueue> q;
    std::vector<HHOOK> hooks;
    {
        auto lock = LockWorld();
        hooks = RemoveThreadHooks(me);
        q = ts.queue;
        if (q) {
            q->alive = false;
            for (auto &sm : q->sent) {
                sm->result = 0;
                sm->done = true;
            }
            q->sent.clear();
            q->posted.clear();
            for (auto &t : q->timers) {
                if (t->hwnd == nullptr)
                    ThreadTimerIds().erase(t->id);
            }
            timers.swap(q->timers);
        }
        ts.queue.reset();
        WakeAll();
    }
    for (HHOOK h : hooks)
        RemoveHandle(reinterpret_cast<uintptr_t>(h));
}

} // namespace plat

using namespace plat;

// ---- Posting and sending --------------------------------------------------------

extern "C" BOOL WINAPI PostThreadMessageW(DWORD threadId, UINT msg, WPARAM wParam, LPARAM lParam)
{
    auto ts = ThreadById(threadId);
    auto lock = LockWorld();
    auto q = ts ? ts->queue : nullptr;
    if (!q || !q->alive) {
        SetError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    return PostTo(*q, nullptr, msg, wParam, lParam);
}

extern "C" BOOL WINAPI PostMessageW(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (hwnd == nullptr)
        return PostThreadMessageW(CurrentThread().id, msg, wParam, lParam);
    auto lock = LockWorld();
    auto w = CheckWindow(hwnd);
    if (!w)
        return FALSE;
    auto q = w->queue.lock();
    if (!q || !q->alive) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    return PostTo(*q, hwnd, msg, wParam, lParam);
}

extern "C" LRESULT WINAPI SendMessageW(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    ThreadState &ts = CurrentThread();
    auto sm = std::make_shared<SentMessage>();
    {
        auto lock = LockWorld();
        auto w = CheckWindow(hwnd);
        if (!w)
            return 0;
        if (w->threadId != ts.id) {
            auto target = w->queue.lock();
            if (!target || !target->alive)
                return 0; // its thread is gone
            *sm = SentMessage{hwnd, msg, wParam, lParam, 0, false};
            target->sent.push_back(sm);
            WakeAll();
        } else {
            sm.reset();
        }
    }
    if (!sm)
        return CallProc(hwnd, msg, wParam, lParam);
    // While waiting for the reply this thread still answers what others send
    // to it, so two threads sending to each other do not deadlock.
    auto mine = CurrentQueue();
    auto lock = LockWorld();
    for (;;) {
        ts.wakeOnSentMessage = true;
        Wait(lock, INFINITE, [&] { return sm->done || !mine->sent.empty(); });
        ts.wakeOnSentMessage = false;
        if (sm->done)
            return sm->result;
        HandleAllSent(*mine, lock);
    }
}

extern "C" BOOL WINAPI InSendMessage(void)
{
    auto q = CurrentQueue();
    auto lock = LockWorld();
    return q->inSend > 0;
}

extern "C" void WINAPI PostQuitMessage(int exitCode)
{
    auto q = CurrentQueue();
    auto lock = LockWorld();
    q->quit = true;
    q->quitCode = exitCode;
    WakeAll();
}

// ---- Retrieval and dispatch -----------------------------------------------------

extern "C" BOOL WINAPI GetMessageW(LPMSG msg, HWND hwnd, UINT filterMin, UINT filterMax)
{
    if (msg == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    if (!CheckFilterWindow(hwnd))
        return -1;
    Retrieve(msg, Filter{hwnd, filterMin, filterMax}, PM_REMOVE, true);
    return msg->message == WM_QUIT ? FALSE : TRUE;
}

extern "C" BOOL WINAPI PeekMessageW(LPMSG msg, HWND hwnd, UINT filterMin, UINT filterMax, UINT removeMsg)
{
    if (msg == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!CheckFilterWindow(hwnd))
        return FALSE;
    return Retrieve(msg, Filter{hwnd, filterMin, filterMax}, removeMsg & PM_REMOVE, false) ? TRUE : FALSE;
}

extern "C" BOOL WINAPI TranslateMessage(const MSG *msg)
{
    (void)msg; // no keyboard: nothing to translate
    return FALSE;
}

extern "C" LRESULT WINAPI DispatchMessageW(const MSG *msg)
{
    if (msg == nullptr)
        return 0;
    if (msg->message == WM_TIMER && msg->lParam != 0) {
        // Only the procedure of a live timer of this thread is called.
        auto q = CurrentQueue();
        TIMERPROC proc = nullptr;
        {
            auto lock = LockWorld();
            for (auto &t : q->timers) {
                if (t->hwnd == msg->hwnd && t->id == msg->wParam && reinterpret_cast<LPARAM>(t->proc) == msg->lParam)
                    proc = t->proc;
            }
        }
        if (proc != nullptr)
            proc(msg->hwnd, WM_TIMER, msg->wParam, Now());
        return 0;
    }
    if (msg->hwnd == nullptr)
        return 0;
    DWORD me = CurrentThread().id;
    {
        auto lock = LockWorld();
        auto w = CheckWindow(msg->hwnd);
        if (!w)
            return 0;
        if (w->threadId != me) {
            SetError(ERROR_WINDOW_OF_OTHER_THREAD);
            return 0;
        }
    }
    return CallProc(msg->hwnd, msg->message, msg->wParam, msg->lParam);
}

extern "C" DWORD WINAPI GetMessageTime(void)
{
    auto q = CurrentQueue();
    auto lock = LockWorld();
    return q->messageTime;
}

extern "C" BOOL WINAPI WaitMessage(void)
{
    auto q = CurrentQueue();
    ThreadState &ts = CurrentThread();
    auto lock = LockWorld();
    while (!HasInput(*q, kAnything)) {
        ts.wakeOnSentMessage = true;
        Wait(lock, TimeoutUntil(NextTimerDue(*q, kAnything)), [&] { return HasInput(*q, kAnything); });
        ts.wakeOnSentMessage = false;
    }
    HandleAllSent(*q, lock);
    return TRUE;
}

extern "C" DWORD WINAPI MsgWaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD milliseconds,
                                                  DWORD wakeMask)
{
    std::vector<std::shared_ptr<Object>> objects;
    for (DWORD i = 0; i < count; ++i) {
        auto obj = handles ? FindHandle(reinterpret_cast<uintptr_t>(handles[i])) : nullptr;
        if (!obj) {
            SetError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        objects.push_back(obj);
    }
    auto q = CurrentQueue();
    ThreadState &ts = CurrentThread();
    auto lock = LockWorld();
    auto objectsReady = [&](DWORD &index) {
        if (count == 0)
            return false;
        if (waitAll) {
            index = 0;
            return std::all_of(objects.begin(), objects.end(), [](auto &o) { return o->Signalled(); });
        }
        for (DWORD i = 0; i < count; ++i) {
            if (objects[i]->Signalled()) {
                index = i;
                return true;
            }
        }
        return false;
    };
    auto ready = [&] {
        DWORD index;
        return objectsReady(index) || (wakeMask != 0 && HasInput(*q, kAnything));
    };
    const uint64_t deadline = milliseconds == INFINITE ? UINT64_MAX : Now64() + milliseconds;
    for (;;) {
        DWORD index = 0;
        if (objectsReady(index)) {
            if (waitAll) {
                for (auto &o : objects)
                    o->Acquire();
            } else {
                objects[index]->Acquire();
            }
            return WAIT_OBJECT_0 + index;
        }
        if (wakeMask != 0 && HasInput(*q, kAnything))
            return WAIT_OBJECT_0 + count;
        uint64_t now = Now64();
        if (now >= deadline)
            return WAIT_TIMEOUT;
        uint64_t wake = std::min(deadline, wakeMask != 0 ? NextTimerDue(*q, kAnything) : UINT64_MAX);
        ts.wakeOnSentMessage = wakeMask != 0;
        Wait(lock, TimeoutUntil(wake), ready, kAnyHandle);
        ts.wakeOnSentMessage = false;
    }
}

// ---- Timers ---------------------------------------------------------------------

extern "C" UINT_PTR WINAPI SetTimer(HWND hwnd, UINT_PTR id, UINT elapse, TIMERPROC proc)
{
    if (PLAT_FAIL(SetTimer, ERROR_NO_SYSTEM_RESOURCES))
        return 0;
    auto mine = CurrentQueue();
    elapse = std::clamp(elapse, kMinTimerPeriod, kMaxTimerPeriod);
    auto lock = LockWorld();
    std::shared_ptr<MessageQueue> q = mine;
    if (hwnd != nullptr) {
        auto w = CheckWindow(hwnd);
        if (!w)
            return 0;
        q = w->queue.lock();
        if (!q || !q->alive) {
            SetError(ERROR_INVALID_WINDOW_HANDLE);
            return 0;
        }
    }
    // An existing timer of the same window (or this thread) and id is reset.
    for (auto &t : q->timers) {
        if (t->hwnd == hwnd && t->id == id && (hwnd != nullptr || id != 0)) {
            t->period = elapse;
            t->proc = proc;
            t->due = Now64() + elapse;
            WakeAll();
            return hwnd != nullptr ? 1 : id;
        }
    }
    auto t = std::make_shared<Timer>();
    t->hwnd = hwnd;
    t->id = hwnd != nullptr ? id : AllocateThreadTimerId();
    t->period = elapse;
    t->proc = proc;
    t->due = Now64() + elapse;
    q->timers.push_back(t);
    WakeAll();
    return hwnd != nullptr ? 1 : t->id;
}

extern "C" BOOL WINAPI KillTimer(HWND hwnd, UINT_PTR id)
{
    auto mine = CurrentQueue();
    std::shared_ptr<Timer> victim; // released after the lock
    auto lock = LockWorld();
    std::shared_ptr<MessageQueue> q = mine;
    if (hwnd != nullptr) {
        auto w = CheckWindow(hwnd);
        if (!w)
            return FALSE;
        q = w->queue.lock();
    }
    if (q) {
        auto &timers = q->timers;
        auto it = std::find_if(timers.begin(), timers.end(),
                               [&](const std::shared_ptr<Timer> &t) { return t->hwnd == hwnd && t->id == id; });
        if (it != timers.end()) {
            victim = *it;
            timers.erase(it);
            if (hwnd == nullptr)
                ThreadTimerIds().erase(id);
            return TRUE;
        }
    }
    SetError(ERROR_INVALID_PARAMETER);
    return FALSE;
}
