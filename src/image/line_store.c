/* The per-line store of a scan: every raw line the device layer receives is
   moved to drop the pixels added at the left edge, converted to the DIB's
   layout and written into the new image. The three-pass colour scanner
   sends the whole image once per colour; later passes read each row back
   and add their channel to it. */
#include "image/image.h"

#include <string.h>

LONG g_lineIsColour;
LONG g_linePlanar;
LONG g_linePlanes;
LONG g_lineRow;
LONG g_linePlane;
LONG g_linePlaneSel;
LONG g_lineKeepClrUsed;
DWORD g_lineStride;
LONG g_lineShiftBits;
BYTE g_lineShiftMask;

static void ImgResetLineStore(void)
{
    LONG height = g_scanInfo->bmiHeader.biHeight;

    g_lineIsColour = g_scanParams.colorMode != 0;
    g_linePlanar = g_lineIsColour && g_settings.model == 3;
    g_linePlanes = g_linePlanar ? 3 : 1;
    g_lineRow = 1;
    g_linePlane = 1;
    g_lineKeepClrUsed = !(g_scanParams.colorMode == 0 && g_scanParams.colorStep == 2);
    g_lineStride = height > 0 ? g_scanBytes / (DWORD)height : 0;

    if (g_alignShift == 0 || g_alignFailed) {
        g_lineShiftBits = 0;
        return;
    }
    if (g_scanParams.colorStep == 2)
        g_lineShiftBits = 2 * g_alignShift;
    else if (g_scanParams.colorStep == 3 || g_scanParams.colorStep == 4)
        g_lineShiftBits = 4 * g_alignShift;
    if (g_lineShiftBits == 2)
        g_lineShiftMask = 0xC0;
    else if (g_lineShiftBits == 4)
        g_lineShiftMask = 0xF0;
    else if (g_lineShiftBits == 6)
        g_lineShiftMask = 0xFC;
}

/* Moves the raw line left by g_lineShiftBits bits, zero bits coming in at
   the end. Shifts of a byte or more move whole bytes first. */
static void ImgShiftRawLine(BYTE *line, DWORD count)
{
    DWORD bytes = (DWORD)g_lineShiftBits / 8;
    int bits = g_lineShiftBits % 8;
    BYTE mask = bytes == 0 ? g_lineShiftMask : (BYTE)(0xFF << (8 - bits));
    DWORD i;

    if (bytes > 0) {
        for (i = 0; i < count; i++)
            line[i] = i + bytes < count ? line[i + bytes] : 0;
    }
    if (bits == 0)
        return;
    for (i = 0; i < count; i++) {
        BYTE next = i + 1 < count ? (BYTE)((line[i + 1] & mask) >> (8 - bits)) : 0;
        line[i] = (BYTE)((BYTE)(line[i] << bits) | next);
    }
}

static void ImgStoreOneLine(void)
{
    BITMAPINFOHEADER *header = &g_scanInfo->bmiHeader;
    UINT start = (UINT)(header->biHeight - g_lineRow);

    if (!g_linePlanar || g_linePlane == 1) {
        memset(g_dibLine, 0, g_lineStride);
        g_linePlaneSel = g_linePlanar ? 1 : 0;
    } else {
        g_linePlaneSel = g_linePlane == 2 ? 0 : 2;
        GetDIBits(g_scanDC, g_scanBitmap, start, 1, g_dibLine, g_scanInfo, DIB_RGB_COLORS);
        header->biSizeImage = 0;
        /* Reading back rewrites the colour table. */
        if (g_lineKeepClrUsed)
            header->biClrUsed = g_scanClrUsed;
        ImgBuildPalette(header, g_scanInfo->bmiColors, g_lineIsColour);
        if (g_lineKeepClrUsed)
            header->biClrUsed = 0;
    }

    if (g_lineShiftBits > 0)
        ImgShiftRawLine(g_rawLine, g_rawLineBytes);
    if (g_alignFailed == 1 && g_rawLineBytes >= 2)
        g_rawLine[g_rawLineBytes - 1] = g_rawLine[g_rawLineBytes - 2];

    if (g_lineKeepClrUsed)
        header->biClrUsed = g_scanClrUsed;
    ImgConvertLine(g_rawLine, g_dibLine, g_lineRow, header, g_lineIsColour, g_linePlanar, g_linePlaneSel);
    if (g_lineKeepClrUsed)
        header->biClrUsed = 0;

    /* Bottom-up DIB: the first row received lands at the top. */
    SetDIBits(g_scanDC, g_scanBitmap, start, 1, g_dibLine, g_scanInfo, DIB_RGB_COLORS);

    g_lineRow++;
    if (g_lineRow > header->biHeight) {
        g_lineRow = 1;
        g_linePlane++;
    }
}

int ImgStoreLine(int store)
{
    if (store == 0)
        ImgResetLineStore();
    else
        ImgStoreOneLine();
    return 1;
}
