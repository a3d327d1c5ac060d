// The printf dialect of wsprintfW and wvsprintfA, for both character widths:
// flags '-', '0', '#', width, precision, and %d %i %u %x %X %c %C %s %S with
// the size prefixes 'h' and 'l'. A string or character of the other width
// (%S, or 'l' in the 8-bit form and 'h' in the UTF-16 form) is converted.
// The result is cut at 1024 characters with the terminator, as on Windows.
#pragma once

#include "core.h"

#include <cstdarg>
#include <cstdint>
#include <string>

namespace plat
{

constexpr size_t kWsprintfMax = 1024;

template <class Char> struct FormatTraits;

template <> struct FormatTraits<char> {
    using Other = char16_t;
    static constexpr char kOtherPrefix = 'l'; // %ls: a UTF-16 string
    static std::string FromOther(const char16_t *s) { return ToUtf8(reinterpret_cast<LPCWSTR>(s)); }
    static char FromCode(int c, bool) { return static_cast<char>(c & 0xFF); }
};

template <> struct FormatTraits<char16_t> {
    using Other = char;
    static constexpr char kOtherPrefix = 'h'; // %hs: an 8-bit string
    static std::u16string FromOther(const char *s) { return ToUtf16(s); }
    static char16_t FromCode(int c, bool other) { return static_cast<char16_t>(other ? (c & 0xFF) : (c & 0xFFFF)); }
};

namespace format_detail
{

struct Conversion {
    bool left = false;
    bool zero = false;
    bool alt = false;
    int width = 0;
    int precision = -1;
    bool other = false; // the argument has the other character width
};

template <class Char>
void Pad(std::basic_string<Char> &out, const std::basic_string<Char> &body, const Conversion &c, size_t prefixLen = 0)
{
    size_t width = c.width > 0 ? static_cast<size_t>(c.width) : 0;
    if (body.size() >= width) {
        out += body;
    } else if (c.left) {
        out += body;
        out.append(width - body.size(), Char(' '));
    } else if (c.zero) {
        out.append(body, 0, prefixLen);
        out.append(width - body.size(), Char('0'));
        out.append(body, prefixLen, std::basic_string<Char>::npos);
    } else {
        out.append(width - body.size(), Char(' '));
        out += body;
    }
}

template <class Char> std::basic_string<Char> Digits(uint32_t value, unsigned base, bool upper, int precision)
{
    const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::basic_string<Char> s;
    do {
        s.insert(s.begin(), Char(digits[value % base]));
        value /= base;
    } while (value);
    if (precision == 0 && s.size() == 1 && s[0] == Char('0'))
        s.clear();
    while (precision > 0 && s.size() < static_cast<size_t>(precision))
        s.insert(s.begin(), Char('0'));
    return s;
}

} // namespace format_detail

// Formats into `out` (which holds kWsprintfMax characters); returns the
// length written, without the terminator.
template <class Char> int FormatWindows(Char *out, const Char *format, va_list args)
{
    using namespace format_detail;
    using Traits = FormatTraits<Char>;
    using String = std::basic_string<Char>;
    va_list ap;
    va_copy(ap, args);
    String s;
    for (const Char *p = format; *p; ++p) {
        if (*p != Char('%')) {
            s += *p;
            continue;
        }
        ++p;
        Conversion c;
        for (;; ++p) {
            if (*p == Char('-'))
                c.left = true;
            else if (*p == Char('0'))
                c.zero = true;
            else if (*p == Char('#'))
                c.alt = true;
            else
                break;
        }
        while (*p >= Char('0') && *p <= Char('9'))
            c.width = c.width * 10 + static_cast<int>(*p++ - Char('0'));
        if (*p == Char('.')) {
            c.precision = 0;
            ++p;
            while (*p >= Char('0') && *p <= Char('9'))
                c.precision = c.precision * 10 + static_cast<int>(*p++ - Char('0'));
        }
        if (*p == Char('h') || *p == Char('l')) {
            c.other = *p == Char(Traits::kOtherPrefix);
            ++p;
        }
        switch (static_cast<char>(*p)) {
        case 'd':
        case 'i': {
            int32_t v = va_arg(ap, int32_t);
            uint32_t magnitude = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
            String body = Digits<Char>(magnitude, 10, false, c.precision);
            if (v < 0)
                body.insert(body.begin(), Char('-'));
            Pad(s, body, c, v < 0 ? 1 : 0);
            break;
        }
        case 'u':
            Pad(s, Digits<Char>(va_arg(ap, uint32_t), 10, false, c.precision), c);
            break;
        case 'x':
        case 'X': {
            bool upper = *p == Char('X');
            uint32_t v = va_arg(ap, uint32_t);
            String body = Digits<Char>(v, 16, upper, c.precision);
            if (c.alt && v) {
                body.insert(body.begin(), Char(upper ? 'X' : 'x'));
                body.insert(body.begin(), Char('0'));
            }
            Pad(s, body, c, c.alt && v ? 2 : 0);
            break;
        }
        case 'c':
        case 'C':
            Pad(s, String(1, Traits::FromCode(va_arg(ap, int), c.other || *p == Char('C'))), c);
            break;
        case 's':
        case 'S': {
            String body;
            const String null{Char('('), Char('n'), Char('u'), Char('l'), Char('l'), Char(')')};
            if (c.other || *p == Char('S')) {
                const auto *str = va_arg(ap, const typename Traits::Other *);
                body = str ? Traits::FromOther(str) : null;
            } else {
                const Char *str = va_arg(ap, const Char *);
                body = str ? String(str) : null;
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
    if (s.size() > kWsprintfMax - 1)
        s.resize(kWsprintfMax - 1);
    std::char_traits<Char>::copy(out, s.data(), s.size());
    out[s.size()] = 0;
    return static_cast<int>(s.size());
}

} // namespace plat
