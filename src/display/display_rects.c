/* Default source and destination rectangles, set at open after the scan
   parameters' defaults. */
#include "display/display_rects.h"

ScanRect g_srcRect;
ScanRect g_dstRect;

void DispInitRects(void)
{
    g_srcRect.x = 0;
    g_srcRect.y = 0;
    g_srcRect.width = g_scanParams.areaWidth;
    g_srcRect.height = g_scanParams.areaLength;
    g_dstRect.x = 0;
    g_dstRect.y = 0;
    g_dstRect.width = DISP_DEFAULT_DST_WIDTH;
    g_dstRect.height = DISP_DEFAULT_DST_HEIGHT;
}

void DispClipToDest(LONG *x, LONG *y, LONG *w, LONG *h)
{
    const ScanRect *d = &g_dstRect;

    if (d->x + d->width < *x + *w) {
        *w = d->width - *x + d->x;
        if (*w < 0)
            *w = 0;
    }
    if (d->y + d->height < *y + *h) {
        *h = d->height - *y + d->y;
        if (*h < 0)
            *h = 0;
    }
    if (d->x > *x) {
        *w = *w - d->x + *x;
        *x = d->x;
    }
    if (d->y > *y) {
        *h = *h - d->y + *y;
        *y = d->y;
    }
}

void DispClipToClient(const RECT *client, LONG *x, LONG *y, LONG *w, LONG *h)
{
    LONG right = client->left + client->right;
    LONG bottom = client->top + client->bottom;

    if (*x + *w > right) {
        *w = client->right - *x + client->left;
        if (*w < 0)
            *w = 0;
    }
    if (*y + *h > bottom) {
        *h = client->bottom - *y + client->top;
        if (*h < 0)
            *h = 0;
    }
    if (*x > right)
        *x = right;
    if (*y > bottom)
        *y = bottom;
}
