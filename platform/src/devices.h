// Files and devices behind file handles. CreateFileW opens a host file, or,
// for a registered device name ("\\.\SCNR0", "COM1", ...), asks the device's
// factory for the object. ReadFile, WriteFile and FlushFileBuffers work on any
// Stream; SetFilePointer and GetFileSize on those that implement them.
// CloseHandle removes the handle; the object goes with its last reference and
// releases what it holds in its destructor.
#pragma once

#include "core.h"

#include <functional>
#include <memory>
#include <string>

namespace plat
{

class Stream : public Object
{
public:
    Stream() : Object(Kind::File) {}
    // Each sets the last error and returns false on failure. `done` is never
    // null.
    virtual bool Read(void *buffer, DWORD size, DWORD *done) = 0;
    virtual bool Write(const void *buffer, DWORD size, DWORD *done) = 0;
    virtual bool Flush() { return true; }
    // Moves the position (FILE_BEGIN, FILE_CURRENT, FILE_END); new position
    // in *position. Devices cannot seek.
    virtual bool Seek(int64_t distance, DWORD method, int64_t *position);
    virtual bool Size(uint64_t *size);
    // DeviceIoControl; plain files fail with ERROR_INVALID_FUNCTION.
    // `returned` is never null.
    virtual bool Control(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned);
};

// Makes the object for an opened device, or returns null after setting the
// last error (for instance ERROR_ACCESS_DENIED for a device already in use).
using DeviceFactory = std::function<std::shared_ptr<Stream>(DWORD access, DWORD flags)>;

// Registers a device name, compared without regard to case. A name given
// without the "\\.\" prefix is also found with it ("COM1" and "\\.\COM1").
// A later registration of the same name replaces the earlier one.
void RegisterDevice(const std::string &name, DeviceFactory factory);
void UnregisterDevice(const std::string &name);

// The Win32 error code for a host errno value. `path` (optional) tells a
// missing file (ERROR_FILE_NOT_FOUND) from a missing directory
// (ERROR_PATH_NOT_FOUND) for ENOENT.
DWORD ErrorFromErrno(int err, const char *path = nullptr);

// The Windows directory (win.ini, system.ini, dosdevices) as a host path.
std::string WindowsDirectory();

} // namespace plat
