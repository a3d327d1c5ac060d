// GDI32 for POSIX hosts: bitmaps held in DIB layout, device contexts that
// draw into a selected bitmap (memory DCs) or into a window's or the screen's
// 24-bit pixel surface, and the objects that can be selected into them.
//
// The state of GDI objects is guarded by one mutex of its own (GDI never
// blocks, so it does not wait under the world lock). USER32 is reached through its public
// API only (IsWindow, GetClientRect), never with that mutex held; GetDC and
// GetWindowDC make those calls, so USER32 must not call them while it holds
// the world lock.
#pragma once

#include "core.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace plat::gdi
{

std::mutex &GdiMutex();

// Pixel memory. Large stores come straight from the OS as fresh pages, which
// are zeroed already and cost nothing until touched; small ones from the heap.
struct BitsDeleter {
    size_t mapped = 0; // bytes mapped from the OS, 0 for heap memory
    void operator()(uint8_t *p) const;
};
using OwnedBits = std::unique_ptr<uint8_t, BitsDeleter>;
// `size` bytes (at least one), zeroed; throws std::bad_alloc when out of memory.
OwnedBits AllocateBits(size_t size);

// Pixels in DIB layout: rows of `stride` bytes (a multiple of 4), bottom-up
// unless `topDown`. Pixel values ("raw" values) are the colour-table index for
// 1, 4 and 8 bpp and a COLORREF (0x00BBGGRR) for 24 and 32 bpp.
struct Pixels {
    int width = 0;
    int height = 0; // always positive
    int bpp = 1;
    int stride = 0;
    bool topDown = false;
    // A monochrome device-dependent bitmap: converts to and from colour by
    // the DCs' text and background colours instead of by its table.
    bool monoDdb = false;
    std::vector<RGBQUAD> table;
    uint8_t *bits = nullptr;
    OwnedBits owned;

    static int StrideFor(int width, int bpp) { return ((width * bpp + 31) / 32) * 4; }
    // Allocates zeroed memory for width x height at bpp.
    void Allocate(int w, int h, int bitsPerPixel, bool isTopDown);
    uint8_t *Row(int y) const { return bits + static_cast<size_t>(topDown ? y : height - 1 - y) * stride; }
    // x, y in top-down coordinates, inside the bitmap.
    uint32_t Get(int x, int y) const;
    void Set(int x, int y, uint32_t raw);
    // Sets pixels x0..x1-1 of row y (top-down, inside the bitmap) to `raw`.
    void FillRow(int y, int x0, int x1, uint32_t raw);
    bool Indexed() const { return bpp <= 8; }
    uint32_t Mask() const { return bpp >= 24 ? 0xFFFFFFu : (1u << bpp) - 1; }
    COLORREF ToColor(uint32_t raw) const;
    // Nearest raw value for a colour (nearest table entry for indexed pixels).
    uint32_t FromColor(COLORREF color) const;
};

COLORREF QuadToColor(const RGBQUAD &q);
RGBQUAD ColorToQuad(COLORREF c);
// Number of table entries a BITMAPINFO carries for its bit depth.
int TableEntries(const BITMAPINFOHEADER &h);
// Fills `px` to describe caller-owned DIB memory (no copy) from a BITMAPINFO;
// false for a format that is not supported.
bool WrapDib(const BITMAPINFO *info, const void *bits, UINT usage, HDC dc, Pixels &px);
// Reads the colour table of a BITMAPINFO (DIB_RGB_COLORS, or DIB_PAL_COLORS
// through the palette selected into `dc`).
std::vector<RGBQUAD> ReadTable(const BITMAPINFO *info, UINT usage, HDC dc);

enum class Type { Bitmap, Brush, Pen, Palette, Font };

class GdiObject : public Object
{
public:
    GdiObject(Type type, bool stock) : Object(stock ? Kind::Uncounted : Kind::Gdi), type_(type), stock_(stock) {}
    Type type() const { return type_; }
    bool stock() const { return stock_; }

private:
    Type type_;
    bool stock_;
};

class Bitmap : public GdiObject
{
public:
    explicit Bitmap(bool stock = false) : GdiObject(Type::Bitmap, stock) {}
    std::shared_ptr<Pixels> px;
    bool dib = false;
    BITMAPINFOHEADER header{};  // of a DIB section
    uintptr_t selectedInto = 0; // memory DC holding it (never set for the stock bitmap)
};

class Brush : public GdiObject
{
public:
    Brush(COLORREF c, bool isNull, bool stock) : GdiObject(Type::Brush, stock), color(c), null(isNull) {}
    COLORREF color;
    bool null;
};

class Pen : public GdiObject
{
public:
    Pen(int s, int w, COLORREF c, bool stock) : GdiObject(Type::Pen, stock), style(s), width(w), color(c) {}
    int style;
    int width;
    COLORREF color;
};

class Palette : public GdiObject
{
public:
    explicit Palette(bool stock = false) : GdiObject(Type::Palette, stock) {}
    std::vector<PALETTEENTRY> entries;
};

class Font : public GdiObject
{
public:
    Font() : GdiObject(Type::Font, true) {}
};

class Dc : public Object
{
public:
    Dc() : Object(Kind::Dc) {}
    bool memory = false;
    HWND wnd = nullptr; // window DC: its window (null with `screen` for the screen)
    bool screen = false;
    std::shared_ptr<Pixels> surface; // window or screen pixels
    std::shared_ptr<Bitmap> bitmap;  // memory DC: selected bitmap
    std::shared_ptr<Brush> brush;
    std::shared_ptr<Pen> pen;
    std::shared_ptr<Palette> palette;
    std::shared_ptr<Font> font;
    uintptr_t bitmapHandle = 0, brushHandle = 0, penHandle = 0, paletteHandle = 0, fontHandle = 0;
    COLORREF bkColor = RGB(255, 255, 255);
    COLORREF textColor = RGB(0, 0, 0);
    int bkMode = OPAQUE;
    int mapMode = MM_TEXT;
    int stretchMode = BLACKONWHITE;
    POINT pos{0, 0};

    // What the DC draws into (null when nothing).
    Pixels *Target() const { return memory ? (bitmap ? bitmap->px.get() : nullptr) : surface.get(); }
};

// Handle-table look-ups and insertions are made WITHOUT the GDI mutex held
// (the table has its own locking), so the mutex is always the innermost lock.
// Looks up a DC; sets ERROR_INVALID_HANDLE when absent.
std::shared_ptr<Dc> FindDc(HDC dc);
// Gives a new DC the stock selections (before it is published).
void InitDc(Dc &dc);

// Screen properties.
constexpr int kScreenWidth = 1024;
constexpr int kScreenHeight = 768;

// The window's 24-bit pixel surface: rows top-down, B, G, R per pixel, no
// row padding. False when the window has never had a DC or is gone.
bool ReadWindowSurface(HWND wnd, int *width, int *height, std::vector<uint8_t> *bgr);
// Forgets a window's surface (for a destroyed window).
void DropWindowSurface(HWND wnd);

// Whether pixels of `src` copy unchanged into `dst` (same depth and colours).
bool IdentityConversion(const Pixels &src, const Pixels &dst);

// Converts source pixels to destination pixel values: through the colour
// tables, or by the text/background colour rules of monochrome bitmaps.
class Converter
{
public:
    Converter(const Pixels &src, const Dc *srcDc, const Pixels &dst, const Dc *dstDc)
        : src_(src), dst_(dst), srcBk_(srcDc ? srcDc->bkColor : RGB(255, 255, 255))
    {
        if (src.monoDdb && !dst.monoDdb) {
            lut_.push_back(dst.FromColor(dstDc ? dstDc->textColor : RGB(0, 0, 0)));
            lut_.push_back(dst.FromColor(dstDc ? dstDc->bkColor : RGB(255, 255, 255)));
        } else if (src.monoDdb && dst.monoDdb) {
            lut_ = {0, 1};
        } else if (src.Indexed()) {
            for (uint32_t i = 0; i < (1u << src.bpp); ++i) {
                COLORREF c = src.ToColor(i);
                if (dst.Indexed() && !dst.monoDdb && i < dst.table.size() && QuadToColor(dst.table[i]) == c)
                    lut_.push_back(i);
                else
                    lut_.push_back(FromColor(c));
            }
        }
    }
    uint32_t FromRaw(uint32_t raw)
    {
        if (!lut_.empty())
            return lut_[raw & (lut_.size() - 1)];
        return FromColor(raw);
    }
    uint32_t FromColor(COLORREF c)
    {
        if (dst_.monoDdb)
            return c == srcBk_ ? 1u : 0u;
        if (!dst_.Indexed())
            return c;
        auto it = cache_.find(c);
        if (it != cache_.end())
            return it->second;
        uint32_t v = dst_.FromColor(c);
        cache_.emplace(c, v);
        return v;
    }
    // Colour of a source pixel as seen when several are merged.
    COLORREF SourceColor(uint32_t raw) const
    {
        if (src_.monoDdb)
            return raw ? RGB(255, 255, 255) : RGB(0, 0, 0);
        return src_.ToColor(raw);
    }

private:
    const Pixels &src_;
    const Pixels &dst_;
    COLORREF srcBk_;
    std::vector<uint32_t> lut_;
    std::unordered_map<COLORREF, uint32_t> cache_;
};

// Block transfer between pixel stores; `src` may be null for raster
// operations without a source. Coordinates are already in device pixels.
struct BltArgs {
    Pixels *dst = nullptr;
    const Dc *dstDc = nullptr;
    int x = 0, y = 0, w = 0, h = 0;
    const Pixels *src = nullptr;
    const Dc *srcDc = nullptr;
    int sx = 0, sy = 0, sw = 0, sh = 0;
    DWORD rop = SRCCOPY;
    int stretchMode = COLORONCOLOR;
    COLORREF pattern = RGB(255, 255, 255);
    bool nullPattern = false;
};
// The destination half of a transfer onto d's surface, with d's brush as the
// pattern; the source is left for the caller.
BltArgs BltOnto(const Dc &d, int x, int y, int w, int h, DWORD rop, int stretchMode);
// False (with ERROR_INVALID_PARAMETER) for an unsupported raster operation.
bool Blt(const BltArgs &a);
// Solid fill of a rectangle (right/bottom exclusive), clipped.
void FillSolid(Pixels &px, int left, int top, int right, int bottom, COLORREF color);

} // namespace plat::gdi
