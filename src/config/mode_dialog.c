/* The scan-mode dialog: the extended parameters (OR processing, edge
   enhancement, noise reduction, dither pattern, gamma, brightness, tint and
   saturation) edited live in g_scanParams, put back on cancel. */
#include "config/config.h"
#include "resources/resource.h"

/* What the runner hands the dialog: the command's flags and values, copied
   because the caller's block may go away. */
typedef struct ModeCopy {
    DWORD flags;
    ScanModeParms params;
} ModeCopy;

static ScanParams s_snapshot; /* g_scanParams when the dialog opened */
static DWORD s_dialogFlags;   /* the flags the dialog was opened with */

static void EnableItem(HWND dlg, int id, BOOL enable)
{
    EnableWindow(GetDlgItem(dlg, id), enable);
}

static void EnableItems(HWND dlg, const int *ids, int count, BOOL enable)
{
    int i;

    for (i = 0; i < count; i++)
        EnableItem(dlg, ids[i], enable);
}

/* A level scroll bar (0 to 9) and its value field three ids below. */
static void SetLevel(HWND dlg, int bar, int value)
{
    SendDlgItemMessageW(dlg, bar, SBM_SETRANGE, 0, 9);
    SendDlgItemMessageW(dlg, bar, SBM_SETPOS, (WPARAM)value, TRUE);
    SetDlgItemInt(dlg, bar - 3, (UINT)value, TRUE);
}

/* A scroll bar that is switched off is enabled and disabled again. */
static void DisableBar(HWND dlg, int bar)
{
    EnableItem(dlg, bar, TRUE);
    EnableItem(dlg, bar, FALSE);
}

static void AddStrings(HWND dlg, int list, UINT first, UINT count)
{
    WCHAR text[64];
    UINT i;

    for (i = 0; i < count; i++) {
        LoadStringW(g_hModule, first + i, text, 64);
        SendDlgItemMessageW(dlg, list, CB_ADDSTRING, 0, (LPARAM)text);
    }
}

static void SetDither(HWND dlg, DWORD flags, BOOL empty)
{
    static const int group[] = {IDC_MODE_DITHER_GROUP, IDC_MODE_DITHER};
    BOOL short9;
    int sel;

    if (!(flags & MCI_SCANMODE_HALFTONE)) {
        EnableItems(dlg, group, 2, FALSE);
        return;
    }
    EnableItems(dlg, group, 2, TRUE);
    if (empty)
        SendDlgItemMessageW(dlg, IDC_MODE_DITHER, CB_RESETCONTENT, 0, 0);
    /* Model 4 has no third dither method on its serial and GP-IB links. */
    short9 = g_settings.model == 4 && (g_settings.interfaceType == IF_RS232C || g_settings.interfaceType == IF_GPIB);
    AddStrings(dlg, IDC_MODE_DITHER, IDS_DITHER_FIRST, short9 ? 9 : 10);
    if (g_scanParams.ditherPattern < 16)
        sel = g_scanParams.ditherPattern - 1;
    else
        sel = g_scanParams.ditherPattern == 16 ? 8 : 9;
    SendDlgItemMessageW(dlg, IDC_MODE_DITHER, CB_SETCURSEL, (WPARAM)sel, 0);
}

/* Tint: colour scans on models 3 to 5. Answers whether the group is on. */
static BOOL SetTint(HWND dlg)
{
    static const int on[] = {IDC_MODE_TINT_LABEL,  IDC_MODE_TINT_LEVEL, IDC_MODE_TINT_VALUE,
                             IDC_MODE_TINT_SCROLL, IDC_MODE_TINT_RED,   IDC_MODE_TINT_GREEN};
    static const int labels[] = {IDC_MODE_TINT_LABEL, IDC_MODE_TINT_LEVEL, IDC_MODE_TINT_VALUE};
    static const int ends[] = {IDC_MODE_TINT_RED, IDC_MODE_TINT_GREEN};
    DWORD model = g_settings.model;

    if ((model == 3 || model == 4 || model == 5) && g_scanParams.colorMode != 0) {
        EnableItems(dlg, on, 6, TRUE);
        SetLevel(dlg, IDC_MODE_TINT_SCROLL, g_scanParams.tint);
        return TRUE;
    }
    EnableItems(dlg, labels, 3, FALSE);
    DisableBar(dlg, IDC_MODE_TINT_SCROLL);
    EnableItems(dlg, ends, 2, FALSE);
    return FALSE;
}

/* Brightness, gamma and edge enhancement: every model but the first. The
   gamma list is only added to, never emptied. */
static void SetBrightness(HWND dlg)
{
    static const int on[] = {IDC_MODE_EDGE,          IDC_MODE_GAMMA_GROUP,  IDC_MODE_GAMMA,
                             IDC_MODE_BRIGHT_LABEL,  IDC_MODE_BRIGHT_LEVEL, IDC_MODE_BRIGHT_VALUE,
                             IDC_MODE_BRIGHT_SCROLL, IDC_MODE_BRIGHT_DARK,  IDC_MODE_BRIGHT_LIGHT};
    static const int labels[] = {IDC_MODE_EDGE,         IDC_MODE_GAMMA_GROUP,  IDC_MODE_GAMMA,
                                 IDC_MODE_BRIGHT_LABEL, IDC_MODE_BRIGHT_LEVEL, IDC_MODE_BRIGHT_VALUE};
    static const int ends[] = {IDC_MODE_BRIGHT_DARK, IDC_MODE_BRIGHT_LIGHT};

    if (g_settings.model != 1) {
        EnableItems(dlg, on, 9, TRUE);
        AddStrings(dlg, IDC_MODE_GAMMA, IDS_GAMMA_CRT1, 5);
        SendDlgItemMessageW(dlg, IDC_MODE_GAMMA, CB_SETCURSEL, (WPARAM)(g_scanParams.gamma - 1), 0);
        CheckDlgButton(dlg, IDC_MODE_EDGE, g_scanParams.edgeEnhance ? BST_CHECKED : BST_UNCHECKED);
        SetLevel(dlg, IDC_MODE_BRIGHT_SCROLL, g_scanParams.brightness);
        return;
    }
    EnableItems(dlg, labels, 6, FALSE);
    DisableBar(dlg, IDC_MODE_BRIGHT_SCROLL);
    EnableItems(dlg, ends, 2, FALSE);
}

static void SetSwitch(HWND dlg, int id, BOOL enable, SHORT value)
{
    EnableItem(dlg, id, enable);
    if (enable)
        CheckDlgButton(dlg, id, value ? BST_CHECKED : BST_UNCHECKED);
}

/* Saturation: models 4 and 5 while the tint group is on. */
static void SetSaturation(HWND dlg, BOOL tintOn)
{
    static const int on[] = {IDC_MODE_SAT_LABEL,  IDC_MODE_SAT_LEVEL, IDC_MODE_SAT_VALUE,
                             IDC_MODE_SAT_SCROLL, IDC_MODE_SAT_WEAK,  IDC_MODE_SAT_STRONG};
    static const int labels[] = {IDC_MODE_SAT_LABEL, IDC_MODE_SAT_LEVEL, IDC_MODE_SAT_VALUE};
    static const int ends[] = {IDC_MODE_SAT_WEAK, IDC_MODE_SAT_STRONG};

    if ((g_settings.model == 4 || g_settings.model == 5) && tintOn) {
        EnableItems(dlg, on, 6, TRUE);
        SetLevel(dlg, IDC_MODE_SAT_SCROLL, g_scanParams.saturation);
        return;
    }
    EnableItems(dlg, labels, 3, FALSE);
    DisableBar(dlg, IDC_MODE_SAT_SCROLL);
    EnableItems(dlg, ends, 2, FALSE);
}

static void InitDialog(HWND dlg, const ModeCopy *copy)
{
    DWORD model = g_settings.model;
    WCHAR title[31];
    BOOL tintOn;

    g_modeDlgWnd = dlg;
    if (LoadStringW(g_hModule, model + IDS_MODE_TITLE_BASE, title, 31) > 0)
        SetWindowTextW(dlg, title);
    s_snapshot = g_scanParams;
    s_dialogFlags = copy->flags;

    SetDither(dlg, copy->flags, FALSE);
    tintOn = SetTint(dlg);
    SetBrightness(dlg);
    SetSwitch(dlg, IDC_MODE_NOISE, !(model == 1 || model == 5 || model == 6), g_scanParams.noiseReduction);
    SetSwitch(dlg, IDC_MODE_OR, !(model == 4 || model == 5 || model == 6), g_scanParams.orProcessing);
    SetSaturation(dlg, tintOn);
}

/* The refresh differs from the set-up on purpose: the dither list is
   emptied first but the gamma list is not, noise reduction is withheld only
   on model 1 and on model 5 off SCSI, OR processing only on models 4 and 5. */
void CfgRefreshModeDialog(DWORD flags)
{
    HWND dlg = g_modeDlgWnd;
    DWORD model = g_settings.model;
    BOOL tintOn;

    if (dlg == NULL)
        return;
    SetDither(dlg, flags, TRUE);
    tintOn = SetTint(dlg);
    SetBrightness(dlg);
    SetSwitch(dlg, IDC_MODE_NOISE, !(model == 1 || (model == 5 && g_settings.interfaceType != IF_SCSI)),
              g_scanParams.noiseReduction);
    SetSwitch(dlg, IDC_MODE_OR, !(model == 4 || model == 5), g_scanParams.orProcessing);
    SetSaturation(dlg, tintOn);
}

/* Ends the dialog with a result word: the modeless runner stops at WM_USER,
   a modal dialog ends with 1 after OK and 0 otherwise. */
static void FinishDialog(HWND dlg, LONG result)
{
    MciWriteResult(&g_modeResult, result);
    if (s_dialogFlags & MCI_NOTIFY)
        PostMessageW(dlg, WM_USER, 0, 0);
    else
        EndDialog(dlg, result == 0 ? 1 : 0);
}

static void CancelDialog(HWND dlg)
{
    g_scanParams.orProcessing = s_snapshot.orProcessing;
    g_scanParams.edgeEnhance = s_snapshot.edgeEnhance;
    g_scanParams.noiseReduction = s_snapshot.noiseReduction;
    g_scanParams.colorStep = s_snapshot.colorStep;
    g_scanParams.ditherPattern = s_snapshot.ditherPattern;
    g_scanParams.gamma = s_snapshot.gamma;
    g_scanParams.brightness = s_snapshot.brightness;
    g_scanParams.tint = s_snapshot.tint;
    g_scanParams.saturation = s_snapshot.saturation;
    FinishDialog(dlg, MCIERR_MISSING_PARAMETER);
}

static SHORT Checked(HWND dlg, int id)
{
    return IsDlgButtonChecked(dlg, id) == BST_CHECKED ? 1 : 0;
}

static void OnCommand(HWND dlg, int id)
{
    LRESULT pos;

    switch (id) {
    case IDC_MODE_EDGE:
        g_scanParams.edgeEnhance = Checked(dlg, id);
        break;
    case IDC_MODE_OR:
        g_scanParams.orProcessing = Checked(dlg, id);
        break;
    case IDC_MODE_NOISE:
        g_scanParams.noiseReduction = Checked(dlg, id);
        break;
    case IDC_MODE_DITHER:
        /* Any dither choice makes the scan a halftone one. */
        pos = SendDlgItemMessageW(dlg, id, CB_GETCURSEL, 0, 0);
        g_scanParams.colorStep = 16;
        g_scanParams.ditherPattern = (SHORT)(pos == 8 ? 16 : pos == 9 ? 32 : pos + 1);
        break;
    case IDC_MODE_GAMMA:
        g_scanParams.gamma = (SHORT)(SendDlgItemMessageW(dlg, id, CB_GETCURSEL, 0, 0) + 1);
        break;
    case IDOK:
        FinishDialog(dlg, 0);
        break;
    case IDCANCEL:
        CancelDialog(dlg);
        break;
    default:
        break;
    }
}

static BOOL OnScroll(HWND dlg, HWND bar, int code, int thumb)
{
    int id = GetDlgCtrlID(bar);
    int pos = (int)SendMessageW(bar, SBM_GETPOS, 0, 0);

    switch (code) {
    case SB_LINEUP:
    case SB_PAGEUP:
        pos--;
        break;
    case SB_LINEDOWN:
    case SB_PAGEDOWN:
        pos++;
        break;
    case SB_THUMBPOSITION:
    case SB_THUMBTRACK:
        pos = thumb;
        break;
    case SB_TOP:
        pos = 0;
        break;
    case SB_BOTTOM:
        pos = 9;
        break;
    default:
        return FALSE;
    }
    if (pos < 0)
        pos = 0;
    if (pos > 9)
        pos = 9;
    SendMessageW(bar, SBM_SETPOS, (WPARAM)pos, TRUE);
    SetDlgItemInt(dlg, id - 3, (UINT)pos, TRUE);
    if (id == IDC_MODE_BRIGHT_SCROLL)
        g_scanParams.brightness = (SHORT)pos;
    else if (id == IDC_MODE_TINT_SCROLL)
        g_scanParams.tint = (SHORT)pos;
    else if (id == IDC_MODE_SAT_SCROLL)
        g_scanParams.saturation = (SHORT)pos;
    return TRUE;
}

INT_PTR CALLBACK CfgModeDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_INITDIALOG:
        InitDialog(dlg, (const ModeCopy *)lParam);
        return TRUE;
    case WM_COMMAND:
        OnCommand(dlg, LOWORD(wParam));
        return TRUE;
    case WM_HSCROLL:
        return OnScroll(dlg, (HWND)lParam, LOWORD(wParam), (short)HIWORD(wParam));
    case WM_CLOSE:
        CancelDialog(dlg);
        return TRUE;
    default:
        return FALSE;
    }
}

/* Runs the modeless dialog's message loop until WM_USER (from OK or
   cancel) or the quit message. */
static void RunModeless(void)
{
    MSG msg;

    while (GetMessageW(&msg, NULL, 0, 0) > 0) {
        if (msg.message == WM_USER)
            break;
        if (g_modeDlgWnd != NULL && IsDialogMessageW(g_modeDlgWnd, &msg))
            continue;
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

DWORD WINAPI CfgModeSetThread(LPVOID request)
{
    const ModeRequest *req = (const ModeRequest *)request;
    ModeCopy copy;
    HWND dlg;
    LONG result;

    copy.flags = req->flags;
    copy.params = *req->params;

    if (!(copy.flags & MCI_NOTIFY)) {
        if (DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(IDD_SCANMODE), g_hModeOwner, CfgModeDlgProc, (LPARAM)&copy) ==
            -1)
            MciWriteResult(&g_modeResult, MCIERR_CREATEWINDOW);
    } else {
        dlg =
            CreateDialogParamW(g_hModule, MAKEINTRESOURCEW(IDD_SCANMODE), g_hModeOwner, CfgModeDlgProc, (LPARAM)&copy);
        if (dlg == NULL) {
            MciWriteResult(&g_modeResult, MCIERR_CREATEWINDOW);
        } else {
            g_modeDlgWnd = dlg;
            ShowWindow(dlg, SW_SHOWNORMAL);
            RunModeless();
            DestroyWindow(dlg);
        }
        /* No part of the driver registers this class; the call is kept. */
        UnregisterClassW(TEXT("ModeSetDlg"), g_hModule);
    }

    EnterCriticalSection(&g_stateLock);
    if (g_modeResult < 0)
        g_modeResult = MCIERR_NONAPPLICABLE_FUNCTION;
    result = g_modeResult;
    LeaveCriticalSection(&g_stateLock);
    /* The command's own values prevail over what the dialog changed. */
    if (result == 0)
        CfgApplyScanMode(copy.flags, &copy.params);

    /* With notify this runs on a thread whose handle the driver keeps and
       waits on. */
    g_modeDlgWnd = NULL;
    return 0;
}
