// Installable drivers: OpenDriver, SendDriverMessage, CloseDriver,
// DefDriverProc and GetDriverModuleHandle.
//
// A driver module is loaded once, whatever the number of its open
// instances: the first open loads it and sends DRV_LOAD then DRV_ENABLE;
// when its last instance is closed it receives DRV_DISABLE then DRV_FREE
// and is unloaded. Each instance is identified to the driver by the value
// its DRV_OPEN returned.
#include "core.h"
#include "winmm.h"

#include <windows.h>
#include <mmddk.h>

#include <atomic>
#include <map>
#include <mutex>

namespace
{

struct DriverModule {
    HMODULE module = nullptr;
    DRIVERPROC proc = nullptr;
    int instances = 0;
};

class DriverInstance : public plat::Object
{
public:
    DriverInstance() : plat::Object(plat::Kind::Uncounted) {}
    std::u16string key; // folded module name
    std::shared_ptr<DriverModule> module;
    DWORD_PTR driverId = 0;
};

// Serialises loading and unloading. Held while the driver is called for the
// loader messages, so recursive: a driver may open another driver there.
std::recursive_mutex &LoaderMutex()
{
    static std::recursive_mutex m;
    return m;
}

std::map<std::u16string, std::shared_ptr<DriverModule>> &Modules()
{
    static std::map<std::u16string, std::shared_ptr<DriverModule>> m;
    return m;
}

std::u16string FoldString(const std::u16string &s)
{
    std::u16string r = s;
    for (auto &c : r)
        c = mm::Fold(c);
    return r;
}

std::atomic<mm::DriverHook> g_hook{nullptr};

LRESULT Call(DRIVERPROC proc, DWORD_PTR id, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    LRESULT result = 0;
    if (mm::DriverHook hook = g_hook.load(); hook && hook(driver, msg, param1, param2, result))
        return result;
    return proc(id, driver, msg, param1, param2);
}

std::shared_ptr<DriverInstance> FindInstance(HDRVR driver)
{
    return plat::Find<DriverInstance>(driver);
}

// Sends the unload messages and frees the module of its last instance.
void ReleaseModule(const std::u16string &key, const std::shared_ptr<DriverModule> &mod, HDRVR driver)
{
    if (--mod->instances > 0)
        return;
    Call(mod->proc, 0, driver, DRV_DISABLE, 0, 0);
    Call(mod->proc, 0, driver, DRV_FREE, 0, 0);
    Modules().erase(key);
    FreeLibrary(mod->module);
}

} // namespace

namespace mm
{

void SetDriverHook(DriverHook hook)
{
    g_hook.store(hook);
}

HDRVR OpenDriverModule(const std::u16string &moduleName, LPARAM param1, LPARAM param2, bool *loadFailed)
{
    std::lock_guard<std::recursive_mutex> guard(LoaderMutex());
    if (loadFailed)
        *loadFailed = false;
    const std::u16string key = FoldString(moduleName);
    auto inst = std::make_shared<DriverInstance>();
    HDRVR handle = plat::ToHandle<HDRVR>(plat::AddHandle(inst));
    inst->key = key;

    std::shared_ptr<DriverModule> mod;
    auto it = Modules().find(key);
    if (it != Modules().end()) {
        mod = it->second;
        mod->instances++;
    } else {
        HMODULE module = LoadLibraryW(moduleName.c_str());
        DRIVERPROC proc =
            module ? reinterpret_cast<DRIVERPROC>(reinterpret_cast<void *>(GetProcAddress(module, "DriverProc")))
                   : nullptr;
        if (!proc) {
            if (module)
                FreeLibrary(module);
            plat::RemoveHandle(reinterpret_cast<uintptr_t>(handle));
            if (loadFailed)
                *loadFailed = true;
            return nullptr;
        }
        mod = std::make_shared<DriverModule>();
        mod->module = module;
        mod->proc = proc;
        mod->instances = 1;
        if (Call(proc, 0, handle, DRV_LOAD, 0, 0) == 0) {
            FreeLibrary(module);
            plat::RemoveHandle(reinterpret_cast<uintptr_t>(handle));
            if (loadFailed)
                *loadFailed = true;
            return nullptr;
        }
        Call(proc, 0, handle, DRV_ENABLE, 0, 0);
        Modules()[key] = mod;
    }
    inst->module = mod;
    LRESULT id = Call(mod->proc, 0, handle, DRV_OPEN, param1, param2);
    if (id == 0) {
        ReleaseModule(key, mod, handle);
        plat::RemoveHandle(reinterpret_cast<uintptr_t>(handle));
        return nullptr;
    }
    inst->driverId = static_cast<DWORD_PTR>(id);
    return handle;
}

} // namespace mm

extern "C" {

HDRVR WINAPI OpenDriver(LPCWSTR driverName, LPCWSTR sectionName, LPARAM param2)
{
    if (!driverName || !*driverName)
        return nullptr;
    // The name is a key of the section (Drivers32 by default) whose value is
    // the module file followed by its parameters; a name that is no key is
    // taken as the module file itself.
    WCHAR value[512] = {};
    GetPrivateProfileStringW(sectionName ? sectionName : TEXT("Drivers32"), driverName, TEXT(""), value, 512,
                             TEXT("system.ini"));
    std::u16string module = driverName;
    std::u16string params;
    if (value[0]) {
        std::u16string v = value;
        size_t end = v.find_first_of(u" \t");
        module = v.substr(0, end);
        if (end != std::u16string::npos) {
            size_t start = v.find_first_not_of(u" \t", end);
            if (start != std::u16string::npos)
                params = v.substr(start);
        }
    }
    return mm::OpenDriverModule(module, reinterpret_cast<LPARAM>(params.c_str()), param2, nullptr);
}

LRESULT WINAPI SendDriverMessage(HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    auto inst = FindInstance(driver);
    if (!inst)
        return 0;
    return Call(inst->module->proc, inst->driverId, driver, msg, param1, param2);
}

LRESULT WINAPI CloseDriver(HDRVR driver, LPARAM param1, LPARAM param2)
{
    std::lock_guard<std::recursive_mutex> guard(LoaderMutex());
    auto inst = FindInstance(driver);
    if (!inst)
        return 0;
    LRESULT result = Call(inst->module->proc, inst->driverId, driver, DRV_CLOSE, param1, param2);
    ReleaseModule(inst->key, inst->module, driver);
    plat::RemoveHandle(reinterpret_cast<uintptr_t>(driver));
    return result;
}

HMODULE WINAPI GetDriverModuleHandle(HDRVR driver)
{
    auto inst = FindInstance(driver);
    return inst ? inst->module->module : nullptr;
}

LRESULT WINAPI DefDriverProc(DWORD_PTR driverId, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2)
{
    (void)driverId;
    (void)driver;
    (void)param1;
    (void)param2;
    switch (msg) {
    case DRV_LOAD:
    case DRV_FREE:
    case DRV_ENABLE:
    case DRV_DISABLE:
        return 1;
    case DRV_INSTALL:
    case DRV_REMOVE:
        return DRVCNF_OK;
    default:
        return 0;
    }
}

} // extern "C"
