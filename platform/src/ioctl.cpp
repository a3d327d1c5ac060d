// DeviceIoControl on any file handle, and the virtual kernel devices that
// simulators register by name: each is wrapped into a Stream, opened
// exclusively, and released when its last handle goes.
#include "devices.h"

#include <tamrix/virtual_device.h>

#include <atomic>

namespace plat
{

bool Stream::Control(DWORD, const void *, DWORD, void *, DWORD, DWORD *)
{
    SetError(ERROR_INVALID_FUNCTION);
    return false;
}

namespace
{

// One open handle's worth of a virtual device. `inUse` is shared with the
// registration and held while this opening lives.
class VirtualStream : public Stream
{
public:
    VirtualStream(std::shared_ptr<tamrix::VirtualDevice> device, std::shared_ptr<std::atomic<bool>> inUse)
        : device_(std::move(device)), inUse_(std::move(inUse))
    {
    }
    ~VirtualStream() override { inUse_->store(false); }

    bool Read(void *buffer, DWORD size, DWORD *done) override { return Result(device_->Read(buffer, size, done)); }
    bool Write(const void *buffer, DWORD size, DWORD *done) override
    {
        return Result(device_->Write(buffer, size, done));
    }
    bool Control(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned) override
    {
        return Result(device_->Control(code, in, inSize, out, outSize, returned));
    }
    bool OnClose() override
    {
        device_->Close();
        return true;
    }

private:
    static bool Result(DWORD error)
    {
        SetError(error);
        return error == ERROR_SUCCESS;
    }
    std::shared_ptr<tamrix::VirtualDevice> device_;
    std::shared_ptr<std::atomic<bool>> inUse_;
};

} // namespace

} // namespace plat

using namespace plat;

namespace tamrix
{

void RegisterVirtualDevice(const std::string &name, VirtualDeviceFactory factory)
{
    auto inUse = std::make_shared<std::atomic<bool>>(false);
    RegisterDevice(name, [factory = std::move(factory), inUse](DWORD access, DWORD) -> std::shared_ptr<Stream> {
        bool expected = false;
        if (!inUse->compare_exchange_strong(expected, true)) {
            SetError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        DWORD error = ERROR_GEN_FAILURE;
        std::shared_ptr<VirtualDevice> device = factory(access, &error);
        if (!device) {
            inUse->store(false);
            SetError(error);
            return nullptr;
        }
        return std::make_shared<VirtualStream>(std::move(device), inUse);
    });
}

void UnregisterVirtualDevice(const std::string &name)
{
    UnregisterDevice(name);
}

} // namespace tamrix

PLAT_INJECTABLE(DeviceIoControl);

extern "C" BOOL WINAPI DeviceIoControl(HANDLE device, DWORD code, LPVOID inBuffer, DWORD inSize, LPVOID outBuffer,
                                       DWORD outSize, LPDWORD returned, LPOVERLAPPED)
{
    // Handles here are never opened for overlapped I/O, so every request
    // completes before the call returns.
    if (returned)
        *returned = 0;
    if (PLAT_FAIL(DeviceIoControl, ERROR_GEN_FAILURE))
        return FALSE;
    auto stream = Find<Stream>(device);
    if (!stream) {
        SetError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    DWORD done = 0;
    bool ok = stream->Control(code, inBuffer, inSize, outBuffer, outSize, &done);
    if (returned)
        *returned = done;
    return ok ? TRUE : FALSE;
}
