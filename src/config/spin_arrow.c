/* The spin-arrow control used by the configuration dialogs. */
#include "config/settings.h"

/* The control is not built yet: registration fails, so that configure is
   refused as if the class could not be registered (nothing is shown). */
BOOL CfgRegisterArrowClass(HINSTANCE instance)
{
    (void)instance;
    return FALSE;
}
