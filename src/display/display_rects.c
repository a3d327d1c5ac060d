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
