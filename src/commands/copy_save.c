/* The copy and save commands: copy puts the current image on the clipboard
   as a device-independent bitmap with a palette; save writes it to a bitmap
   file on the save thread. Both need an image a scan has completed and
   refuse while a notified scan is pending. */
#include "driver/driver_state.h"
#include "image/image.h"
#include "display/display.h"

/* Clipboard block: movable and shareable, not zero-initialised. */
#define COPY_CLIP_FLAGS (GMEM_MOVEABLE | GMEM_SHARE)
#define COPY_PALETTE_VERSION 0x0300
#define COPY_FIXED_PALETTE_ENTRIES 256
/* Bytes of a logical palette block ahead of (and after) its entries. */
#define COPY_PALETTE_EXTRA_BYTES 8
#define SAVE_THREAD_STACK 256
#define SAVE_NAME_CHARS SAVE_FILE_NAME_CHARS

static void CopyBytes(BYTE *dst, const BYTE *src, DWORD count)
{
    DWORD i;
    for (i = 0; i < count; i++)
        dst[i] = src[i];
}

/* Unlocks (when locked) and frees a block; either may be null. */
static void CopyReleaseBlock(HGLOBAL mem, const void *locked)
{
    if (locked != NULL)
        GlobalUnlock(mem);
    if (mem != NULL)
        GlobalFree(mem);
}

/* The palette of an image without a colour table: 8 reds, 8 greens and 4
   blues in even steps. */
static void CopyFillFixedPalette(PALETTEENTRY *entries)
{
    int i;
    for (i = 0; i < COPY_FIXED_PALETTE_ENTRIES; i++) {
        entries[i].peRed = (BYTE)((i % 8) * 32);
        entries[i].peGreen = (BYTE)(((i / 8) % 8) * 32);
        entries[i].peBlue = (BYTE)((i / 64) * 64);
        entries[i].peFlags = 0;
    }
}

DWORD MciCopy(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    const BITMAPINFOHEADER *h;
    DWORD fullTable, ownTable;
    WORD entries;
    BOOL fixed;
    HGLOBAL clipMem, palMem = NULL;
    BYTE *clip = NULL;
    LOGPALETTE *pal = NULL;
    HPALETTE palette;
    HCURSOR oldCursor;
    int lines;

    (void)deviceId;
    (void)flags;
    (void)params;

    if (MciCopyRefused())
        return MCIERR_COMMAND_ORDER;

    /* The table area has room for the whole table of the depth; only the
       image's own entries go into it. */
    h = &g_imageInfo->bmiHeader;
    fullTable = ImgFullTableBytes(h->biBitCount);
    if (h->biClrUsed == 0)
        ownTable = fullTable;
    else if (h->biBitCount == 24)
        ownTable = 0;
    else
        ownTable = 4 * h->biClrUsed;
    entries = (WORD)(ownTable / 4);
    fixed = entries == 0;
    if (fixed)
        entries = COPY_FIXED_PALETTE_ENTRIES;

    clipMem = GlobalAlloc(COPY_CLIP_FLAGS, IMG_HEADER_BYTES + fullTable + g_imageBytes);
    if (clipMem != NULL)
        clip = GlobalLock(clipMem);
    if (clip != NULL)
        palMem = GlobalAlloc(GHND, 4 * (DWORD)entries + COPY_PALETTE_EXTRA_BYTES);
    if (palMem != NULL)
        pal = GlobalLock(palMem);
    if (pal == NULL) {
        CopyReleaseBlock(palMem, pal);
        CopyReleaseBlock(clipMem, clip);
        return MCIERR_OUT_OF_MEMORY;
    }

    /* Reading the bits rewrites the header and table handed to GetDIBits;
       the image's own are put back over them afterwards. */
    CopyBytes(clip, (const BYTE *)g_imageInfo, IMG_HEADER_BYTES + ownTable);
    lines = GetDIBits(g_imageDC, g_imageBitmap, 0, (UINT)h->biHeight, clip + IMG_HEADER_BYTES + fullTable,
                      (BITMAPINFO *)clip, DIB_RGB_COLORS);
    CopyBytes(clip, (const BYTE *)g_imageInfo, IMG_HEADER_BYTES + ownTable);
    ((BITMAPINFOHEADER *)clip)->biClrUsed = 0;
    if (lines == 0) {
        CopyReleaseBlock(palMem, pal);
        CopyReleaseBlock(clipMem, clip);
        return MCIERR_OUT_OF_MEMORY;
    }

    /* A colour table entry (blue, green, red, reserved) is taken over byte
       for byte as a palette entry (red, green, blue, flags). */
    pal->palVersion = COPY_PALETTE_VERSION;
    pal->palNumEntries = entries;
    if (fixed)
        CopyFillFixedPalette(pal->palPalEntry);
    else
        CopyBytes((BYTE *)pal->palPalEntry, (const BYTE *)g_imageInfo->bmiColors, 4 * (DWORD)entries);

    palette = CreatePalette(pal);
    GlobalUnlock(palMem);
    GlobalFree(palMem);
    GlobalUnlock(clipMem);

    if (!OpenClipboard(g_displayWnd)) {
        GlobalFree(clipMem);
        DeleteObject(palette);
        return MCIERR_CREATEWINDOW;
    }
    oldCursor = SetCursor(LoadCursorW(NULL, IDC_WAIT));
    EmptyClipboard();
    /* These two failures leave the clipboard open and the wait cursor up. */
    if (SetClipboardData(CF_DIB, clipMem) == NULL) {
        DeleteObject(palette);
        GlobalFree(clipMem);
        return MCIERR_OUT_OF_MEMORY;
    }
    if (SetClipboardData(CF_PALETTE, palette) == NULL) {
        DeleteObject(palette);
        return MCIERR_OUT_OF_MEMORY;
    }
    /* The clipboard owns the block and the palette from here on. */
    CloseClipboard();
    SetCursor(oldCursor);
    return 0;
}

DWORD MciSave(MCIDEVICEID deviceId, DWORD flags, LPVOID params)
{
    const MCI_SAVE_PARMS *save = (const MCI_SAVE_PARMS *)params;
    LONG result;

    DWORD length;

    /* The file-name flag is not required, but a name is. */
    if (MciSaveRefused())
        return MCIERR_COMMAND_ORDER;
    if (save->lpfilename == NULL || save->lpfilename[0] == 0)
        return MCIERR_FILENAME_REQUIRED;
    /* A name the buffer cannot hold whole (with its terminator) is refused,
       never cut; the caller's string is not read past its end. */
    for (length = 0; length < SAVE_NAME_CHARS && save->lpfilename[length] != 0; length++)
        ;
    if (length == SAVE_NAME_CHARS)
        return MCIERR_PARAM_OVERFLOW;

    /* The previous save's thread has written its result; it ends here. */
    MciJoinThread(&g_hSaveThread);
    MciWriteResult(&g_saveResult, -1);
    CopyBytes((BYTE *)g_saveFileName, (const BYTE *)save->lpfilename, (length + 1) * sizeof(WCHAR));

    g_saveRequest.callback = (HWND)save->dwCallback;
    g_saveRequest.fileName = g_saveFileName;
    InterlockedExchange(&g_saveCancel, 0);
    /* Started suspended so that the handle is stored before the thread can
       run (a cancel reads its exit code through it). */
    g_hSaveThread = CreateThread(NULL, SAVE_THREAD_STACK, ImgSaveThread, &g_saveRequest, CREATE_SUSPENDED, NULL);
    if (g_hSaveThread == NULL) {
        MciWriteResult(&g_saveResult, MCIERR_OUT_OF_MEMORY);
        return MCIERR_OUT_OF_MEMORY;
    }
    ResumeThread(g_hSaveThread);

    /* A waited save returns once its thread has left the driver. */
    if ((flags & MCI_WAIT) && MciWaitForResult(deviceId, &g_saveResult) >= 0)
        MciJoinThread(&g_hSaveThread);

    /* Still running: the notify case, or a wait the yield ended early. */
    result = MciReadResult(&g_saveResult);
    return result < 0 ? 0 : (DWORD)result;
}
