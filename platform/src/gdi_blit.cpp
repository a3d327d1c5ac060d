// Pixel access, colour conversion and the block transfers (BitBlt,
// StretchBlt, PatBlt, GetPixel, SetPixel) of the host GDI.
#include "gdi.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace plat::gdi
{

std::mutex &GdiMutex()
{
    static std::mutex m;
    return m;
}

COLORREF QuadToColor(const RGBQUAD &q)
{
    return RGB(q.rgbRed, q.rgbGreen, q.rgbBlue);
}

RGBQUAD ColorToQuad(COLORREF c)
{
    RGBQUAD q{};
    q.rgbRed = GetRValue(c);
    q.rgbGreen = GetGValue(c);
    q.rgbBlue = GetBValue(c);
    return q;
}

namespace
{
// From this size on, pixel memory is mapped from the OS.
constexpr size_t kMapFrom = 256 * 1024;
} // namespace

void BitsDeleter::operator()(uint8_t *p) const
{
    if (mapped)
        munmap(p, mapped);
    else
        std::free(p);
}

OwnedBits AllocateBits(size_t size)
{
    if (size >= kMapFrom) {
        void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            throw std::bad_alloc();
        // A page image: large pages, where the system has them, take one
        // fault per 2 MB instead of one per 4 KB when the rows are filled.
        madvise(p, size, MADV_HUGEPAGE);
        return OwnedBits(static_cast<uint8_t *>(p), BitsDeleter{size});
    }
    void *p = std::calloc(size ? size : 1, 1);
    if (!p)
        throw std::bad_alloc();
    return OwnedBits(static_cast<uint8_t *>(p), BitsDeleter{});
}

void Pixels::Allocate(int w, int h, int bitsPerPixel, bool isTopDown)
{
    width = w;
    height = h;
    bpp = bitsPerPixel;
    topDown = isTopDown;
    stride = StrideFor(w, bitsPerPixel);
    owned = AllocateBits(static_cast<size_t>(stride) * static_cast<size_t>(h));
    bits = owned.get();
}

void Pixels::FillRow(int y, int x0, int x1, uint32_t raw)
{
    if (x0 >= x1)
        return;
    uint8_t *row = Row(y);
    switch (bpp) {
    case 1:
    case 4: {
        // The pixels of partly covered bytes one by one, whole bytes at once.
        int perByte = 8 / bpp;
        int a = x0, b = x1;
        while (a < b && a % perByte)
            Set(a++, y, raw);
        while (b > a && b % perByte)
            Set(--b, y, raw);
        uint8_t fill = static_cast<uint8_t>(bpp == 1 ? ((raw & 1u) ? 0xFF : 0x00) : (raw & 0x0Fu) * 0x11u);
        if (a < b)
            std::memset(row + a / perByte, fill, static_cast<size_t>((b - a) / perByte));
        break;
    }
    case 8:
        std::memset(row + x0, static_cast<int>(raw & 0xFFu), static_cast<size_t>(x1 - x0));
        break;
    case 24: {
        uint8_t blue = GetBValue(raw), green = GetGValue(raw), red = GetRValue(raw);
        uint8_t *p = row + 3 * static_cast<size_t>(x0);
        if (blue == green && green == red) {
            std::memset(p, blue, 3 * static_cast<size_t>(x1 - x0));
            break;
        }
        for (int x = x0; x < x1; ++x, p += 3) {
            p[0] = blue;
            p[1] = green;
            p[2] = red;
        }
        break;
    }
    default:
        for (int x = x0; x < x1; ++x)
            Set(x, y, raw);
        break;
    }
}

bool IdentityConversion(const Pixels &src, const Pixels &dst)
{
    if (src.bpp != dst.bpp || src.monoDdb != dst.monoDdb)
        return false;
    if (!src.Indexed() || src.monoDdb)
        return true;
    for (size_t i = 0; i < src.table.size(); ++i) {
        if (i >= dst.table.size() || QuadToColor(src.table[i]) != QuadToColor(dst.table[i]))
            return false;
    }
    return true;
}

uint32_t Pixels::Get(int x, int y) const
{
    const uint8_t *row = Row(y);
    switch (bpp) {
    case 1:
        return (row[x >> 3] >> (7 - (x & 7))) & 1u;
    case 4:
        return (x & 1) ? (row[x >> 1] & 0x0Fu) : (row[x >> 1] >> 4);
    case 8:
        return row[x];
    case 24: {
        const uint8_t *p = row + 3 * x;
        return RGB(p[2], p[1], p[0]);
    }
    default: {
        const uint8_t *p = row + 4 * x;
        return RGB(p[2], p[1], p[0]);
    }
    }
}

void Pixels::Set(int x, int y, uint32_t raw)
{
    uint8_t *row = Row(y);
    switch (bpp) {
    case 1: {
        uint8_t bit = static_cast<uint8_t>(0x80u >> (x & 7));
        row[x >> 3] = static_cast<uint8_t>((raw & 1u) ? (row[x >> 3] | bit) : (row[x >> 3] & ~bit));
        break;
    }
    case 4: {
        uint8_t &b = row[x >> 1];
        b = static_cast<uint8_t>((x & 1) ? ((b & 0xF0u) | (raw & 0x0Fu)) : ((b & 0x0Fu) | ((raw & 0x0Fu) << 4)));
        break;
    }
    case 8:
        row[x] = static_cast<uint8_t>(raw);
        break;
    case 24: {
        uint8_t *p = row + 3 * x;
        p[0] = GetBValue(raw);
        p[1] = GetGValue(raw);
        p[2] = GetRValue(raw);
        break;
    }
    default: {
        uint8_t *p = row + 4 * x;
        p[0] = GetBValue(raw);
        p[1] = GetGValue(raw);
        p[2] = GetRValue(raw);
        p[3] = 0;
        break;
    }
    }
}

COLORREF Pixels::ToColor(uint32_t raw) const
{
    if (!Indexed())
        return raw & 0xFFFFFFu;
    if (raw < table.size())
        return QuadToColor(table[raw]);
    return RGB(0, 0, 0);
}

uint32_t Pixels::FromColor(COLORREF color) const
{
    if (!Indexed())
        return color & 0xFFFFFFu;
    uint32_t best = 0;
    long bestDist = -1;
    size_t n = std::min<size_t>(table.size(), size_t{1} << bpp);
    for (size_t i = 0; i < n; ++i) {
        long dr = long(table[i].rgbRed) - GetRValue(color);
        long dg = long(table[i].rgbGreen) - GetGValue(color);
        long db = long(table[i].rgbBlue) - GetBValue(color);
        long d = dr * dr + dg * dg + db * db;
        if (bestDist < 0 || d < bestDist) {
            bestDist = d;
            best = static_cast<uint32_t>(i);
            if (d == 0)
                break;
        }
    }
    return best;
}

void FillSolid(Pixels &px, int left, int top, int right, int bottom, COLORREF color)
{
    left = std::max(left, 0);
    top = std::max(top, 0);
    right = std::min(right, px.width);
    bottom = std::min(bottom, px.height);
    uint32_t raw = px.FromColor(color);
    for (int y = top; y < bottom; ++y)
        px.FillRow(y, left, right, raw);
}

namespace
{

bool NeedsSource(DWORD rop)
{
    return rop == SRCCOPY || rop == SRCPAINT || rop == SRCAND || rop == SRCINVERT || rop == NOTSRCCOPY;
}

bool KnownRop(DWORD rop)
{
    return NeedsSource(rop) || rop == PATCOPY || rop == PATINVERT || rop == DSTINVERT || rop == BLACKNESS ||
           rop == WHITENESS;
}

// A negative extent starts at the other end and mirrors the transfer along
// that axis: two mirrorings cancel.
void MakeExtentPositive(int &origin, int &extent, bool &flip)
{
    if (extent < 0) {
        origin += extent;
        extent = -extent;
        flip = !flip;
    }
}

// Merges the colours of source rows y0..y1-1 column by column over columns
// x0..x1-1 (all inside `src`): out[x - x0] is the AND (`andScans`) or the OR
// of the column's colours. Whole rows are merged first as bytes where the
// pixels are colours; indexed pixels go through their colours one by one.
void MergeRows(const Pixels &src, const Converter &conv, int x0, int x1, int y0, int y1, bool andScans,
               std::vector<COLORREF> &out, std::vector<uint8_t> &bytes)
{
    size_t n = static_cast<size_t>(x1 - x0);
    out.assign(n, andScans ? 0xFFFFFFu : 0u);
    if (src.bpp == 24 || src.bpp == 32) {
        size_t pixel = static_cast<size_t>(src.bpp / 8), len = pixel * n;
        bytes.resize(len);
        std::memcpy(bytes.data(), src.Row(y0) + pixel * x0, len);
        for (int y = y0 + 1; y < y1; ++y) {
            const uint8_t *row = src.Row(y) + pixel * x0;
            uint8_t *acc = bytes.data();
            size_t i = 0;
            for (; i + 8 <= len; i += 8) {
                uint64_t a, b;
                std::memcpy(&a, acc + i, 8);
                std::memcpy(&b, row + i, 8);
                a = andScans ? (a & b) : (a | b);
                std::memcpy(acc + i, &a, 8);
            }
            for (; i < len; ++i)
                acc[i] = andScans ? (acc[i] & row[i]) : (acc[i] | row[i]);
        }
        const uint8_t *p = bytes.data();
        for (size_t x = 0; x < n; ++x, p += pixel)
            out[x] = RGB(p[2], p[1], p[0]);
        return;
    }
    COLORREF lut[256];
    for (uint32_t i = 0; i < (1u << src.bpp); ++i)
        lut[i] = conv.SourceColor(i);
    for (int y = y0; y < y1; ++y) {
        if (src.bpp == 8) {
            const uint8_t *row = src.Row(y) + x0;
            for (size_t x = 0; x < n; ++x)
                out[x] = andScans ? (out[x] & lut[row[x]]) : (out[x] | lut[row[x]]);
            continue;
        }
        for (int x = x0; x < x1; ++x) {
            COLORREF c = lut[src.Get(x, y)];
            out[x - x0] = andScans ? (out[x - x0] & c) : (out[x - x0] | c);
        }
    }
}

} // namespace

BltArgs BltOnto(const Dc &d, int x, int y, int w, int h, DWORD rop, int stretchMode)
{
    BltArgs a;
    a.dst = d.Target();
    a.dstDc = &d;
    a.x = x;
    a.y = y;
    a.w = w;
    a.h = h;
    a.rop = rop;
    a.stretchMode = stretchMode;
    a.pattern = d.brush ? d.brush->color : RGB(255, 255, 255);
    a.nullPattern = !d.brush || d.brush->null;
    return a;
}

bool Blt(const BltArgs &in)
{
    if (!KnownRop(in.rop)) {
        SetError(ERROR_INVALID_PARAMETER);
        return false;
    }
    BltArgs a = in;
    bool needSrc = NeedsSource(a.rop);
    if (needSrc && !a.src) {
        SetError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (!a.dst)
        return true;
    if (!needSrc) {
        a.sw = a.w;
        a.sh = a.h;
    }
    if (a.w == 0 || a.h == 0 || a.sw == 0 || a.sh == 0)
        return true;
    if ((a.rop == PATCOPY || a.rop == PATINVERT) && a.nullPattern)
        return true;

    bool flipX = false, flipY = false;
    MakeExtentPositive(a.x, a.w, flipX);
    MakeExtentPositive(a.y, a.h, flipY);
    MakeExtentPositive(a.sx, a.sw, flipX);
    MakeExtentPositive(a.sy, a.sh, flipY);

    // Reading and writing the same pixels: work from a snapshot.
    Pixels snapshot;
    const Pixels *src = a.src;
    if (src && src->bits == a.dst->bits) {
        snapshot.width = src->width;
        snapshot.height = src->height;
        snapshot.bpp = src->bpp;
        snapshot.stride = src->stride;
        snapshot.topDown = src->topDown;
        snapshot.monoDdb = src->monoDdb;
        snapshot.table = src->table;
        size_t size = static_cast<size_t>(src->stride) * src->height;
        snapshot.owned = AllocateBits(size);
        std::memcpy(snapshot.owned.get(), src->bits, size);
        snapshot.bits = snapshot.owned.get();
        src = &snapshot;
    }

    Pixels &dst = *a.dst;
    uint32_t mask = dst.Mask();
    if (a.rop == WHITENESS || a.rop == BLACKNESS || a.rop == PATCOPY) {
        // Solid fills go row by row.
        COLORREF color = a.rop == WHITENESS ? RGB(255, 255, 255) : a.rop == BLACKNESS ? RGB(0, 0, 0) : a.pattern;
        uint32_t raw = dst.FromColor(color) & mask;
        int x0 = std::max(a.x, 0), x1 = std::min(a.x + a.w, dst.width);
        for (int Y = std::max(a.y, 0); Y < std::min(a.y + a.h, dst.height); ++Y)
            dst.FillRow(Y, x0, x1, raw);
        return true;
    }
    if (a.rop == SRCCOPY && a.sw == a.w && a.sh == a.h && !flipX && !flipY && (dst.bpp == 8 || dst.bpp == 24) &&
        IdentityConversion(*src, dst)) {
        // Unscaled copies between like pixels go row by row: the part of the
        // rectangle inside both bitmaps.
        int x0 = std::max({a.x, 0, a.x - a.sx}), x1 = std::min({a.x + a.w, dst.width, a.x - a.sx + src->width});
        int y0 = std::max({a.y, 0, a.y - a.sy}), y1 = std::min({a.y + a.h, dst.height, a.y - a.sy + src->height});
        size_t pixel = static_cast<size_t>(dst.bpp / 8);
        for (int Y = y0; x0 < x1 && Y < y1; ++Y)
            std::memmove(dst.Row(Y) + pixel * x0, src->Row(a.sy + Y - a.y) + pixel * (a.sx + x0 - a.x),
                         pixel * static_cast<size_t>(x1 - x0));
        return true;
    }
    Converter conv(src ? *src : dst, a.srcDc, dst, a.dstDc);
    uint32_t pat = dst.FromColor(a.pattern);
    uint32_t white = dst.FromColor(RGB(255, 255, 255));
    uint32_t black = dst.FromColor(RGB(0, 0, 0));
    // The merging stretch modes AND (BLACKONWHITE) or OR (WHITEONBLACK) the
    // colours of the eliminated pixels into the ones kept: each destination
    // row merges its band of source rows once, each pixel then its columns.
    bool merge =
        needSrc && (a.stretchMode == BLACKONWHITE || a.stretchMode == WHITEONBLACK) && (a.sw > a.w || a.sh > a.h);
    bool andScans = a.stretchMode == BLACKONWHITE;
    int mergeX0 = 0, mergeX1 = 0;
    std::vector<COLORREF> merged;
    std::vector<uint8_t> mergeBytes;
    if (merge) {
        mergeX0 = std::clamp(a.sx, 0, src->width);
        mergeX1 = std::clamp(a.sx + a.sw, mergeX0, src->width);
    }

    for (int dy = 0; dy < a.h; ++dy) {
        int Y = a.y + dy;
        if (Y < 0 || Y >= dst.height)
            continue;
        int ky = flipY ? a.h - 1 - dy : dy;
        int syLo = static_cast<int>(int64_t(ky) * a.sh / a.h);
        int syHi = std::max(syLo + 1, static_cast<int>(int64_t(ky + 1) * a.sh / a.h));
        int syNear = static_cast<int>((int64_t(2 * ky + 1) * a.sh) / (2 * int64_t(a.h)));
        bool mergedRows = false;
        if (merge) {
            int y0 = std::clamp(a.sy + syLo, 0, src->height), y1 = std::clamp(a.sy + syHi, y0, src->height);
            mergedRows = y0 < y1 && mergeX0 < mergeX1;
            if (mergedRows)
                MergeRows(*src, conv, mergeX0, mergeX1, y0, y1, andScans, merged, mergeBytes);
        }
        for (int dx = 0; dx < a.w; ++dx) {
            int X = a.x + dx;
            if (X < 0 || X >= dst.width)
                continue;
            uint32_t S = 0;
            if (needSrc) {
                int kx = flipX ? a.w - 1 - dx : dx;
                if (merge) {
                    int sxLo = static_cast<int>(int64_t(kx) * a.sw / a.w);
                    int sxHi = std::max(sxLo + 1, static_cast<int>(int64_t(kx + 1) * a.sw / a.w));
                    int x0 = std::clamp(a.sx + sxLo, mergeX0, mergeX1), x1 = std::clamp(a.sx + sxHi, x0, mergeX1);
                    if (!mergedRows || x0 == x1)
                        continue;
                    COLORREF c = andScans ? 0xFFFFFFu : 0u;
                    for (int SX = x0; SX < x1; ++SX)
                        c = andScans ? (c & merged[SX - mergeX0]) : (c | merged[SX - mergeX0]);
                    S = conv.FromColor(c);
                } else {
                    int sxNear = static_cast<int>((int64_t(2 * kx + 1) * a.sw) / (2 * int64_t(a.w)));
                    int SX = a.sx + sxNear, SY = a.sy + syNear;
                    if (SX < 0 || SX >= src->width || SY < 0 || SY >= src->height)
                        continue;
                    S = conv.FromRaw(src->Get(SX, SY));
                }
            }
            uint32_t D = 0, out = 0;
            switch (a.rop) {
            case SRCCOPY:
                out = S;
                break;
            case SRCPAINT:
                out = S | dst.Get(X, Y);
                break;
            case SRCAND:
                out = S & dst.Get(X, Y);
                break;
            case SRCINVERT:
                out = S ^ dst.Get(X, Y);
                break;
            case NOTSRCCOPY:
                out = ~S;
                break;
            case PATCOPY:
                out = pat;
                break;
            case PATINVERT:
                out = pat ^ dst.Get(X, Y);
                break;
            case DSTINVERT:
                D = dst.Get(X, Y);
                out = ~D;
                break;
            case BLACKNESS:
                out = black;
                break;
            default: // WHITENESS
                out = white;
                break;
            }
            dst.Set(X, Y, out & mask);
        }
    }
    return true;
}

} // namespace plat::gdi

using namespace plat;
using namespace plat::gdi;

PLAT_INJECTABLE(BitBlt);
PLAT_INJECTABLE(StretchBlt);

namespace
{

bool BltBetween(HDC dstDc, int x, int y, int w, int h, HDC srcDc, int sx, int sy, int sw, int sh, DWORD rop,
                bool stretch)
{
    auto dst = FindDc(dstDc);
    if (!dst)
        return false;
    std::shared_ptr<Dc> src;
    if (NeedsSource(rop)) {
        src = FindDc(srcDc);
        if (!src)
            return false;
    }
    std::lock_guard<std::mutex> g(GdiMutex());
    BltArgs a = BltOnto(*dst, x, y, w, h, rop, stretch ? dst->stretchMode : COLORONCOLOR);
    if (src) {
        a.src = src->Target();
        a.srcDc = src.get();
        if (!a.src)
            return true;
    }
    a.sx = sx;
    a.sy = sy;
    a.sw = stretch ? sw : w;
    a.sh = stretch ? sh : h;
    return Blt(a);
}

} // namespace

extern "C" BOOL WINAPI BitBlt(HDC dst, int x, int y, int width, int height, HDC src, int srcX, int srcY, DWORD rop)
{
    if (PLAT_FAIL(BitBlt, ERROR_INVALID_PARAMETER))
        return FALSE;
    return BltBetween(dst, x, y, width, height, src, srcX, srcY, width, height, rop, false);
}

extern "C" BOOL WINAPI StretchBlt(HDC dst, int x, int y, int width, int height, HDC src, int srcX, int srcY,
                                  int srcWidth, int srcHeight, DWORD rop)
{
    if (PLAT_FAIL(StretchBlt, ERROR_INVALID_PARAMETER))
        return FALSE;
    return BltBetween(dst, x, y, width, height, src, srcX, srcY, srcWidth, srcHeight, rop, true);
}

extern "C" BOOL WINAPI PatBlt(HDC dc, int x, int y, int width, int height, DWORD rop)
{
    if (NeedsSource(rop)) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return BltBetween(dc, x, y, width, height, nullptr, 0, 0, 0, 0, rop, false);
}

extern "C" COLORREF WINAPI GetPixel(HDC dc, int x, int y)
{
    auto d = FindDc(dc);
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels *px = d ? d->Target() : nullptr;
    if (!px || x < 0 || y < 0 || x >= px->width || y >= px->height)
        return CLR_INVALID;
    uint32_t raw = px->Get(x, y);
    if (px->monoDdb)
        return raw ? RGB(255, 255, 255) : RGB(0, 0, 0);
    return px->ToColor(raw);
}

extern "C" COLORREF WINAPI SetPixel(HDC dc, int x, int y, COLORREF color)
{
    auto d = FindDc(dc);
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels *px = d ? d->Target() : nullptr;
    if (!px || x < 0 || y < 0 || x >= px->width || y >= px->height)
        return CLR_INVALID;
    uint32_t raw = px->FromColor(color & 0xFFFFFFu);
    px->Set(x, y, raw);
    if (px->monoDdb)
        return raw ? RGB(255, 255, 255) : RGB(0, 0, 0);
    return px->ToColor(raw);
}
