// Pixel access, colour conversion and the block transfers (BitBlt,
// StretchBlt, PatBlt, GetPixel, SetPixel) of the host GDI.
#include "gdi.h"

#include <algorithm>
#include <cstring>

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

void Pixels::Allocate(int w, int h, int bitsPerPixel, bool isTopDown)
{
    width = w;
    height = h;
    bpp = bitsPerPixel;
    topDown = isTopDown;
    stride = StrideFor(w, bitsPerPixel);
    size_t size = static_cast<size_t>(stride) * static_cast<size_t>(h);
    owned.reset(new uint8_t[size ? size : 1]());
    bits = owned.get();
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
        for (int x = left; x < right; ++x)
            px.Set(x, y, raw);
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
        snapshot.owned.reset(new uint8_t[size ? size : 1]);
        std::memcpy(snapshot.owned.get(), src->bits, size);
        snapshot.bits = snapshot.owned.get();
        src = &snapshot;
    }

    Pixels &dst = *a.dst;
    uint32_t mask = dst.Mask();
    Converter conv(src ? *src : dst, a.srcDc, dst, a.dstDc);
    uint32_t pat = dst.FromColor(a.pattern);
    uint32_t white = dst.FromColor(RGB(255, 255, 255));
    uint32_t black = dst.FromColor(RGB(0, 0, 0));
    bool merge =
        needSrc && (a.stretchMode == BLACKONWHITE || a.stretchMode == WHITEONBLACK) && (a.sw > a.w || a.sh > a.h);

    for (int dy = 0; dy < a.h; ++dy) {
        int Y = a.y + dy;
        if (Y < 0 || Y >= dst.height)
            continue;
        int ky = flipY ? a.h - 1 - dy : dy;
        int syLo = static_cast<int>(int64_t(ky) * a.sh / a.h);
        int syHi = std::max(syLo + 1, static_cast<int>(int64_t(ky + 1) * a.sh / a.h));
        int syNear = static_cast<int>((int64_t(2 * ky + 1) * a.sh) / (2 * int64_t(a.h)));
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
                    bool any = false;
                    COLORREF c = a.stretchMode == BLACKONWHITE ? 0xFFFFFFu : 0u;
                    for (int yy = syLo; yy < syHi; ++yy) {
                        int SY = a.sy + yy;
                        if (SY < 0 || SY >= src->height)
                            continue;
                        for (int xx = sxLo; xx < sxHi; ++xx) {
                            int SX = a.sx + xx;
                            if (SX < 0 || SX >= src->width)
                                continue;
                            COLORREF sc = conv.SourceColor(src->Get(SX, SY));
                            c = a.stretchMode == BLACKONWHITE ? (c & sc) : (c | sc);
                            any = true;
                        }
                    }
                    if (!any)
                        continue;
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
