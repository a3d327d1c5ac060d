/* Conversion of one received scanner line into one DIB row.

   The scanners pack their lines in several ways (1-bit, 2-bit, nibble and
   byte samples, three bytes per colour pixel, or one colour per pass on the
   three-pass model). Everything here is table lookups, shifts and ORs on the
   caller's buffers: no allocation and no system calls, since it runs once per
   line on the scan thread. */
#include "image/image.h"

#include <string.h>

/* Widens the (8 - shift)-bit level held in the top bits of value to 8 bits. */
BYTE ImgExpandLevel(BYTE value, int shift)
{
    /* Shifting by the width of an int or more is undefined in C: a shift of
       a byte or more leaves nothing of the value, a negative one takes it
       as it is. */
    BYTE v = shift < 0 ? value : shift < 8 ? (BYTE)(value >> shift) : 0;
    BYTE out;

    switch (shift) {
    case 0:
        return v;
    case 1:
        out = (BYTE)(v * 2);
        return out == 254 ? 255 : out;
    case 2:
        out = (BYTE)(v * 4);
        return out == 252 ? 255 : out;
    case 3:
        out = (BYTE)(v * 8);
        return out == 248 ? 255 : out;
    case 4:
        return (BYTE)(v * 17);
    case 5:
        /* 7 * 37 wraps to 3: the top level is full white. */
        out = (BYTE)(v * 37);
        return out == 3 ? 255 : out;
    default:
        return v;
    }
}

/* Shift that widens one channel sample for a colour count of 512 and more;
   -1 for counts that are not one of the 24-bit colour counts. */
static int ImgLevelShiftFor(DWORD colours)
{
    switch (colours) {
    case 512:
        return 5;
    case 4096:
        return 4;
    case 32768:
        return 3;
    case 262144:
        return 2;
    case 2097152:
        return 1;
    case 16777216:
        return 0;
    default:
        return -1;
    }
}

static void ImgCopyBytes(BYTE *dst, const BYTE *src, LONG count)
{
    if (count > 0)
        memcpy(dst, src, (size_t)count);
}

/* The level expansion of every byte value (or, with count 16, of every
   nibble placed in the top four bits), so that a line costs one look-up per
   sample. */
static void ImgBuildLevelTable(BYTE *table, int count, int shift)
{
    int i;
    for (i = 0; i < count; i++)
        table[i] = ImgExpandLevel((BYTE)(count == 16 ? i << 4 : i), shift);
}

static void ImgConvertMono(const BYTE *raw, BYTE *row, const BITMAPINFOHEADER *header)
{
    LONG width = header->biWidth;
    LONG i;

    if (header->biClrUsed == 0) {
        /* The scanner's packing is the DIB's. A grey header deeper than a
           byte per pixel has no such packing and leaves the row alone. */
        LONG perByte = header->biBitCount == 0 ? 0 : 8 / (LONG)header->biBitCount;
        if (perByte > 0)
            ImgCopyBytes(row, raw, (width + perByte - 1) / perByte);
    } else if (header->biClrUsed == 4) {
        /* Four 2-bit levels per raw byte become four nibbles of value 0..3. */
        LONG count = (width + 3) / 4;
        for (i = 0; i < count; i++) {
            BYTE b = raw[i];
            row[2 * i] |= (BYTE)(((b >> 2) & 0x30) | ((b >> 4) & 0x03));
            row[2 * i + 1] |= (BYTE)(((b << 2) & 0x30) | (b & 0x03));
        }
    }
}

static void ImgConvertColourOnePass(const BYTE *raw, BYTE *row, const BITMAPINFOHEADER *header)
{
    LONG width = header->biWidth;
    DWORD colours = header->biClrUsed;
    LONG i;
    int shift;

    if (colours == 8) {
        /* Each raw nibble already holds red, green, blue in bits 3, 2, 1. */
        ImgCopyBytes(row, raw, (width + 1) / 2);
    } else if (colours == 64) {
        /* Three bytes per pixel, each with its 2-bit level in bits 7..6,
           folded into the index 16 red + 4 green + blue. */
        for (i = 0; i < width; i++) {
            BYTE r0 = raw[3 * i], r1 = raw[3 * i + 1], r2 = raw[3 * i + 2];
            BYTE v = (BYTE)((r2 >> 2) | (r1 & 0xCF));
            v = (BYTE)((v >> 2) | (r0 & 0xC3));
            row[i] = (BYTE)(v >> 2);
        }
    } else if ((shift = ImgLevelShiftFor(colours)) == 0) {
        /* Red, green, blue in, blue, green, red out: full levels need no
           widening. */
        for (i = 0; i < width; i++) {
            BYTE red = raw[3 * i];
            row[3 * i] = raw[3 * i + 2];
            row[3 * i + 1] = raw[3 * i + 1];
            row[3 * i + 2] = red;
        }
    } else if (shift > 0) {
        BYTE level[256];
        ImgBuildLevelTable(level, 256, shift);
        for (i = 0; i < width; i++) {
            BYTE red = raw[3 * i];
            row[3 * i] = level[raw[3 * i + 2]];
            row[3 * i + 1] = level[raw[3 * i + 1]];
            row[3 * i + 2] = level[red];
        }
    }
}

static void ImgConvertColourPass(const BYTE *raw, BYTE *row, const BITMAPINFOHEADER *header, int planeSel)
{
    /* One pixel bit per nibble bit 3, four pixels per index. Entry 11 paints
       the second and fourth pixels; scans made with it depend on that. */
    const WORD bitTable[16] = {0x0000, 0x0008, 0x0080, 0x0088, 0x0800, 0x0808, 0x0880, 0x0888,
                               0x8000, 0x8008, 0x8080, 0x0808, 0x8800, 0x8808, 0x8880, 0x8888};
    /* Two 2-bit levels per index, each placed in bits 5..4 of its byte. */
    const WORD levelTable[16] = {0x0000, 0x0010, 0x0020, 0x0030, 0x1000, 0x1010, 0x1020, 0x1030,
                                 0x2000, 0x2010, 0x2020, 0x2030, 0x3000, 0x3010, 0x3020, 0x3030};
    LONG width = header->biWidth;
    DWORD colours = header->biClrUsed;
    LONG i;
    int channel = planeSel == 0 ? 2 : (planeSel == 1 ? 1 : 0);

    if (colours == 8) {
        LONG count = (width + 7) / 8;
        for (i = 0; i < count; i++) {
            WORD hi = (WORD)(bitTable[raw[i] >> 4] >> planeSel);
            WORD lo = (WORD)(bitTable[raw[i] & 0x0F] >> planeSel);
            row[4 * i] |= (BYTE)(hi >> 8);
            row[4 * i + 1] |= (BYTE)hi;
            row[4 * i + 2] |= (BYTE)(lo >> 8);
            row[4 * i + 3] |= (BYTE)lo;
        }
    } else if (colours == 64) {
        LONG count = (width + 3) / 4;
        int levelShift = 2 * planeSel;
        for (i = 0; i < count; i++) {
            WORD hi = (WORD)(levelTable[raw[i] >> 4] >> levelShift);
            WORD lo = (WORD)(levelTable[raw[i] & 0x0F] >> levelShift);
            row[4 * i] |= (BYTE)(hi >> 8);
            row[4 * i + 1] |= (BYTE)hi;
            row[4 * i + 2] |= (BYTE)(lo >> 8);
            row[4 * i + 3] |= (BYTE)lo;
        }
    } else if (colours == 512 || colours == 4096) {
        /* Two 4-bit samples per raw byte, first pixel in the high nibble. */
        LONG count = (width + 1) / 2;
        BYTE level[16];
        ImgBuildLevelTable(level, 16, colours == 512 ? 5 : 4);
        for (i = 0; i < count; i++) {
            BYTE b = raw[i];
            row[6 * i + channel] = level[b >> 4];
            row[6 * i + 3 + channel] = level[b & 0x0F];
        }
    } else {
        BYTE level[256];
        int shift = ImgLevelShiftFor(colours);
        if (shift < 0)
            return;
        ImgBuildLevelTable(level, 256, shift);
        for (i = 0; i < width; i++)
            row[3 * i + channel] = level[raw[i]];
    }
}

int ImgConvertLine(const BYTE *raw, BYTE *row, LONG rowNumber, const BITMAPINFOHEADER *header, int isColour, int planar,
                   int planeSel)
{
    (void)rowNumber;
    if (!isColour)
        ImgConvertMono(raw, row, header);
    else if (!planar)
        ImgConvertColourOnePass(raw, row, header);
    else
        ImgConvertColourPass(raw, row, header, planeSel);
    return 1;
}
