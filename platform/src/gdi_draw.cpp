// Simple drawing of the host GDI: rectangles filled or framed with a brush,
// lines and outlines with the selected pen, polygons. Pens draw one pixel
// wide; coordinates are device pixels (MM_TEXT).
#include "gdi.h"

#include <algorithm>
#include <cstdlib>

using namespace plat;
using namespace plat::gdi;

namespace
{

// Colour of a brush handle, which may also be a system colour index + 1.
bool BrushColor(HBRUSH brush, COLORREF *color)
{
    uintptr_t value = reinterpret_cast<uintptr_t>(brush);
    if (value != 0 && value <= 31) {
        *color = GetSysColor(static_cast<int>(value - 1));
        return true;
    }
    auto b = Find<Brush>(brush);
    if (!b) {
        SetError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (b->null)
        return false;
    *color = b->color;
    return true;
}

void Plot(Pixels &px, int x, int y, uint32_t raw)
{
    if (x >= 0 && y >= 0 && x < px.width && y < px.height)
        px.Set(x, y, raw);
}

// Bresenham line from (x0, y0) to (x1, y1); the end point is drawn only when
// `last` is set.
void Line(Pixels &px, int x0, int y0, int x1, int y1, uint32_t raw, bool last)
{
    int dx = std::abs(x1 - x0), dy = -std::abs(y1 - y0);
    int stepX = x0 < x1 ? 1 : -1, stepY = y0 < y1 ? 1 : -1;
    int err = dx + dy;
    for (;;) {
        if (x0 == x1 && y0 == y1) {
            if (last)
                Plot(px, x0, y0, raw);
            return;
        }
        Plot(px, x0, y0, raw);
        int e2 = 2 * err;
        if (e2 >= dy) {
            err += dy;
            x0 += stepX;
        }
        if (e2 <= dx) {
            err += dx;
            y0 += stepY;
        }
    }
}

bool PenColor(const Dc &d, uint32_t *raw, const Pixels &px)
{
    if (!d.pen || d.pen->style == PS_NULL)
        return false;
    *raw = px.FromColor(d.pen->color);
    return true;
}

} // namespace

extern "C" int WINAPI FillRect(HDC dc, const RECT *rect, HBRUSH brush)
{
    auto d = FindDc(dc);
    if (!d || !rect)
        return 0;
    COLORREF color;
    if (!BrushColor(brush, &color))
        return Find<Brush>(brush) ? 1 : 0;
    std::lock_guard<std::mutex> g(GdiMutex());
    if (Pixels *px = d->Target())
        FillSolid(*px, rect->left, rect->top, rect->right, rect->bottom, color);
    return 1;
}

extern "C" int WINAPI FrameRect(HDC dc, const RECT *rect, HBRUSH brush)
{
    auto d = FindDc(dc);
    if (!d || !rect)
        return 0;
    COLORREF color;
    if (!BrushColor(brush, &color))
        return Find<Brush>(brush) ? 1 : 0;
    if (rect->right <= rect->left || rect->bottom <= rect->top)
        return 1;
    std::lock_guard<std::mutex> g(GdiMutex());
    if (Pixels *px = d->Target()) {
        const RECT &r = *rect;
        FillSolid(*px, r.left, r.top, r.right, r.top + 1, color);
        FillSolid(*px, r.left, r.bottom - 1, r.right, r.bottom, color);
        FillSolid(*px, r.left, r.top, r.left + 1, r.bottom, color);
        FillSolid(*px, r.right - 1, r.top, r.right, r.bottom, color);
    }
    return 1;
}

extern "C" BOOL WINAPI Rectangle(HDC dc, int left, int top, int right, int bottom)
{
    auto d = FindDc(dc);
    if (!d)
        return FALSE;
    if (left > right)
        std::swap(left, right);
    if (top > bottom)
        std::swap(top, bottom);
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels *px = d->Target();
    if (!px || right - left < 1 || bottom - top < 1)
        return TRUE;
    if (d->brush && !d->brush->null)
        FillSolid(*px, left, top, right, bottom, d->brush->color);
    uint32_t raw;
    if (PenColor(*d, &raw, *px)) {
        Line(*px, left, top, right - 1, top, raw, true);
        Line(*px, left, bottom - 1, right - 1, bottom - 1, raw, true);
        Line(*px, left, top, left, bottom - 1, raw, true);
        Line(*px, right - 1, top, right - 1, bottom - 1, raw, true);
    }
    return TRUE;
}

extern "C" BOOL WINAPI MoveToEx(HDC dc, int x, int y, LPPOINT old)
{
    auto d = FindDc(dc);
    if (!d)
        return FALSE;
    std::lock_guard<std::mutex> g(GdiMutex());
    if (old)
        *old = d->pos;
    d->pos = POINT{x, y};
    return TRUE;
}

extern "C" BOOL WINAPI LineTo(HDC dc, int x, int y)
{
    auto d = FindDc(dc);
    if (!d)
        return FALSE;
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels *px = d->Target();
    uint32_t raw;
    if (px && PenColor(*d, &raw, *px))
        Line(*px, d->pos.x, d->pos.y, x, y, raw, false);
    d->pos = POINT{x, y};
    return TRUE;
}

extern "C" BOOL WINAPI Polygon(HDC dc, const POINT *points, int count)
{
    auto d = FindDc(dc);
    if (!d)
        return FALSE;
    if (!points || count < 2) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::lock_guard<std::mutex> g(GdiMutex());
    Pixels *px = d->Target();
    if (!px)
        return TRUE;
    if (d->brush && !d->brush->null) {
        // Even-odd fill, sampling pixel centres.
        uint32_t raw = px->FromColor(d->brush->color);
        LONG minY = points[0].y, maxY = points[0].y;
        for (int i = 1; i < count; ++i) {
            minY = std::min(minY, points[i].y);
            maxY = std::max(maxY, points[i].y);
        }
        for (int y = std::max<LONG>(minY, 0); y < std::min<LONG>(maxY, px->height); ++y) {
            double cy = y + 0.5;
            std::vector<double> xs;
            for (int i = 0; i < count; ++i) {
                const POINT &a = points[i], &b = points[(i + 1) % count];
                if ((a.y <= cy) != (b.y <= cy))
                    xs.push_back(a.x + (cy - a.y) * double(b.x - a.x) / double(b.y - a.y));
            }
            std::sort(xs.begin(), xs.end());
            for (size_t i = 0; i + 1 < xs.size(); i += 2) {
                for (int x = std::max(0, int(xs[i] + 0.5)); x < std::min(px->width, int(xs[i + 1] + 0.5)); ++x)
                    px->Set(x, y, raw);
            }
        }
    }
    uint32_t raw;
    if (PenColor(*d, &raw, *px)) {
        for (int i = 0; i < count; ++i) {
            const POINT &a = points[i], &b = points[(i + 1) % count];
            Line(*px, a.x, a.y, b.x, b.y, raw, true);
        }
    }
    return TRUE;
}
