// MCI devices: open and close through the installable-driver interface,
// command messages and command strings, command tables, notification,
// yield procedures, driver data and error texts.
//
// Opening a device of type T: system.ini [MCI32] T names the driver module
// (first word) and its parameters (the rest, possibly empty). The device
// gets the lowest free device id; the driver's DRV_OPEN receives an
// MCI_OPEN_DRIVER_PARMS with that id and the parameters and fills in its
// custom command table, which is then used for the device's command
// strings. MCI_OPEN_DRIVER completes the open; when it fails the driver
// instance is closed again. Closing sends MCI_CLOSE_DRIVER, then DRV_CLOSE.
#include "core.h"
#include "winmm.h"

#include <windows.h>
#include <mmddk.h>

#include <cstddef>
#include <map>
#include <mutex>

namespace
{

struct Device {
    UINT id = 0;
    std::u16string name; // alias, element or type: how command strings name it
    std::u16string params;
    std::u16string moduleName;
    HDRVR driver = nullptr;
    HMODULE module = nullptr;
    UINT table = MCI_NO_COMMAND_TABLE;
    bool open = false; // MCI_OPEN_DRIVER has succeeded
    YIELDPROC yield = nullptr;
    DWORD yieldData = 0;
    DWORD_PTR data = 0;
};

struct State {
    std::mutex lock;
    std::map<UINT, std::shared_ptr<Device>> devices;
    std::map<UINT, std::vector<BYTE>> tables;
    UINT nextTable = 1;
    // Module of the last driver that returned one of its own error codes,
    // for the error text once the device is gone.
    std::u16string lastCustomModule;
};

State &S()
{
    static State s;
    return s;
}

std::shared_ptr<Device> FindDevice(UINT id)
{
    std::lock_guard<std::mutex> g(S().lock);
    auto it = S().devices.find(id);
    return it == S().devices.end() ? nullptr : it->second;
}

std::shared_ptr<Device> FindDeviceByName(const std::u16string &name)
{
    std::lock_guard<std::mutex> g(S().lock);
    for (auto &[id, dev] : S().devices)
        if (mm::EqualNoCase(dev->name, name))
            return dev;
    return nullptr;
}

void RemoveDevice(UINT id)
{
    std::lock_guard<std::mutex> g(S().lock);
    S().devices.erase(id);
}

// The application's view of a driver result: 0 on success, else the error
// code, with the device id in the high word for the driver's own codes.
DWORD AppResult(const Device &dev, DWORD result)
{
    DWORD code = LOWORD(result);
    if (code == 0)
        return 0;
    if (code >= MCIERR_CUSTOM_DRIVER_BASE) {
        std::lock_guard<std::mutex> g(S().lock);
        S().lastCustomModule = dev.moduleName;
        return MAKELONG(code, dev.id);
    }
    return code;
}

DWORD Send(const Device &dev, UINT msg, DWORD_PTR flags, DWORD_PTR params)
{
    return static_cast<DWORD>(
        SendDriverMessage(dev.driver, msg, static_cast<LPARAM>(flags), static_cast<LPARAM>(params)));
}

// Loads the driver of `type` and opens an instance for a new device.
DWORD OpenInstance(const std::u16string &type, std::shared_ptr<Device> &out)
{
    WCHAR value[512] = {};
    GetPrivateProfileStringW(TEXT("MCI32"), type.c_str(), TEXT(""), value, 512, TEXT("system.ini"));
    std::u16string v = value;
    size_t start = v.find_first_not_of(u" \t");
    if (start == std::u16string::npos)
        return MCIERR_DEVICE_NOT_INSTALLED;
    size_t end = v.find_first_of(u" \t", start);
    auto dev = std::make_shared<Device>();
    dev->moduleName = v.substr(start, end == std::u16string::npos ? std::u16string::npos : end - start);
    if (end != std::u16string::npos) {
        size_t p = v.find_first_not_of(u" \t", end);
        if (p != std::u16string::npos)
            dev->params = v.substr(p);
    }
    {
        std::lock_guard<std::mutex> g(S().lock);
        UINT id = 1;
        while (S().devices.count(id))
            id++;
        dev->id = id;
        S().devices[id] = dev;
    }
    MCI_OPEN_DRIVER_PARMSW op{};
    op.wDeviceID = dev->id;
    op.lpstrParams = dev->params.c_str();
    op.wCustomCommandTable = MCI_NO_COMMAND_TABLE;
    HDRVR driver = mm::OpenDriverModule(dev->moduleName, reinterpret_cast<LPARAM>(dev->params.c_str()),
                                        reinterpret_cast<LPARAM>(&op), nullptr);
    if (!driver) {
        RemoveDevice(dev->id);
        return MCIERR_CANNOT_LOAD_DRIVER;
    }
    dev->driver = driver;
    dev->module = GetDriverModuleHandle(driver);
    dev->table = op.wCustomCommandTable;
    out = dev;
    return 0;
}

void CloseInstance(const Device &dev)
{
    CloseDriver(dev.driver, 0, 0);
    RemoveDevice(dev.id);
}

// Names the device and sends MCI_OPEN_DRIVER; closes the instance again
// when that fails. Returns the application's result.
DWORD CompleteOpen(const std::shared_ptr<Device> &dev, const std::u16string &name, bool aliased, DWORD_PTR flags,
                   MCI_OPEN_PARMSW *parms)
{
    if (auto other = FindDeviceByName(name); other && other != dev) {
        CloseInstance(*dev);
        return aliased ? MCIERR_DUPLICATE_ALIAS : MCIERR_DEVICE_OPEN;
    }
    dev->name = name;
    parms->wDeviceID = dev->id;
    DWORD result = Send(*dev, MCI_OPEN_DRIVER, flags, reinterpret_cast<DWORD_PTR>(parms));
    if (LOWORD(result) != 0) {
        DWORD app = AppResult(*dev, result);
        CloseInstance(*dev);
        return app;
    }
    dev->open = true;
    return 0;
}

DWORD CloseDevice(const std::shared_ptr<Device> &dev, DWORD_PTR flags, DWORD_PTR params)
{
    DWORD result = Send(*dev, MCI_CLOSE_DRIVER, flags, params);
    DWORD app = AppResult(*dev, result);
    CloseInstance(*dev);
    return app;
}

DWORD OpenByMessage(DWORD_PTR flags, MCI_OPEN_PARMSW *parms)
{
    if (!parms)
        return MCIERR_NULL_PARAMETER_BLOCK;
    if ((flags & MCI_OPEN_TYPE_ID) || !(flags & MCI_OPEN_TYPE) || !parms->lpstrDeviceType)
        return (flags & MCI_OPEN_ELEMENT) ? MCIERR_EXTENSION_NOT_FOUND : MCIERR_MISSING_DEVICE_NAME;
    std::u16string type = parms->lpstrDeviceType;
    std::u16string name = type;
    bool aliased = false;
    if ((flags & MCI_OPEN_ALIAS) && parms->lpstrAlias) {
        name = parms->lpstrAlias;
        aliased = true;
    } else if ((flags & MCI_OPEN_ELEMENT) && parms->lpstrElementName) {
        name = parms->lpstrElementName;
    }
    std::shared_ptr<Device> dev;
    if (DWORD err = OpenInstance(type, dev))
        return err;
    return CompleteOpen(dev, name, aliased, flags, parms);
}

// Splits the first word (or quoted string) off `s`.
std::u16string NextWord(const std::u16string &s, size_t &pos)
{
    while (pos < s.size() && (s[pos] == u' ' || s[pos] == u'\t'))
        pos++;
    if (pos >= s.size())
        return {};
    if (s[pos] == u'"') {
        size_t close = s.find(u'"', pos + 1);
        if (close == std::u16string::npos)
            close = s.size();
        std::u16string w = s.substr(pos + 1, close - pos - 1);
        pos = close < s.size() ? close + 1 : close;
        return w;
    }
    size_t start = pos;
    while (pos < s.size() && s[pos] != u' ' && s[pos] != u'\t')
        pos++;
    return s.substr(start, pos - start);
}

DWORD OpenByString(const std::u16string &device, const std::u16string &rest, LPWSTR ret, UINT len, HWND callback)
{
    // The device word is the type, or with "type T" the element; "T!element"
    // names both.
    std::u16string type = device, element;
    size_t pos = 0;
    for (std::u16string w = NextWord(rest, pos); !w.empty(); w = NextWord(rest, pos))
        if (mm::EqualNoCase(w, u"type")) {
            type = NextWord(rest, pos);
            element = device;
            break;
        }
    if (element.empty()) {
        size_t bang = device.find(u'!');
        if (bang != std::u16string::npos) {
            type = device.substr(0, bang);
            element = device.substr(bang + 1);
        }
    }
    std::shared_ptr<Device> dev;
    if (DWORD err = OpenInstance(type, dev))
        return err;
    mm::Parsed parsed;
    DWORD err = mm::ParseCommand(mm::TableBytes(dev->table), u"open", rest, callback, ret, len, parsed);
    if (!err && parsed.message != MCI_OPEN)
        err = MCIERR_UNRECOGNIZED_COMMAND;
    if (err) {
        CloseInstance(*dev);
        return err;
    }
    auto *parms = reinterpret_cast<MCI_OPEN_PARMSW *>(parsed.block);
    DWORD flags = parsed.flags;
    if (!(flags & MCI_OPEN_TYPE)) {
        flags |= MCI_OPEN_TYPE;
        parms->lpstrDeviceType = type.c_str();
    }
    if (!element.empty() && !(flags & MCI_OPEN_ELEMENT)) {
        flags |= MCI_OPEN_ELEMENT;
        parms->lpstrElementName = element.c_str();
    }
    std::u16string name = device;
    bool aliased = false;
    if ((flags & MCI_OPEN_ALIAS) && parms->lpstrAlias) {
        name = parms->lpstrAlias;
        aliased = true;
    } else if (!element.empty()) {
        name = element;
    }
    if (DWORD e = CompleteOpen(dev, name, aliased, flags, parms))
        return e;
    return mm::FormatReturn(parsed, 0, dev->module, ret, len);
}

} // namespace

namespace mm
{

std::vector<BYTE> TableBytes(UINT id)
{
    std::lock_guard<std::mutex> g(S().lock);
    auto it = S().tables.find(id);
    return it == S().tables.end() ? std::vector<BYTE>{} : it->second;
}

} // namespace mm

extern "C" {

MCIERROR WINAPI mciSendCommandW(MCIDEVICEID deviceId, UINT msg, DWORD_PTR param1, DWORD_PTR param2)
{
    if (msg == MCI_OPEN)
        return OpenByMessage(param1, reinterpret_cast<MCI_OPEN_PARMSW *>(param2));
    auto dev = FindDevice(deviceId);
    if (!dev || !dev->open)
        return MCIERR_INVALID_DEVICE_ID;
    if (msg == MCI_CLOSE)
        return CloseDevice(dev, param1, param2);
    return AppResult(*dev, Send(*dev, msg, param1, param2));
}

MCIERROR WINAPI mciSendStringW(LPCWSTR command, LPWSTR returnString, UINT returnLength, HWND callback)
{
    if (returnString && returnLength)
        returnString[0] = 0;
    if (!command)
        return MCIERR_MISSING_COMMAND_STRING;
    std::u16string text = command;
    size_t pos = 0;
    std::u16string verb = NextWord(text, pos);
    if (verb.empty())
        return MCIERR_MISSING_COMMAND_STRING;
    std::u16string device = NextWord(text, pos);
    if (device.empty())
        return MCIERR_MISSING_DEVICE_NAME;
    std::u16string rest = text.substr(pos);
    if (mm::EqualNoCase(verb, u"open"))
        return OpenByString(device, rest, returnString, returnLength, callback);

    auto dev = FindDeviceByName(device);
    if (!dev || !dev->open)
        return MCIERR_INVALID_DEVICE_NAME;
    mm::Parsed parsed;
    if (DWORD err =
            mm::ParseCommand(mm::TableBytes(dev->table), verb, rest, callback, returnString, returnLength, parsed))
        return err;
    DWORD_PTR block = reinterpret_cast<DWORD_PTR>(parsed.block);
    if (parsed.message == MCI_CLOSE)
        return CloseDevice(dev, parsed.flags, block);
    if (parsed.message == MCI_OPEN)
        return MCIERR_DEVICE_OPEN;
    DWORD result = Send(*dev, parsed.message, parsed.flags, block);
    if (DWORD err = AppResult(*dev, result))
        return err;
    return mm::FormatReturn(parsed, result, dev->module, returnString, returnLength);
}

MCIDEVICEID WINAPI mciGetDeviceIDW(LPCWSTR device)
{
    if (!device)
        return 0;
    auto dev = FindDeviceByName(device);
    return dev && dev->open ? dev->id : 0;
}

BOOL WINAPI mciGetErrorStringW(MCIERROR error, LPWSTR buffer, UINT length)
{
    if (!buffer || length == 0)
        return FALSE;
    buffer[0] = 0;
    UINT code = LOWORD(error);
    std::u16string text;
    if (code >= MCIERR_CUSTOM_DRIVER_BASE) {
        // The driver's own codes are string resources of its module: the
        // device named in the high word, else the driver that last
        // returned such a code.
        WCHAR buf[512];
        int n = 0;
        if (auto dev = FindDevice(HIWORD(error)); dev && dev->module) {
            n = LoadStringW(dev->module, code, buf, 512);
        } else {
            std::u16string name;
            {
                std::lock_guard<std::mutex> g(S().lock);
                name = S().lastCustomModule;
            }
            if (!name.empty())
                if (HMODULE m = LoadLibraryW(name.c_str())) {
                    n = LoadStringW(m, code, buf, 512);
                    FreeLibrary(m);
                }
        }
        if (n <= 0)
            return FALSE;
        text.assign(buf, n);
    } else {
        const char16_t *t = mm::ErrorText(code);
        if (!t)
            return FALSE;
        text = t;
    }
    size_t n = std::min<size_t>(text.size(), length - 1);
    text.copy(buffer, n);
    buffer[n] = 0;
    return TRUE;
}

BOOL WINAPI mciSetYieldProc(MCIDEVICEID deviceId, YIELDPROC proc, DWORD yieldData)
{
    auto dev = FindDevice(deviceId);
    if (!dev)
        return FALSE;
    std::lock_guard<std::mutex> g(S().lock);
    dev->yield = proc;
    dev->yieldData = yieldData;
    return TRUE;
}

YIELDPROC WINAPI mciGetYieldProc(MCIDEVICEID deviceId, LPDWORD yieldData)
{
    auto dev = FindDevice(deviceId);
    if (!dev)
        return nullptr;
    std::lock_guard<std::mutex> g(S().lock);
    if (yieldData)
        *yieldData = dev->yieldData;
    return dev->yield;
}

UINT WINAPI mciDriverYield(MCIDEVICEID deviceId)
{
    YIELDPROC proc = nullptr;
    DWORD data = 0;
    if (auto dev = FindDevice(deviceId)) {
        std::lock_guard<std::mutex> g(S().lock);
        proc = dev->yield;
        data = dev->yieldData;
    }
    return proc ? proc(deviceId, data) : 0;
}

BOOL WINAPI mciDriverNotify(HANDLE callback, MCIDEVICEID deviceId, UINT status)
{
    HWND wnd = static_cast<HWND>(callback);
    if (!wnd || !IsWindow(wnd))
        return FALSE;
    return PostMessageW(wnd, MM_MCINOTIFY, status, static_cast<LPARAM>(deviceId));
}

BOOL WINAPI mciSetDriverData(MCIDEVICEID deviceId, DWORD_PTR data)
{
    auto dev = FindDevice(deviceId);
    if (!dev)
        return FALSE;
    std::lock_guard<std::mutex> g(S().lock);
    dev->data = data;
    return TRUE;
}

DWORD_PTR WINAPI mciGetDriverData(MCIDEVICEID deviceId)
{
    auto dev = FindDevice(deviceId);
    if (!dev)
        return 0;
    std::lock_guard<std::mutex> g(S().lock);
    return dev->data;
}

PLAT_INJECTABLE(mciLoadCommandResource);
PLAT_INJECTABLE(mciFreeCommandResource);

UINT WINAPI mciLoadCommandResource(HINSTANCE instance, LPCWSTR resourceName, UINT type)
{
    (void)type;
    if (PLAT_FAIL(mciLoadCommandResource, ERROR_RESOURCE_NAME_NOT_FOUND))
        return MCI_NO_COMMAND_TABLE;
    if (!instance || !resourceName)
        return MCI_NO_COMMAND_TABLE;
    LPCWSTR name = resourceName;
    // "#96" names resource 96.
    if (!IS_INTRESOURCE(resourceName) && resourceName[0] == u'#') {
        UINT n = 0;
        for (LPCWSTR p = resourceName + 1; *p >= u'0' && *p <= u'9'; p++)
            n = n * 10 + (*p - u'0');
        name = MAKEINTRESOURCEW(n);
    }
    HRSRC info = FindResourceW(instance, name, RT_RCDATA);
    HGLOBAL res = info ? LoadResource(instance, info) : nullptr;
    const BYTE *bytes = res ? static_cast<const BYTE *>(LockResource(res)) : nullptr;
    DWORD size = info ? SizeofResource(instance, info) : 0;
    if (!bytes || size == 0)
        return MCI_NO_COMMAND_TABLE;
    std::lock_guard<std::mutex> g(S().lock);
    UINT id = S().nextTable++;
    S().tables[id].assign(bytes, bytes + size);
    return id;
}

BOOL WINAPI mciFreeCommandResource(UINT table)
{
    if (PLAT_FAIL(mciFreeCommandResource, ERROR_INVALID_PARAMETER))
        return FALSE;
    std::lock_guard<std::mutex> g(S().lock);
    return S().tables.erase(table) ? TRUE : FALSE;
}

} // extern "C"
