// KERNEL32 files for POSIX hosts: CreateFileW on host paths (backslashes
// become slashes) or registered devices, ReadFile, WriteFile,
// SetFilePointer, GetFileSize, FlushFileBuffers and DeleteFileW, with host
// errno values turned into Win32 error codes.
#include "devices.h"
#include "serial.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace plat
{

bool Stream::Seek(int64_t, DWORD, int64_t *)
{
    SetError(ERROR_INVALID_FUNCTION);
    return false;
}

bool Stream::Size(uint64_t *)
{
    SetError(ERROR_INVALID_FUNCTION);
    return false;
}

namespace
{

std::string Upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

const std::string kDevicePrefix = "\\\\.\\";

struct DeviceRegistry {
    std::mutex mutex;
    std::map<std::string, DeviceFactory> factories;
};

DeviceRegistry &Devices()
{
    static DeviceRegistry registry;
    return registry;
}

bool FindDevice(const std::string &name, DeviceFactory *factory)
{
    std::string key = Upper(name);
    DeviceRegistry &r = Devices();
    std::lock_guard<std::mutex> g(r.mutex);
    auto it = r.factories.find(key);
    if (it == r.factories.end() && key.compare(0, kDevicePrefix.size(), kDevicePrefix) == 0)
        it = r.factories.find(key.substr(kDevicePrefix.size()));
    if (it == r.factories.end())
        return false;
    *factory = it->second;
    return true;
}

bool DirectoryExists(const std::string &dir)
{
    struct stat st {
    };
    return ::stat(dir.empty() ? "." : dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string ParentOf(const std::string &path)
{
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A file on the host. Small writes to a regular file are gathered and go
// to the host in blocks of kGather bytes (a page saved row by row would
// otherwise cost a system call per row); every other use of the file, and
// CloseHandle, first writes what is gathered, and reports its failure.
class HostFile : public Stream
{
public:
    HostFile(int fd, DWORD access) : fd_(fd), access_(access)
    {
        struct stat st {
        };
        gather_ = (access & (GENERIC_WRITE | GENERIC_ALL)) && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    }
    ~HostFile() override
    {
        WriteGathered();
        ::close(fd_);
    }

    bool OnClose() override
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return WriteGathered();
    }

    bool Read(void *buffer, DWORD size, DWORD *done) override
    {
        if (!(access_ & (GENERIC_READ | GENERIC_ALL))) {
            SetError(ERROR_ACCESS_DENIED);
            return false;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        if (!WriteGathered())
            return false;
        auto *p = static_cast<uint8_t *>(buffer);
        while (*done < size) {
            ssize_t n = ::read(fd_, p + *done, size - *done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                SetError(ErrorFromErrno(errno));
                return false;
            }
            if (n == 0)
                break; // end of file: success with fewer bytes
            *done += static_cast<DWORD>(n);
        }
        return true;
    }

    bool Write(const void *buffer, DWORD size, DWORD *done) override
    {
        if (!(access_ & (GENERIC_WRITE | GENERIC_ALL))) {
            SetError(ERROR_ACCESS_DENIED);
            return false;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        const auto *p = static_cast<const uint8_t *>(buffer);
        if (gathered_.size() + size > kGather && !WriteGathered())
            return false;
        if (gather_ && size < kGather) {
            gathered_.insert(gathered_.end(), p, p + size);
            *done = size;
            return true;
        }
        return WriteOut(p, size, done);
    }

    bool Flush() override
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!WriteGathered())
            return false;
        if (::fsync(fd_) != 0 && errno != EINVAL) {
            SetError(ErrorFromErrno(errno));
            return false;
        }
        return true;
    }

    bool Seek(int64_t distance, DWORD method, int64_t *position) override
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!WriteGathered())
            return false;
        int whence = method == FILE_BEGIN ? SEEK_SET : method == FILE_CURRENT ? SEEK_CUR : SEEK_END;
        if (method > FILE_END) {
            SetError(ERROR_INVALID_PARAMETER);
            return false;
        }
        off_t base = method == FILE_BEGIN ? 0 : ::lseek(fd_, 0, whence);
        if (base < 0) {
            SetError(ErrorFromErrno(errno));
            return false;
        }
        if (int64_t(base) + distance < 0) {
            SetError(ERROR_NEGATIVE_SEEK);
            return false;
        }
        off_t pos = ::lseek(fd_, static_cast<off_t>(int64_t(base) + distance), SEEK_SET);
        if (pos < 0) {
            SetError(ErrorFromErrno(errno));
            return false;
        }
        *position = pos;
        return true;
    }

    bool Size(uint64_t *size) override
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!WriteGathered())
            return false;
        struct stat st {
        };
        if (::fstat(fd_, &st) != 0) {
            SetError(ErrorFromErrno(errno));
            return false;
        }
        *size = static_cast<uint64_t>(st.st_size);
        return true;
    }

private:
    static constexpr size_t kGather = 64 * 1024;

    bool WriteOut(const uint8_t *p, DWORD size, DWORD *done)
    {
        while (*done < size) {
            ssize_t n = ::write(fd_, p + *done, size - *done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                SetError(n < 0 ? ErrorFromErrno(errno) : ERROR_DISK_FULL);
                return false;
            }
            *done += static_cast<DWORD>(n);
        }
        return true;
    }

    // Under mutex_. What cannot be written is dropped (the error is set).
    bool WriteGathered()
    {
        if (gathered_.empty())
            return true;
        DWORD done = 0;
        bool ok = WriteOut(gathered_.data(), static_cast<DWORD>(gathered_.size()), &done);
        gathered_.clear();
        return ok;
    }

    int fd_;
    DWORD access_;
    bool gather_ = false;
    std::mutex mutex_;
    std::vector<uint8_t> gathered_;
};

std::shared_ptr<Stream> FindStream(HANDLE h)
{
    auto s = Find<Stream>(h);
    if (!s)
        SetError(ERROR_INVALID_HANDLE);
    return s;
}

// The common part of ReadFile and WriteFile: the stream behind the handle,
// the caller's buffer, and the count of bytes moved.
template <typename Move> BOOL Transfer(HANDLE file, const void *buffer, DWORD size, LPDWORD count, Move move)
{
    auto s = FindStream(file);
    if (!s)
        return FALSE;
    if (!buffer && size) {
        SetError(ERROR_NOACCESS);
        return FALSE;
    }
    DWORD done = 0;
    bool ok = move(*s, size, &done);
    if (count)
        *count = done;
    return ok ? TRUE : FALSE;
}

std::string HostPath(LPCWSTR name)
{
    std::string path = ToUtf8(name);
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

} // namespace

void RegisterDevice(const std::string &name, DeviceFactory factory)
{
    DeviceRegistry &r = Devices();
    std::lock_guard<std::mutex> g(r.mutex);
    r.factories[Upper(name)] = std::move(factory);
}

void UnregisterDevice(const std::string &name)
{
    DeviceRegistry &r = Devices();
    std::lock_guard<std::mutex> g(r.mutex);
    r.factories.erase(Upper(name));
}

DWORD ErrorFromErrno(int err, const char *path)
{
    switch (err) {
    case 0:
        return ERROR_SUCCESS;
    case ENOENT:
        if (path && !DirectoryExists(ParentOf(path)))
            return ERROR_PATH_NOT_FOUND;
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP:
        return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY:
        return ERROR_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return ERROR_DISK_FULL;
    case EEXIST:
        return ERROR_FILE_EXISTS;
    case ENAMETOOLONG:
        return ERROR_FILENAME_EXCED_RANGE;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EINVAL:
        return ERROR_INVALID_PARAMETER;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case EIO:
        return ERROR_IO_DEVICE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EBUSY:
        return ERROR_BUSY;
    default:
        return ERROR_GEN_FAILURE;
    }
}

} // namespace plat

using namespace plat;

PLAT_INJECTABLE(CreateFileW);
PLAT_INJECTABLE(WriteFile);
PLAT_INJECTABLE(ReadFile);
PLAT_INJECTABLE(DeleteFileW);
PLAT_INJECTABLE(FlushFileBuffers);
PLAT_INJECTABLE(SetFilePointer);

extern "C" HANDLE WINAPI CreateFileW(LPCWSTR fileName, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition,
                                     DWORD flags, HANDLE)
{
    if (PLAT_FAIL(CreateFileW, ERROR_ACCESS_DENIED))
        return INVALID_HANDLE_VALUE;
    if (!fileName) {
        SetError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string name = ToUtf8(fileName);
    // A COM port the Windows directory links to a tty is that tty, whether
    // or not a virtual port of that name exists.
    if (std::shared_ptr<Stream> port; OpenLinkedComPort(name, &port)) {
        if (!port)
            return INVALID_HANDLE_VALUE;
        return ToHandle<HANDLE>(AddHandle(port));
    }
    DeviceFactory factory;
    if (FindDevice(name, &factory)) {
        std::shared_ptr<Stream> device = factory(access, flags);
        if (!device)
            return INVALID_HANDLE_VALUE;
        SetError(ERROR_SUCCESS);
        return ToHandle<HANDLE>(AddHandle(device));
    }

    std::string path = HostPath(fileName);
    if (path.empty()) {
        SetError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    bool read = access & (GENERIC_READ | GENERIC_ALL), write = access & (GENERIC_WRITE | GENERIC_ALL);
    int oflags = O_CLOEXEC | (read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY);
    switch (disposition) {
    case CREATE_NEW:
        oflags |= O_CREAT | O_EXCL;
        break;
    case CREATE_ALWAYS:
        oflags |= O_CREAT | O_TRUNC;
        break;
    case OPEN_EXISTING:
        break;
    case OPEN_ALWAYS:
        oflags |= O_CREAT;
        break;
    case TRUNCATE_EXISTING:
        if (!write) {
            SetError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        oflags |= O_TRUNC;
        break;
    default:
        SetError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if ((oflags & O_CREAT) && !write && (oflags & O_TRUNC))
        oflags = (oflags & ~O_ACCMODE) | O_RDWR;

    struct stat before {
    };
    bool existed = ::stat(path.c_str(), &before) == 0;
    mode_t mode = (flags & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
    int fd;
    do
        fd = ::open(path.c_str(), oflags, mode);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        SetError(ErrorFromErrno(errno, path.c_str()));
        return INVALID_HANDLE_VALUE;
    }
    struct stat st {
    };
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd);
        SetError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE h = ToHandle<HANDLE>(AddHandle(std::make_shared<HostFile>(fd, access)));
    bool reportsExisting = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
    SetError(reportsExisting && existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return h;
}

extern "C" BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD toRead, LPDWORD read, LPOVERLAPPED)
{
    if (read)
        *read = 0;
    if (PLAT_FAIL(ReadFile, ERROR_READ_FAULT))
        return FALSE;
    return Transfer(file, buffer, toRead, read,
                    [buffer](Stream &s, DWORD size, DWORD *done) { return s.Read(buffer, size, done); });
}

extern "C" BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD toWrite, LPDWORD written, LPOVERLAPPED)
{
    if (written)
        *written = 0;
    if (PLAT_FAIL(WriteFile, ERROR_DISK_FULL))
        return FALSE;
    return Transfer(file, buffer, toWrite, written,
                    [buffer](Stream &s, DWORD size, DWORD *done) { return s.Write(buffer, size, done); });
}

extern "C" DWORD WINAPI SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method)
{
    if (PLAT_FAIL(SetFilePointer, ERROR_SEEK))
        return INVALID_SET_FILE_POINTER;
    auto s = FindStream(file);
    if (!s)
        return INVALID_SET_FILE_POINTER;
    int64_t move = distanceHigh ? static_cast<int64_t>((uint64_t(uint32_t(*distanceHigh)) << 32) | uint32_t(distance))
                                : int64_t(distance);
    int64_t pos = 0;
    if (!s->Seek(move, method, &pos))
        return INVALID_SET_FILE_POINTER;
    if (distanceHigh)
        *distanceHigh = static_cast<LONG>(uint64_t(pos) >> 32);
    // The low part may legitimately equal INVALID_SET_FILE_POINTER.
    SetError(ERROR_SUCCESS);
    return static_cast<DWORD>(uint64_t(pos));
}

extern "C" DWORD WINAPI GetFileSize(HANDLE file, LPDWORD sizeHigh)
{
    auto s = FindStream(file);
    if (!s)
        return INVALID_FILE_SIZE;
    uint64_t size = 0;
    if (!s->Size(&size))
        return INVALID_FILE_SIZE;
    if (sizeHigh)
        *sizeHigh = static_cast<DWORD>(size >> 32);
    SetError(ERROR_SUCCESS);
    return static_cast<DWORD>(size);
}

extern "C" BOOL WINAPI FlushFileBuffers(HANDLE file)
{
    if (PLAT_FAIL(FlushFileBuffers, ERROR_WRITE_FAULT))
        return FALSE;
    auto s = FindStream(file);
    if (!s)
        return FALSE;
    return s->Flush() ? TRUE : FALSE;
}

extern "C" BOOL WINAPI DeleteFileW(LPCWSTR fileName)
{
    if (PLAT_FAIL(DeleteFileW, ERROR_ACCESS_DENIED))
        return FALSE;
    if (!fileName) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string path = HostPath(fileName);
    // Only files are deleted: a device (/dev/full) or a directory is not a
    // file to Windows, and unlinking one as root would remove it for good.
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISDIR(st.st_mode))) {
        SetError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::unlink(path.c_str()) != 0) {
        SetError(ErrorFromErrno(errno, path.c_str()));
        return FALSE;
    }
    return TRUE;
}
