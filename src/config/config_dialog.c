/* The configuration dialog. */
#include "config/settings.h"

/* Not built yet: handles no message. Configure never gets this far while
   the spin-arrow class cannot be registered. */
INT_PTR CALLBACK CfgConfigDlgProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    (void)dlg;
    (void)msg;
    (void)wParam;
    (void)lParam;
    return FALSE;
}
