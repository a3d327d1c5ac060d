/* The driver's images: scan geometry, the image slots and line buffers, the
   line conversion, the per-line store and the bitmap file writer. */
#ifndef TAMRIX_IMAGE_H
#define TAMRIX_IMAGE_H

#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>

#include "driver/driver_state.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of a bitmap info header without its colour table. */
#define IMG_HEADER_BYTES 40
/* Flags of every global block the image code allocates. */
#define IMG_GMEM_FLAGS (GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_DISCARDABLE)

/* The window the image is shown in (kept by the display window). */
extern HWND g_targetWnd;

/* ---- Scan geometry ---- */
extern ScanRect g_scanRectPx;  /* scan rectangle in pixels, as requested */
extern LONG g_alignShift;      /* pixels the left edge was moved left, 0..3 */
extern LONG g_alignFailed;     /* 1 when no aligned position fitted */
extern DWORD g_scanWidthPx;    /* pixels per delivered line */
extern DWORD g_scanLines;      /* delivered lines */
extern DWORD g_rawLineBytes;   /* bytes per raw line */
extern DWORD g_scanTotalBytes; /* bytes the device read must deliver */

int ImgScanRectToPixels(const ScanRect *rect, int resolution, ScanRect *outPx);
int ImgCheckScanArea(const ScanRect *rect100, int resolution);
DWORD ImgComputeGeometry(const ScanParams *params, DWORD *rawBytes, DWORD *stride, DWORD *widthPx, DWORD *lines);

/* ---- Image slots ---- */
/* Current image. */
extern HGLOBAL g_imageInfoMem;
extern BITMAPINFO *g_imageInfo;
extern HBITMAP g_imageBitmap;
extern HDC g_imageDC;
extern HBITMAP g_imageOldBitmap;
extern DWORD g_imageBytes;
/* Display copy. */
extern HGLOBAL g_dispInfoMem;
extern BITMAPINFO *g_dispInfo;
extern HBITMAP g_dispBitmap;
extern HDC g_dispDC;
extern HBITMAP g_dispOldBitmap;
extern LONG g_dispWidth;
extern LONG g_dispReleased;
/* New image, during a scan. */
extern HGLOBAL g_scanInfoMem;
extern BITMAPINFO *g_scanInfo;
extern HBITMAP g_scanBitmap;
extern HDC g_scanDC;
extern HBITMAP g_scanOldBitmap;
extern DWORD g_scanBytes;
extern DWORD g_scanClrUsed;
/* New display copy, during a scan. */
extern HGLOBAL g_newDispInfoMem;
extern BITMAPINFO *g_newDispInfo;
extern HBITMAP g_newDispBitmap;
extern HDC g_newDispDC;
extern HBITMAP g_newDispOldBitmap;
/* Line buffers. */
extern HGLOBAL g_rawLineMem;
extern BYTE *g_rawLine;
extern HGLOBAL g_dibLineMem;
extern BYTE *g_dibLine;

/* Colour count of a scan mode: 2^s levels, cubed for colour. */
DWORD ImgColourCount(int colorStep, int colorMode);
int ImgBuildPalette(BITMAPINFOHEADER *header, RGBQUAD *table, int isColour);
int ImgCreateScanBuffers(DWORD rawBytes, DWORD stride, DWORD widthPx, DWORD lines);
void ImgFreeScanBuffers(int keep);
void ImgCommitScan(void);
/* The 32 x 1 white images that exist from open to the first scan. */
int ImgCreateInitialImages(void);
/* Frees the display copy (unless released) and the current image. */
void ImgFreeImages(void);
/* Frees one slot: old bitmap back, bitmap, dc, info block. */
void ImgFreeSlot(HGLOBAL *infoMem, BITMAPINFO **info, HBITMAP *bitmap, HDC *dc, HBITMAP *oldBitmap);

/* ---- Conversion ---- */
BYTE ImgExpandLevel(BYTE value, int shift);
int ImgConvertLine(const BYTE *raw, BYTE *row, LONG rowNumber, const BITMAPINFOHEADER *header, int isColour, int planar,
                   int planeSel);

/* ---- Line store ---- */
extern LONG g_lineIsColour;
extern LONG g_linePlanar;
extern LONG g_linePlanes;
extern LONG g_lineRow;
extern LONG g_linePlane;
extern LONG g_linePlaneSel;
extern LONG g_lineKeepClrUsed;
extern DWORD g_lineStride;
extern LONG g_lineShiftBits;
extern BYTE g_lineShiftMask;

int ImgStoreLine(int store);

/* ---- Scan thread ---- */
/* Start routine of the scan thread; called directly under MCI_WAIT. Its
   argument points at the scanread flags. */
DWORD WINAPI ImgScanThread(LPVOID flags);
/* Puts back the enable state of the scan-mode dialog's controls. */
void ImgRestoreModeDlgControls(void);

/* ---- Bitmap file writer ---- */
/* Bytes of the whole colour table of a 1, 4 or 8 bpp DIB; 0 for others. */
DWORD ImgFullTableBytes(WORD bitCount);
DWORD ImgMapFileError(DWORD error);
DWORD WINAPI ImgSaveThread(LPVOID request);

#ifdef __cplusplus
}
#endif

#endif
