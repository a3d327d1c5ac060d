// Modules: LoadLibrary and friends over the host's dynamic loader.
//
// An HMODULE is the load base of the ELF object (the address of its first
// mapped page), as a Windows HMODULE is the image base. Windows module names
// map to host files by lower-casing and replacing ".dll" with ".so" (a name
// without extension gets ".so"): "TAMRIX.DLL" is tamrix.so, "GPIBDLL" is
// gpibdll.so. Names without a directory are searched in the main program's
// directory, then $TAMRIX_MODULE_PATH, then PlatSetModuleSearchPath.
#include "core.h"
#include "resources.h"
#include "user.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

PLAT_INJECTABLE(LoadLibraryA);
PLAT_INJECTABLE(LoadLibraryW);
PLAT_INJECTABLE(GetProcAddress);

namespace
{

// Held while a module is loaded through LoadLibrary, so that it shows up in
// the live count of modules.
class LoadedModule : public plat::Object
{
public:
    LoadedModule() : Object(plat::Kind::Module) {}
};

struct ModuleRecord {
    std::string path;                     // host file
    void *dl = nullptr;                   // loader handle while refs > 0
    unsigned refs = 0;                    // LoadLibrary references
    std::shared_ptr<LoadedModule> loaded; // present while refs > 0
};

std::mutex g_moduleMutex;
std::map<uintptr_t, ModuleRecord> g_modules;
std::string g_searchPath;

std::string RealPath(const std::string &path)
{
    char buf[PATH_MAX];
    if (realpath(path.c_str(), buf))
        return buf;
    return path;
}

std::string MainProgramPath()
{
    static const std::string path = RealPath("/proc/self/exe");
    return path;
}

std::string DirName(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseName(const std::string &path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Lower(std::string s)
{
    for (char &c : s)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// "TAMRIX.DLL" -> "tamrix.so", "GPIBDLL" -> "gpibdll.so", "x.so" stays.
std::string HostFileName(const std::string &windowsName)
{
    std::string name = Lower(windowsName);
    size_t dot = name.rfind('.');
    if (dot == std::string::npos)
        return name + ".so";
    std::string ext = name.substr(dot);
    if (ext == ".dll")
        return name.substr(0, dot) + ".so";
    return name;
}

bool IsRegularFile(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void SplitPath(const std::string &list, std::vector<std::string> &out)
{
    size_t start = 0;
    while (start <= list.size()) {
        size_t colon = list.find(':', start);
        if (colon == std::string::npos)
            colon = list.size();
        if (colon > start)
            out.push_back(list.substr(start, colon - start));
        start = colon + 1;
    }
}

// Base of the mapped object containing `address`, with its file name as the
// loader knows it; 0 when no object contains it.
uintptr_t ObjectBase(const void *address, std::string *fileName)
{
    Dl_info info{};
    if (!dladdr(address, &info) || !info.dli_fbase)
        return 0;
    if (fileName)
        *fileName = info.dli_fname ? info.dli_fname : "";
    return reinterpret_cast<uintptr_t>(info.dli_fbase);
}

int FirstObjectCallback(struct dl_phdr_info *info, size_t, void *data)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type == PT_LOAD) {
            *static_cast<uintptr_t *>(data) = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
            return 1;
        }
    }
    return 1;
}

uintptr_t MainBase()
{
    static const uintptr_t base = [] {
        uintptr_t firstLoad = 0;
        dl_iterate_phdr(FirstObjectCallback, &firstLoad); // the main program comes first
        return firstLoad ? ObjectBase(reinterpret_cast<const void *>(firstLoad), nullptr) : 0;
    }();
    return base;
}

// The record of `base`, registered if a mapped object starts there. Called
// with g_moduleMutex held.
ModuleRecord *FindRecordLocked(uintptr_t base)
{
    if (base == 0)
        return nullptr;
    auto it = g_modules.find(base);
    if (it != g_modules.end())
        return &it->second;
    std::string fileName;
    if (ObjectBase(reinterpret_cast<const void *>(base), &fileName) != base)
        return nullptr;
    ModuleRecord rec;
    rec.path = base == MainBase() || fileName.empty() ? MainProgramPath() : RealPath(fileName);
    return &g_modules.emplace(base, std::move(rec)).first->second;
}

std::vector<std::string> Candidates(const std::string &name)
{
    std::vector<std::string> out;
    std::string path = name;
    for (char &c : path)
        if (c == '\\')
            c = '/';
    if (path.find('/') != std::string::npos) {
        out.push_back(path);
        out.push_back(DirName(path) + "/" + HostFileName(BaseName(path)));
        return out;
    }
    std::vector<std::string> dirs{DirName(MainProgramPath())};
    if (const char *env = std::getenv("TAMRIX_MODULE_PATH"))
        SplitPath(env, dirs);
    {
        std::lock_guard<std::mutex> guard(g_moduleMutex);
        SplitPath(g_searchPath, dirs);
    }
    std::string file = HostFileName(path);
    for (const std::string &dir : dirs)
        out.push_back(dir + "/" + file);
    return out;
}

HMODULE Load(const std::string &name)
{
    if (name.empty()) {
        plat::SetError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    bool sawFile = false;
    for (const std::string &candidate : Candidates(name)) {
        if (!IsRegularFile(candidate))
            continue;
        sawFile = true;
        // The module's constructors run inside dlopen and may call back into
        // the platform (PlatModuleFromAddress), so no lock is held here.
        void *dl = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!dl)
            continue;
        struct link_map *map = nullptr;
        uintptr_t base = 0;
        if (dlinfo(dl, RTLD_DI_LINKMAP, &map) == 0 && map)
            base = ObjectBase(map->l_ld, nullptr);
        std::unique_lock<std::mutex> lock(g_moduleMutex);
        ModuleRecord *rec = FindRecordLocked(base);
        if (!rec) {
            lock.unlock();
            dlclose(dl);
            continue;
        }
        if (rec->refs++ == 0) {
            rec->dl = dl;
            rec->loaded = std::make_shared<LoadedModule>();
        } else {
            lock.unlock();
            dlclose(dl); // the record holds one loader reference for all of ours
        }
        return reinterpret_cast<HMODULE>(base);
    }
    plat::SetError(sawFile ? ERROR_BAD_FORMAT : ERROR_MOD_NOT_FOUND);
    return nullptr;
}

uintptr_t ModuleOrMain(HMODULE module)
{
    return module ? reinterpret_cast<uintptr_t>(module) : MainBase();
}

// Counts what of a module about to be unmapped would still run: threads
// started at one of its procedures, timers, windows and hooks calling one.
// On Windows each of these crashes sooner or later; here it is counted
// (PLAT_KIND_STRANDED) so that the tests' leak check reports it.
void CountStrandedCode(uintptr_t base)
{
    auto inModule = [base](const void *address) { return address && ObjectBase(address, nullptr) == base; };
    DWORD me = plat::CurrentThread().id;
    long stranded = 0;
    std::vector<std::shared_ptr<plat::ThreadState>> threads = plat::LiveThreads();
    plat::Lock lock = plat::LockWorld();
    for (auto &thread : threads) {
        if (thread->id != me && !thread->ending && inModule(thread->start))
            ++stranded;
        if (thread->queue) {
            for (auto &timer : thread->queue->timers)
                if (inModule(reinterpret_cast<const void *>(timer->proc)))
                    ++stranded;
        }
    }
    for (auto &entry : plat::User().windows)
        if (inModule(reinterpret_cast<const void *>(entry.second->proc)))
            ++stranded;
    for (auto &hook : plat::User().hooks)
        if (!hook->removed && inModule(reinterpret_cast<const void *>(hook->proc)))
            ++stranded;
    if (stranded != 0)
        plat::CountStranded(stranded);
}

} // namespace

namespace plat
{

HMODULE MainModule()
{
    return reinterpret_cast<HMODULE>(MainBase());
}

std::string ModulePath(HMODULE module)
{
    std::lock_guard<std::mutex> guard(g_moduleMutex);
    ModuleRecord *rec = FindRecordLocked(ModuleOrMain(module));
    return rec ? rec->path : std::string();
}

bool IsModule(HMODULE module)
{
    std::lock_guard<std::mutex> guard(g_moduleMutex);
    return FindRecordLocked(ModuleOrMain(module)) != nullptr;
}

} // namespace plat

namespace
{
struct NameSearch {
    std::string hostName;
    std::string plainName;
    uintptr_t firstLoad = 0;
};

int NameSearchCallback(struct dl_phdr_info *info, size_t, void *data)
{
    auto *search = static_cast<NameSearch *>(data);
    if (!info->dlpi_name || !*info->dlpi_name)
        return 0;
    std::string base = Lower(BaseName(info->dlpi_name));
    if (base != search->hostName && base != search->plainName)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type == PT_LOAD) {
            search->firstLoad = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
            return 1;
        }
    }
    return 0;
}
} // namespace

extern "C" {

HMODULE PlatModuleFromAddress(const void *address)
{
    uintptr_t base = ObjectBase(address, nullptr);
    std::lock_guard<std::mutex> guard(g_moduleMutex);
    return FindRecordLocked(base) ? reinterpret_cast<HMODULE>(base) : nullptr;
}

void PlatSetModuleSearchPath(const char *paths)
{
    std::lock_guard<std::mutex> guard(g_moduleMutex);
    g_searchPath = paths ? paths : "";
}

HMODULE WINAPI LoadLibraryA(LPCSTR fileName)
{
    if (PLAT_FAIL(LoadLibraryA, ERROR_MOD_NOT_FOUND))
        return nullptr;
    if (!fileName) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Load(fileName);
}

HMODULE WINAPI LoadLibraryW(LPCWSTR fileName)
{
    if (PLAT_FAIL(LoadLibraryW, ERROR_MOD_NOT_FOUND))
        return nullptr;
    if (!fileName) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Load(plat::ToUtf8(fileName));
}

BOOL WINAPI FreeLibrary(HMODULE module)
{
    uintptr_t base = reinterpret_cast<uintptr_t>(module);
    void *dl = nullptr;
    std::shared_ptr<LoadedModule> loaded;
    {
        std::lock_guard<std::mutex> guard(g_moduleMutex);
        ModuleRecord *rec = FindRecordLocked(base);
        if (!rec) {
            plat::SetError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        if (rec->refs == 0 || --rec->refs > 0)
            return TRUE;
        dl = rec->dl;
        rec->dl = nullptr;
        loaded = std::move(rec->loaded);
        g_modules.erase(base);
    }
    CountStrandedCode(base);
    plat::DropModuleResources(module);
    // The module's destructors run inside dlclose and may call the platform.
    dlclose(dl);
    loaded.reset();
    return TRUE;
}

FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR procName)
{
    if (PLAT_FAIL(GetProcAddress, ERROR_PROC_NOT_FOUND))
        return nullptr;
    uintptr_t base = ModuleOrMain(module);
    std::string path;
    void *dl = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_moduleMutex);
        ModuleRecord *rec = FindRecordLocked(base);
        if (!rec) {
            plat::SetError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        path = rec->path;
        dl = rec->dl;
    }
    if (!procName || IS_INTRESOURCE(procName)) {
        plat::SetError(ERROR_PROC_NOT_FOUND); // no export ordinals on this host
        return nullptr;
    }
    bool borrowed = false;
    if (!dl) {
        dl = base == MainBase() ? dlopen(nullptr, RTLD_NOW) : dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
        borrowed = true;
    }
    void *sym = dl ? dlsym(dl, procName) : nullptr;
    if (borrowed && dl)
        dlclose(dl);
    // dlsym also searches the object's dependencies; Windows looks only at
    // the module's own exports.
    if (!sym || ObjectBase(sym, nullptr) != base) {
        plat::SetError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return reinterpret_cast<FARPROC>(sym);
}

HMODULE WINAPI GetModuleHandleW(LPCWSTR moduleName)
{
    if (!moduleName)
        return plat::MainModule();
    std::string name = plat::ToUtf8(moduleName);
    for (char &c : name)
        if (c == '\\')
            c = '/';
    NameSearch search;
    search.plainName = Lower(BaseName(name));
    search.hostName = HostFileName(search.plainName);
    dl_iterate_phdr(NameSearchCallback, &search);
    uintptr_t base = search.firstLoad ? ObjectBase(reinterpret_cast<const void *>(search.firstLoad), nullptr) : 0;
    if (base == 0) {
        plat::SetError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(g_moduleMutex);
    FindRecordLocked(base);
    return reinterpret_cast<HMODULE>(base);
}

DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR fileName, DWORD size)
{
    if (!plat::IsModule(module)) {
        plat::SetError(ERROR_MOD_NOT_FOUND);
        return 0;
    }
    std::u16string path = plat::ToUtf16(plat::ModulePath(module));
    if (!fileName || size == 0) {
        plat::SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (path.size() < size) {
        path.copy(reinterpret_cast<char16_t *>(fileName), path.size());
        fileName[path.size()] = 0;
        return static_cast<DWORD>(path.size());
    }
    // Truncated to size - 1 characters and a NUL; the result is the size.
    path.copy(reinterpret_cast<char16_t *>(fileName), size - 1);
    fileName[size - 1] = 0;
    plat::SetError(ERROR_INSUFFICIENT_BUFFER);
    return size;
}

} // extern "C"
