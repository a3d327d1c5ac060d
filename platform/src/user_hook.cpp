// Windows hooks (WH_GETMESSAGE): installation for one thread or all
// threads, the chain run by GetMessageW/PeekMessageW, and CallNextHookEx.
#include <windows.h>

#include "user.h"

#include <algorithm>

PLAT_INJECTABLE(SetWindowsHookExW);

namespace plat
{
namespace
{

// The chain being run on this thread; CallNextHookEx moves along it. Nested
// runs (a hook procedure that itself peeks at messages) stack up.
struct ChainRun {
    std::vector<std::shared_ptr<Hook>> hooks;
    size_t next = 0;
};
thread_local std::vector<ChainRun *> t_chains;

LRESULT CallFrom(ChainRun &run, int code, WPARAM wParam, LPARAM lParam)
{
    while (run.next < run.hooks.size()) {
        auto &hook = run.hooks[run.next++];
        bool live;
        {
            auto lock = LockWorld();
            live = !hook->removed;
        }
        if (live)
            return hook->proc(code, wParam, lParam);
    }
    return 0;
}

} // namespace

void RunGetMessageHooks(MSG *msg, UINT removeFlag)
{
    DWORD me = CurrentThread().id;
    ChainRun run;
    {
        auto lock = LockWorld();
        for (auto &h : User().hooks) {
            if (h->type == WH_GETMESSAGE && !h->removed && (h->threadFilter == 0 || h->threadFilter == me))
                run.hooks.push_back(h);
        }
    }
    if (run.hooks.empty())
        return;
    struct Push {
        ChainRun *run;
        explicit Push(ChainRun *r) : run(r) { t_chains.push_back(r); }
        ~Push() { t_chains.pop_back(); }
    } push(&run);
    CallFrom(run, HC_ACTION, removeFlag, reinterpret_cast<LPARAM>(msg));
}

std::vector<HHOOK> RemoveThreadHooks(DWORD threadId)
{
    std::vector<HHOOK> removed;
    auto &hooks = User().hooks;
    for (auto it = hooks.begin(); it != hooks.end();) {
        if ((*it)->installer == threadId) {
            (*it)->removed = true;
            removed.push_back((*it)->handle);
            it = hooks.erase(it);
        } else {
            ++it;
        }
    }
    return removed;
}

} // namespace plat

using namespace plat;

extern "C" HHOOK WINAPI SetWindowsHookExW(int idHook, HOOKPROC proc, HINSTANCE module, DWORD threadId)
{
    if (PLAT_FAIL(SetWindowsHookExW, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (idHook != WH_GETMESSAGE) {
        SetError(ERROR_INVALID_HOOK_FILTER);
        return nullptr;
    }
    if (proc == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (threadId == 0 && module == nullptr) {
        SetError(ERROR_HOOK_NEEDS_HMOD);
        return nullptr;
    }
    if (threadId != 0 && !ThreadById(threadId)) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    CurrentQueue(); // the hook goes when the installing thread ends
    auto hook = std::make_shared<Hook>();
    hook->type = idHook;
    hook->proc = proc;
    hook->threadFilter = threadId;
    hook->installer = CurrentThread().id;
    uintptr_t handle = AddHandle(hook);
    auto lock = LockWorld();
    hook->handle = ToHandle<HHOOK>(handle);
    User().hooks.insert(User().hooks.begin(), hook);
    return hook->handle;
}

extern "C" BOOL WINAPI UnhookWindowsHookEx(HHOOK hook)
{
    {
        auto lock = LockWorld();
        auto &hooks = User().hooks;
        auto it = std::find_if(hooks.begin(), hooks.end(), [&](auto &h) { return h->handle == hook; });
        if (it == hooks.end()) {
            SetError(ERROR_INVALID_HOOK_HANDLE);
            return FALSE;
        }
        (*it)->removed = true;
        hooks.erase(it);
    }
    RemoveHandle(reinterpret_cast<uintptr_t>(hook));
    return TRUE;
}

extern "C" LRESULT WINAPI CallNextHookEx(HHOOK hook, int code, WPARAM wParam, LPARAM lParam)
{
    (void)hook; // as on Windows, the chain position is the calling thread's
    if (t_chains.empty())
        return 0;
    return CallFrom(*t_chains.back(), code, wParam, lParam);
}
