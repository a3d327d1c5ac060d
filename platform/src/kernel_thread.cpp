// KERNEL32 threads and time: CreateThread on pthreads, cooperative
// TerminateThread, exit codes, suspension, Sleep.
#include "core.h"
#include "kernel.h"

#include <pthread.h>
#include <unistd.h>

#include <thread>

namespace
{

class ThreadObject : public plat::Object
{
public:
    ThreadObject() : Object(plat::Kind::Thread) {}
    bool Signalled() const override { return finished; }

    // All guarded by the world lock. `state` is dropped when the thread ends.
    std::shared_ptr<plat::ThreadState> state;
    bool finished = false;
    DWORD exitCode = STILL_ACTIVE;
    DWORD suspendCount = 0;
};

struct StartRecord {
    std::shared_ptr<ThreadObject> object;
    LPTHREAD_START_ROUTINE start;
    LPVOID param;
};

thread_local std::weak_ptr<ThreadObject> t_self;

// Ends a platform thread: runs in the start frame when the routine returns
// and when the thread is unwound by ExitThread or TerminateThread.
void FinishThread(StartRecord *record)
{
    plat::RunThreadExitHandlers();
    std::shared_ptr<ThreadObject> object = std::move(record->object);
    delete record;
    std::shared_ptr<plat::ThreadState> state;
    {
        // One step: signalled and no longer running, so that the virtual
        // clock never sees the thread gone but its handle unsignalled.
        plat::Lock lock = plat::LockWorld();
        state = std::move(object->state);
        object->exitCode = state->exitCode;
        object->finished = true;
        // Released before waiters look: a waiter that closes the handle
        // then finds no live thread object.
        object.reset();
        plat::ForgetThreadLocked(state);
    }
}

void *ThreadMain(void *param)
{
    auto *record = static_cast<StartRecord *>(param);
    struct Finisher {
        StartRecord *record;
        ~Finisher() { FinishThread(record); }
    } finisher{record};
    std::shared_ptr<ThreadObject> object = record->object;
    plat::AttachCurrentThread(object->state);
    t_self = object;
    {
        plat::Lock lock = plat::LockWorld();
        ThreadObject *raw = object.get();
        object.reset();
        plat::Wait(lock, INFINITE, [raw] { return raw->suspendCount == 0; });
    }
    DWORD code = record->start(record->param);
    plat::CurrentThread().exitCode = code;
    return nullptr;
}

std::shared_ptr<ThreadObject> FindThread(HANDLE handle)
{
    std::shared_ptr<ThreadObject> object =
        handle == kernel::kCurrentThreadPseudo ? t_self.lock() : plat::Find<ThreadObject>(handle);
    if (!object)
        plat::SetError(ERROR_INVALID_HANDLE);
    return object;
}

constexpr size_t kMinStack = 1024 * 1024;

} // namespace

std::shared_ptr<plat::Object> kernel::CurrentThreadObject()
{
    return t_self.lock();
}

PLAT_INJECTABLE(CreateThread);
PLAT_INJECTABLE(GetExitCodeThread);
PLAT_INJECTABLE(TerminateThread);

extern "C" {

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stackSize, LPTHREAD_START_ROUTINE start, LPVOID param,
                           DWORD flags, LPDWORD threadId)
{
    if (PLAT_FAIL(CreateThread, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (!start) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // The creator counts as running from here on, even if it has never
    // waited on anything: otherwise the new thread's first timed wait could
    // run the virtual clock out before the creator gets to look at it.
    plat::CurrentThread();
    auto object = std::make_shared<ThreadObject>();
    object->state = plat::RegisterNewThread();
    object->state->start = reinterpret_cast<const void *>(start);
    object->suspendCount = (flags & CREATE_SUSPENDED) ? 1 : 0;
    DWORD id = object->state->id;
    uintptr_t handle = plat::AddHandle(object);
    object->state->handle = handle;

    // The stack sizes the driver asks for are tiny; they mean "default".
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t stack = std::max<size_t>(stackSize, kMinStack);
    stack = (stack + page - 1) / page * page;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stack);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto *record = new StartRecord{object, start, param};
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, ThreadMain, record);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete record;
        plat::ForgetThread(object->state);
        plat::RemoveHandle(handle);
        plat::SetError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (threadId)
        *threadId = id;
    return plat::ToHandle<HANDLE>(handle);
}

void WINAPI ExitThread(DWORD exitCode)
{
    plat::ThreadState &me = plat::CurrentThread();
    {
        plat::Lock lock = plat::LockWorld();
        me.exitCode = exitCode;
        me.terminateRequested = false;
    }
    plat::EndCurrentThread();
}

BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode)
{
    if (PLAT_FAIL(GetExitCodeThread, ERROR_INVALID_HANDLE))
        return FALSE;
    if (thread == kernel::kCurrentThreadPseudo) {
        *exitCode = STILL_ACTIVE;
        return TRUE;
    }
    std::shared_ptr<ThreadObject> object = FindThread(thread);
    if (!object)
        return FALSE;
    plat::Lock lock = plat::LockWorld();
    *exitCode = object->exitCode;
    return TRUE;
}

BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode)
{
    if (PLAT_FAIL(TerminateThread, ERROR_ACCESS_DENIED))
        return FALSE;
    if (thread == kernel::kCurrentThreadPseudo)
        ExitThread(exitCode);
    std::shared_ptr<ThreadObject> object = FindThread(thread);
    if (!object)
        return FALSE;
    {
        plat::Lock lock = plat::LockWorld();
        if (object->finished)
            return TRUE;
        if (object->state->id != plat::CurrentThread().id) {
            // The thread ends at its next wait (every blocking call waits).
            // As on Windows, it runs no more of its code once this returns:
            // the caller may unload the module the thread was running in.
            object->state->terminateCode = exitCode;
            object->state->terminateRequested = true;
            plat::WakeAll();
            if (object->suspendCount == 0)
                plat::Wait(lock, INFINITE, [&object] { return object->finished; });
            return TRUE;
        }
    }
    ExitThread(exitCode);
}

DWORD WINAPI GetCurrentThreadId(void)
{
    return plat::CurrentThread().id;
}

HANDLE WINAPI GetCurrentThread(void)
{
    return kernel::kCurrentThreadPseudo;
}

DWORD WINAPI ResumeThread(HANDLE thread)
{
    std::shared_ptr<ThreadObject> object = FindThread(thread);
    if (!object)
        return static_cast<DWORD>(-1);
    plat::Lock lock = plat::LockWorld();
    DWORD previous = object->suspendCount;
    if (previous > 0 && --object->suspendCount == 0)
        plat::WakeAll();
    return previous;
}

BOOL WINAPI SetThreadPriority(HANDLE thread, int priority)
{
    if (thread != kernel::kCurrentThreadPseudo && !FindThread(thread))
        return FALSE;
    if (priority < -15 || priority > 15) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // Priorities are not modelled; every platform thread runs alike.
    return TRUE;
}

void WINAPI Sleep(DWORD milliseconds)
{
    {
        plat::Lock lock = plat::LockWorld();
        plat::Wait(lock, milliseconds, [] { return false; });
    }
    if (milliseconds == 0)
        std::this_thread::yield();
}

} // extern "C"
