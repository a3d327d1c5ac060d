/* The save thread: writes the current image to a Windows bitmap file, one
   row at a time through a single row buffer, looking at the cancel flag
   after every step. A file that could not be completed is deleted. */
#include "image/image.h"

#define IMG_FILE_HEADER_BYTES 14
#define IMG_ERROR_WRITE_FAULT 29

/* System error of a failed file operation to the MCI error reported. */
DWORD ImgMapFileError(DWORD error)
{
    switch (error) {
    case 2:    /* ERROR_FILE_NOT_FOUND */
    case 3:    /* ERROR_PATH_NOT_FOUND */
    case 110:  /* ERROR_OPEN_FAILED */
    case 144:  /* ERROR_DIR_NOT_ROOT */
    case 145:  /* ERROR_DIR_NOT_EMPTY */
    case 267:  /* ERROR_DIRECTORY */
    case 1203: /* ERROR_NO_NET_OR_BAD_PATH */
    case 2401: /* ERROR_OPEN_FILES */
        return MCIERR_FILE_NOT_FOUND;
    case 5:   /* ERROR_ACCESS_DENIED */
    case 123: /* ERROR_INVALID_NAME */
        return MCIERR_FILENAME_REQUIRED;
    case 21:   /* ERROR_NOT_READY */
    case 29:   /* ERROR_WRITE_FAULT */
    case 1006: /* ERROR_FILE_INVALID */
    case 1013: /* ERROR_CANTWRITE */
        return MCIERR_FILE_WRITE;
    default:
        return MCIERR_FILE_NOT_SAVED;
    }
}

DWORD ImgFullTableBytes(WORD bitCount)
{
    switch (bitCount) {
    case 1:
        return 8;
    case 4:
        return 64;
    case 8:
        return 1024;
    default:
        return 0;
    }
}

/* Colour table bytes of a header as the file carries them. */
static DWORD ImgTableBytes(const BITMAPINFOHEADER *h)
{
    if (h->biBitCount == 24)
        return 0;
    if (h->biClrUsed != 0)
        return 4 * h->biClrUsed;
    return ImgFullTableBytes(h->biBitCount);
}

static void ImgPutWord(BYTE *p, WORD v)
{
    p[0] = (BYTE)v;
    p[1] = (BYTE)(v >> 8);
}

static void ImgPutDword(BYTE *p, DWORD v)
{
    p[0] = (BYTE)v;
    p[1] = (BYTE)(v >> 8);
    p[2] = (BYTE)(v >> 16);
    p[3] = (BYTE)(v >> 24);
}

static void ImgCopyMemory(BYTE *dst, const BYTE *src, DWORD count)
{
    DWORD i;
    for (i = 0; i < count; i++)
        dst[i] = src[i];
}

static void ImgFreeBlock(HGLOBAL mem, void *ptr)
{
    if (ptr != NULL)
        GlobalUnlock(mem);
    if (mem != NULL)
        GlobalFree(mem);
}

/* A write that stores fewer bytes than asked (a full device) fails too,
   with a write fault when the system gave no reason. */
static BOOL ImgWriteAll(HANDLE file, const void *data, DWORD bytes)
{
    DWORD written = 0;

    if (WriteFile(file, data, bytes, &written, NULL) == TRUE && written == bytes)
        return TRUE;
    if (GetLastError() == 0)
        SetLastError(IMG_ERROR_WRITE_FAULT);
    return FALSE;
}

/* The cancel flag is set by the application's thread without a lock. */
static BOOL ImgSaveCancelled(void)
{
    return InterlockedCompareExchange(&g_saveCancel, 0, 0) != 0;
}

_Noreturn static void ImgEndSave(LONG result)
{
    EnterCriticalSection(&g_stateLock);
    g_saveResult = result;
    LeaveCriticalSection(&g_stateLock);
    /* The handle is the driver's: it waits for this end before it closes
       the handle or lets the library go. */
    ExitThread(0);
}

DWORD WINAPI ImgSaveThread(LPVOID request)
{
    const SaveRequest *req = (const SaveRequest *)request;
    BITMAPINFOHEADER *h = &g_imageInfo->bmiHeader;
    DWORD rowBytes = (((DWORD)h->biBitCount * (DWORD)h->biWidth + 7) / 8 + 3) / 4 * 4;
    DWORD tableBytes = ImgTableBytes(h);
    DWORD infoBytes = IMG_HEADER_BYTES + tableBytes;
    BYTE fileHeader[IMG_FILE_HEADER_BYTES];
    HGLOBAL rowMem, backupMem;
    BYTE *row = NULL, *backup = NULL;
    HANDLE file;
    DWORD e;
    LONG n;

    rowMem = GlobalAlloc(IMG_GMEM_FLAGS, rowBytes);
    if (rowMem != NULL)
        row = GlobalLock(rowMem);
    if (row == NULL || ImgSaveCancelled()) {
        ImgFreeBlock(rowMem, row);
        ImgEndSave(MCIERR_OUT_OF_MEMORY);
    }

    DeleteFileW(req->fileName);
    file = CreateFileW(req->fileName, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE || ImgSaveCancelled()) {
        e = GetLastError();
        if (ImgSaveCancelled() && file != INVALID_HANDLE_VALUE) {
            CloseHandle(file);
            DeleteFileW(req->fileName);
        }
        goto done;
    }

    ImgPutWord(fileHeader, 0x4D42);
    ImgPutDword(fileHeader + 2, IMG_FILE_HEADER_BYTES + infoBytes + g_imageBytes);
    ImgPutWord(fileHeader + 6, 0);
    ImgPutWord(fileHeader + 8, 0);
    ImgPutDword(fileHeader + 10, IMG_FILE_HEADER_BYTES + infoBytes);
    if (!ImgWriteAll(file, fileHeader, IMG_FILE_HEADER_BYTES) || ImgSaveCancelled() ||
        !ImgWriteAll(file, g_imageInfo, infoBytes) || ImgSaveCancelled()) {
        e = GetLastError();
        CloseHandle(file);
        DeleteFileW(req->fileName);
        goto done;
    }

    /* Reading the rows rewrites the header and table; a copy puts them back. */
    backupMem = GlobalAlloc(IMG_GMEM_FLAGS, infoBytes);
    if (backupMem != NULL)
        backup = GlobalLock(backupMem);
    if (backup == NULL || ImgSaveCancelled()) {
        ImgFreeBlock(backupMem, backup);
        CloseHandle(file);
        DeleteFileW(req->fileName);
        ImgFreeBlock(rowMem, row);
        ImgEndSave(MCIERR_DRIVER_INTERNAL);
    }
    ImgCopyMemory(backup, (const BYTE *)g_imageInfo, infoBytes);

    for (n = 1; n <= h->biHeight; n++) {
        int got = GetDIBits(g_imageDC, g_imageBitmap, (UINT)(n - 1), 1, row, g_imageInfo, DIB_RGB_COLORS);
        ImgCopyMemory((BYTE *)g_imageInfo, backup, infoBytes);
        if (got == 0 || ImgSaveCancelled()) {
            ImgFreeBlock(backupMem, backup);
            CloseHandle(file);
            DeleteFileW(req->fileName);
            ImgFreeBlock(rowMem, row);
            ImgEndSave(MCIERR_OUT_OF_MEMORY);
        }
        if (!ImgWriteAll(file, row, rowBytes) || ImgSaveCancelled()) {
            e = GetLastError();
            ImgFreeBlock(backupMem, backup);
            CloseHandle(file);
            DeleteFileW(req->fileName);
            ImgFreeBlock(rowMem, row);
            ImgEndSave(e == 0 && !ImgSaveCancelled() ? 0 : (LONG)ImgMapFileError(e));
        }
    }

    e = CloseHandle(file) == TRUE ? 0 : GetLastError();
    ImgFreeBlock(backupMem, backup);

done:
    ImgFreeBlock(rowMem, row);
    if (e == 0 && !ImgSaveCancelled())
        ImgEndSave(0);
    ImgEndSave((LONG)ImgMapFileError(e));
    return 0;
}
