/* The configuration dialog: probes the machine for the COM ports, the GP-IB
   board and the SCSI scanner device, offers the interfaces the chosen model
   can use, runs the RS-232C and GP-IB dialogs and stores the result in the
   profile on OK. Its state is global and rebuilt at every opening, except
   the port table, which is only refreshed while no device holds a COM port. */
#include "config/config.h"
#include "config/settings.h"
#include "resources/resource.h"
#include "transport/transport.h"

#define IF_COUNT 3
#define DEFAULT_GPIB_ADDRESS 2

typedef int(WINAPI *CfgGpibProc)(int value);

/* Before the first probe every port counts as present. */
CfgPortInfo g_cfgPorts[CFG_PORT_COUNT + 1] = {{1, 0}, {1, 0}, {1, 0}, {1, 0}, {1, 0},
                                              {1, 0}, {1, 0}, {1, 0}, {1, 0}, {1, 0}};
HWND g_cfgDlgWnd;

static const DRVCONFIGINFO *s_config;
static DeviceSettings s_work;
static BOOL s_haveCom, s_haveGpib, s_haveScsi;
static DWORD s_availCount;
static DeviceSettings s_serialRecord;
static DeviceSettings s_gpibRecord;
static WCHAR s_ifNames[IF_COUNT + 1][16]; /* by interface code */

/* ---- Probes ------------------------------------------------------------------ */

static void ProbePorts(void)
{
    WCHAR name[8];
    DCB dcb;
    DWORD rate;
    HANDLE port;
    DWORD n;

    for (n = 1; n <= CFG_PORT_COUNT; n++) {
        g_cfgPorts[n].fast = 0;
        CfgLoadPortName(n, name);
        port = CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
        g_cfgPorts[n].present = port != INVALID_HANDLE_VALUE;
        if (port != INVALID_HANDLE_VALUE) {
            dcb.DCBlength = sizeof dcb;
            if (GetCommState(port, &dcb)) {
                rate = dcb.BaudRate;
                dcb.BaudRate = CBR_19200;
                if (SetCommState(port, &dcb)) {
                    g_cfgPorts[n].fast = 1;
                    dcb.BaudRate = rate;
                    SetCommState(port, &dcb);
                }
            }
            CloseHandle(port);
        }
    }
}

static BOOL ProbeGpib(void)
{
    CfgGpibProc create, close;
    int board;

    if (!GpLoadLibrary())
        return FALSE;
    create = (CfgGpibProc)(void (*)(void))GetProcAddress(g_gpibModule, "CreateGpib");
    close = (CfgGpibProc)(void (*)(void))GetProcAddress(g_gpibModule, "CloseGpib");
    if (create == NULL || close == NULL) {
        GpFreeLibrary();
        return FALSE;
    }
    board = create(0);
    close(board);
    GpFreeLibrary();
    return board != -1;
}

static BOOL ProbeScsi(void)
{
    HANDLE device = CreateFileW(TEXT("\\\\.\\SCNR0"), GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);

    if (device == INVALID_HANDLE_VALUE)
        return FALSE;
    CloseHandle(device);
    return TRUE;
}

static void Probe(void)
{
    DWORD n;

    if (g_openComHandle != NULL) {
        s_haveCom = TRUE;
    } else {
        ProbePorts();
        s_haveCom = FALSE;
        for (n = 1; n <= CFG_PORT_COUNT; n++)
            s_haveCom |= g_cfgPorts[n].present;
    }
    s_haveGpib = g_openGpibHandle != NULL ? TRUE : ProbeGpib();
    s_haveScsi = g_openScsiHandle != NULL ? TRUE : ProbeScsi();
}

/* ---- Controls ---------------------------------------------------------------- */

static LRESULT ItemMessage(HWND dlg, int id, UINT msg, WPARAM wParam, LPARAM lParam)
{
    return SendDlgItemMessageW(dlg, id, msg, wParam, lParam);
}

static void EnableItem(HWND dlg, int id, BOOL enable)
{
    EnableWindow(GetDlgItem(dlg, id), enable);
}

/* The interface list with its label, OK and (when asked) Settings. */
static void EnableChoice(HWND dlg, BOOL enable, BOOL settings)
{
    EnableItem(dlg, IDC_CFG_IF, enable);
    EnableItem(dlg, IDC_CFG_IF_LABEL, enable);
    EnableItem(dlg, IDOK, enable);
    if (settings)
        EnableItem(dlg, IDC_CFG_SETTINGS, enable);
}

static LRESULT FindInterface(HWND dlg, DWORD iface)
{
    return ItemMessage(dlg, IDC_CFG_IF, CB_FINDSTRING, (WPARAM)-1, (LPARAM)s_ifNames[iface]);
}

static void RemoveInterface(HWND dlg, DWORD iface)
{
    LRESULT pos = FindInterface(dlg, iface);

    if (pos != CB_ERR)
        ItemMessage(dlg, IDC_CFG_IF, CB_DELETESTRING, (WPARAM)pos, 0);
}

/* Empties the interface list and adds the given ones in list order; the
   number added. */
static DWORD FillInterfaces(HWND dlg, BOOL scsi, BOOL com, BOOL gpib)
{
    DWORD count = 0;

    ItemMessage(dlg, IDC_CFG_IF, CB_RESETCONTENT, 0, 0);
    if (scsi) {
        ItemMessage(dlg, IDC_CFG_IF, CB_ADDSTRING, 0, (LPARAM)s_ifNames[IF_SCSI]);
        count++;
    }
    if (com) {
        ItemMessage(dlg, IDC_CFG_IF, CB_ADDSTRING, 0, (LPARAM)s_ifNames[IF_RS232C]);
        count++;
    }
    if (gpib) {
        ItemMessage(dlg, IDC_CFG_IF, CB_ADDSTRING, 0, (LPARAM)s_ifNames[IF_GPIB]);
        count++;
    }
    return count;
}

/* Selects the working interface's entry in a list of `count` entries. */
static void SelectInterface(HWND dlg, DWORD count, BOOL scsiListed)
{
    LRESULT entry;

    if (count == 1) {
        entry = 0;
    } else if (count == 2) {
        if (s_work.interfaceType == IF_SCSI)
            entry = 0;
        else if (s_work.interfaceType == IF_GPIB)
            entry = 1;
        else
            entry = scsiListed ? 1 : 0;
    } else if (count == 3) {
        entry = (LRESULT)s_work.interfaceType - 1;
    } else {
        return;
    }
    ItemMessage(dlg, IDC_CFG_IF, CB_SETCURSEL, (WPARAM)entry, 0);
}

static DWORD LowestPresentPort(void)
{
    DWORD n;

    for (n = 1; n <= CFG_PORT_COUNT; n++) {
        if (g_cfgPorts[n].present)
            return n;
    }
    return 1;
}

static void UseInterface(DWORD iface, DWORD id, DWORD baudIndex)
{
    s_work.interfaceType = iface;
    s_work.id = id;
    s_work.baudIndex = baudIndex;
}

/* The stored port if present, else the next present one; port 1 at 9600
   when none is. The speed falls back to 9600 when out of range or when the
   port did not take 19200. */
static void SearchPort(void)
{
    int port = CfgFindPort(s_work.id);

    if (port < 0) {
        s_work.id = 1;
        s_work.baudIndex = 2;
        return;
    }
    s_work.id = (DWORD)port;
    if (s_work.baudIndex > 3 || s_work.baudIndex < 1 || (s_work.baudIndex == 3 && !g_cfgPorts[port].fast))
        s_work.baudIndex = 2;
}

static void RepairInitialInterface(BOOL scsi, BOOL com, BOOL gpib)
{
    if (s_work.interfaceType == IF_RS232C) {
        if (!com) {
            if (scsi)
                UseInterface(IF_SCSI, 0, 0);
            else
                UseInterface(IF_GPIB, DEFAULT_GPIB_ADDRESS, 0);
        } else {
            SearchPort();
        }
    }
    if (s_work.interfaceType == IF_SCSI && !scsi) {
        if (com)
            UseInterface(IF_RS232C, LowestPresentPort(), 2);
        else
            UseInterface(IF_GPIB, DEFAULT_GPIB_ADDRESS, 0);
    }
    if (s_work.interfaceType == IF_GPIB && !gpib) {
        if (com) {
            UseInterface(IF_RS232C, LowestPresentPort(), 2);
        } else {
            s_work.interfaceType = IF_SCSI;
            s_work.baudIndex = 0;
        }
    }
}

static void InitDialog(HWND dlg, const DRVCONFIGINFO *config)
{
    BOOL scsi, com, gpib;
    WCHAR name[32];
    DWORD count;
    DWORD model;

    s_config = config;
    CfgReadSettings(config, &s_work);
    Probe();

    scsi = s_haveScsi && s_work.model != 1 && s_work.model != 3 && s_work.model != 7;
    com = s_haveCom && s_work.model != 7;
    gpib = s_haveGpib && s_work.model != 1;

    LoadStringW(g_hModule, IDS_IF_SCSI, s_ifNames[IF_SCSI], 16);
    LoadStringW(g_hModule, IDS_IF_RS232C, s_ifNames[IF_RS232C], 16);
    LoadStringW(g_hModule, IDS_IF_GPIB, s_ifNames[IF_GPIB], 16);
    count = FillInterfaces(dlg, scsi, com, gpib);
    s_availCount = count;

    RepairInitialInterface(scsi, com, gpib);
    if (count == 0) {
        EnableChoice(dlg, FALSE, TRUE);
    } else {
        SelectInterface(dlg, count, scsi);
    }

    ItemMessage(dlg, IDC_CFG_MODEL, CB_RESETCONTENT, 0, 0);
    for (model = 1; model <= CFG_MAX_PROFILE_MODEL; model++) {
        name[0] = 0;
        LoadStringW(g_hModule, IDS_MODEL_BASE + model, name, 32);
        ItemMessage(dlg, IDC_CFG_MODEL, CB_ADDSTRING, 0, (LPARAM)name);
    }
    ItemMessage(dlg, IDC_CFG_MODEL, CB_SETCURSEL, (WPARAM)(s_work.model - 1), 0);
    EnableItem(dlg, IDC_CFG_SETTINGS, s_work.interfaceType != IF_SCSI);

    s_serialRecord.id = 1;
    s_serialRecord.baudIndex = 2;
    s_gpibRecord.id = DEFAULT_GPIB_ADDRESS;
    if (s_work.interfaceType == IF_RS232C) {
        s_serialRecord.id = s_work.id;
        s_serialRecord.baudIndex = s_work.baudIndex;
    } else if (s_work.interfaceType == IF_GPIB) {
        s_gpibRecord.id = s_work.id;
    }
    s_availCount = (DWORD)s_haveCom + (DWORD)s_haveGpib + (DWORD)s_haveScsi;
    g_cfgDlgWnd = dlg;
}

/* ---- Model list -------------------------------------------------------------- */

/* Models that can use one interface only: model 1 RS-232C, model 7 GP-IB. */
static void OfferSingle(HWND dlg, DWORD iface, BOOL available, DWORD id, DWORD baudIndex)
{
    LRESULT pos;

    if (!available) {
        EnableItem(dlg, IDC_CFG_SETTINGS, FALSE);
        EnableItem(dlg, IDOK, FALSE);
        ItemMessage(dlg, IDC_CFG_IF, CB_RESETCONTENT, 0, 0);
        EnableItem(dlg, IDC_CFG_IF, FALSE);
        EnableItem(dlg, IDC_CFG_IF_LABEL, FALSE);
        return;
    }
    UseInterface(iface, id, baudIndex);
    pos = FindInterface(dlg, iface);
    if (pos == CB_ERR)
        pos = ItemMessage(dlg, IDC_CFG_IF, CB_ADDSTRING, 0, (LPARAM)s_ifNames[iface]);
    ItemMessage(dlg, IDC_CFG_IF, CB_SETCURSEL, (WPARAM)pos, 0);
    EnableChoice(dlg, TRUE, TRUE);
}

static void OfferAll(HWND dlg)
{
    FillInterfaces(dlg, s_haveScsi, s_haveCom, s_haveGpib);
    EnableChoice(dlg, s_availCount != 0, FALSE);
    if (s_work.interfaceType == IF_RS232C && !s_haveCom) {
        if (s_haveScsi)
            UseInterface(IF_SCSI, 0, 0);
        else if (s_haveGpib)
            UseInterface(IF_GPIB, s_gpibRecord.id, 0);
    }
    if (s_work.interfaceType == IF_SCSI && !s_haveScsi) {
        if (s_haveCom)
            UseInterface(IF_RS232C, s_serialRecord.id, s_serialRecord.baudIndex);
        else if (s_haveGpib)
            UseInterface(IF_GPIB, s_gpibRecord.id, 0);
    }
    if (s_work.interfaceType == IF_GPIB && !s_haveGpib) {
        if (s_haveCom)
            UseInterface(IF_RS232C, s_serialRecord.id, s_serialRecord.baudIndex);
        else if (s_haveScsi)
            UseInterface(IF_SCSI, 0, 0);
    }
    EnableItem(dlg, IDC_CFG_SETTINGS, s_availCount != 0 && s_work.interfaceType != IF_SCSI);
    SelectInterface(dlg, s_availCount, s_haveScsi);
}

/* Model 3 cannot use SCSI. */
static void OfferWithoutScsi(HWND dlg)
{
    FillInterfaces(dlg, FALSE, s_haveCom, s_haveGpib);
    if (s_availCount == 0 || (s_availCount == 1 && s_haveScsi)) {
        EnableChoice(dlg, FALSE, TRUE);
        return;
    }
    EnableChoice(dlg, TRUE, TRUE);
    switch (s_work.interfaceType) {
    case IF_SCSI:
        if (s_haveCom)
            UseInterface(IF_RS232C, s_serialRecord.id, s_serialRecord.baudIndex);
        else if (s_haveGpib)
            UseInterface(IF_GPIB, s_gpibRecord.id, 0);
        ItemMessage(dlg, IDC_CFG_IF, CB_SETCURSEL, 0, 0);
        break;
    case IF_RS232C:
        ItemMessage(dlg, IDC_CFG_IF, CB_SETCURSEL, 0, 0);
        break;
    case IF_GPIB:
        ItemMessage(dlg, IDC_CFG_IF, CB_SETCURSEL, s_haveCom ? 1 : 0, 0);
        break;
    }
}

static void ModelChanged(HWND dlg)
{
    LRESULT sel = ItemMessage(dlg, IDC_CFG_MODEL, CB_GETCURSEL, 0, 0);

    s_work.model = sel == CB_ERR ? 0 : (DWORD)sel + 1;
    switch (s_work.model) {
    case 1:
        RemoveInterface(dlg, IF_SCSI);
        RemoveInterface(dlg, IF_GPIB);
        OfferSingle(dlg, IF_RS232C, s_haveCom, s_serialRecord.id, s_serialRecord.baudIndex);
        break;
    case 2:
    case 4:
    case 5:
    case 6:
        OfferAll(dlg);
        break;
    case 3:
        OfferWithoutScsi(dlg);
        break;
    case 7:
        RemoveInterface(dlg, IF_SCSI);
        RemoveInterface(dlg, IF_RS232C);
        OfferSingle(dlg, IF_GPIB, s_haveGpib, s_gpibRecord.id, 0);
        break;
    }
}

/* ---- Interface list ---------------------------------------------------------- */

static void InterfaceChanged(HWND dlg)
{
    int s = FindInterface(dlg, IF_SCSI) != CB_ERR;
    int r = FindInterface(dlg, IF_RS232C) != CB_ERR;
    int g = FindInterface(dlg, IF_GPIB) != CB_ERR;
    int sel = (int)ItemMessage(dlg, IDC_CFG_IF, CB_GETCURSEL, 0, 0);

    switch (s + r + g) {
    case 1:
        s_work.interfaceType = (DWORD)(3 * g + 2 * r + s);
        break;
    case 2:
        /* The first of the two listed for entry 0, the second for entry 1. */
        s_work.interfaceType = (DWORD)(((sel + 1) * s + r) * g + r + sel);
        break;
    case 3:
        s_work.interfaceType = (DWORD)(sel + 1);
        break;
    }
    switch (s_work.interfaceType) {
    case IF_SCSI:
        s_work.id = 0;
        s_work.baudIndex = 0;
        EnableItem(dlg, IDC_CFG_SETTINGS, FALSE);
        break;
    case IF_RS232C:
        s_work.id = s_serialRecord.id;
        s_work.baudIndex = s_serialRecord.baudIndex;
        EnableItem(dlg, IDC_CFG_SETTINGS, TRUE);
        break;
    case IF_GPIB:
        s_work.id = s_gpibRecord.id;
        s_work.baudIndex = 0;
        EnableItem(dlg, IDC_CFG_SETTINGS, TRUE);
        break;
    }
}

/* ---- Buttons ----------------------------------------------------------------- */

static void RunSettings(HWND dlg)
{
    INT_PTR result;

    if (s_work.interfaceType == IF_RS232C) {
        result =
            DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(IDD_SERIAL), dlg, CfgSerialDlgProc, (LPARAM)&s_serialRecord);
        if (result == 1) {
            s_work.id = s_serialRecord.id;
            s_work.baudIndex = s_serialRecord.baudIndex;
        }
    } else if (s_work.interfaceType == IF_GPIB) {
        result = DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(IDD_GPIB), dlg, CfgGpibDlgProc, (LPARAM)&s_gpibRecord);
        if (result == 1)
            s_work.id = s_gpibRecord.id;
    } else {
        return;
    }
    if (result == -1)
        GetLastError();
}

static void EndConfig(HWND dlg, INT_PTR result)
{
    g_cfgDlgWnd = NULL;
    EndDialog(dlg, result);
}

INT_PTR CALLBACK CfgConfigDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_INITDIALOG:
        InitDialog(dlg, (const DRVCONFIGINFO *)lParam);
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wParam)) {
        case IDC_CFG_MODEL:
            ModelChanged(dlg);
            break;
        case IDC_CFG_IF:
            InterfaceChanged(dlg);
            break;
        case IDC_CFG_SETTINGS:
            RunSettings(dlg);
            break;
        case IDOK:
            CfgWriteSettings(s_config, &s_work);
            EndConfig(dlg, 1);
            break;
        case IDCANCEL:
            EndConfig(dlg, 0);
            break;
        case IDC_CFG_HELP:
            WinHelpW(dlg, TEXT("scandrv.hlp"), HELP_CONTENTS, 0);
            break;
        }
        return TRUE;
    case WM_CLOSE:
        EndConfig(dlg, 0);
        return TRUE;
    }
    return FALSE;
}
