/* Scan geometry: from the application's rectangle to the pixel rectangle the
   scanner is asked for, the model's area limits, and the exact number of
   pixels, lines and bytes a scan delivers. */
#include "image/image.h"

#include "protocol/protocol.h"

ScanRect g_scanRectPx;
LONG g_alignShift;
LONG g_alignFailed;
DWORD g_scanWidthPx;
DWORD g_scanLines;
DWORD g_rawLineBytes;
DWORD g_scanTotalBytes;

/* Area limits of one model and interface, in 1/10000 inch. The maximum left
   edge equals the maximum width and the maximum top edge the maximum height. */
typedef struct ImgAreaLimits {
    LONG xMin;
    LONG wMax;
    LONG hMax;
    LONG wMin;
    LONG hMin;
} ImgAreaLimits;

static int ImgGetAreaLimits(DWORD model, DWORD interfaceType, ImgAreaLimits *limits)
{
    static const ImgAreaLimits wideSerial = {1000, 80000, 116875, 0, 0};
    static const ImgAreaLimits wideScsi = {1000, 80000, 116800, 0, 0};
    static const ImgAreaLimits small = {0, 42000, 64000, 0, 0};
    static const ImgAreaLimits large = {0, 85000, 116900, 0, 0};
    static const ImgAreaLimits polled = {0, 82600, 116900, 332, 332};

    switch (model) {
    case 1:
    case 2:
    case 4:
        /* Only these models' lengths depend on the interface. */
        if (interfaceType < IF_SCSI || interfaceType > IF_GPIB)
            return 0;
        *limits = interfaceType == IF_SCSI ? wideScsi : wideSerial;
        return 1;
    case 3:
        *limits = small;
        return 1;
    case 5:
    case 6:
        *limits = large;
        return 1;
    case 7:
        *limits = polled;
        return 1;
    default:
        return 0;
    }
}

/* Hundredths of a pixel to 1/10000 inch. */
static LONGLONG ImgToTenThousandths(LONG hundredths, int resolution)
{
    return (LONGLONG)hundredths * 100 / resolution;
}

int ImgCheckScanArea(const ScanRect *rect100, int resolution)
{
    ImgAreaLimits lim;
    LONGLONG x, y, w, h;

    if (resolution <= 0 || !ImgGetAreaLimits(g_settings.model, g_settings.interfaceType, &lim))
        return 0;
    x = ImgToTenThousandths(rect100->x, resolution);
    y = ImgToTenThousandths(rect100->y, resolution);
    w = ImgToTenThousandths(rect100->width, resolution);
    h = ImgToTenThousandths(rect100->height, resolution);

    if (x < lim.xMin || x >= lim.wMax)
        return 0;
    if (y < 0 || y >= lim.hMax)
        return 0;
    if (w <= lim.wMin || w > lim.wMax)
        return 0;
    if (h <= lim.hMin || h > lim.hMax)
        return 0;
    return x + w <= lim.wMax && y + h <= lim.hMax;
}

/* One rectangle value in the time format's unit to hundredths of a pixel and
   to whole pixels. Fails when the value does not fit a rectangle field. */
static int ImgUnitToPixels(LONG value, int resolution, LONG *hundredths, LONG *pixels)
{
    LONGLONG p100, p;

    switch (g_timeFormat) {
    case UNIT_MILLIMETER:
        p100 = (LONGLONG)value * resolution * 100 / 254;
        p = (LONGLONG)value * resolution / 254;
        break;
    case UNIT_INCH:
        p100 = (LONGLONG)value * resolution;
        p = (LONGLONG)value * resolution / 100;
        break;
    default:
        p100 = (LONGLONG)value * 100;
        p = value;
        break;
    }
    if (p100 > 0x7FFFFFFF || p100 < -0x7FFFFFFF)
        return 0;
    *hundredths = (LONG)p100;
    *pixels = (LONG)p;
    return 1;
}

/* Width the scanner needs for whole bytes per line: models 2 and 3 pack
   2-bit or 4-bit samples unless they scan single-pass colour. */
static LONG ImgAlignedWidth(LONG width)
{
    DWORD model = g_settings.model;

    if ((model != 2 && model != 3) || g_scanParams.colorMode == 16)
        return width;
    if (g_scanParams.colorStep == 2)
        return (width + 3) / 4 * 4;
    if (g_scanParams.colorStep == 3 || g_scanParams.colorStep == 4)
        return (width + 1) / 2 * 2;
    return width;
}

int ImgScanRectToPixels(const ScanRect *rect, int resolution, ScanRect *outPx)
{
    ScanRect p100, px, t;
    int moves;

    if (!ImgUnitToPixels(rect->x, resolution, &p100.x, &px.x) ||
        !ImgUnitToPixels(rect->y, resolution, &p100.y, &px.y) ||
        !ImgUnitToPixels(rect->width, resolution, &p100.width, &px.width) ||
        !ImgUnitToPixels(rect->height, resolution, &p100.height, &px.height))
        return 0;
    if (!ImgCheckScanArea(&p100, resolution))
        return 0;
    /* A rectangle narrower or shorter than one pixel holds nothing to scan. */
    if (px.width <= 0 || px.height <= 0)
        return 0;
    g_scanRectPx = px;

    /* Widen to whole bytes; if the wider window passes the right edge, move
       it left by up to three pixels. */
    t.x = p100.x;
    t.y = p100.y;
    t.width = 100 * ImgAlignedWidth(px.width);
    t.height = p100.height;
    g_alignFailed = 0;
    for (moves = 0; !ImgCheckScanArea(&t, resolution); moves++) {
        if (moves == 3) {
            g_alignFailed = 1;
            t.x = p100.x;
            t.width = 100 * px.width;
            break;
        }
        t.x -= 100;
    }
    g_alignShift = (p100.x - t.x) / 100;

    outPx->x = t.x / 100;
    outPx->y = t.y / 100;
    outPx->width = t.width / 100;
    outPx->height = t.height / 100;
    return 1;
}

/* Bits per pixel of a DIB holding the given number of colours. */
static DWORD ImgDibBitsFor(DWORD colours)
{
    if (colours == 2)
        return 1;
    if (colours <= 16)
        return 4;
    if (colours <= 256)
        return 8;
    return 24;
}

DWORD ImgComputeGeometry(const ScanParams *params, DWORD *rawBytes, DWORD *stride, DWORD *widthPx, DWORD *lines)
{
    DWORD model = g_settings.model;
    DWORD r = (DWORD)(LONG)params->resolution;
    DWORD steps = params->colorStep == 16 ? 1 : (DWORD)(LONG)params->colorStep;
    DWORD levels = (DWORD)1 << (steps & 31);
    DWORD rawColours = params->colorMode == 16 ? levels * levels * levels : levels;
    DWORD dibColours = params->colorMode != 0 ? levels * levels * levels : levels;
    DWORD rawBits, w, h, n, total, bpp;

    if (r == 0)
        r = 1;
    if (rawColours == 2)
        rawBits = 1;
    else if (rawColours == 4)
        rawBits = 2;
    else if (rawColours <= 16)
        rawBits = 4;
    else if (rawColours <= 256)
        rawBits = 8;
    else
        rawBits = 24;

    /* The image holds exactly what the device delivers for the window the
       driver sends; the scan geometry and the protocols follow one rule:
       - models 1 to 6, on every interface, widen their window to whole units
         of the scanner's base and the driver drops the surplus pixels of each
         line and the surplus lines, so a scan delivers the requested width
         and length;
       - model 7 cuts its window to whole 1/240 inch and sends the pixels and
         lines that window holds, each line padded to the bytes its scan
         information can express (PollLineBytes). */
    if (model == 7) {
        w = (DWORD)(LONG)params->areaWidth * POLL_WINDOW_UNITS / r * r / POLL_WINDOW_UNITS;
        h = (DWORD)(LONG)params->areaLength * POLL_WINDOW_UNITS / r * r / POLL_WINDOW_UNITS;
    } else {
        w = (DWORD)(LONG)params->areaWidth;
        h = (DWORD)(LONG)params->areaLength;
    }

    if (params->colorMode == 0 || model == 3) {
        /* Monochrome, and the three-pass colour scanner, pack like grey. */
        DWORD perByte = rawBits < 8 ? 8 / rawBits : 1;
        n = rawColours == 4 ? (w + 3) / 4 : (w + perByte - 1) / perByte;
    } else {
        n = rawColours == 8 ? (w + 1) / 2 : 3 * w;
    }
    if (model == 7)
        n = PollLineBytes(n, r);

    /* The image shows what arrives: model 7 can deliver less than asked. */
    if (g_scanRectPx.width > (LONG)w)
        g_scanRectPx.width = (LONG)w;
    if (g_scanRectPx.height > (LONG)h)
        g_scanRectPx.height = (LONG)h;

    total = h * n;
    if (params->colorMode == 17)
        total *= 3;

    bpp = ImgDibBitsFor(dibColours);

    g_rawLineBytes = n;
    g_scanWidthPx = w;
    g_scanLines = h;
    g_scanTotalBytes = total;
    *rawBytes = n;
    *stride = (((w * bpp + 7) / 8) + 3) & ~(DWORD)3;
    *widthPx = w;
    *lines = h;
    return total;
}
