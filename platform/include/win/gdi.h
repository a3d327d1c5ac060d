/* GDI32 subset: device-independent bitmaps, memory DCs, blits, palettes,
   pens, brushes and simple drawing. */
#ifndef TAMRIX_WIN_GDI_H
#define TAMRIX_WIN_GDI_H

#include "base.h"

TAMRIX_EXTERN_C_BEGIN

typedef struct tagRGBQUAD {
    BYTE rgbBlue;
    BYTE rgbGreen;
    BYTE rgbRed;
    BYTE rgbReserved;
} RGBQUAD, *LPRGBQUAD;

typedef struct tagBITMAPINFOHEADER {
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
} BITMAPINFOHEADER, *PBITMAPINFOHEADER, *LPBITMAPINFOHEADER;

typedef struct tagBITMAPINFO {
    BITMAPINFOHEADER bmiHeader;
    RGBQUAD bmiColors[1];
} BITMAPINFO, *PBITMAPINFO, *LPBITMAPINFO;

#pragma pack(push, 2)
typedef struct tagBITMAPFILEHEADER {
    WORD bfType;
    DWORD bfSize;
    WORD bfReserved1;
    WORD bfReserved2;
    DWORD bfOffBits;
} BITMAPFILEHEADER, *PBITMAPFILEHEADER, *LPBITMAPFILEHEADER;
#pragma pack(pop)

typedef struct tagBITMAP {
    LONG bmType;
    LONG bmWidth;
    LONG bmHeight;
    LONG bmWidthBytes;
    WORD bmPlanes;
    WORD bmBitsPixel;
    LPVOID bmBits;
} BITMAP, *PBITMAP, *LPBITMAP;

typedef struct tagDIBSECTION {
    BITMAP dsBm;
    BITMAPINFOHEADER dsBmih;
    DWORD dsBitfields[3];
    HANDLE dshSection;
    DWORD dsOffset;
} DIBSECTION, *LPDIBSECTION;

typedef struct tagPALETTEENTRY {
    BYTE peRed;
    BYTE peGreen;
    BYTE peBlue;
    BYTE peFlags;
} PALETTEENTRY, *PPALETTEENTRY, *LPPALETTEENTRY;

typedef struct tagLOGPALETTE {
    WORD palVersion;
    WORD palNumEntries;
    PALETTEENTRY palPalEntry[1];
} LOGPALETTE, *PLOGPALETTE, *LPLOGPALETTE;

typedef struct tagLOGBRUSH {
    UINT lbStyle;
    COLORREF lbColor;
    ULONG_PTR lbHatch;
} LOGBRUSH, *LPLOGBRUSH;

#define BI_RGB 0
#define BI_RLE8 1
#define BI_RLE4 2
#define BI_BITFIELDS 3
#define DIB_RGB_COLORS 0
#define DIB_PAL_COLORS 1

/* Raster operations */
#define SRCCOPY 0x00CC0020u
#define SRCPAINT 0x00EE0086u
#define SRCAND 0x008800C6u
#define SRCINVERT 0x00660046u
#define NOTSRCCOPY 0x00330008u
#define PATCOPY 0x00F00021u
#define PATINVERT 0x005A0049u
#define DSTINVERT 0x00550009u
#define BLACKNESS 0x00000042u
#define WHITENESS 0x00FF0062u

/* Stretch modes */
#define BLACKONWHITE 1
#define WHITEONBLACK 2
#define COLORONCOLOR 3
#define HALFTONE 4
#define STRETCH_ANDSCANS BLACKONWHITE
#define STRETCH_ORSCANS WHITEONBLACK
#define STRETCH_DELETESCANS COLORONCOLOR

/* Mapping modes */
#define MM_TEXT 1
#define MM_LOMETRIC 2
#define MM_HIMETRIC 3
#define MM_LOENGLISH 4
#define MM_HIENGLISH 5
#define MM_TWIPS 6
#define MM_ISOTROPIC 7
#define MM_ANISOTROPIC 8

/* Stock objects */
#define WHITE_BRUSH 0
#define LTGRAY_BRUSH 1
#define GRAY_BRUSH 2
#define DKGRAY_BRUSH 3
#define BLACK_BRUSH 4
#define NULL_BRUSH 5
#define HOLLOW_BRUSH NULL_BRUSH
#define WHITE_PEN 6
#define BLACK_PEN 7
#define NULL_PEN 8
#define SYSTEM_FONT 13
#define DEFAULT_PALETTE 15

/* Pens */
#define PS_SOLID 0
#define PS_DASH 1
#define PS_DOT 2
#define PS_NULL 5

/* Background modes */
#define TRANSPARENT 1
#define OPAQUE 2

/* Object types */
#define OBJ_PEN 1
#define OBJ_BRUSH 2
#define OBJ_DC 3
#define OBJ_PAL 5
#define OBJ_FONT 6
#define OBJ_BITMAP 7
#define OBJ_MEMDC 10

/* Device caps */
#define HORZRES 8
#define VERTRES 10
#define BITSPIXEL 12
#define PLANES 14
#define NUMCOLORS 24
#define LOGPIXELSX 88
#define LOGPIXELSY 90
#define RASTERCAPS 38
#define SIZEPALETTE 104
#define RC_PALETTE 0x0100

#define GDI_ERROR 0xFFFFFFFFu
#define HGDI_ERROR ((HANDLE)(LONG_PTR)-1)
#define CLR_INVALID 0xFFFFFFFFu

WINGDIAPI HBITMAP WINAPI CreateDIBSection(HDC dc, const BITMAPINFO *info, UINT usage, void **bits, HANDLE section,
                                          DWORD offset);
WINGDIAPI HBITMAP WINAPI CreateCompatibleBitmap(HDC dc, int width, int height);
WINGDIAPI HBITMAP WINAPI CreateBitmap(int width, int height, UINT planes, UINT bitCount, const void *bits);
WINGDIAPI HDC WINAPI CreateCompatibleDC(HDC dc);
WINGDIAPI BOOL WINAPI DeleteDC(HDC dc);
WINGDIAPI HGDIOBJ WINAPI SelectObject(HDC dc, HGDIOBJ obj);
WINGDIAPI BOOL WINAPI DeleteObject(HGDIOBJ obj);
WINGDIAPI HGDIOBJ WINAPI GetStockObject(int index);
WINGDIAPI int WINAPI GetObjectW(HGDIOBJ obj, int size, LPVOID out);
WINGDIAPI DWORD WINAPI GetObjectType(HGDIOBJ obj);
WINGDIAPI HGDIOBJ WINAPI GetCurrentObject(HDC dc, UINT type);
WINGDIAPI BOOL WINAPI BitBlt(HDC dst, int x, int y, int width, int height, HDC src, int srcX, int srcY, DWORD rop);
WINGDIAPI BOOL WINAPI StretchBlt(HDC dst, int x, int y, int width, int height, HDC src, int srcX, int srcY,
                                 int srcWidth, int srcHeight, DWORD rop);
WINGDIAPI BOOL WINAPI PatBlt(HDC dc, int x, int y, int width, int height, DWORD rop);
WINGDIAPI int WINAPI SetStretchBltMode(HDC dc, int mode);
WINGDIAPI int WINAPI GetStretchBltMode(HDC dc);
WINGDIAPI int WINAPI GetDIBits(HDC dc, HBITMAP bitmap, UINT start, UINT lines, LPVOID bits, LPBITMAPINFO info,
                               UINT usage);
WINGDIAPI int WINAPI SetDIBits(HDC dc, HBITMAP bitmap, UINT start, UINT lines, const void *bits, const BITMAPINFO *info,
                               UINT usage);
WINGDIAPI int WINAPI StretchDIBits(HDC dc, int x, int y, int width, int height, int srcX, int srcY, int srcWidth,
                                   int srcHeight, const void *bits, const BITMAPINFO *info, UINT usage, DWORD rop);
WINGDIAPI int WINAPI SetDIBitsToDevice(HDC dc, int x, int y, DWORD width, DWORD height, int srcX, int srcY,
                                       UINT startScan, UINT lines, const void *bits, const BITMAPINFO *info,
                                       UINT usage);
WINGDIAPI UINT WINAPI GetDIBColorTable(HDC dc, UINT start, UINT count, RGBQUAD *colors);
WINGDIAPI UINT WINAPI SetDIBColorTable(HDC dc, UINT start, UINT count, const RGBQUAD *colors);
WINGDIAPI HPALETTE WINAPI CreatePalette(const LOGPALETTE *palette);
WINGDIAPI HPALETTE WINAPI SelectPalette(HDC dc, HPALETTE palette, BOOL forceBackground);
WINGDIAPI UINT WINAPI RealizePalette(HDC dc);
WINGDIAPI UINT WINAPI GetPaletteEntries(HPALETTE palette, UINT start, UINT count, LPPALETTEENTRY entries);
WINGDIAPI int WINAPI GetMapMode(HDC dc);
WINGDIAPI int WINAPI SetMapMode(HDC dc, int mode);
WINGDIAPI int WINAPI GetDeviceCaps(HDC dc, int index);
WINGDIAPI COLORREF WINAPI GetPixel(HDC dc, int x, int y);
WINGDIAPI COLORREF WINAPI SetPixel(HDC dc, int x, int y, COLORREF color);
WINGDIAPI HBRUSH WINAPI CreateSolidBrush(COLORREF color);
WINGDIAPI HPEN WINAPI CreatePen(int style, int width, COLORREF color);
WINGDIAPI BOOL WINAPI MoveToEx(HDC dc, int x, int y, LPPOINT old);
WINGDIAPI BOOL WINAPI LineTo(HDC dc, int x, int y);
WINGDIAPI BOOL WINAPI Rectangle(HDC dc, int left, int top, int right, int bottom);
WINGDIAPI BOOL WINAPI Polygon(HDC dc, const POINT *points, int count);
WINGDIAPI COLORREF WINAPI SetBkColor(HDC dc, COLORREF color);
WINGDIAPI int WINAPI SetBkMode(HDC dc, int mode);
WINGDIAPI COLORREF WINAPI SetTextColor(HDC dc, COLORREF color);

TAMRIX_EXTERN_C_END

#endif
