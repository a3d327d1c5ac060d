/* The four settings that say which scanner is attached and how it is
   reached, kept in section "TAMRIX" of win.ini. They are repaired when read
   and written as they are. */
#include "config/settings.h"

#define MAX_WRITTEN_VALUE 30

/* Range and default of "ID" for an interface. */
static void IdRangeOf(DWORD interfaceType, DWORD *low, DWORD *high, DWORD *def)
{
    if (interfaceType == IF_RS232C) {
        *low = 1; /* COM1 to COM9 */
        *high = 9;
        *def = 1;
    } else if (interfaceType == IF_GPIB) {
        *low = 0; /* GP-IB addresses */
        *high = 30;
        *def = 2;
    } else {
        *low = 0; /* the SCSI device has no number */
        *high = 0;
        *def = 0;
    }
}

void CfgReadSettings(const DRVCONFIGINFO *config, DeviceSettings *settings)
{
    DWORD low, high, def;

    (void)config; /* the section is always ours, whatever the alias */

    settings->model = GetProfileIntW(CFG_SECTION, CFG_KEY_MODEL, CFG_DEFAULT_MODEL);
    if (settings->model < 1 || settings->model > CFG_MAX_PROFILE_MODEL)
        settings->model = CFG_DEFAULT_MODEL;

    settings->interfaceType = GetProfileIntW(CFG_SECTION, CFG_KEY_INTERFACE, CFG_DEFAULT_INTERFACE);
    if (settings->interfaceType < IF_SCSI || settings->interfaceType > IF_GPIB)
        settings->interfaceType = CFG_DEFAULT_INTERFACE;

    /* The ID is judged by the interface as stored, before the model rules. */
    IdRangeOf(settings->interfaceType, &low, &high, &def);
    settings->id = GetProfileIntW(CFG_SECTION, CFG_KEY_ID, (INT)def);
    if (settings->id < low || settings->id > high)
        settings->id = def;

    settings->baudIndex = GetProfileIntW(CFG_SECTION, CFG_KEY_BAUD, CFG_DEFAULT_BAUD);
    if (settings->baudIndex < 1 || settings->baudIndex > CFG_MAX_BAUD)
        settings->baudIndex = CFG_DEFAULT_BAUD;

    /* Models 1 and 3 have no SCSI, model 1 has RS-232C only, model 7 is
       GP-IB only. Only the interface changes. */
    if ((settings->model == 1 || settings->model == 3) && settings->interfaceType == IF_SCSI)
        settings->interfaceType = IF_RS232C;
    if (settings->model == 1 && settings->interfaceType == IF_GPIB)
        settings->interfaceType = IF_RS232C;
    if (settings->model == 7 && settings->interfaceType != IF_GPIB)
        settings->interfaceType = IF_GPIB;
}

static const WCHAR *const s_valueTexts[MAX_WRITTEN_VALUE + 1] = {
    TEXT("0"),  TEXT("1"),  TEXT("2"),  TEXT("3"),  TEXT("4"),  TEXT("5"),  TEXT("6"),  TEXT("7"),
    TEXT("8"),  TEXT("9"),  TEXT("10"), TEXT("11"), TEXT("12"), TEXT("13"), TEXT("14"), TEXT("15"),
    TEXT("16"), TEXT("17"), TEXT("18"), TEXT("19"), TEXT("20"), TEXT("21"), TEXT("22"), TEXT("23"),
    TEXT("24"), TEXT("25"), TEXT("26"), TEXT("27"), TEXT("28"), TEXT("29"), TEXT("30"),
};

/* Every value the dialogs produce lies in 0 to 30; anything larger is
   spelled out rather than read past the table. */
static const WCHAR *ValueText(DWORD value, WCHAR *buffer)
{
    WCHAR *p;

    if (value <= MAX_WRITTEN_VALUE)
        return s_valueTexts[value];
    p = buffer + 10;
    *p = 0;
    do {
        *--p = (WCHAR)(TEXT('0') + value % 10);
        value /= 10;
    } while (value != 0);
    return p;
}

BOOL CfgWriteSettings(const DRVCONFIGINFO *config, const DeviceSettings *settings)
{
    WCHAR buffer[11];

    (void)config;
    WriteProfileStringW(CFG_SECTION, CFG_KEY_MODEL, ValueText(settings->model, buffer));
    WriteProfileStringW(CFG_SECTION, CFG_KEY_INTERFACE, ValueText(settings->interfaceType, buffer));
    WriteProfileStringW(CFG_SECTION, CFG_KEY_ID, ValueText(settings->id, buffer));
    return WriteProfileStringW(CFG_SECTION, CFG_KEY_BAUD, ValueText(settings->baudIndex, buffer));
}
