// The 8-bit ("ANSI") forms the driver calls: CreateFileA, LoadStringA and
// wvsprintfA. The ANSI code page is UTF-8 on the host, so the first two
// convert and hand over to their UTF-16 forms.
#include "core.h"
#include "format.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

PLAT_INJECTABLE(CreateFileA);
PLAT_INJECTABLE(LoadStringA);

extern "C" {

HANDLE WINAPI CreateFileA(LPCSTR fileName, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES sa, DWORD disposition,
                          DWORD flags, HANDLE templateFile)
{
    if (PLAT_FAIL(CreateFileA, ERROR_ACCESS_DENIED))
        return INVALID_HANDLE_VALUE;
    if (!fileName) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::u16string wide = plat::ToUtf16(fileName);
    return CreateFileW(reinterpret_cast<LPCWSTR>(wide.c_str()), access, shareMode, sa, disposition, flags,
                       templateFile);
}

int WINAPI LoadStringA(HINSTANCE instance, UINT id, LPSTR buffer, int bufferMax)
{
    if (buffer && bufferMax > 0)
        buffer[0] = 0;
    if (PLAT_FAIL(LoadStringA, ERROR_RESOURCE_NAME_NOT_FOUND))
        return 0;
    if (!buffer || bufferMax <= 0) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    LPCWSTR text = nullptr;
    int len = LoadStringW(instance, id, reinterpret_cast<LPWSTR>(&text), 0);
    if (len <= 0 || !text)
        return 0;
    std::string narrow = plat::ToUtf8(text, len);
    // Truncated to the buffer, never in the middle of a character.
    size_t n = narrow.size();
    if (n > static_cast<size_t>(bufferMax - 1)) {
        n = static_cast<size_t>(bufferMax - 1);
        while (n > 0 && (static_cast<unsigned char>(narrow[n]) & 0xC0) == 0x80)
            --n;
    }
    std::memcpy(buffer, narrow.data(), n);
    buffer[n] = 0;
    return static_cast<int>(n);
}

int WINAPI wvsprintfA(LPSTR out, LPCSTR format, va_list args)
{
    if (!out || !format) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    return plat::FormatWindows<char>(out, format, args);
}

} // extern "C"
