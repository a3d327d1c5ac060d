// Device-independent bitmap transfers of the host GDI: GetDIBits, SetDIBits,
// StretchDIBits, SetDIBitsToDevice and the DIB section colour table.
#include "gdi.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace plat;
using namespace plat::gdi;

namespace
{

bool SupportedDepth(int bpp)
{
    return bpp == 1 || bpp == 4 || bpp == 8 || bpp == 24 || bpp == 32;
}

const RGBQUAD *TableOf(const BITMAPINFO *info)
{
    return reinterpret_cast<const RGBQUAD *>(reinterpret_cast<const uint8_t *>(info) + info->bmiHeader.biSize);
}

// The table GetDIBits hands out for a depth the bitmap does not have.
std::vector<RGBQUAD> DefaultTable(int bpp)
{
    std::vector<RGBQUAD> t;
    if (bpp == 1) {
        t = {ColorToQuad(RGB(0, 0, 0)), ColorToQuad(RGB(255, 255, 255))};
    } else if (bpp == 4) {
        static const COLORREF vga[16] = {
            RGB(0, 0, 0),       RGB(128, 0, 0),   RGB(0, 128, 0),   RGB(128, 128, 0),
            RGB(0, 0, 128),     RGB(128, 0, 128), RGB(0, 128, 128), RGB(192, 192, 192),
            RGB(128, 128, 128), RGB(255, 0, 0),   RGB(0, 255, 0),   RGB(255, 255, 0),
            RGB(0, 0, 255),     RGB(255, 0, 255), RGB(0, 255, 255), RGB(255, 255, 255),
        };
        for (COLORREF c : vga)
            t.push_back(ColorToQuad(c));
    } else if (bpp == 8) {
        for (int r = 0; r < 6; ++r)
            for (int g = 0; g < 6; ++g)
                for (int b = 0; b < 6; ++b)
                    t.push_back(ColorToQuad(RGB(r * 51, g * 51, b * 51)));
        for (int i = 0; i < 40; ++i) {
            int v = (i + 1) * 255 / 41;
            t.push_back(ColorToQuad(RGB(v, v, v)));
        }
    }
    return t;
}

// Row `k` of a DIB buffer holding scan lines start..start+lines-1 is this
// top-down row of a bitmap `height` rows high.
int BitmapRow(bool bottomUp, int height, int start, int k)
{
    return bottomUp ? height - 1 - (start + k) : start + k;
}

// Copies `width` pixels of row `sy` of src into row `dy` of dst.
void CopyRow(const Pixels &src, int sy, Pixels &dst, int dy, int width, Converter &conv, bool identity)
{
    if (identity && src.bpp == dst.bpp) {
        size_t bytes = (static_cast<size_t>(width) * src.bpp + 7) / 8;
        std::memcpy(dst.Row(dy), src.Row(sy), bytes);
        return;
    }
    for (int x = 0; x < width; ++x)
        dst.Set(x, dy, conv.FromRaw(src.Get(x, sy)));
}

// Copies `count` scan lines from `start` on between a bitmap and a caller's
// buffer whose row k holds scan line start + k: the bitmap is dst when
// `intoBitmap`, else src.
void CopyScanLines(const Pixels &src, Pixels &dst, bool intoBitmap, bool bottomUp, int start, int count)
{
    Converter conv(src, nullptr, dst, nullptr);
    bool identity = IdentityConversion(src, dst);
    int width = std::min(src.width, dst.width);
    int height = intoBitmap ? dst.height : src.height;
    for (int k = 0; k < count; ++k) {
        int row = BitmapRow(bottomUp, height, start, k);
        CopyRow(src, intoBitmap ? k : row, dst, intoBitmap ? row : k, width, conv, identity);
    }
}

// A caller's DIB as pixels; false (with ERROR_INVALID_PARAMETER) without bits
// or with a header that cannot be used.
bool WrapCallerDib(const BITMAPINFO *info, const void *bits, UINT usage, HDC dc, Pixels &px)
{
    if (!bits || !WrapDib(info, bits, usage, dc, px)) {
        SetError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return true;
}

} // namespace

namespace plat::gdi
{

int TableEntries(const BITMAPINFOHEADER &h)
{
    if (h.biBitCount > 8)
        return 0;
    int full = 1 << h.biBitCount;
    return h.biClrUsed ? std::min<int>(static_cast<int>(h.biClrUsed), full) : full;
}

std::vector<RGBQUAD> ReadTable(const BITMAPINFO *info, UINT usage, HDC dc)
{
    int n = TableEntries(info->bmiHeader);
    std::vector<RGBQUAD> t(static_cast<size_t>(n));
    if (usage == DIB_PAL_COLORS) {
        const auto *index = reinterpret_cast<const WORD *>(TableOf(info));
        std::vector<PALETTEENTRY> pal;
        if (auto d = Find<Dc>(dc)) {
            std::lock_guard<std::mutex> g(GdiMutex());
            if (d->palette)
                pal = d->palette->entries;
        }
        for (int i = 0; i < n; ++i) {
            if (index[i] < pal.size())
                t[i] = ColorToQuad(RGB(pal[index[i]].peRed, pal[index[i]].peGreen, pal[index[i]].peBlue));
        }
    } else if (n) {
        std::memcpy(t.data(), TableOf(info), t.size() * sizeof(RGBQUAD));
    }
    return t;
}

bool WrapDib(const BITMAPINFO *info, const void *bits, UINT usage, HDC dc, Pixels &px)
{
    if (!info)
        return false;
    const BITMAPINFOHEADER &h = info->bmiHeader;
    if (h.biSize < sizeof(BITMAPINFOHEADER) || h.biWidth <= 0 || h.biHeight == 0 || !SupportedDepth(h.biBitCount) ||
        h.biCompression != BI_RGB || (usage != DIB_RGB_COLORS && usage != DIB_PAL_COLORS))
        return false;
    px.width = h.biWidth;
    px.height = std::abs(h.biHeight);
    px.bpp = h.biBitCount;
    px.stride = Pixels::StrideFor(px.width, px.bpp);
    px.topDown = h.biHeight < 0;
    px.table = ReadTable(info, usage, dc);
    px.bits = static_cast<uint8_t *>(const_cast<void *>(bits));
    return true;
}

} // namespace plat::gdi

PLAT_INJECTABLE(GetDIBits);
PLAT_INJECTABLE(SetDIBits);

extern "C" int WINAPI GetDIBits(HDC dc, HBITMAP bitmap, UINT start, UINT lines, LPVOID bits, LPBITMAPINFO info,
                                UINT usage)
{
    if (PLAT_FAIL(GetDIBits, ERROR_INVALID_PARAMETER))
        return 0;
    auto b = Find<Bitmap>(bitmap);
    if (!b || !Find<Dc>(dc)) {
        SetError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (!info) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::lock_guard<std::mutex> g(GdiMutex());
    const Pixels &src = *b->px;
    BITMAPINFOHEADER &h = info->bmiHeader;
    if (h.biBitCount == 0) {
        // Query of the bitmap's own format: header only.
        h.biWidth = src.width;
        h.biHeight = b->dib ? b->header.biHeight : src.height;
        h.biPlanes = 1;
        h.biBitCount = static_cast<WORD>(src.bpp);
        h.biCompression = BI_RGB;
        h.biSizeImage = static_cast<DWORD>(src.stride) * src.height;
        h.biClrUsed = 0;
        h.biClrImportant = 0;
        return src.height;
    }
    if (h.biSize < sizeof(BITMAPINFOHEADER) || h.biWidth <= 0 || h.biHeight == 0 || !SupportedDepth(h.biBitCount) ||
        h.biCompression != BI_RGB) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }

    Pixels dst;
    dst.width = h.biWidth;
    dst.bpp = h.biBitCount;
    dst.stride = Pixels::StrideFor(dst.width, dst.bpp);
    bool bottomUp = h.biHeight > 0;
    int dstHeight = std::abs(h.biHeight);
    h.biSizeImage = static_cast<DWORD>(dst.stride) * dstHeight;

    // The colour table goes back into the caller's header: the bitmap's own
    // for the same depth, else the standard one for the asked depth.
    if (dst.bpp <= 8) {
        int n = TableEntries(h);
        if (src.bpp == dst.bpp && !src.monoDdb)
            dst.table = src.table;
        else
            dst.table = DefaultTable(dst.bpp);
        dst.table.resize(static_cast<size_t>(1) << dst.bpp);
        auto *out = reinterpret_cast<uint8_t *>(info) + h.biSize;
        if (usage == DIB_PAL_COLORS) {
            for (int i = 0; i < n; ++i) {
                WORD w = static_cast<WORD>(i);
                std::memcpy(out + i * sizeof(WORD), &w, sizeof w);
            }
        } else {
            std::memcpy(out, dst.table.data(), static_cast<size_t>(n) * sizeof(RGBQUAD));
        }
    }

    if (start >= static_cast<UINT>(std::min(src.height, dstHeight)))
        return 0;
    int count = static_cast<int>(std::min<UINT>(lines, static_cast<UINT>(std::min(src.height, dstHeight)) - start));
    if (!bits)
        return count;

    dst.height = count;
    dst.topDown = true; // buffer row k holds scan line start + k
    dst.bits = static_cast<uint8_t *>(bits);
    // What the copy leaves of each row is zeroed: the padding, and with a
    // conversion the whole row (a like copy writes its whole bytes itself).
    size_t copied =
        IdentityConversion(src, dst) ? static_cast<size_t>(std::min(src.width, dst.width)) * dst.bpp / 8 : 0;
    for (int k = 0; k < count; ++k)
        std::memset(dst.bits + static_cast<size_t>(k) * dst.stride + copied, 0, dst.stride - copied);
    CopyScanLines(src, dst, false, bottomUp, static_cast<int>(start), count);
    return count;
}

extern "C" int WINAPI SetDIBits(HDC dc, HBITMAP bitmap, UINT start, UINT lines, const void *bits,
                                const BITMAPINFO *info, UINT usage)
{
    if (PLAT_FAIL(SetDIBits, ERROR_INVALID_PARAMETER))
        return 0;
    auto b = Find<Bitmap>(bitmap);
    if (!b) {
        SetError(ERROR_INVALID_HANDLE);
        return 0;
    }
    Pixels src;
    if (!WrapCallerDib(info, bits, usage, dc, src))
        return 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels &dst = *b->px;
    bool bottomUp = !src.topDown;
    int limit = std::min(dst.height, src.height);
    if (start >= static_cast<UINT>(limit))
        return 0;
    int count = static_cast<int>(std::min<UINT>(lines, static_cast<UINT>(limit) - start));
    src.height = count;
    src.topDown = true; // buffer row k holds scan line start + k
    CopyScanLines(src, dst, true, bottomUp, static_cast<int>(start), count);
    return count;
}

extern "C" int WINAPI StretchDIBits(HDC dc, int x, int y, int width, int height, int srcX, int srcY, int srcWidth,
                                    int srcHeight, const void *bits, const BITMAPINFO *info, UINT usage, DWORD rop)
{
    auto d = FindDc(dc);
    if (!d)
        return 0;
    Pixels src;
    if (!WrapCallerDib(info, bits, usage, dc, src))
        return 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    BltArgs a = BltOnto(*d, x, y, width, height, rop, d->stretchMode);
    a.src = &src;
    a.sx = srcX;
    // The origin of a bottom-up DIB is its lower-left corner.
    a.sy = src.topDown ? srcY : src.height - srcY - srcHeight;
    a.sw = srcWidth;
    a.sh = srcHeight;
    if (!Blt(a))
        return 0;
    return std::abs(srcHeight);
}

extern "C" int WINAPI SetDIBitsToDevice(HDC dc, int x, int y, DWORD width, DWORD height, int srcX, int srcY,
                                        UINT startScan, UINT lines, const void *bits, const BITMAPINFO *info,
                                        UINT usage)
{
    auto d = FindDc(dc);
    if (!d)
        return 0;
    Pixels band;
    if (!WrapCallerDib(info, bits, usage, dc, band))
        return 0;
    int lo = static_cast<int>(startScan), hi = static_cast<int>(startScan + lines);
    band.height = static_cast<int>(lines);
    int w = static_cast<int>(width), h = static_cast<int>(height);
    std::lock_guard<std::mutex> g(GdiMutex());
    BltArgs a;
    a.dst = d->Target();
    a.dstDc = d.get();
    a.src = &band;
    a.sx = srcX;
    a.x = x;
    a.w = a.sw = w;
    a.rop = SRCCOPY;
    // Scan lines counted from the DIB's origin (lower-left for bottom-up
    // DIBs); the band holds lines lo..hi-1 of them.
    int from = std::max(srcY, lo), to = std::min(srcY + h, hi);
    if (from >= to)
        return static_cast<int>(lines);
    a.h = a.sh = to - from;
    if (band.topDown) {
        a.sy = from - lo;
        a.y = y + (from - srcY);
    } else {
        a.sy = static_cast<int>(lines) - 1 - (to - 1 - lo);
        a.y = y + (srcY + h - to);
    }
    if (!Blt(a))
        return 0;
    return static_cast<int>(lines);
}

static std::shared_ptr<Bitmap> SelectedDib(HDC dc)
{
    auto d = FindDc(dc);
    if (!d)
        return nullptr;
    std::lock_guard<std::mutex> g(GdiMutex());
    if (!d->memory || !d->bitmap || !d->bitmap->dib || d->bitmap->px->bpp > 8)
        return nullptr;
    return d->bitmap;
}

extern "C" UINT WINAPI GetDIBColorTable(HDC dc, UINT start, UINT count, RGBQUAD *colors)
{
    auto b = SelectedDib(dc);
    if (!b || !colors)
        return 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    const auto &t = b->px->table;
    if (start >= t.size())
        return 0;
    UINT n = std::min<UINT>(count, static_cast<UINT>(t.size()) - start);
    std::memcpy(colors, t.data() + start, n * sizeof(RGBQUAD));
    return n;
}

extern "C" UINT WINAPI SetDIBColorTable(HDC dc, UINT start, UINT count, const RGBQUAD *colors)
{
    auto b = SelectedDib(dc);
    if (!b || !colors)
        return 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    auto &t = b->px->table;
    if (start >= t.size())
        return 0;
    UINT n = std::min<UINT>(count, static_cast<UINT>(t.size()) - start);
    std::memcpy(t.data() + start, colors, n * sizeof(RGBQUAD));
    return n;
}
