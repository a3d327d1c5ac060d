// KERNEL32/USER32 string helpers on UTF-16 strings, wsprintfW and the code
// page conversions (the ANSI code page is UTF-8 on the host).
#include "core.h"
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

// One conversion of wsprintfW.
struct Spec {
    bool left = false;
    bool zero = false;
    bool alt = false;
    int width = 0;
    int precision = -1;
    bool narrow = false; // %hs, %S: an 8-bit string / char
};

void Pad(std::u16string &out, const std::u16string &body, const Spec &spec, size_t prefixLen = 0)
{
    size_t width = spec.width > 0 ? static_cast<size_t>(spec.width) : 0;
    if (body.size() >= width) {
        out += body;
    } else if (spec.left) {
        out += body;
        out.append(width - body.size(), u' ');
    } else if (spec.zero) {
        out.append(body, 0, prefixLen);
        out.append(width - body.size(), u'0');
        out.append(body, prefixLen, std::u16string::npos);
    } else {
        out.append(width - body.size(), u' ');
        out += body;
    }
}

std::u16string Digits(uint32_t value, unsigned base, bool upper, int precision)
{
    const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::u16string s;
    do {
        s.insert(s.begin(), static_cast<char16_t>(digits[value % base]));
        value /= base;
    } while (value);
    if (precision == 0 && s == u"0")
        s.clear();
    while (precision > 0 && s.size() < static_cast<size_t>(precision))
        s.insert(s.begin(), u'0');
    return s;
}

// wsprintfW writes at most 1024 characters including the terminator.
constexpr size_t kWsprintfMax = 1024;

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
    std::u16string s;
    for (LPCWSTR p = format; *p; ++p) {
        if (*p != u'%') {
            s += *p;
            continue;
        }
        ++p;
        Spec spec;
        for (;; ++p) {
            if (*p == u'-')
                spec.left = true;
            else if (*p == u'0')
                spec.zero = true;
            else if (*p == u'#')
                spec.alt = true;
            else
                break;
        }
        while (*p >= u'0' && *p <= u'9')
            spec.width = spec.width * 10 + (*p++ - u'0');
        if (*p == u'.') {
            spec.precision = 0;
            ++p;
            while (*p >= u'0' && *p <= u'9')
                spec.precision = spec.precision * 10 + (*p++ - u'0');
        }
        if (*p == u'h') {
            spec.narrow = true;
            ++p;
        } else if (*p == u'l') {
            ++p;
        }
        switch (*p) {
        case u'd':
        case u'i': {
            int32_t v = va_arg(args, int32_t);
            uint32_t magnitude = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
            std::u16string body = Digits(magnitude, 10, false, spec.precision);
            if (v < 0)
                body.insert(body.begin(), u'-');
            Pad(s, body, spec, v < 0 ? 1 : 0);
            break;
        }
        case u'u':
            Pad(s, Digits(va_arg(args, uint32_t), 10, false, spec.precision), spec);
            break;
        case u'x':
        case u'X': {
            bool upper = *p == u'X';
            uint32_t v = va_arg(args, uint32_t);
            std::u16string body = Digits(v, 16, upper, spec.precision);
            if (spec.alt && v)
                body.insert(0, upper ? u"0X" : u"0x");
            Pad(s, body, spec, spec.alt && v ? 2 : 0);
            break;
        }
        case u'c':
        case u'C': {
            int c = va_arg(args, int);
            std::u16string body(1, static_cast<char16_t>(spec.narrow || *p == u'C' ? (c & 0xFF) : (c & 0xFFFF)));
            Pad(s, body, spec);
            break;
        }
        case u's':
        case u'S': {
            std::u16string body;
            if (spec.narrow || *p == u'S') {
                const char *str = va_arg(args, const char *);
                body = plat::ToUtf16(str ? str : "(null)");
            } else {
                LPCWSTR str = va_arg(args, LPCWSTR);
                body = str ? std::u16string(str) : std::u16string(u"(null)");
            }
            if (spec.precision >= 0 && body.size() > static_cast<size_t>(spec.precision))
                body.resize(static_cast<size_t>(spec.precision));
            Spec text = spec;
            text.zero = false;
            Pad(s, body, text);
            break;
        }
        case 0:
            --p; // a lone '%' at the end
            break;
        default:
            s += *p; // "%%" and unknown conversions print the character
            break;
        }
    }
    va_end(args);
    if (s.size() > kWsprintfMax - 1)
        s.resize(kWsprintfMax - 1);
    std::char_traits<char16_t>::copy(out, s.data(), s.size());
    out[s.size()] = 0;
    return static_cast<int>(s.size());
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
