// KERNEL32 synchronisation: critical sections, events, waits and
// CloseHandle. Every wait goes through plat::Wait so that the virtual clock
// sees a thread blocked on a critical section or an event as blocked.
#include "core.h"
#include "kernel.h"

#include <cstring>

namespace
{

// The lock behind a CRITICAL_SECTION's DebugInfo; guarded by the world lock.
struct CsImpl {
    DWORD owner = 0;
    LONG recursion = 0;
    uint64_t releases = 0; // times the section became free
};

CsImpl *Impl(LPCRITICAL_SECTION cs)
{
    return static_cast<CsImpl *>(cs->DebugInfo);
}

void Publish(LPCRITICAL_SECTION cs, const CsImpl &impl)
{
    cs->RecursionCount = impl.recursion;
    cs->LockCount = impl.recursion ? 0 : -1;
    cs->OwningThread = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(impl.owner));
}

class Event : public plat::Object
{
public:
    Event(bool manual, bool signalled) : Object(plat::Kind::Event), manual_(manual), signalled_(signalled) {}
    bool Signalled() const override { return signalled_; }
    void Acquire() override
    {
        if (!manual_)
            signalled_ = false;
    }
    void Set(bool on) { signalled_ = on; }

private:
    bool manual_;
    bool signalled_;
};

// A waitable object behind `handle`, or null (error set).
std::shared_ptr<plat::Object> Waitable(HANDLE handle)
{
    std::shared_ptr<plat::Object> obj;
    if (handle == kernel::kCurrentThreadPseudo)
        obj = kernel::CurrentThreadObject();
    else
        obj = plat::FindHandle(reinterpret_cast<uintptr_t>(handle));
    if (!obj || !obj->ClosedByCloseHandle()) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return obj;
}

// Spinning: a thread that enters the critical section it has just left,
// again and again, is polling state another thread must change (the way the
// driver's stop waits for the reader). On Windows time passes while it
// spins; under the virtual clock it would stand still and a thread waiting
// on a time-out would never get on. So after every kSpinsPerMs re-entries
// in a row the spinner waits 1 ms of platform time, or until another thread
// has taken and left the section (the polled state may have changed).
constexpr unsigned kSpinsPerMs = 64;
thread_local const void *t_lastLeft = nullptr;
thread_local unsigned t_spins = 0;

void NoteEntry(plat::Lock &lock, LPCRITICAL_SECTION cs)
{
    if (t_lastLeft != cs) {
        t_spins = 0;
        return;
    }
    t_lastLeft = nullptr;
    if (++t_spins < kSpinsPerMs)
        return;
    t_spins = 0;
    if (PlatIsVirtualClock()) {
        CsImpl *impl = Impl(cs);
        uint64_t seen = impl->releases;
        plat::Wait(
            lock, 1, [impl, seen] { return impl->releases != seen; }, impl);
    }
}

} // namespace

PLAT_INJECTABLE(CreateEventW);
PLAT_INJECTABLE(SetEvent);
PLAT_INJECTABLE(WaitForSingleObject);

extern "C" {

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION cs)
{
    std::memset(cs, 0, sizeof *cs);
    cs->DebugInfo = new CsImpl;
    cs->LockCount = -1;
}

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION cs)
{
    plat::Lock lock = plat::LockWorld();
    delete Impl(cs);
    cs->DebugInfo = nullptr;
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION cs)
{
    DWORD me = plat::CurrentThread().id;
    plat::Lock lock = plat::LockWorld();
    NoteEntry(lock, cs);
    CsImpl *impl = Impl(cs);
    plat::Wait(
        lock, INFINITE, [impl, me] { return impl->owner == 0 || impl->owner == me; }, impl);
    impl->owner = me;
    ++impl->recursion;
    Publish(cs, *impl);
}

BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION cs)
{
    DWORD me = plat::CurrentThread().id;
    plat::Lock lock = plat::LockWorld();
    CsImpl *impl = Impl(cs);
    if (impl->owner != 0 && impl->owner != me)
        return FALSE;
    impl->owner = me;
    ++impl->recursion;
    Publish(cs, *impl);
    return TRUE;
}

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION cs)
{
    DWORD me = plat::CurrentThread().id;
    plat::Lock lock = plat::LockWorld();
    CsImpl *impl = Impl(cs);
    // Leaving a section the thread does not own is a caller bug; Windows
    // corrupts the section, here it is ignored.
    if (impl->owner != me || impl->recursion == 0)
        return;
    if (--impl->recursion == 0) {
        impl->owner = 0;
        ++impl->releases;
        plat::WakeObject(impl, false);
    }
    Publish(cs, *impl);
    t_lastLeft = cs;
}

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCWSTR)
{
    if (PLAT_FAIL(CreateEventW, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    auto event = std::make_shared<Event>(manualReset != FALSE, initialState != FALSE);
    plat::SetError(NO_ERROR);
    return plat::ToHandle<HANDLE>(plat::AddHandle(event));
}

static BOOL SetEventState(HANDLE handle, bool on)
{
    auto event = plat::Find<Event>(handle);
    if (!event) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    plat::Lock lock = plat::LockWorld();
    event->Set(on);
    if (on)
        plat::WakeObject(static_cast<const plat::Object *>(event.get()), true); // the key its waiters use
    return TRUE;
}

BOOL WINAPI SetEvent(HANDLE event)
{
    if (PLAT_FAIL(SetEvent, ERROR_INVALID_HANDLE))
        return FALSE;
    return SetEventState(event, true);
}

BOOL WINAPI ResetEvent(HANDLE event)
{
    return SetEventState(event, false);
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    if (PLAT_FAIL(WaitForSingleObject, ERROR_INVALID_HANDLE))
        return WAIT_FAILED;
    std::shared_ptr<plat::Object> obj = Waitable(handle);
    if (!obj)
        return WAIT_FAILED;
    plat::Lock lock = plat::LockWorld();
    if (!plat::Wait(
            lock, milliseconds, [&obj] { return obj->Signalled(); }, obj.get()))
        return WAIT_TIMEOUT;
    obj->Acquire();
    return WAIT_OBJECT_0;
}

DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD milliseconds)
{
    if (count == 0 || count > 64 || !handles) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    std::vector<std::shared_ptr<plat::Object>> objects;
    for (DWORD i = 0; i < count; ++i) {
        objects.push_back(Waitable(handles[i]));
        if (!objects.back())
            return WAIT_FAILED;
    }
    plat::Lock lock = plat::LockWorld();
    DWORD index = 0;
    auto ready = [&] {
        if (waitAll) {
            for (const auto &obj : objects) {
                if (!obj->Signalled())
                    return false;
            }
            return true;
        }
        for (const auto &obj : objects) {
            if (obj->Signalled())
                return true;
        }
        return false;
    };
    if (!plat::Wait(lock, milliseconds, ready, plat::kAnyHandle))
        return WAIT_TIMEOUT;
    if (waitAll) {
        for (const auto &obj : objects)
            obj->Acquire();
        return WAIT_OBJECT_0;
    }
    while (!objects[index]->Signalled())
        ++index;
    objects[index]->Acquire();
    return WAIT_OBJECT_0 + index;
}

BOOL WINAPI CloseHandle(HANDLE handle)
{
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    std::shared_ptr<plat::Object> obj = plat::FindHandle(value);
    if (!obj || !obj->ClosedByCloseHandle() || !plat::RemoveHandle(value)) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return obj->OnClose() ? TRUE : FALSE;
}

} // extern "C"
