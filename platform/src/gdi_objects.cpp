// GDI objects and device contexts of the host GDI: stock objects, bitmaps,
// brushes, pens, palettes, memory DCs, window and screen DCs with their pixel
// surfaces, selection, deletion and the per-DC attributes.
#include "gdi.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>
#include <mutex>

using namespace plat;
using namespace plat::gdi;

namespace
{

constexpr int kStockCount = 20;
constexpr int kStockBitmap = kStockCount; // internal slot of the default 1x1 bitmap

struct StockTable {
    uintptr_t handle[kStockCount + 1] = {};
    std::shared_ptr<GdiObject> object[kStockCount + 1];
};

const PALETTEENTRY kSystemColors[20] = {
    {0, 0, 0, 0},       {128, 0, 0, 0},     {0, 128, 0, 0},     {128, 128, 0, 0},   {0, 0, 128, 0},
    {128, 0, 128, 0},   {0, 128, 128, 0},   {192, 192, 192, 0}, {192, 220, 192, 0}, {166, 202, 240, 0},
    {255, 251, 240, 0}, {160, 160, 164, 0}, {128, 128, 128, 0}, {255, 0, 0, 0},     {0, 255, 0, 0},
    {255, 255, 0, 0},   {0, 0, 255, 0},     {255, 0, 255, 0},   {0, 255, 255, 0},   {255, 255, 255, 0},
};

StockTable &Stock()
{
    static StockTable table;
    static std::once_flag once;
    std::call_once(once, [] {
        auto add = [](int index, std::shared_ptr<GdiObject> obj) {
            table.handle[index] = AddHandle(obj);
            table.object[index] = std::move(obj);
        };
        add(WHITE_BRUSH, std::make_shared<Brush>(RGB(255, 255, 255), false, true));
        add(LTGRAY_BRUSH, std::make_shared<Brush>(RGB(192, 192, 192), false, true));
        add(GRAY_BRUSH, std::make_shared<Brush>(RGB(128, 128, 128), false, true));
        add(DKGRAY_BRUSH, std::make_shared<Brush>(RGB(64, 64, 64), false, true));
        add(BLACK_BRUSH, std::make_shared<Brush>(RGB(0, 0, 0), false, true));
        add(NULL_BRUSH, std::make_shared<Brush>(RGB(0, 0, 0), true, true));
        add(WHITE_PEN, std::make_shared<Pen>(PS_SOLID, 1, RGB(255, 255, 255), true));
        add(BLACK_PEN, std::make_shared<Pen>(PS_SOLID, 1, RGB(0, 0, 0), true));
        add(NULL_PEN, std::make_shared<Pen>(PS_NULL, 1, RGB(0, 0, 0), true));
        for (int font : {10, 11, 12, 13, 14, 16, 17})
            add(font, std::make_shared<Font>());
        auto pal = std::make_shared<Palette>(true);
        pal->entries.assign(std::begin(kSystemColors), std::end(kSystemColors));
        add(DEFAULT_PALETTE, pal);
        auto bmp = std::make_shared<Bitmap>(true);
        bmp->px = std::make_shared<Pixels>();
        bmp->px->Allocate(1, 1, 1, true);
        bmp->px->monoDdb = true;
        bmp->px->table = {ColorToQuad(RGB(0, 0, 0)), ColorToQuad(RGB(255, 255, 255))};
        add(kStockBitmap, bmp);
    });
    return table;
}

template <class T> std::shared_ptr<T> StockObject(int index)
{
    return std::static_pointer_cast<T>(Stock().object[index]);
}

std::shared_ptr<GdiObject> FindGdi(HGDIOBJ obj)
{
    auto o = Find<GdiObject>(obj);
    if (!o)
        SetError(ERROR_INVALID_HANDLE);
    return o;
}

// ---- Window and screen surfaces ------------------------------------------

std::map<HWND, std::shared_ptr<Pixels>> &Surfaces()
{
    static std::map<HWND, std::shared_ptr<Pixels>> surfaces;
    return surfaces;
}

std::shared_ptr<Pixels> &ScreenSurface()
{
    static std::shared_ptr<Pixels> screen;
    return screen;
}

std::shared_ptr<Pixels> NewSurface(int w, int h)
{
    auto px = std::make_shared<Pixels>();
    px->Allocate(w, h, 24, true);
    std::memset(px->bits, 0xFF, static_cast<size_t>(px->stride) * h);
    return px;
}

// Drops the surfaces of windows that no longer exist.
void DropStaleSurfaces()
{
    std::vector<HWND> known;
    {
        std::lock_guard<std::mutex> g(GdiMutex());
        for (auto &entry : Surfaces())
            known.push_back(entry.first);
    }
    std::vector<HWND> stale;
    for (HWND w : known)
        if (!IsWindow(w))
            stale.push_back(w);
    std::lock_guard<std::mutex> g(GdiMutex());
    for (HWND w : stale)
        Surfaces().erase(w);
}

HDC PublishDc(std::shared_ptr<Dc> dc)
{
    return ToHandle<HDC>(AddHandle(std::move(dc)));
}

} // namespace

namespace plat::gdi
{

std::shared_ptr<Dc> FindDc(HDC dc)
{
    auto d = Find<Dc>(dc);
    if (!d)
        SetError(ERROR_INVALID_HANDLE);
    return d;
}

void InitDc(Dc &dc)
{
    StockTable &s = Stock();
    dc.brush = StockObject<Brush>(WHITE_BRUSH);
    dc.brushHandle = s.handle[WHITE_BRUSH];
    dc.pen = StockObject<Pen>(BLACK_PEN);
    dc.penHandle = s.handle[BLACK_PEN];
    dc.palette = StockObject<Palette>(DEFAULT_PALETTE);
    dc.paletteHandle = s.handle[DEFAULT_PALETTE];
    dc.font = StockObject<Font>(SYSTEM_FONT);
    dc.fontHandle = s.handle[SYSTEM_FONT];
    if (dc.memory) {
        dc.bitmap = StockObject<Bitmap>(kStockBitmap);
        dc.bitmapHandle = s.handle[kStockBitmap];
    }
}

bool ReadWindowSurface(HWND wnd, int *width, int *height, std::vector<uint8_t> *bgr)
{
    std::lock_guard<std::mutex> g(GdiMutex());
    auto it = Surfaces().find(wnd);
    if (it == Surfaces().end())
        return false;
    const Pixels &px = *it->second;
    *width = px.width;
    *height = px.height;
    bgr->resize(static_cast<size_t>(px.width) * px.height * 3);
    for (int y = 0; y < px.height; ++y)
        std::memcpy(bgr->data() + static_cast<size_t>(y) * px.width * 3, px.Row(y), static_cast<size_t>(px.width) * 3);
    return true;
}

// Window DCs handed out by GetDC and not yet released, by window.
static std::multimap<HWND, uintptr_t> &OutstandingWindowDcs()
{
    static std::multimap<HWND, uintptr_t> dcs;
    return dcs;
}

void DropWindowSurface(HWND wnd)
{
    // A destroyed window's DCs go with it, released or not.
    std::vector<uintptr_t> dcs;
    {
        std::lock_guard<std::mutex> g(GdiMutex());
        Surfaces().erase(wnd);
        auto range = OutstandingWindowDcs().equal_range(wnd);
        for (auto it = range.first; it != range.second; ++it)
            dcs.push_back(it->second);
        OutstandingWindowDcs().erase(wnd);
    }
    for (uintptr_t dc : dcs)
        RemoveHandle(dc);
}

} // namespace plat::gdi

PLAT_INJECTABLE(CreateDIBSection);
PLAT_INJECTABLE(CreateCompatibleDC);
PLAT_INJECTABLE(SelectObject);
PLAT_INJECTABLE(GetDC);
PLAT_INJECTABLE(CreatePalette);
PLAT_INJECTABLE(CreateCompatibleBitmap);
PLAT_INJECTABLE(DeleteObject);
PLAT_INJECTABLE(SetMapMode);
PLAT_INJECTABLE(CreateSolidBrush);
PLAT_INJECTABLE(CreatePen);

// ---- Device contexts -------------------------------------------------------

static HDC WindowDc(HWND wnd)
{
    if (PLAT_FAIL(GetDC, ERROR_INVALID_WINDOW_HANDLE))
        return nullptr;
    DropStaleSurfaces();
    auto dc = std::make_shared<Dc>();
    if (!wnd) {
        dc->screen = true;
        std::lock_guard<std::mutex> g(GdiMutex());
        if (!ScreenSurface())
            ScreenSurface() = NewSurface(kScreenWidth, kScreenHeight);
        dc->surface = ScreenSurface();
    } else {
        if (!IsWindow(wnd)) {
            SetError(ERROR_INVALID_WINDOW_HANDLE);
            return nullptr;
        }
        RECT rc{};
        GetClientRect(wnd, &rc);
        int w = std::max<LONG>(rc.right - rc.left, 0), h = std::max<LONG>(rc.bottom - rc.top, 0);
        dc->wnd = wnd;
        std::lock_guard<std::mutex> g(GdiMutex());
        auto &surface = Surfaces()[wnd];
        if (!surface || surface->width != w || surface->height != h) {
            auto fresh = NewSurface(w, h);
            if (surface) {
                int cw = std::min(w, surface->width), ch = std::min(h, surface->height);
                for (int y = 0; y < ch; ++y)
                    std::memcpy(fresh->Row(y), surface->Row(y), static_cast<size_t>(cw) * 3);
            }
            surface = fresh;
        }
        dc->surface = surface;
    }
    InitDc(*dc);
    HDC handle = PublishDc(dc);
    if (wnd && handle) {
        std::lock_guard<std::mutex> g(GdiMutex());
        OutstandingWindowDcs().emplace(wnd, reinterpret_cast<uintptr_t>(handle));
    }
    return handle;
}

extern "C" HDC WINAPI GetDC(HWND wnd)
{
    return WindowDc(wnd);
}

extern "C" HDC WINAPI GetWindowDC(HWND wnd)
{
    return WindowDc(wnd);
}

extern "C" int WINAPI ReleaseDC(HWND, HDC dc)
{
    auto d = Find<Dc>(dc);
    if (!d || d->memory)
        return 0;
    if (d->wnd) {
        std::lock_guard<std::mutex> g(GdiMutex());
        auto range = OutstandingWindowDcs().equal_range(d->wnd);
        for (auto it = range.first; it != range.second; ++it)
            if (it->second == reinterpret_cast<uintptr_t>(dc)) {
                OutstandingWindowDcs().erase(it);
                break;
            }
    }
    RemoveHandle(reinterpret_cast<uintptr_t>(dc));
    return 1;
}

extern "C" HDC WINAPI CreateCompatibleDC(HDC dc)
{
    if (PLAT_FAIL(CreateCompatibleDC, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (dc && !FindDc(dc))
        return nullptr;
    auto d = std::make_shared<Dc>();
    d->memory = true;
    InitDc(*d);
    return PublishDc(d);
}

extern "C" BOOL WINAPI DeleteDC(HDC dc)
{
    auto d = FindDc(dc);
    if (!d)
        return FALSE;
    {
        std::lock_guard<std::mutex> g(GdiMutex());
        if (d->bitmap && !d->bitmap->stock())
            d->bitmap->selectedInto = 0;
        d->bitmap.reset();
        d->brush.reset();
        d->pen.reset();
        d->palette.reset();
    }
    RemoveHandle(reinterpret_cast<uintptr_t>(dc));
    return TRUE;
}

extern "C" HGDIOBJ WINAPI SelectObject(HDC dc, HGDIOBJ obj)
{
    if (PLAT_FAIL(SelectObject, ERROR_INVALID_PARAMETER))
        return nullptr;
    auto d = FindDc(dc);
    if (!d)
        return nullptr;
    auto o = FindGdi(obj);
    if (!o)
        return nullptr;
    uintptr_t h = reinterpret_cast<uintptr_t>(obj), prev = 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    switch (o->type()) {
    case Type::Bitmap: {
        auto b = std::static_pointer_cast<Bitmap>(o);
        if (!d->memory || (b->selectedInto && b->selectedInto != reinterpret_cast<uintptr_t>(dc))) {
            SetError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        if (d->bitmap && !d->bitmap->stock())
            d->bitmap->selectedInto = 0;
        if (!b->stock())
            b->selectedInto = reinterpret_cast<uintptr_t>(dc);
        prev = d->bitmapHandle;
        d->bitmap = b;
        d->bitmapHandle = h;
        break;
    }
    case Type::Brush:
        prev = d->brushHandle;
        d->brush = std::static_pointer_cast<Brush>(o);
        d->brushHandle = h;
        break;
    case Type::Pen:
        prev = d->penHandle;
        d->pen = std::static_pointer_cast<Pen>(o);
        d->penHandle = h;
        break;
    case Type::Font:
        prev = d->fontHandle;
        d->font = std::static_pointer_cast<Font>(o);
        d->fontHandle = h;
        break;
    case Type::Palette: // palettes are selected with SelectPalette
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return reinterpret_cast<HGDIOBJ>(prev);
}

extern "C" BOOL WINAPI DeleteObject(HGDIOBJ obj)
{
    if (PLAT_FAIL(DeleteObject, ERROR_INVALID_PARAMETER))
        return FALSE;
    auto o = FindGdi(obj);
    if (!o)
        return FALSE;
    if (o->stock())
        return TRUE;
    {
        std::lock_guard<std::mutex> g(GdiMutex());
        if (o->type() == Type::Bitmap && std::static_pointer_cast<Bitmap>(o)->selectedInto) {
            SetError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
    }
    // A brush, pen or palette still selected into a DC lives on until the
    // DC lets go of it.
    RemoveHandle(reinterpret_cast<uintptr_t>(obj));
    return TRUE;
}

extern "C" HGDIOBJ WINAPI GetStockObject(int index)
{
    if (index < 0 || index >= kStockCount)
        return nullptr;
    return reinterpret_cast<HGDIOBJ>(Stock().handle[index]);
}

extern "C" DWORD WINAPI GetObjectType(HGDIOBJ obj)
{
    auto any = FindHandle(reinterpret_cast<uintptr_t>(obj));
    if (auto d = std::dynamic_pointer_cast<Dc>(any))
        return d->memory ? OBJ_MEMDC : OBJ_DC;
    auto o = std::dynamic_pointer_cast<GdiObject>(any);
    if (!o) {
        SetError(ERROR_INVALID_HANDLE);
        return 0;
    }
    switch (o->type()) {
    case Type::Bitmap:
        return OBJ_BITMAP;
    case Type::Brush:
        return OBJ_BRUSH;
    case Type::Pen:
        return OBJ_PEN;
    case Type::Palette:
        return OBJ_PAL;
    case Type::Font:
        break;
    }
    return OBJ_FONT;
}

extern "C" HGDIOBJ WINAPI GetCurrentObject(HDC dc, UINT type)
{
    auto d = FindDc(dc);
    if (!d)
        return nullptr;
    std::lock_guard<std::mutex> g(GdiMutex());
    switch (type) {
    case OBJ_BITMAP:
        return reinterpret_cast<HGDIOBJ>(d->memory ? d->bitmapHandle : Stock().handle[kStockBitmap]);
    case OBJ_BRUSH:
        return reinterpret_cast<HGDIOBJ>(d->brushHandle);
    case OBJ_PEN:
        return reinterpret_cast<HGDIOBJ>(d->penHandle);
    case OBJ_PAL:
        return reinterpret_cast<HGDIOBJ>(d->paletteHandle);
    case OBJ_FONT:
        return reinterpret_cast<HGDIOBJ>(d->fontHandle);
    default:
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
}

extern "C" int WINAPI GetObjectW(HGDIOBJ obj, int size, LPVOID out)
{
    auto o = FindGdi(obj);
    if (!o)
        return 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    switch (o->type()) {
    case Type::Bitmap: {
        auto b = std::static_pointer_cast<Bitmap>(o);
        int need = b->dib ? int(sizeof(DIBSECTION)) : int(sizeof(BITMAP));
        if (!out)
            return need;
        if (size < int(sizeof(BITMAP))) {
            SetError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        const Pixels &px = *b->px;
        BITMAP bm{};
        bm.bmWidth = px.width;
        bm.bmHeight = px.height;
        bm.bmWidthBytes = b->dib ? px.stride : ((px.width * px.bpp + 15) / 16) * 2;
        bm.bmPlanes = 1;
        bm.bmBitsPixel = static_cast<WORD>(px.bpp);
        bm.bmBits = b->dib ? px.bits : nullptr;
        if (b->dib && size >= int(sizeof(DIBSECTION))) {
            DIBSECTION ds{};
            ds.dsBm = bm;
            ds.dsBmih = b->header;
            std::memcpy(out, &ds, sizeof ds);
            return int(sizeof(DIBSECTION));
        }
        std::memcpy(out, &bm, sizeof bm);
        return int(sizeof(BITMAP));
    }
    case Type::Brush: {
        if (!out)
            return int(sizeof(LOGBRUSH));
        if (size < int(sizeof(LOGBRUSH)))
            return 0;
        auto br = std::static_pointer_cast<Brush>(o);
        LOGBRUSH lb{};
        lb.lbStyle = br->null ? 1u : 0u; // BS_NULL : BS_SOLID
        lb.lbColor = br->color;
        std::memcpy(out, &lb, sizeof lb);
        return int(sizeof(LOGBRUSH));
    }
    case Type::Palette: {
        if (!out)
            return int(sizeof(WORD));
        if (size < int(sizeof(WORD)))
            return 0;
        WORD n = static_cast<WORD>(std::static_pointer_cast<Palette>(o)->entries.size());
        std::memcpy(out, &n, sizeof n);
        return int(sizeof(WORD));
    }
    default:
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
}

// ---- Bitmaps ---------------------------------------------------------------

extern "C" HBITMAP WINAPI CreateDIBSection(HDC dc, const BITMAPINFO *info, UINT usage, void **bits, HANDLE section,
                                           DWORD)
{
    if (bits)
        *bits = nullptr;
    if (PLAT_FAIL(CreateDIBSection, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (section) {
        SetError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    Pixels view;
    if (!WrapDib(info, nullptr, usage, dc, view)) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto b = std::make_shared<Bitmap>();
    b->dib = true;
    b->px = std::make_shared<Pixels>();
    b->px->Allocate(view.width, view.height, view.bpp, view.topDown);
    b->px->table = view.table;
    b->header = info->bmiHeader;
    b->header.biSize = sizeof(BITMAPINFOHEADER);
    b->header.biSizeImage = static_cast<DWORD>(b->px->stride) * b->px->height;
    if (bits)
        *bits = b->px->bits;
    return ToHandle<HBITMAP>(AddHandle(b));
}

static HBITMAP NewDdb(int width, int height, int bpp)
{
    auto b = std::make_shared<Bitmap>();
    b->px = std::make_shared<Pixels>();
    b->px->Allocate(width, height, bpp, true);
    if (bpp == 1) {
        b->px->monoDdb = true;
        b->px->table = {ColorToQuad(RGB(0, 0, 0)), ColorToQuad(RGB(255, 255, 255))};
    }
    return ToHandle<HBITMAP>(AddHandle(b));
}

extern "C" HBITMAP WINAPI CreateCompatibleBitmap(HDC dc, int width, int height)
{
    if (PLAT_FAIL(CreateCompatibleBitmap, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    auto d = FindDc(dc);
    if (!d)
        return nullptr;
    if (width < 0 || height < 0) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (width == 0 || height == 0)
        return NewDdb(1, 1, 1);
    bool mono;
    {
        std::lock_guard<std::mutex> g(GdiMutex());
        mono = d->memory && d->bitmap && d->bitmap->px->monoDdb;
    }
    return NewDdb(width, height, mono ? 1 : 24);
}

extern "C" HBITMAP WINAPI CreateBitmap(int width, int height, UINT planes, UINT bitCount, const void *bits)
{
    if (width <= 0 || height <= 0 || planes != 1 || (bitCount != 1 && bitCount != 24 && bitCount != 32)) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    HBITMAP h = NewDdb(width, height, static_cast<int>(bitCount));
    if (bits) {
        auto b = Find<Bitmap>(h);
        // Rows of the caller's data are word aligned.
        size_t srcStride = ((static_cast<size_t>(width) * bitCount + 15) / 16) * 2;
        size_t rowBytes = (static_cast<size_t>(width) * bitCount + 7) / 8;
        for (int y = 0; y < height; ++y)
            std::memcpy(b->px->Row(y), static_cast<const uint8_t *>(bits) + y * srcStride, rowBytes);
    }
    return h;
}

// ---- Brushes, pens, palettes -------------------------------------------------

extern "C" HBRUSH WINAPI CreateSolidBrush(COLORREF color)
{
    if (PLAT_FAIL(CreateSolidBrush, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    return ToHandle<HBRUSH>(AddHandle(std::make_shared<Brush>(color & 0xFFFFFFu, false, false)));
}

extern "C" HPEN WINAPI CreatePen(int style, int width, COLORREF color)
{
    if (PLAT_FAIL(CreatePen, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    return ToHandle<HPEN>(AddHandle(std::make_shared<Pen>(style, std::max(width, 1), color & 0xFFFFFFu, false)));
}

extern "C" HPALETTE WINAPI CreatePalette(const LOGPALETTE *palette)
{
    if (PLAT_FAIL(CreatePalette, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (!palette || palette->palNumEntries == 0) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto p = std::make_shared<Palette>();
    p->entries.resize(palette->palNumEntries);
    const auto *first = reinterpret_cast<const uint8_t *>(palette) + offsetof(LOGPALETTE, palPalEntry);
    std::memcpy(p->entries.data(), first, p->entries.size() * sizeof(PALETTEENTRY));
    return ToHandle<HPALETTE>(AddHandle(p));
}

extern "C" HPALETTE WINAPI SelectPalette(HDC dc, HPALETTE palette, BOOL)
{
    auto d = FindDc(dc);
    if (!d)
        return nullptr;
    auto p = Find<Palette>(palette);
    if (!p) {
        SetError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    std::lock_guard<std::mutex> g(GdiMutex());
    uintptr_t prev = d->paletteHandle;
    d->palette = p;
    d->paletteHandle = reinterpret_cast<uintptr_t>(palette);
    return reinterpret_cast<HPALETTE>(prev);
}

extern "C" UINT WINAPI RealizePalette(HDC dc)
{
    // The screen is a true-colour device: nothing to map.
    return FindDc(dc) ? 0 : GDI_ERROR;
}

extern "C" UINT WINAPI GetPaletteEntries(HPALETTE palette, UINT start, UINT count, LPPALETTEENTRY entries)
{
    auto p = Find<Palette>(palette);
    if (!p) {
        SetError(ERROR_INVALID_HANDLE);
        return 0;
    }
    std::lock_guard<std::mutex> g(GdiMutex());
    UINT n = static_cast<UINT>(p->entries.size());
    if (!entries)
        return n;
    if (start >= n)
        return 0;
    UINT copied = std::min(count, n - start);
    std::memcpy(entries, p->entries.data() + start, copied * sizeof(PALETTEENTRY));
    return copied;
}

// ---- DC attributes -----------------------------------------------------------

template <class R, class F> static R WithDc(HDC dc, R fail, F f)
{
    auto d = FindDc(dc);
    if (!d)
        return fail;
    std::lock_guard<std::mutex> g(GdiMutex());
    return f(*d);
}

extern "C" int WINAPI GetMapMode(HDC dc)
{
    return WithDc(dc, 0, [](Dc &d) { return d.mapMode; });
}

extern "C" int WINAPI SetMapMode(HDC dc, int mode)
{
    if (PLAT_FAIL(SetMapMode, ERROR_INVALID_PARAMETER))
        return 0;
    if (mode < MM_TEXT || mode > MM_ANISOTROPIC) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return WithDc(dc, 0, [mode](Dc &d) { return std::exchange(d.mapMode, mode); });
}

extern "C" int WINAPI SetStretchBltMode(HDC dc, int mode)
{
    if (mode < BLACKONWHITE || mode > HALFTONE) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return WithDc(dc, 0, [mode](Dc &d) { return std::exchange(d.stretchMode, mode); });
}

extern "C" int WINAPI GetStretchBltMode(HDC dc)
{
    return WithDc(dc, 0, [](Dc &d) { return d.stretchMode; });
}

extern "C" COLORREF WINAPI SetBkColor(HDC dc, COLORREF color)
{
    return WithDc(dc, COLORREF(CLR_INVALID), [color](Dc &d) { return std::exchange(d.bkColor, color & 0xFFFFFFu); });
}

extern "C" COLORREF WINAPI SetTextColor(HDC dc, COLORREF color)
{
    return WithDc(dc, COLORREF(CLR_INVALID), [color](Dc &d) { return std::exchange(d.textColor, color & 0xFFFFFFu); });
}

extern "C" int WINAPI SetBkMode(HDC dc, int mode)
{
    if (mode != TRANSPARENT && mode != OPAQUE) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return WithDc(dc, 0, [mode](Dc &d) { return std::exchange(d.bkMode, mode); });
}

extern "C" int WINAPI GetDeviceCaps(HDC dc, int index)
{
    if (!FindDc(dc))
        return 0;
    switch (index) {
    case HORZRES:
        return kScreenWidth;
    case VERTRES:
        return kScreenHeight;
    case BITSPIXEL:
        return 24;
    case PLANES:
        return 1;
    case NUMCOLORS:
        return -1;
    case LOGPIXELSX:
    case LOGPIXELSY:
        return 96;
    case RASTERCAPS:
        return 0x0001 | 0x0008 | 0x0800; // RC_BITBLT | RC_BITMAP64 | RC_STRETCHBLT, no RC_PALETTE
    case SIZEPALETTE:
        return 0;
    default:
        return 0;
    }
}
