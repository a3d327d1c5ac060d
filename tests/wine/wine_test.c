/* The driver under a real MCI host: Wine's WINMM, USER32 and GDI32. Run by
   tests/wine/run.sh in a fresh Wine prefix where TAMRIX.DLL is installed
   behind TAMRIXWINE.DLL as the "scanner" MCI device, COM1 leads to a
   virtual KS-650 on a pty and GPIBDLL.dll carries a virtual KS-620 at
   address 5.

     wine_test.exe OUTDIR

   Commands go through mciSendStringW and mciSendCommandW; notifications
   arrive as MM_MCINOTIFY at a window of this program. Scans are saved in
   OUTDIR (gpib.bmp, serial.bmp) for the script to compare with the host
   build's scans; the dialogs and the display window are saved there as
   BMP pictures. Prints one line per check and ends with
   "wine: N passed, N failed"; the exit status is the number of failures. */
#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#define MCI_SCANREAD 0x0C01
#define UNIT_MILLIMETER 0x4001
#define UNIT_INCH 0x4002
#define UNIT_DOT 0x4003

static CRITICAL_SECTION g_printLock;
static int g_passed, g_failed;
static HWND g_wnd;
static WCHAR g_outDir[MAX_PATH];

/* ---- Checks ------------------------------------------------------------- */

static void Check(BOOL ok, const char *format, ...)
{
    va_list args;
    EnterCriticalSection(&g_printLock);
    printf("%s ", ok ? "ok  " : "FAIL");
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    printf("\n");
    fflush(stdout);
    if (ok)
        g_passed++;
    else
        g_failed++;
    LeaveCriticalSection(&g_printLock);
}

static const char *Narrow(const WCHAR *text)
{
    static char buffers[4][512];
    static int next;
    char *out = buffers[next++ & 3];
    if (!WideCharToMultiByte(CP_UTF8, 0, text, -1, out, 512, NULL, NULL))
        out[0] = 0;
    return out;
}

/* ---- Notifications ------------------------------------------------------ */

#define MAX_NOTES 64
static WPARAM g_notes[MAX_NOTES];
static int g_noteCount, g_noteSeen;

static LRESULT CALLBACK NotifyWndProc(HWND wnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == MM_MCINOTIFY) {
        if (g_noteCount < MAX_NOTES)
            g_notes[g_noteCount++] = wParam;
        return 0;
    }
    return DefWindowProcW(wnd, message, wParam, lParam);
}

static void Pump(DWORD ms)
{
    DWORD start = GetTickCount();
    MSG msg;
    for (;;) {
        while (PeekMessageW(&msg, NULL, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
        DWORD elapsed = GetTickCount() - start;
        if (elapsed >= ms)
            return;
        MsgWaitForMultipleObjects(0, NULL, FALSE, ms - elapsed, QS_ALLINPUT);
    }
}

/* The next notification not yet taken, waiting up to `ms` while pumping
   messages; 0 when none came. */
static WPARAM NextNotify(DWORD ms)
{
    DWORD start = GetTickCount();
    while (g_noteSeen >= g_noteCount && GetTickCount() - start < ms)
        Pump(50);
    return g_noteSeen < g_noteCount ? g_notes[g_noteSeen++] : 0;
}

/* Takes every notification that arrives within `ms`; returns how many. */
static int DrainNotifies(DWORD ms)
{
    Pump(ms);
    int n = g_noteCount - g_noteSeen;
    g_noteSeen = g_noteCount;
    return n;
}

/* ---- Commands ----------------------------------------------------------- */

static WCHAR g_ret[512];

static MCIERROR Say(const WCHAR *command)
{
    g_ret[0] = 0;
    return mciSendStringW(command, g_ret, 512, g_wnd);
}

static void ExpectSay(const WCHAR *command, MCIERROR want, const WCHAR *wantText)
{
    MCIERROR got = Say(command);
    BOOL ok = got == want && (!wantText || wcscmp(g_ret, wantText) == 0);
    Check(ok, "\"%s\" -> %lu \"%s\" (want %lu%s%s%s)", Narrow(command), (unsigned long)got, Narrow(g_ret),
          (unsigned long)want, wantText ? " \"" : "", wantText ? Narrow(wantText) : "", wantText ? "\"" : "");
}

static void OutPath(WCHAR *path, const WCHAR *name)
{
    swprintf(path, MAX_PATH, L"%ls\\%ls", g_outDir, name);
}

static void Configure(int model, int interfaceType, int id)
{
    WCHAR v[16];
    swprintf(v, 16, L"%d", model);
    WriteProfileStringW(L"TAMRIX", L"Scanner", v);
    swprintf(v, 16, L"%d", interfaceType);
    WriteProfileStringW(L"TAMRIX", L"Interface", v);
    swprintf(v, 16, L"%d", id);
    WriteProfileStringW(L"TAMRIX", L"ID", v);
    WriteProfileStringW(L"TAMRIX", L"Baudrate", L"2");
}

/* ---- Pictures ----------------------------------------------------------- */

static BOOL WriteBmp(const WCHAR *path, int width, int height, const void *bits)
{
    BITMAPFILEHEADER file = {0};
    BITMAPINFOHEADER info = {0};
    DWORD stride = ((DWORD)width * 3 + 3) & ~3u, size = stride * (DWORD)height, written;
    HANDLE h = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (h == INVALID_HANDLE_VALUE)
        return FALSE;
    file.bfType = 0x4D42;
    file.bfOffBits = sizeof file + sizeof info;
    file.bfSize = file.bfOffBits + size;
    info.biSize = sizeof info;
    info.biWidth = width;
    info.biHeight = height;
    info.biPlanes = 1;
    info.biBitCount = 24;
    info.biSizeImage = size;
    BOOL ok = WriteFile(h, &file, sizeof file, &written, NULL) && WriteFile(h, &info, sizeof info, &written, NULL) &&
              WriteFile(h, bits, size, &written, NULL);
    CloseHandle(h);
    return ok;
}

/* Saves what the screen shows of `wnd` as OUTDIR\name. */
static void Shoot(HWND wnd, const WCHAR *name)
{
    RECT r;
    WCHAR path[MAX_PATH];
    RedrawWindow(wnd, NULL, NULL, RDW_INVALIDATE | RDW_ERASE | RDW_FRAME | RDW_ALLCHILDREN);
    Sleep(1500);
    GetWindowRect(wnd, &r);
    int w = r.right - r.left, h = r.bottom - r.top;
    HDC screen = GetDC(NULL), mem = CreateCompatibleDC(screen);
    BITMAPINFO bi;
    memset(&bi, 0, sizeof bi);
    bi.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    bi.bmiHeader.biWidth = w;
    bi.bmiHeader.biHeight = h;
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 24;
    void *bits = NULL;
    HBITMAP dib = CreateDIBSection(screen, &bi, DIB_RGB_COLORS, &bits, NULL, 0);
    HGDIOBJ old = SelectObject(mem, dib);
    BOOL ok = w > 0 && h > 0 && BitBlt(mem, 0, 0, w, h, screen, r.left, r.top, SRCCOPY);
    GdiFlush();
    OutPath(path, name);
    ok = ok && WriteBmp(path, w, h, bits);
    SelectObject(mem, old);
    DeleteObject(dib);
    DeleteDC(mem);
    ReleaseDC(NULL, screen);
    Check(ok, "picture %s (%dx%d)", Narrow(name), w, h);
}

/* The window of that class and title once it is visible (a dialog shows
   itself after its initialisation), waiting up to `ms`. */
static HWND WaitWindow(const WCHAR *className, const WCHAR *title, DWORD ms, BOOL pump)
{
    DWORD start = GetTickCount();
    HWND wnd = NULL;
    while (!((wnd = FindWindowW(className, title)) && IsWindowVisible(wnd)) && GetTickCount() - start < ms) {
        if (pump)
            Pump(50);
        else
            Sleep(50);
    }
    return wnd;
}

static void ExpectText(HWND dlg, int id, const WCHAR *want)
{
    WCHAR text[256] = L"";
    GetDlgItemTextW(dlg, id, text, 256);
    Check(wcscmp(text, want) == 0, "control %d reads \"%s\" (want \"%s\")", id, Narrow(text), Narrow(want));
}

static void ExpectList(HWND dlg, int id, const WCHAR *const *want, int count, int selected)
{
    HWND list = GetDlgItem(dlg, id);
    int n = (int)SendMessageW(list, CB_GETCOUNT, 0, 0);
    BOOL same = n == count;
    char shown[512] = "";
    for (int i = 0; i < n; i++) {
        WCHAR item[128] = L"";
        if (SendMessageW(list, CB_GETLBTEXTLEN, i, 0) < 128)
            SendMessageW(list, CB_GETLBTEXT, i, (LPARAM)item);
        if (i < count && wcscmp(item, want[i]) != 0)
            same = FALSE;
        strncat(shown, Narrow(item), sizeof shown - strlen(shown) - 2);
        strcat(shown, "|");
    }
    int sel = (int)SendMessageW(list, CB_GETCURSEL, 0, 0);
    Check(same && sel == selected, "list %d holds %s selected %d (want %d entries, selected %d)", id, shown, sel, count,
          selected);
}

/* ---- Driver messages ---------------------------------------------------- */

static void DriverMessages(void)
{
    WCHAR value[64];
    HDRVR h = OpenDriver(L"TAMRIX.DLL", NULL, 0);
    Check(h != NULL, "OpenDriver(TAMRIX.DLL) loads the driver for configuration");
    if (!h)
        return;
    Check(SendDriverMessage(h, DRV_QUERYCONFIGURE, 0, 0) == 1, "DRV_QUERYCONFIGURE answers 1");
    WritePrivateProfileStringW(L"Drivers32", L"Scanner", L"stale.dll", L"system.ini");
    Check(SendDriverMessage(h, DRV_INSTALL, 0, 0) == 1, "DRV_INSTALL answers 1");
    GetPrivateProfileStringW(L"MCI32", L"Scanner", L"", value, 64, L"system.ini");
    Check(wcscmp(value, L"TAMRIX.DLL") == 0, "install writes system.ini [MCI32] Scanner=%s", Narrow(value));
    GetPrivateProfileStringW(L"Drivers32", L"Scanner", L"", value, 64, L"system.ini");
    Check(value[0] == 0, "install removes [Drivers32] Scanner (reads \"%s\")", Narrow(value));
    Check(SendDriverMessage(h, DRV_REMOVE, 0, 0) == 1, "DRV_REMOVE answers 1");
    GetPrivateProfileStringW(L"MCI32", L"Scanner", L"", value, 64, L"system.ini");
    Check(value[0] == 0, "remove deletes [MCI32] Scanner (reads \"%s\")", Narrow(value));
    DRVCONFIGINFO wrong = {16, L"", L""};
    Check(SendDriverMessage(h, DRV_CONFIGURE, (LPARAM)g_wnd, (LPARAM)&wrong) == 0,
          "DRV_CONFIGURE with a block of size 16 answers 0 and shows nothing");
    CloseDriver(h, 0, 0);
}

/* ---- Configuration dialogs (a watcher thread works the modal dialogs) ---- */

static const WCHAR *const kModels[] = {L"Korvane KS-610", L"Korvane KS-620", L"Korvane KS-630",
                                       L"Korvane KS-640", L"Korvane KS-650", L"Korvane KS-660"};

static void OpenSubDialog(HWND cfg, const WCHAR *interfaceName, const WCHAR *title, const WCHAR *picture,
                          void (*checks)(HWND))
{
    HWND list = GetDlgItem(cfg, 111);
    LRESULT index = SendMessageW(list, CB_FINDSTRINGEXACT, (WPARAM)-1, (LPARAM)interfaceName);
    SendMessageW(list, CB_SETCURSEL, (WPARAM)index, 0);
    SendMessageW(cfg, WM_COMMAND, MAKEWPARAM(111, CBN_SELCHANGE), (LPARAM)list);
    PostMessageW(cfg, WM_COMMAND, MAKEWPARAM(115, BN_CLICKED), (LPARAM)GetDlgItem(cfg, 115));
    HWND dlg = WaitWindow(L"#32770", title, 10000, FALSE);
    Check(dlg != NULL, "Settings with %s opens \"%s\"", Narrow(interfaceName), Narrow(title));
    if (!dlg)
        return;
    checks(dlg);
    Shoot(dlg, picture);
    PostMessageW(dlg, WM_COMMAND, IDCANCEL, 0);
    for (int i = 0; i < 100 && IsWindow(dlg); i++)
        Sleep(50);
}

static void SerialChecks(HWND dlg)
{
    static const WCHAR *const speeds[] = {L"4800", L"9600", L"19200"};
    ExpectText(dlg, 200, L"シリアルポート(&P)");
    ExpectText(dlg, 204, L"通信速度(&S)");
    ExpectText(dlg, 207, L"ストップビット: １ bit");
    ExpectText(dlg, IDCANCEL, L"ｷｬﾝｾﾙ");
    WCHAR port[32] = L"";
    GetDlgItemTextW(dlg, 201, port, 32);
    Check(wcscmp(port, L"COM1") == 0, "the port list shows %s (COM1 leads to the scanner's pty)", Narrow(port));
    ExpectList(dlg, 205, speeds, 3, 1);
}

static void GpibChecks(HWND dlg)
{
    ExpectText(dlg, 300, L"GP-IB 機器番号(&A)");
    ExpectText(dlg, 303, L"5");
    WCHAR cls[64] = L"";
    GetClassNameW(GetDlgItem(dlg, 304), cls, 64);
    Check(wcscmp(cls, L"scanArrow") == 0, "the address has the spin arrow (class %s)", Narrow(cls));
}

static DWORD WINAPI ConfigWatcher(LPVOID unused)
{
    static const WCHAR *const interfaces[] = {L"RS-232C", L"GP-IB"};
    (void)unused;
    HWND cfg = WaitWindow(L"#32770", L"イメージスキャナの設定", 15000, FALSE);
    Check(cfg != NULL, "DRV_CONFIGURE shows \"イメージスキャナの設定\"");
    if (!cfg)
        return 0;
    Sleep(300);
    ExpectText(cfg, 100, L"イメージスキャナ(&D):");
    ExpectText(cfg, 110, L"インターフェイス(&I):");
    ExpectText(cfg, IDOK, L"OK");
    ExpectText(cfg, IDCANCEL, L"ｷｬﾝｾﾙ");
    ExpectText(cfg, 115, L"設定(&S)...");
    ExpectText(cfg, 117, L"ﾍﾙﾌﾟ(&H)");
    ExpectList(cfg, 108, kModels, 6, 1);
    /* The probes found COM1 and the GP-IB board; there is no SCSI device. */
    ExpectList(cfg, 111, interfaces, 2, 1);
    Check(IsWindowEnabled(GetDlgItem(cfg, 115)) && IsWindowEnabled(GetDlgItem(cfg, IDOK)),
          "Settings and OK are enabled");
    Shoot(cfg, L"config.bmp");
    OpenSubDialog(cfg, L"RS-232C", L"ＲＳ－２３２Ｃの設定", L"config_rs232c.bmp", SerialChecks);
    OpenSubDialog(cfg, L"GP-IB", L"ＧＰ－ＩＢの設定", L"config_gpib.bmp", GpibChecks);
    PostMessageW(cfg, WM_COMMAND, IDCANCEL, 0);
    return 0;
}

static void ConfigDialogs(void)
{
    Configure(2, 3, 5);
    HDRVR h = OpenDriver(L"TAMRIX.DLL", NULL, 0);
    if (!h) {
        Check(FALSE, "OpenDriver(TAMRIX.DLL) for the configuration dialog");
        return;
    }
    HANDLE watcher = CreateThread(NULL, 0, ConfigWatcher, NULL, 0, NULL);
    DRVCONFIGINFO info = {sizeof info, L"", L""};
    LRESULT r = SendDriverMessage(h, DRV_CONFIGURE, (LPARAM)g_wnd, (LPARAM)&info);
    Check(r == 0, "the configuration dialog cancelled answers 0 (got %ld)", (long)r);
    WaitForSingleObject(watcher, 20000);
    CloseHandle(watcher);
    CloseDriver(h, 0, 0);
}

/* ---- A session with the device ------------------------------------------ */

static void Capabilities(int model, int interfaceType)
{
    static const DWORD maxRes[] = {320, 640, 400, 320, 480, 600, 640};
    static const DWORD minRes[] = {50, 90, 90, 5, 50, 50, 90};
    static const DWORD intRes[] = {10, 10, 10, 1, 10, 10, 10};
    static const DWORD maxStep[] = {2, 256, 256, 256, 256, 256, 2};
    static const DWORD intStep[] = {0, 1, 1, 1, 1, 1, 0};
    DWORD wInch = (model == 3) ? 420 : (model == 5 || model == 6) ? 850 : (model == 7) ? 826 : 790;
    DWORD l = (model == 3) ? 64000 : (model == 5 || model == 6) ? 116900 : 116875;
    DWORD color = (model >= 3 && model <= 5), startx = (model == 1 || model == 2 || model == 4) ? 9 : 0;
    DWORD canStop = !(model == 7 && interfaceType == 3);
    struct {
        DWORD item, want;
    } items[] = {{1, 0},
                 {2, 0},
                 {3, 0},
                 {4, 518},
                 {5, 0},
                 {6, 0},
                 {7, 0},
                 {8, 0},
                 {9, 1},
                 {0x4001, color},
                 {0x4002, 0},
                 {0x4003, 0},
                 {0x4004, canStop},
                 {0x4005, startx},
                 {0x4006, 0},
                 {0x4007, 90 * wInch / 100},
                 {0x4008, 90 * l / 10000},
                 {0x4009, maxRes[model - 1]},
                 {0x400A, minRes[model - 1]},
                 {0x400B, intRes[model - 1]},
                 {0x400C, 9},
                 {0x400D, 0},
                 {0x400E, 1},
                 {0x400F, maxStep[model - 1]},
                 {0x4010, 2},
                 {0x4011, intStep[model - 1]},
                 {0x4012, 1},
                 {0x4013, 1},
                 {0x4014, 1}};
    MCIDEVICEID id = mciGetDeviceIDW(L"s");
    int wrong = 0;
    char first[160] = "";
    for (size_t i = 0; i < sizeof items / sizeof items[0]; i++) {
        MCI_GETDEVCAPS_PARMS p = {0};
        p.dwItem = items[i].item;
        MCIERROR r = mciSendCommandW(id, MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, (DWORD_PTR)&p);
        if (r != 0 || p.dwReturn != items[i].want) {
            if (!wrong++)
                snprintf(first, sizeof first, "item 0x%lx: %lu, value %lu, want %lu", (unsigned long)items[i].item,
                         (unsigned long)r, (unsigned long)p.dwReturn, (unsigned long)items[i].want);
        }
    }
    Check(wrong == 0, "all 29 capability items by message at 90 dpi in dots (%d wrong%s%s)", wrong, wrong ? ": " : "",
          first);
    MCI_GETDEVCAPS_PARMS p = {0};
    p.dwItem = 0x4015;
    Check(mciSendCommandW(id, MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, (DWORD_PTR)&p) ==
              MCIERR_UNSUPPORTED_FUNCTION,
          "capability item 0x4015 answers 274");

    /* The time format changes the unit of the dimensions. */
    MCI_SET_PARMS set = {0};
    set.dwTimeFormat = UNIT_MILLIMETER;
    Check(mciSendCommandW(id, MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, (DWORD_PTR)&set) == 0,
          "set time format millimeter by message");
    p.dwItem = 0x4007;
    mciSendCommandW(id, MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, (DWORD_PTR)&p);
    Check(p.dwReturn == wInch * 254 / 100, "maximum width in 0.1 mm: %lu", (unsigned long)p.dwReturn);
    /* The three time-format constants are stored with a wider value than the
       table's entries have: "inch" and "dot" are not reachable by name, and
       Wine's parser does not take "millimeter" either (it sets no flag). */
    ExpectSay(L"set s time format inch wait", MCIERR_UNRECOGNIZED_COMMAND, NULL);
    ExpectSay(L"set s time format millimeter wait", MCIERR_MISSING_PARAMETER, NULL);
    set.dwTimeFormat = UNIT_INCH;
    Check(mciSendCommandW(id, MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, (DWORD_PTR)&set) == 0,
          "set time format inch by message");
    mciSendCommandW(id, MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, (DWORD_PTR)&p);
    Check(p.dwReturn == wInch, "maximum width in 0.01 inch: %lu", (unsigned long)p.dwReturn);
    set.dwTimeFormat = 7;
    Check(mciSendCommandW(id, MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, (DWORD_PTR)&set) == MCIERR_BAD_TIME_FORMAT,
          "set time format 7 answers 293");
    set.dwTimeFormat = UNIT_DOT;
    Check(mciSendCommandW(id, MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, (DWORD_PTR)&set) == 0,
          "set time format dot by message");
}

static void Status(void)
{
    ExpectSay(L"status s ready wait", 0, L"1");
    MCIERROR r = Say(L"status s scanner wait");
    Check(r == 0 && (wcscmp(g_ret, L"525") == 0 || wcscmp(g_ret, L"530") == 0),
          "\"status s scanner wait\" -> %lu \"%s\" (want a ready mode, 525 or 530)", (unsigned long)r, Narrow(g_ret));
    MCI_STATUS_PARMS st = {0};
    st.dwItem = MCI_STATUS_READY;
    r = mciSendCommandW(mciGetDeviceIDW(L"s"), MCI_STATUS, MCI_WAIT | MCI_STATUS_ITEM, (DWORD_PTR)&st);
    Check(r == 0 && st.dwReturn == 1, "status ready by message -> %lu, %lu", (unsigned long)r,
          (unsigned long)st.dwReturn);
}

/* The scan-mode dialog of the open device, opened with notify (and with
   halftone, which fills the dither list) and cancelled: its picture, its
   texts and the tint control's state. */
static void ScanModeDialog(const WCHAR *title, const WCHAR *picture, BOOL colour, BOOL halftone)
{
    ExpectSay(halftone ? L"scanmode s halftone dialog notify" : L"scanmode s dialog notify", 0, NULL);
    HWND dlg = WaitWindow(L"#32770", title, 10000, TRUE);
    Check(dlg != NULL, "scanmode dialog notify shows \"%s\"", Narrow(title));
    if (!dlg)
        return;
    Pump(300);
    ExpectText(dlg, 402, L"ＯＲ処理(&O)");
    ExpectText(dlg, 408, L"明度(&B)");
    ExpectText(dlg, 414, L"5");
    ExpectText(dlg, IDOK, L"OK");
    LRESULT dithers = SendDlgItemMessageW(dlg, 405, CB_GETCOUNT, 0, 0);
    LRESULT gammas = SendDlgItemMessageW(dlg, 407, CB_GETCOUNT, 0, 0);
    Check(dithers == (halftone ? 10 : 0) && gammas == 5, "%ld dither choices, %ld gamma choices (want %d and 5)",
          (long)dithers, (long)gammas, halftone ? 10 : 0);
    Check(!IsWindowEnabled(GetDlgItem(dlg, 418)) == !colour, "the tint scroll bar is %s",
          colour ? "enabled (colour)" : "disabled (monochrome)");
    Shoot(dlg, picture);
    PostMessageW(dlg, WM_COMMAND, IDCANCEL, 0);
    WPARAM n = NextNotify(5000);
    Check(n == MCI_NOTIFY_FAILURE, "the cancelled dialog is notified as a failure (%u)", (unsigned)n);
}

static BOOL ReadFileAll(const WCHAR *path, BYTE *buffer, DWORD size, DWORD *got)
{
    HANDLE h = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    if (h == INVALID_HANDLE_VALUE)
        return FALSE;
    BOOL ok = ReadFile(h, buffer, size, got, NULL);
    CloseHandle(h);
    return ok;
}

/* Copy: the clipboard's CF_DIB holds the saved file's header and bits, and
   CF_PALETTE its colours. */
static void CopyMatchesSave(const WCHAR *savedName)
{
    static BYTE file[4 << 20];
    WCHAR path[MAX_PATH];
    DWORD size = 0;
    OutPath(path, savedName);
    if (!ReadFileAll(path, file, sizeof file, &size) || size < 54) {
        Check(FALSE, "read %s back", Narrow(savedName));
        return;
    }
    ExpectSay(L"copy s wait", 0, NULL);
    if (!OpenClipboard(g_wnd)) {
        Check(FALSE, "open the clipboard");
        return;
    }
    HANDLE dib = GetClipboardData(CF_DIB);
    HPALETTE pal = (HPALETTE)GetClipboardData(CF_PALETTE);
    Check(dib && pal, "the clipboard holds CF_DIB and CF_PALETTE");
    if (dib && pal) {
        const BITMAPFILEHEADER *fh = (const BITMAPFILEHEADER *)file;
        const BITMAPINFOHEADER *saved = (const BITMAPINFOHEADER *)(file + sizeof *fh);
        const BYTE *block = GlobalLock(dib);
        const BITMAPINFOHEADER *bi = (const BITMAPINFOHEADER *)block;
        DWORD table = bi->biBitCount == 1 ? 8 : bi->biBitCount == 4 ? 64 : bi->biBitCount == 8 ? 1024 : 0;
        DWORD bitsSize = size - fh->bfOffBits;
        BOOL same = bi->biWidth == saved->biWidth && bi->biHeight == saved->biHeight &&
                    bi->biBitCount == saved->biBitCount && GlobalSize(dib) >= 40 + table + bitsSize &&
                    memcmp(block + 40 + table, file + fh->bfOffBits, bitsSize) == 0;
        Check(same && bi->biClrUsed == 0, "CF_DIB %ldx%ld, %u bits, colour-used %lu: the saved file's pixels",
              (long)bi->biWidth, (long)bi->biHeight, bi->biBitCount, (unsigned long)bi->biClrUsed);
        PALETTEENTRY entries[256];
        UINT n = GetPaletteEntries(pal, 0, 256, entries);
        DWORD savedColours =
            saved->biClrUsed ? saved->biClrUsed : (saved->biBitCount <= 8 ? 1u << saved->biBitCount : 0);
        const RGBQUAD *rgb = (const RGBQUAD *)(file + sizeof *fh + saved->biSize);
        BOOL colours = n == (savedColours ? savedColours : 256);
        for (UINT i = 0; colours && savedColours && i < n; i++)
            colours = entries[i].peRed == rgb[i].rgbBlue && entries[i].peGreen == rgb[i].rgbGreen &&
                      entries[i].peBlue == rgb[i].rgbRed;
        Check(colours, "CF_PALETTE has %u entries made from the image's colours", n);
        GlobalUnlock(dib);
    }
    CloseClipboard();
}

static void DisplayCommands(const WCHAR *picture, int width, int height)
{
    WCHAR want[64];
    ExpectSay(L"window s state show wait", 0, NULL);
    ExpectSay(L"window s text \"wine scan\" wait", 0, NULL);
    HWND display = WaitWindow(L"TamrixWnd", NULL, 5000, TRUE);
    Check(display && IsWindowVisible(display), "window state show shows the display window");
    swprintf(want, 64, L"0 0 %d %d", width, height);
    ExpectSay(L"where s source wait", 0, want);
    ExpectSay(L"put s destination at 0 0 320 240 wait", 0, NULL);
    ExpectSay(L"where s destination wait", 0, L"0 0 320 240");
    if (display) {
        SetWindowPos(display, HWND_TOP, 40, 40, 360, 300, SWP_SHOWWINDOW);
        Pump(500);
        Shoot(display, picture);
    }
    ExpectSay(L"window s state hide wait", 0, NULL);
    Pump(200);
    Check(display && !IsWindowVisible(display), "window state hide hides it");
}

static void SaveAndCheck(const WCHAR *name, BOOL notify)
{
    WCHAR path[MAX_PATH], command[MAX_PATH + 32];
    OutPath(path, name);
    DeleteFileW(path);
    swprintf(command, MAX_PATH + 32, L"save s %ls %ls", path, notify ? L"notify" : L"wait");
    ExpectSay(command, 0, NULL);
    if (notify) {
        WPARAM n = NextNotify(10000);
        Check(n == MCI_NOTIFY_SUCCESSFUL, "the notified save succeeds (%u)", (unsigned)n);
    }
    Check(GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES, "%s written", Narrow(path));
}

static void GpibSession(void)
{
    printf("-- KS-620 on GP-IB address 5 (GPIBDLL.dll)\n");
    Configure(2, 3, 5);
    ExpectSay(L"open scanner alias s wait", 0, NULL);
    ExpectSay(L"open scanner alias t wait", MCIERR_DEVICE_OPEN, NULL);
    ExpectSay(L"info s product wait", 0, L"Ｋｏｒｖａｎｅ　イメージスキャナ");
    ExpectSay(L"info s product", MCIERR_MISSING_PARAMETER, NULL);
    Capabilities(2, 3);
    Status();
    ExpectSay(L"scanmode s resolution 95 wait", MCIERR_OUTOFRANGE, NULL);
    ExpectSay(L"scanmode s colorstep 16 halftone wait", MCIERR_FLAGS_NOT_COMPATIBLE, NULL);
    ExpectSay(L"copy s wait", 514, NULL);
    ScanModeDialog(L"拡張パラメータ設定  -  KS-620", L"scanmode_ks620.bmp", FALSE, TRUE);
    ExpectSay(L"scanmode s resolution 100 contrast 5 wait", 0, NULL);

    /* A notified scan, stopped. */
    ExpectSay(L"scanread s rect 10 0 400 300 notify", 0, NULL);
    Pump(1500);
    ExpectSay(L"stop s wait", 0, NULL);
    WPARAM n = NextNotify(5000);
    Check(n == MCI_NOTIFY_ABORTED, "the stopped scan is notified as aborted (%u)", (unsigned)n);
    Check(DrainNotifies(1500) == 0, "and only once");

    /* A notified scan left to finish, then a waited one. */
    DWORD start = GetTickCount();
    ExpectSay(L"scanread s rect 10 0 400 300 notify", 0, NULL);
    ExpectSay(L"scanread s rect 10 0 400 300 notify", 514, NULL);
    n = NextNotify(60000);
    Check(n == MCI_NOTIFY_SUCCESSFUL, "the notified scan succeeds (%u) after %lu ms", (unsigned)n,
          (unsigned long)(GetTickCount() - start));
    start = GetTickCount();
    ExpectSay(L"scanread s rect 10 0 400 300 wait", 0, NULL);
    printf("     waited scan over GP-IB: %lu ms\n", (unsigned long)(GetTickCount() - start));
    SaveAndCheck(L"gpib.bmp", TRUE);
    CopyMatchesSave(L"gpib.bmp");
    DisplayCommands(L"display_ks620.bmp", 400, 300);

    /* Close while a notified scan runs. */
    ExpectSay(L"scanread s rect 10 0 400 300 notify", 0, NULL);
    Pump(1000);
    ExpectSay(L"close s wait", 0, NULL);
    n = NextNotify(5000);
    Check(n == MCI_NOTIFY_ABORTED, "close during the scan notifies it as aborted (%u)", (unsigned)n);
    Check(DrainNotifies(1500) == 0, "and only once");
}

static void SerialSession(void)
{
    printf("-- KS-650 on RS-232C, COM1 (a pty)\n");
    Configure(5, 2, 1);
    ExpectSay(L"open scanner alias s wait", 0, NULL);
    Capabilities(5, 2);
    Status();
    ScanModeDialog(L"拡張パラメータ設定  -  KS-650", L"scanmode_ks650.bmp", TRUE, FALSE);
    ExpectSay(L"scanmode s resolution 100 wait", 0, NULL);
    DWORD start = GetTickCount();
    ExpectSay(L"scanread s rect 0 0 300 200 wait", 0, NULL);
    printf("     waited scan over RS-232C: %lu ms\n", (unsigned long)(GetTickCount() - start));
    SaveAndCheck(L"serial.bmp", FALSE);
    CopyMatchesSave(L"serial.bmp");
    DisplayCommands(L"display_ks650.bmp", 300, 200);
    ExpectSay(L"close s wait", 0, NULL);
}

static void OpenErrors(void)
{
    printf("-- open errors\n");
    Configure(2, 2, 3); /* COM3 leads nowhere */
    ExpectSay(L"open scanner alias s wait", MCIERR_DEVICE_NOT_READY, NULL);
    Configure(2, 3, 5);
    ExpectSay(L"open scanner alias s", MCIERR_MISSING_PARAMETER, NULL);
    ExpectSay(L"open scanner alias s shareable wait", MCIERR_UNSUPPORTED_FUNCTION, NULL);
}

int wmain(int argc, WCHAR **argv)
{
    InitializeCriticalSection(&g_printLock);
    if (argc < 2) {
        printf("usage: wine_test.exe OUTDIR\n");
        return 2;
    }
    lstrcpynW(g_outDir, argv[1], MAX_PATH);
    CreateDirectoryW(g_outDir, NULL);
    const char *only = argc > 2 ? Narrow(argv[2]) : "";

    WNDCLASSW wc = {0};
    wc.lpfnWndProc = NotifyWndProc;
    wc.hInstance = GetModuleHandleW(NULL);
    wc.lpszClassName = L"TamrixWineTest";
    RegisterClassW(&wc);
    g_wnd = CreateWindowW(L"TamrixWineTest", L"TAMRIX under Wine", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, NULL, NULL,
                          wc.hInstance, NULL);

    printf("-- driver messages\n");
    if (!*only || strstr(only, "driver"))
        DriverMessages();
    if (!*only || strstr(only, "open"))
        OpenErrors();
    if (!*only || strstr(only, "gpib"))
        GpibSession();
    if (!*only || strstr(only, "serial"))
        SerialSession();
    if (!*only || strstr(only, "config")) {
        printf("-- configuration dialogs\n");
        ConfigDialogs();
    }
    DestroyWindow(g_wnd);
    printf("wine_test: %d passed, %d failed\n", g_passed, g_failed);
    return g_failed;
}
