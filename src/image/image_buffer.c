/* The image slots: the current image, its display copy, and during a scan
   the new image and new display copy, plus the two line buffers. Each slot
   is an info block in global memory (header and colour table), the DIB
   section made from it, a memory DC holding it and the bitmap that DC held
   before. */
#include "image/image.h"
#include "display/display_rects.h"

HGLOBAL g_imageInfoMem;
BITMAPINFO *g_imageInfo;
HBITMAP g_imageBitmap;
HDC g_imageDC;
HBITMAP g_imageOldBitmap;
DWORD g_imageBytes;

HGLOBAL g_dispInfoMem;
BITMAPINFO *g_dispInfo;
HBITMAP g_dispBitmap;
HDC g_dispDC;
HBITMAP g_dispOldBitmap;
LONG g_dispWidth;
LONG g_dispReleased;

HGLOBAL g_scanInfoMem;
BITMAPINFO *g_scanInfo;
HBITMAP g_scanBitmap;
HDC g_scanDC;
HBITMAP g_scanOldBitmap;
DWORD g_scanBytes;
DWORD g_scanClrUsed;

HGLOBAL g_newDispInfoMem;
BITMAPINFO *g_newDispInfo;
HBITMAP g_newDispBitmap;
HDC g_newDispDC;
HBITMAP g_newDispOldBitmap;

HGLOBAL g_rawLineMem;
BYTE *g_rawLine;
HGLOBAL g_dibLineMem;
BYTE *g_dibLine;

DWORD ImgColourCount(int colorStep, int colorMode)
{
    int steps = colorStep == 16 ? 1 : colorStep;
    DWORD levels = (DWORD)1 << (steps & 31);
    return colorMode != 0 ? levels * levels * levels : levels;
}

/* Bit depth, colour-table entries and initial biClrUsed for C colours. */
static void ImgFormatFor(DWORD colours, WORD *bitCount, DWORD *entries, DWORD *clrUsed)
{
    if (colours == 2) {
        *bitCount = 1;
        *entries = 2;
        *clrUsed = 0;
    } else if (colours == 4) {
        *bitCount = 4;
        *entries = 4;
        *clrUsed = 4;
    } else if (colours <= 16) {
        *bitCount = 4;
        *entries = 16;
        *clrUsed = colours == 16 ? 0 : colours;
    } else if (colours <= 256) {
        *bitCount = 8;
        *entries = 256;
        *clrUsed = colours == 256 ? 0 : colours;
    } else {
        *bitCount = 24;
        *entries = 0;
        *clrUsed = colours;
    }
}

static void ImgSetEntry(RGBQUAD *entry, BYTE red, BYTE green, BYTE blue)
{
    entry->rgbBlue = blue;
    entry->rgbGreen = green;
    entry->rgbRed = red;
}

static void ImgSetGrey(RGBQUAD *entry, BYTE grey)
{
    ImgSetEntry(entry, grey, grey, grey);
}

/* 8-bit grey with the scanner's level in the top bits: every step-th entry
   carries its own value, the entries between stay black, and the top level
   is full white. */
static void ImgBuildSteppedGrey(RGBQUAD *table, int step)
{
    int i;
    for (i = 0; i < 256; i++)
        ImgSetGrey(&table[i], (BYTE)(i % step == 0 ? i : 0));
    ImgSetGrey(&table[256 - step], 255);
}

int ImgBuildPalette(BITMAPINFOHEADER *header, RGBQUAD *table, int isColour)
{
    static const BYTE levels4[4] = {0, 85, 170, 255};
    int i;

    switch (header->biBitCount) {
    case 1:
        ImgSetGrey(&table[0], 255);
        ImgSetGrey(&table[1], 0);
        return 1;
    case 4:
        if (isColour) {
            for (i = 0; i < 16; i++)
                ImgSetEntry(&table[i], (BYTE)(i & 8 ? 255 : 0), (BYTE)(i & 4 ? 255 : 0), (BYTE)(i & 2 ? 255 : 0));
            return 1;
        }
        switch (header->biClrUsed) {
        case 0:
        case 16:
            for (i = 0; i < 16; i++)
                ImgSetGrey(&table[i], (BYTE)(17 * i));
            break;
        case 4:
            for (i = 0; i < 4; i++)
                ImgSetGrey(&table[i], levels4[i]);
            break;
        case 8:
            /* The 3-bit level sits in the top three bits of the nibble. */
            for (i = 0; i < 16; i++)
                ImgSetGrey(&table[i], (BYTE)(i % 2 == 0 ? (37 * (i / 2)) % 256 : 0));
            ImgSetGrey(&table[14], 255);
            header->biClrUsed = 0;
            break;
        default:
            break;
        }
        return 1;
    case 8:
        if (isColour) {
            for (i = 0; i < 256; i++) {
                RGBQUAD *e = &table[i];
                if (i < 64)
                    ImgSetEntry(e, levels4[(i >> 4) & 3], levels4[(i >> 2) & 3], levels4[i & 3]);
                else
                    ImgSetEntry(e, 0, 0, 0);
                e->rgbReserved = 0;
            }
            return 1;
        }
        switch (header->biClrUsed) {
        case 0:
        case 256:
            for (i = 0; i < 256; i++)
                ImgSetGrey(&table[i], (BYTE)i);
            break;
        case 32:
            ImgBuildSteppedGrey(table, 8);
            break;
        case 64:
            ImgBuildSteppedGrey(table, 4);
            break;
        case 128:
            ImgBuildSteppedGrey(table, 2);
            break;
        default:
            break;
        }
        header->biClrUsed = 0;
        return 1;
    case 24:
        return 1;
    default:
        return 0;
    }
}

static void ImgFillHeader(BITMAPINFOHEADER *h, LONG width, LONG height, WORD bitCount, DWORD clrUsed)
{
    h->biSize = IMG_HEADER_BYTES;
    h->biWidth = width;
    h->biHeight = height;
    h->biPlanes = 1;
    h->biBitCount = bitCount;
    h->biCompression = BI_RGB;
    h->biSizeImage = 0;
    h->biXPelsPerMeter = 0;
    h->biYPelsPerMeter = 0;
    h->biClrUsed = clrUsed;
    h->biClrImportant = 0;
}

/* Allocates and locks a moveable, zeroed, discardable block. */
static int ImgAllocLocked(SIZE_T bytes, HGLOBAL *mem, void **ptr)
{
    *mem = GlobalAlloc(IMG_GMEM_FLAGS, bytes);
    if (*mem == NULL)
        return 0;
    *ptr = GlobalLock(*mem);
    return *ptr != NULL;
}

static void ImgFreeLocked(HGLOBAL *mem, void **ptr)
{
    if (*ptr != NULL)
        GlobalUnlock(*mem);
    if (*mem != NULL)
        GlobalFree(*mem);
    *ptr = NULL;
    *mem = NULL;
}

void ImgFreeSlot(HGLOBAL *infoMem, BITMAPINFO **info, HBITMAP *bitmap, HDC *dc, HBITMAP *oldBitmap)
{
    void *p = *info;
    HGDIOBJ back = NULL;

    if (*oldBitmap != NULL && *dc != NULL)
        back = SelectObject(*dc, *oldBitmap);
    /* A bitmap still selected cannot be deleted: when it could not be put
       back, the DC goes first and lets go of it. */
    if (*oldBitmap != NULL && *dc != NULL && (back == NULL || back == HGDI_ERROR)) {
        DeleteDC(*dc);
        *dc = NULL;
    }
    if (*bitmap != NULL)
        DeleteObject(*bitmap);
    if (*dc != NULL)
        DeleteDC(*dc);
    ImgFreeLocked(infoMem, &p);
    *info = NULL;
    *bitmap = NULL;
    *dc = NULL;
    *oldBitmap = NULL;
}

/* Makes one slot from the window's DC: info block (already filled by the
   caller through fill), memory DC, DIB section selected into it. The slot's
   members are set as they are made so a failure can free them. */
typedef struct ImgSlotRefs {
    HGLOBAL *infoMem;
    BITMAPINFO **info;
    HBITMAP *bitmap;
    HDC *dc;
    HBITMAP *oldBitmap;
} ImgSlotRefs;

static int ImgMakeSlotBitmap(const ImgSlotRefs *slot, HDC windowDC)
{
    void *bits = NULL;
    HGDIOBJ old;

    *slot->bitmap = CreateDIBSection(windowDC, *slot->info, DIB_RGB_COLORS, &bits, NULL, 0);
    if (*slot->bitmap == NULL)
        return 0;
    old = SelectObject(*slot->dc, *slot->bitmap);
    if (old == NULL || old == HGDI_ERROR)
        return 0;
    *slot->oldBitmap = (HBITMAP)old;
    return 1;
}

static void ImgFreeSlotRefs(const ImgSlotRefs *slot)
{
    ImgFreeSlot(slot->infoMem, slot->info, slot->bitmap, slot->dc, slot->oldBitmap);
}

/* Header and colour table of a new image or display copy for the current
   scan mode. Keeps the colour count the conversion needs in g_scanClrUsed. */
static void ImgPrepareScanHeader(BITMAPINFO *info, LONG width, LONG height, DWORD colours, int isColour)
{
    WORD bitCount;
    DWORD entries, clrUsed;

    ImgFormatFor(colours, &bitCount, &entries, &clrUsed);
    ImgFillHeader(&info->bmiHeader, width, height, bitCount, clrUsed);
    ImgBuildPalette(&info->bmiHeader, info->bmiColors, isColour);
    g_scanClrUsed = info->bmiHeader.biClrUsed;
    if (colours != 4)
        info->bmiHeader.biClrUsed = 0;
}

/* Makes a new image or display copy for the current scan mode from the
   target window's DC: header block, memory DC, header and table, DIB section
   selected into the DC. The window's DC is given back either way; whatever
   the slot holds after a failure is for the caller to free. */
static int ImgMakeScanSlot(const ImgSlotRefs *slot, DWORD infoBytes, LONG width, LONG height, DWORD colours,
                           int isColour)
{
    HDC windowDC;
    void *p = NULL;
    int ok;

    if (!ImgAllocLocked(infoBytes, slot->infoMem, &p))
        return 0;
    *slot->info = p;
    windowDC = GetDC(g_targetWnd);
    if (windowDC == NULL)
        return 0;
    *slot->dc = CreateCompatibleDC(windowDC);
    ok = *slot->dc != NULL;
    if (ok) {
        ImgPrepareScanHeader(*slot->info, width, height, colours, isColour);
        ok = ImgMakeSlotBitmap(slot, windowDC);
    }
    ReleaseDC(g_targetWnd, windowDC);
    return ok;
}

/* Frees the DIB line, then the raw line. */
static void ImgFreeLineBuffers(void)
{
    void *p = g_dibLine;

    ImgFreeLocked(&g_dibLineMem, &p);
    g_dibLine = NULL;
    p = g_rawLine;
    ImgFreeLocked(&g_rawLineMem, &p);
    g_rawLine = NULL;
}

static void ImgReleaseScanBuffers(void)
{
    static const ImgSlotRefs newDisp = {&g_newDispInfoMem, &g_newDispInfo, &g_newDispBitmap, &g_newDispDC,
                                        &g_newDispOldBitmap};
    static const ImgSlotRefs scan = {&g_scanInfoMem, &g_scanInfo, &g_scanBitmap, &g_scanDC, &g_scanOldBitmap};

    ImgFreeSlotRefs(&newDisp);
    ImgFreeSlotRefs(&scan);
    ImgFreeLineBuffers();
}

int ImgCreateScanBuffers(DWORD rawBytes, DWORD stride, DWORD widthPx, DWORD lines)
{
    static const ImgSlotRefs newDisp = {&g_newDispInfoMem, &g_newDispInfo, &g_newDispBitmap, &g_newDispDC,
                                        &g_newDispOldBitmap};
    static const ImgSlotRefs scan = {&g_scanInfoMem, &g_scanInfo, &g_scanBitmap, &g_scanDC, &g_scanOldBitmap};
    DWORD colours = ImgColourCount(g_scanParams.colorStep, g_scanParams.colorMode);
    int isColour = g_scanParams.colorMode != 0;
    WORD bitCount;
    DWORD entries, clrUsed, infoBytes;
    void *p = NULL;

    ImgFormatFor(colours, &bitCount, &entries, &clrUsed);
    infoBytes = IMG_HEADER_BYTES + 4 * entries;

    if (!ImgAllocLocked(rawBytes, &g_rawLineMem, &p))
        goto fail;
    g_rawLine = p;
    p = NULL;
    /* The three-pass conversion of 4-bit samples fills pixels in pairs: at
       an odd width it writes one 24-bit pixel past the last, which can lie
       beyond the stride. */
    if (!ImgAllocLocked(stride + 3, &g_dibLineMem, &p))
        goto fail;
    g_dibLine = p;
    p = NULL;
    /* The DIB section spans the whole stride; the header then says the real
       width, which every later read and write of the image uses. */
    if (!ImgMakeScanSlot(&scan, infoBytes, (LONG)(stride * 8 / bitCount), (LONG)lines, colours, isColour))
        goto fail;
    g_scanInfo->bmiHeader.biWidth = (LONG)widthPx;
    BitBlt(g_scanDC, 0, 0, (int)widthPx, (int)lines, NULL, 0, 0, WHITENESS);
    g_scanBytes = lines * stride;

    if (g_dispReleased != 1) {
        if (!ImgMakeScanSlot(&newDisp, infoBytes, g_dstRect.width, g_dstRect.height, colours, isColour))
            goto fail;
        BitBlt(g_newDispDC, 0, 0, g_dstRect.width, g_dstRect.height, NULL, 0, 0, WHITENESS);
        g_dispWidth = g_dstRect.width;
    }
    return 1;

fail:
    /* A block that was allocated but could not be locked is still held by
       its handle alone. */
    ImgReleaseScanBuffers();
    return 0;
}

void ImgFreeScanBuffers(int keep)
{
    if (!keep) {
        if (g_dispReleased != 1)
            ImgFreeSlot(&g_newDispInfoMem, &g_newDispInfo, &g_newDispBitmap, &g_newDispDC, &g_newDispOldBitmap);
        ImgFreeSlot(&g_scanInfoMem, &g_scanInfo, &g_scanBitmap, &g_scanDC, &g_scanOldBitmap);
    }
    ImgFreeLineBuffers();
}

void ImgCommitScan(void)
{
    ImgFreeSlot(&g_imageInfoMem, &g_imageInfo, &g_imageBitmap, &g_imageDC, &g_imageOldBitmap);
    g_imageDC = g_scanDC;
    g_imageBitmap = g_scanBitmap;
    g_imageOldBitmap = g_scanOldBitmap;
    g_imageInfoMem = g_scanInfoMem;
    g_imageInfo = g_scanInfo;
    g_imageBytes = g_scanBytes;
    g_scanDC = NULL;
    g_scanBitmap = NULL;
    g_scanOldBitmap = NULL;
    g_scanInfoMem = NULL;
    g_scanInfo = NULL;

    if (g_dispReleased != 1) {
        ImgFreeSlot(&g_dispInfoMem, &g_dispInfo, &g_dispBitmap, &g_dispDC, &g_dispOldBitmap);
        g_dispDC = g_newDispDC;
        g_dispBitmap = g_newDispBitmap;
        g_dispOldBitmap = g_newDispOldBitmap;
        g_dispInfoMem = g_newDispInfoMem;
        g_dispInfo = g_newDispInfo;
        g_newDispDC = NULL;
        g_newDispBitmap = NULL;
        g_newDispOldBitmap = NULL;
        g_newDispInfoMem = NULL;
        g_newDispInfo = NULL;
    }
}

/* One 32 x 1 white 1 bpp image whose table has black at index 0. */
static int ImgMakeBlankSlot(const ImgSlotRefs *slot, HDC screenDC)
{
    void *p = NULL;
    RGBQUAD *table;

    if (!ImgAllocLocked(IMG_HEADER_BYTES + 2 * sizeof(RGBQUAD), slot->infoMem, &p)) {
        *slot->info = p;
        return 0;
    }
    *slot->info = p;
    *slot->dc = CreateCompatibleDC(screenDC);
    if (*slot->dc == NULL)
        return 0;
    ImgFillHeader(&(*slot->info)->bmiHeader, 32, 1, 1, 0);
    table = (*slot->info)->bmiColors;
    ImgSetGrey(&table[0], 0);
    ImgSetGrey(&table[1], 255);
    if (!ImgMakeSlotBitmap(slot, screenDC))
        return 0;
    BitBlt(*slot->dc, 0, 0, 32, 1, NULL, 0, 0, WHITENESS);
    return 1;
}

int ImgCreateInitialImages(void)
{
    static const ImgSlotRefs image = {&g_imageInfoMem, &g_imageInfo, &g_imageBitmap, &g_imageDC, &g_imageOldBitmap};
    static const ImgSlotRefs disp = {&g_dispInfoMem, &g_dispInfo, &g_dispBitmap, &g_dispDC, &g_dispOldBitmap};
    HDC screenDC = GetDC(NULL);
    int ok;

    if (screenDC == NULL)
        return 0;
    ok = ImgMakeBlankSlot(&image, screenDC) && ImgMakeBlankSlot(&disp, screenDC);
    ReleaseDC(NULL, screenDC);
    if (!ok) {
        ImgFreeSlotRefs(&disp);
        ImgFreeSlotRefs(&image);
        return 0;
    }
    g_imageBytes = 4;
    g_dispWidth = 32;
    g_dispReleased = 0;
    return 1;
}

void ImgFreeImages(void)
{
    if (g_dispReleased != 1)
        ImgFreeSlot(&g_dispInfoMem, &g_dispInfo, &g_dispBitmap, &g_dispDC, &g_dispOldBitmap);
    ImgFreeSlot(&g_imageInfoMem, &g_imageInfo, &g_imageBitmap, &g_imageDC, &g_imageOldBitmap);
}
