/* The put, where and window commands: which part of the image is shown,
   where, and in which window. They change the display copy and the
   rectangles without a lock; put and window refuse to run while a notified
   scan is pending. */
#include "display/display.h"

#include <string.h>

/* Largest far edge of a rectangle put: room is left for rounding a row
   width up to whole 32-bit words. */
#define DISP_COORD_LIMIT 0x7FFFFFE0L

/* A display copy being made, before it replaces the present one. */
typedef struct DispSlot {
    HGLOBAL infoMem;
    BITMAPINFO *info;
    HBITMAP bitmap;
    HDC dc;
    HBITMAP oldBitmap;
} DispSlot;

static void DispFreeNewSlot(DispSlot *slot)
{
    ImgFreeSlot(&slot->infoMem, &slot->info, &slot->bitmap, &slot->dc, &slot->oldBitmap);
}

/* Makes a display copy in the current image's format: an info block of the
   image's header followed by tableBytes of colour table taken from table
   (with the fourth byte of each entry cleared when clearReserved is set),
   a memory DC compatible with the target window's DC, and a DIB section
   dibWidth x height selected into it. The header's width then says width.
   Returns 0 with nothing left behind on failure. */
static int DispMakeSlot(DispSlot *slot, DWORD tableBytes, const RGBQUAD *table, int clearReserved, LONG dibWidth,
                        LONG height, LONG width)
{
    HDC windowDC;
    void *bits;
    HGDIOBJ old;

    memset(slot, 0, sizeof(*slot));
    slot->infoMem = GlobalAlloc(IMG_GMEM_FLAGS, IMG_HEADER_BYTES + tableBytes);
    if (slot->infoMem == NULL)
        return 0;
    slot->info = (BITMAPINFO *)GlobalLock(slot->infoMem);
    if (slot->info == NULL) {
        DispFreeNewSlot(slot);
        return 0;
    }
    windowDC = GetDC(g_targetWnd);
    slot->dc = CreateCompatibleDC(windowDC);
    if (slot->dc == NULL) {
        if (windowDC != NULL)
            ReleaseDC(g_targetWnd, windowDC);
        DispFreeNewSlot(slot);
        return 0;
    }
    slot->info->bmiHeader = g_imageInfo->bmiHeader;
    slot->info->bmiHeader.biWidth = dibWidth;
    slot->info->bmiHeader.biHeight = height;
    if (tableBytes != 0) {
        DWORD i;

        memcpy(slot->info->bmiColors, table, tableBytes);
        for (i = 0; clearReserved && i < tableBytes / sizeof(RGBQUAD); ++i)
            slot->info->bmiColors[i].rgbReserved = 0;
    }
    slot->bitmap = CreateDIBSection(windowDC, slot->info, DIB_RGB_COLORS, &bits, NULL, 0);
    old = slot->bitmap != NULL ? SelectObject(slot->dc, slot->bitmap) : NULL;
    if (windowDC != NULL)
        ReleaseDC(g_targetWnd, windowDC);
    if (old == NULL || old == HGDI_ERROR) {
        DispFreeNewSlot(slot);
        return 0;
    }
    slot->oldBitmap = (HBITMAP)old;
    slot->info->bmiHeader.biWidth = width;
    return 1;
}

/* The new display copy replaces the present one. */
static void DispInstallSlot(const DispSlot *slot)
{
    ImgFreeSlot(&g_dispInfoMem, &g_dispInfo, &g_dispBitmap, &g_dispDC, &g_dispOldBitmap);
    g_dispInfoMem = slot->infoMem;
    g_dispInfo = slot->info;
    g_dispBitmap = slot->bitmap;
    g_dispDC = slot->dc;
    g_dispOldBitmap = slot->oldBitmap;
}

static void DispFillWhite(LONG width, LONG height)
{
    BitBlt(g_dispDC, 0, 0, width, height, NULL, 0, 0, WHITENESS);
}

/* Row width of the display DIB for a destination width, and the colour
   table entries it carries, from the image's bit depth. */
static void DispRowFormat(WORD bitCount, LONG width, LONG *rowWidth, DWORD *entries)
{
    switch (bitCount) {
    case 1:
        *rowWidth = (width + 31) & ~31L;
        *entries = 2;
        break;
    case 4:
        *rowWidth = (width + 7) & ~7L;
        *entries = 16;
        break;
    case 8:
        *rowWidth = (width + 3) & ~3L;
        *entries = 256;
        break;
    default:
        *rowWidth = (width + 3) & ~3L;
        *entries = 0;
        break;
    }
}

/* Redraws the display copy from the source rectangle, clipping the source
   at the image's right edge only; what is clipped off stays white. */
static void DispRedrawFromImage(void)
{
    const ScanRect *s = &g_srcRect;
    const ScanRect *d = &g_dstRect;
    LONG imageWidth = g_imageInfo->bmiHeader.biWidth;

    if (s->x + s->width <= imageWidth) {
        StretchBlt(g_dispDC, 0, 0, d->width, d->height, g_imageDC, s->x, s->y, s->width, s->height, SRCCOPY);
    } else if (s->x < imageWidth) {
        LONG cut = imageWidth - s->x;

        StretchBlt(g_dispDC, 0, 0, (LONG)((LONGLONG)d->width * cut / s->width), d->height, g_imageDC, s->x, s->y, cut,
                   s->height, SRCCOPY);
    }
}

/* Shows a put's result in an application window: the old destination is
   invalidated, the stored destination clipped to the client area for good,
   and the display copy drawn there. */
static DWORD DispShowInTarget(const ScanRect *old)
{
    HWND target = g_targetWnd;
    RECT area, client;
    HDC dc;
    int oldMode;

    g_dispUpdating = 0;
    if (!IsWindow(target))
        return MCIERR_NO_WINDOW;
    dc = GetDC(target);
    oldMode = SetMapMode(dc, MM_TEXT);
    ReleaseDC(target, dc);
    area.left = old->x;
    area.top = old->y;
    area.right = old->x + old->width;
    area.bottom = old->y + old->height;
    InvalidateRect(target, &area, TRUE);
    GetClientRect(target, &client);
    DispClipToClient(&client, &g_dstRect.x, &g_dstRect.y, &g_dstRect.width, &g_dstRect.height);
    dc = GetDC(target);
    BitBlt(dc, g_dstRect.x, g_dstRect.y, g_dstRect.width, g_dstRect.height, g_dispDC, 0, 0, SRCCOPY);
    SetMapMode(dc, oldMode);
    ReleaseDC(target, dc);
    return 0;
}

/* Shows a put's result in the own window: repaints the box around the old
   and the new destination. */
static void DispShowInOwnWindow(const ScanRect *old)
{
    LONG x = g_dstRect.x, y = g_dstRect.y, w = g_dstRect.width, h = g_dstRect.height;
    RECT area;

    if (x + w < old->x + old->width) {
        w = old->x + old->width - x;
        if (w < 0)
            w = 0;
    }
    if (y + h < old->y + old->height) {
        h = old->y + old->height - y;
        if (h < 0)
            h = 0;
    }
    if (old->x < x) {
        w += x - old->x;
        x = old->x;
    }
    if (old->y < y) {
        h += y - old->y;
        y = old->y;
    }
    area.left = x;
    area.top = y;
    area.right = x + w;
    area.bottom = y + h;
    InvalidateRect(g_displayWnd, &area, TRUE);
    UpdateWindow(g_displayWnd);
    g_dispUpdating = 0;
}

/* Remakes the display copy at the new destination size (put destination).
   The present display copy stays when this fails. */
static DWORD DispResize(LONG width, LONG height, LONG rowWidth, DWORD entries)
{
    const BITMAPINFOHEADER *image = &g_imageInfo->bmiHeader;
    DispSlot slot;

    if (image->biBitCount != 24 && image->biClrUsed != 0)
        entries = image->biClrUsed;
    if (!DispMakeSlot(&slot, entries * sizeof(RGBQUAD), g_dispInfo->bmiColors, 1, rowWidth, height, width))
        return MCIERR_OUT_OF_MEMORY;
    DispInstallSlot(&slot);
    return 0;
}

DWORD MciPut(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_ANIM_RECT_PARMS *parms = (MCI_ANIM_RECT_PARMS *)params;
    ScanRect old = g_dstRect;
    ScanRect rect;
    DWORD which = flags & (MCI_ANIM_PUT_SOURCE | MCI_ANIM_PUT_DESTINATION);

    (void)deviceId;
    if (MciScanBusy())
        return MCIERR_COMMAND_ORDER;
    if (!(flags & MCI_ANIM_RECT) || which == 0)
        return MCIERR_MISSING_PARAMETER;
    if (which == (MCI_ANIM_PUT_SOURCE | MCI_ANIM_PUT_DESTINATION))
        return MCIERR_FLAGS_NOT_COMPATIBLE;
    rect.x = parms->rc.left;
    rect.y = parms->rc.top;
    rect.width = parms->rc.right;
    rect.height = parms->rc.bottom;
    if (rect.x < 0 || rect.y < 0 || rect.width < 1 || rect.height < 1)
        return MCIERR_OUTOFRANGE;
    /* The far edges (and a row width rounded up from them) must be 32-bit
       numbers for the painting's arithmetic. */
    if (rect.width > DISP_COORD_LIMIT - rect.x || rect.height > DISP_COORD_LIMIT - rect.y)
        return MCIERR_OUTOFRANGE;

    if (which == MCI_ANIM_PUT_SOURCE) {
        if (g_dispReleased != 1)
            DispFillWhite(g_dstRect.width, g_dstRect.height);
        g_srcRect = rect;
    } else {
        LONG rowWidth;
        DWORD entries;

        DispRowFormat(g_imageInfo->bmiHeader.biBitCount, rect.width, &rowWidth, &entries);
        if (g_dispReleased != 1) {
            DWORD err = DispResize(rect.width, rect.height, rowWidth, entries);

            if (err != 0)
                return err;
        }
        g_dstRect = rect;
        g_dispWidth = rowWidth;
        if (g_dispReleased == 1)
            return 0;
        DispFillWhite(rect.width, rect.height);
        g_dispUpdating = 1;
    }
    if (g_dispReleased == 1)
        return 0;

    DispRedrawFromImage();
    if (g_targetWnd != g_displayWnd)
        return DispShowInTarget(&old);
    DispShowInOwnWindow(&old);
    return 0;
}

DWORD MciWhere(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_ANIM_RECT_PARMS *parms = (MCI_ANIM_RECT_PARMS *)params;
    DWORD which = flags & (MCI_ANIM_WHERE_SOURCE | MCI_ANIM_WHERE_DESTINATION);
    const ScanRect *rect;

    (void)deviceId;
    if (which == 0)
        return MCIERR_MISSING_PARAMETER;
    if (which == (MCI_ANIM_WHERE_SOURCE | MCI_ANIM_WHERE_DESTINATION))
        return MCIERR_FLAGS_NOT_COMPATIBLE;
    rect = which == MCI_ANIM_WHERE_SOURCE ? &g_srcRect : &g_dstRect;
    parms->rc.left = rect->x;
    parms->rc.top = rect->y;
    parms->rc.right = rect->width;
    parms->rc.bottom = rect->height;
    return 0;
}

/* Makes the target window the given one (0: the own window): the own
   window is hidden or shown, the paint hook removed from the old
   application window and set for a new one. */
static DWORD DispSetTarget(HWND wnd, int *repaint)
{
    if (wnd == NULL)
        wnd = g_displayWnd;
    if (!IsWindow(wnd))
        return MCIERR_NO_WINDOW;
    if (wnd == g_targetWnd)
        return 0;
    *repaint = 1;
    if (wnd != g_displayWnd) {
        if (g_displayWnd != NULL)
            ShowWindow(g_displayWnd, SW_HIDE);
    } else if (g_dispReleased != 1) {
        ShowWindow(g_displayWnd, SW_SHOW);
    }
    if (g_targetWnd != g_displayWnd) {
        RECT area;

        UnhookWindowsHookEx(g_paintHook);
        area.left = g_dstRect.x;
        area.top = g_dstRect.y;
        area.right = g_dstRect.x + g_dstRect.width;
        area.bottom = g_dstRect.y + g_dstRect.height;
        InvalidateRect(g_targetWnd, &area, TRUE);
    }
    if (wnd != g_displayWnd) {
        g_paintHookProc = DispHookProc;
        g_paintHook = SetWindowsHookExW(WH_GETMESSAGE, DispHookProc, g_hModule, 0);
    }
    g_targetWnd = wnd;
    return 0;
}

/* Makes the display copy again after it was released, from the current
   image at the destination size. */
static DWORD DispRecreate(void)
{
    const BITMAPINFOHEADER *image = &g_imageInfo->bmiHeader;
    DWORD tableBytes;
    DispSlot slot;

    if (image->biBitCount == 24)
        tableBytes = 0;
    else if (image->biClrUsed != 0)
        tableBytes = 4 * image->biClrUsed;
    else
        tableBytes = image->biBitCount == 1 ? 8 : image->biBitCount == 4 ? 64 : 1024;
    if (!DispMakeSlot(&slot, tableBytes, g_imageInfo->bmiColors, 0, g_dispWidth, g_dstRect.height, g_dstRect.width))
        return MCIERR_OUT_OF_MEMORY;
    g_dispInfoMem = slot.infoMem;
    g_dispInfo = slot.info;
    g_dispBitmap = slot.bitmap;
    g_dispDC = slot.dc;
    g_dispOldBitmap = slot.oldBitmap;
    DispFillWhite(g_dstRect.width, g_dstRect.height);
    StretchBlt(g_dispDC, 0, 0, g_dstRect.width, g_dstRect.height, g_imageDC, g_srcRect.x, g_srcRect.y, g_srcRect.width,
               g_srcRect.height, SRCCOPY);
    return 0;
}

static DWORD DispSetState(int show)
{
    if (show == SW_HIDE) {
        if (g_dispReleased != 1) {
            ImgFreeSlot(&g_dispInfoMem, &g_dispInfo, &g_dispBitmap, &g_dispDC, &g_dispOldBitmap);
            g_dispReleased = 1;
        }
    } else if (g_dispReleased == 1) {
        /* Still released when it cannot be made, so that nothing paints
           from a display copy that does not exist. */
        if (DispRecreate() != 0)
            return MCIERR_OUT_OF_MEMORY;
        g_dispReleased = 0;
    }
    ShowWindow(g_targetWnd, show);
    return 0;
}

/* Draws the display copy into the target window after the target changed.
   The window DC is kept. */
static DWORD DispRepaintTarget(void)
{
    const ScanRect *d = &g_dstRect;
    RECT client;
    HDC dc;
    int oldMode;
    LONG scrollX, scrollY, right, bottom, x, y;

    dc = GetDC(g_targetWnd);
    if (dc == NULL)
        return MCIERR_NO_WINDOW;
    oldMode = SetMapMode(dc, MM_TEXT);
    GetClientRect(g_targetWnd, &client);
    scrollX = GetScrollPos(g_targetWnd, SB_HORZ);
    scrollY = GetScrollPos(g_targetWnd, SB_VERT);
    right = d->x + d->width < client.right + scrollX ? d->x + d->width : client.right + scrollX;
    bottom = d->y + d->height < client.bottom + scrollY ? d->y + d->height : client.bottom + scrollY;
    if (right < 0)
        right = 0;
    if (bottom < 0)
        bottom = 0;
    x = scrollX > d->x ? scrollX : d->x;
    y = scrollY > d->y ? scrollY : d->y;
    if (right != 0 && bottom != 0)
        BitBlt(dc, x, y, right, bottom, g_dispDC, x - d->x, y - d->y, SRCCOPY);
    SetMapMode(dc, oldMode);
    return 0;
}

DWORD MciWindow(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    MCI_ANIM_WINDOW_PARMSW *parms = (MCI_ANIM_WINDOW_PARMSW *)params;
    int repaint = 0;
    DWORD err;

    (void)deviceId;
    if (!(flags & (MCI_ANIM_WINDOW_HWND | MCI_ANIM_WINDOW_STATE | MCI_ANIM_WINDOW_TEXT)))
        return MCIERR_MISSING_PARAMETER;
    if (MciScanBusy())
        return MCIERR_COMMAND_ORDER;
    if (flags & MCI_ANIM_WINDOW_HWND) {
        err = DispSetTarget(parms->hWnd, &repaint);
        if (err != 0)
            return err;
    }
    if (!IsWindow(g_targetWnd))
        return MCIERR_NO_WINDOW;
    if (flags & MCI_ANIM_WINDOW_STATE) {
        err = DispSetState((int)parms->nCmdShow);
        if (err != 0)
            return err;
    }
    if (flags & MCI_ANIM_WINDOW_TEXT)
        SetWindowTextW(g_targetWnd, parms->lpstrText);
    if (!repaint)
        return 0;
    return DispRepaintTarget();
}
