// Virtual kernel devices for POSIX hosts: a simulator registers an object by
// device name ("\\.\SCNR0") and the platform serves CreateFile, ReadFile,
// WriteFile, DeviceIoControl and CloseHandle on it with Windows semantics.
// Each device is opened exclusively, like a kernel device that does not
// share: while a handle to it is open, a second CreateFile fails with
// ERROR_ACCESS_DENIED without reaching the factory. None of this exists on
// Windows; driver code never includes it.
#pragma once

#include "../windows.h"

#include <functional>
#include <memory>
#include <string>

namespace tamrix
{

// One opened device. The platform calls these without any lock of its own
// held, possibly from several threads; each returns ERROR_SUCCESS or the
// Win32 error code the call fails with (the platform sets it as the last
// error). The counts are never null and start at 0.
class WINBASEAPI VirtualDevice
{
public:
    virtual ~VirtualDevice() = default;
    virtual DWORD Read(void *buffer, DWORD size, DWORD *done) = 0;
    virtual DWORD Write(const void *buffer, DWORD size, DWORD *done) = 0;
    // DeviceIoControl. `in` or `out` may be null with any size: the device
    // checks what it was given.
    virtual DWORD Control(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned) = 0;
    // The last handle to this opening was closed.
    virtual void Close() {}
};

// Makes the device for one CreateFile with `access` (GENERIC_READ, ...), or
// returns null after storing the error code in *error.
using VirtualDeviceFactory = std::function<std::shared_ptr<VirtualDevice>(DWORD access, DWORD *error)>;

// Registers a device name, compared without regard to case; "SCNR0" is also
// found as "\\.\SCNR0". A later registration of the same name replaces the
// earlier one.
WINBASEAPI void RegisterVirtualDevice(const std::string &name, VirtualDeviceFactory factory);
WINBASEAPI void UnregisterVirtualDevice(const std::string &name);

} // namespace tamrix
