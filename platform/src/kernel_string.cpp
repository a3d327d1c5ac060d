// KERNEL32/USER32 string helpers on UTF-16 strings, wsprintfW and the code
// page conversions (the ANSI code page is UTF-8 on the host).
#include "core.h"
#include "format.h"
#include "kernel.h"

#include <cstdarg>
#include <cstring>
#include <string>

namespace
{

WCHAR FoldCase(WCHAR c)
{
    return (c >= u'A' && c <= u'Z') ? static_cast<WCHAR>(c - u'A' + u'a') : c;
}

int Sign(int v)
{
    return (v > 0) - (v < 0);
}

} // namespace

extern "C" {

int WINAPI lstrlenW(LPCWSTR s)
{
    return s ? static_cast<int>(std::char_traits<char16_t>::length(s)) : 0;
}

LPWSTR WINAPI lstrcpyW(LPWSTR dst, LPCWSTR src)
{
    if (!dst || !src)
        return nullptr;
    LPWSTR d = dst;
    while ((*d++ = *src++) != 0) {
    }
    return dst;
}

LPWSTR WINAPI lstrcpynW(LPWSTR dst, LPCWSTR src, int max)
{
    if (!dst || !src)
        return nullptr;
    if (max <= 0)
        return dst;
    int i = 0;
    for (; i < max - 1 && src[i]; ++i)
        dst[i] = src[i];
    dst[i] = 0;
    return dst;
}

LPWSTR WINAPI lstrcatW(LPWSTR dst, LPCWSTR src)
{
    if (!dst || !src)
        return nullptr;
    lstrcpyW(dst + lstrlenW(dst), src);
    return dst;
}

int WINAPI lstrcmpW(LPCWSTR a, LPCWSTR b)
{
    if (!a || !b)
        return Sign((a != nullptr) - (b != nullptr));
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return Sign(static_cast<int>(*a) - static_cast<int>(*b));
}

int WINAPI lstrcmpiW(LPCWSTR a, LPCWSTR b)
{
    if (!a || !b)
        return Sign((a != nullptr) - (b != nullptr));
    while (*a && FoldCase(*a) == FoldCase(*b)) {
        ++a;
        ++b;
    }
    return Sign(static_cast<int>(FoldCase(*a)) - static_cast<int>(FoldCase(*b)));
}

int WINAPIV wsprintfW(LPWSTR out, LPCWSTR format, ...)
{
    va_list args;
    va_start(args, format);
    int n = plat::FormatWindows<char16_t>(reinterpret_cast<char16_t *>(out), reinterpret_cast<const char16_t *>(format),
                                          args);
    va_end(args);
    return n;
}

int WINAPI MultiByteToWideChar(UINT codePage, DWORD, LPCSTR src, int srcLen, LPWSTR dst, int dstLen)
{
    if ((codePage != CP_ACP && codePage != CP_UTF8) || !src || dstLen < 0 || (dstLen > 0 && !dst)) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t n = srcLen < 0 ? std::strlen(src) + 1 : static_cast<size_t>(srcLen);
    std::u16string wide = plat::ToUtf16(std::string(src, n));
    if (dstLen == 0)
        return static_cast<int>(wide.size());
    if (wide.size() > static_cast<size_t>(dstLen)) {
        plat::SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::char_traits<char16_t>::copy(dst, wide.data(), wide.size());
    return static_cast<int>(wide.size());
}

int WINAPI WideCharToMultiByte(UINT codePage, DWORD, LPCWSTR src, int srcLen, LPSTR dst, int dstLen, LPCSTR,
                               LPBOOL usedDefault)
{
    if ((codePage != CP_ACP && codePage != CP_UTF8) || !src || dstLen < 0 || (dstLen > 0 && !dst)) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (usedDefault)
        *usedDefault = FALSE;
    int n = srcLen < 0 ? lstrlenW(src) + 1 : srcLen;
    std::string narrow = plat::ToUtf8(src, n);
    if (dstLen == 0)
        return static_cast<int>(narrow.size());
    if (narrow.size() > static_cast<size_t>(dstLen)) {
        plat::SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memcpy(dst, narrow.data(), narrow.size());
    return static_cast<int>(narrow.size());
}

} // extern "C"
