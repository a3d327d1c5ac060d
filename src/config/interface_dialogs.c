/* The RS-232C dialog (port and line speed) and the GP-IB dialog (device
   address with the spin-arrow control), opened by the configuration
   dialog's Settings button. Both edit the record they are given and write
   into it only on OK. */
#include "config/config.h"
#include "resources/resource.h"

#define GPIB_MAX_ADDRESS 30

HWND g_cfgSubDlgWnd;

static DeviceSettings *s_serialRecord;
static DWORD s_serialPort;  /* working port */
static DWORD s_serialSpeed; /* working speed index */
static DeviceSettings *s_gpibRecord;
static SpinRecord s_addressSpin = {1, -1, 5, -5, GPIB_MAX_ADDRESS, 0, 0, 0, 0};

void CfgLoadPortName(DWORD port, LPWSTR name)
{
    name[0] = 0;
    LoadStringW(g_hModule, IDS_PORT_BASE + port, name, 8);
}

static BOOL PortPresent(DWORD port)
{
    return port <= CFG_PORT_COUNT && g_cfgPorts[port].present;
}

int CfgFindPort(DWORD stored)
{
    DWORD candidate = stored;

    for (;;) {
        if (PortPresent(candidate))
            return (int)candidate;
        /* A stored port 1 that is absent is tried again and again. */
        if (candidate == stored) {
            candidate = 1;
        } else {
            candidate++;
            if (candidate == stored)
                candidate++;
            if (candidate > CFG_PORT_COUNT)
                return -1;
        }
    }
}

SHORT CfgSpinStep(WORD code, SHORT value, SpinRecord *spin)
{
    int result;

    spin->status = 0;
    switch (code) {
    case SB_LINEUP:
        result = value + spin->lineUp;
        break;
    case SB_LINEDOWN:
        result = value + spin->lineDown;
        break;
    case SB_PAGEUP:
        result = value + spin->pageUp;
        break;
    case SB_PAGEDOWN:
        result = value + spin->pageDown;
        break;
    case SB_THUMBPOSITION:
        result = spin->thumbPosition;
        break;
    case SB_THUMBTRACK:
        result = spin->thumbTrack;
        break;
    case SB_TOP:
        result = spin->maximum;
        break;
    case SB_BOTTOM:
        result = spin->minimum;
        break;
    case SB_ENDSCROLL:
        result = value;
        break;
    default:
        spin->status = 1;
        return value;
    }
    if (result > spin->maximum) {
        result = spin->maximum;
        spin->status = 2;
    } else if (result < spin->minimum) {
        result = spin->minimum;
        spin->status = 4;
    }
    return (SHORT)result;
}

/* ---- RS-232C --------------------------------------------------------------- */

/* The port whose name stands at the port list's selection; 0 when none. */
static DWORD SelectedPort(HWND dlg)
{
    LRESULT pos = SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_GETCURSEL, 0, 0);
    WCHAR name[8];
    DWORD port;

    for (port = 1; port <= CFG_PORT_COUNT; port++) {
        CfgLoadPortName(port, name);
        if (SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_FINDSTRING, (WPARAM)-1, (LPARAM)name) == pos && pos != CB_ERR)
            return port;
    }
    return 0;
}

static void FillSpeeds(HWND dlg, BOOL fast)
{
    WCHAR text[8];
    DWORD speed;
    DWORD last = fast ? 3 : 2;

    SendDlgItemMessageW(dlg, IDC_SER_SPEED, CB_RESETCONTENT, 0, 0);
    for (speed = 1; speed <= last; speed++) {
        text[0] = 0;
        LoadStringW(g_hModule, IDS_BAUD_BASE + speed, text, 8);
        SendDlgItemMessageW(dlg, IDC_SER_SPEED, CB_ADDSTRING, 0, (LPARAM)text);
    }
    SendDlgItemMessageW(dlg, IDC_SER_SPEED, CB_SETCURSEL, (WPARAM)(s_serialSpeed - 1), 0);
}

static BOOL PortFast(DWORD port)
{
    return port <= CFG_PORT_COUNT && g_cfgPorts[port].fast;
}

static void InitSerial(HWND dlg, DeviceSettings *record)
{
    WCHAR name[8];
    DWORD port;
    int found;

    s_serialRecord = record;
    s_serialPort = record->id;
    s_serialSpeed = record->baudIndex;
    SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_RESETCONTENT, 0, 0);
    for (port = 1; port <= CFG_PORT_COUNT; port++) {
        if (g_cfgPorts[port].present) {
            CfgLoadPortName(port, name);
            SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_ADDSTRING, 0, (LPARAM)name);
        }
    }
    found = CfgFindPort(s_serialPort);
    if (found >= 0)
        s_serialPort = (DWORD)found;
    CfgLoadPortName(s_serialPort, name);
    SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_SETCURSEL,
                        (WPARAM)SendDlgItemMessageW(dlg, IDC_SER_PORT, CB_FINDSTRING, (WPARAM)-1, (LPARAM)name), 0);
    if (s_serialSpeed == 3 && !PortFast(s_serialPort))
        s_serialSpeed = 2;
    FillSpeeds(dlg, PortFast(s_serialPort));
}

static void SerialPortChanged(HWND dlg)
{
    DWORD port = SelectedPort(dlg);

    if (port == 0)
        port = 1;
    if (!PortFast(port) && s_serialSpeed == 3)
        s_serialSpeed = 2;
    FillSpeeds(dlg, PortFast(port));
}

static DWORD SelectedSpeed(HWND dlg)
{
    LRESULT pos = SendDlgItemMessageW(dlg, IDC_SER_SPEED, CB_GETCURSEL, 0, 0);
    return pos == CB_ERR ? 2 : (DWORD)pos + 1;
}

static void EndSubDialog(HWND dlg, INT_PTR result)
{
    g_cfgSubDlgWnd = NULL;
    EndDialog(dlg, result);
}

INT_PTR CALLBACK CfgSerialDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    DWORD port;

    switch (msg) {
    case WM_INITDIALOG:
        InitSerial(dlg, (DeviceSettings *)lParam);
        g_cfgSubDlgWnd = dlg;
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wParam)) {
        case IDC_SER_PORT:
            SerialPortChanged(dlg);
            break;
        case IDC_SER_SPEED:
            s_serialSpeed = SelectedSpeed(dlg);
            break;
        case IDOK:
            port = SelectedPort(dlg);
            if (port != 0) {
                s_serialRecord->id = port;
                s_serialRecord->baudIndex = SelectedSpeed(dlg);
            } else {
                s_serialRecord->id = 1;
                s_serialRecord->baudIndex = 2;
            }
            EndSubDialog(dlg, 1);
            break;
        case IDCANCEL:
            EndSubDialog(dlg, 0);
            break;
        }
        return TRUE;
    case WM_CLOSE:
        EndSubDialog(dlg, 0);
        return TRUE;
    }
    return FALSE;
}

/* ---- GP-IB ----------------------------------------------------------------- */

INT_PTR CALLBACK CfgGpibDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    HWND edit = GetDlgItem(dlg, IDC_GPIB_ADDRESS);
    UINT value;
    WORD code;

    switch (msg) {
    case WM_INITDIALOG:
        s_gpibRecord = (DeviceSettings *)lParam;
        SendMessageW(edit, EM_LIMITTEXT, 2, 0);
        SetDlgItemInt(dlg, IDC_GPIB_ADDRESS, s_gpibRecord->id, FALSE);
        g_cfgSubDlgWnd = dlg;
        return TRUE;
    case WM_VSCROLL:
        if (HIWORD(wParam) != IDC_GPIB_SPIN)
            return FALSE;
        if (GetFocus() != edit)
            SetFocus(edit);
        code = LOWORD(wParam);
        if (code == SB_THUMBTRACK || code == SB_ENDSCROLL)
            return TRUE;
        value = GetDlgItemInt(dlg, IDC_GPIB_ADDRESS, NULL, FALSE);
        value = (UINT)CfgSpinStep(code, (SHORT)value, &s_addressSpin);
        SetDlgItemInt(dlg, IDC_GPIB_ADDRESS, value, FALSE);
        SendMessageW(edit, EM_SETSEL, 0, -1);
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wParam)) {
        case IDOK:
            /* Text that is no unsigned number reads as 0; an address out of
               range keeps the dialog open. */
            value = GetDlgItemInt(dlg, IDC_GPIB_ADDRESS, NULL, FALSE);
            if (value <= GPIB_MAX_ADDRESS) {
                s_gpibRecord->id = value;
                EndSubDialog(dlg, 1);
            }
            return TRUE;
        case IDCANCEL:
            EndSubDialog(dlg, 0);
            return TRUE;
        }
        return FALSE;
    case WM_CLOSE:
        EndSubDialog(dlg, 0);
        return TRUE;
    }
    return FALSE;
}
