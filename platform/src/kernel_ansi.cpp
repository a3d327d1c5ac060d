// The 8-bit ("ANSI") forms the driver calls: CreateFileA, LoadStringA and
// wvsprintfA. The ANSI code page is UTF-8 on the host, so the first two
// convert and hand over to their UTF-16 forms.
#include "core.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

namespace
{

// One conversion of wvsprintfA.
struct Conversion {
    bool left = false;
    bool zero = false;
    bool alt = false;
    int width = 0;
    int precision = -1;
};

void Pad(std::string &out, const std::string &body, const Conversion &c, size_t prefixLen = 0)
{
    size_t width = c.width > 0 ? static_cast<size_t>(c.width) : 0;
    if (body.size() >= width)
        out += body;
    else if (c.left)
        out += body + std::string(width - body.size(), ' ');
    else if (c.zero)
        out += body.substr(0, prefixLen) + std::string(width - body.size(), '0') + body.substr(prefixLen);
    else
        out += std::string(width - body.size(), ' ') + body;
}

std::string Digits(uint32_t value, unsigned base, bool upper, int precision)
{
    const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string s;
    do {
        s.insert(s.begin(), digits[value % base]);
        value /= base;
    } while (value);
    if (precision == 0 && s == "0")
        s.clear();
    while (precision > 0 && s.size() < static_cast<size_t>(precision))
        s.insert(s.begin(), '0');
    return s;
}

// Like wsprintfW, the result is cut at 1024 characters with the terminator.
constexpr size_t kFormatMax = 1024;

} // namespace

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
    va_list ap;
    va_copy(ap, args);
    std::string s;
    for (const char *p = format; *p; ++p) {
        if (*p != '%') {
            s += *p;
            continue;
        }
        ++p;
        Conversion c;
        for (;; ++p) {
            if (*p == '-')
                c.left = true;
            else if (*p == '0')
                c.zero = true;
            else if (*p == '#')
                c.alt = true;
            else
                break;
        }
        while (*p >= '0' && *p <= '9')
            c.width = c.width * 10 + (*p++ - '0');
        if (*p == '.') {
            c.precision = 0;
            ++p;
            while (*p >= '0' && *p <= '9')
                c.precision = c.precision * 10 + (*p++ - '0');
        }
        bool wide = false;
        if (*p == 'l' || *p == 'h') {
            wide = *p == 'l';
            ++p;
        }
        switch (*p) {
        case 'd':
        case 'i': {
            int32_t v = va_arg(ap, int32_t);
            uint32_t magnitude = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
            std::string body = Digits(magnitude, 10, false, c.precision);
            if (v < 0)
                body.insert(body.begin(), '-');
            Pad(s, body, c, v < 0 ? 1 : 0);
            break;
        }
        case 'u':
            Pad(s, Digits(va_arg(ap, uint32_t), 10, false, c.precision), c);
            break;
        case 'x':
        case 'X': {
            bool upper = *p == 'X';
            uint32_t v = va_arg(ap, uint32_t);
            std::string body = Digits(v, 16, upper, c.precision);
            if (c.alt && v)
                body.insert(0, upper ? "0X" : "0x");
            Pad(s, body, c, c.alt && v ? 2 : 0);
            break;
        }
        case 'c':
        case 'C':
            Pad(s, std::string(1, static_cast<char>(va_arg(ap, int) & 0xFF)), c);
            break;
        case 's':
        case 'S': {
            std::string body;
            if (wide || *p == 'S') {
                LPCWSTR str = va_arg(ap, LPCWSTR);
                body = str ? plat::ToUtf8(str) : "(null)";
            } else {
                const char *str = va_arg(ap, const char *);
                body = str ? str : "(null)";
            }
            if (c.precision >= 0 && body.size() > static_cast<size_t>(c.precision))
                body.resize(static_cast<size_t>(c.precision));
            Conversion text = c;
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
    va_end(ap);
    if (s.size() > kFormatMax - 1)
        s.resize(kFormatMax - 1);
    std::memcpy(out, s.data(), s.size());
    out[s.size()] = 0;
    return static_cast<int>(s.size());
}

} // extern "C"
