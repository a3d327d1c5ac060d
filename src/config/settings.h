/* The settings store and the configuration dialogs' entry points. */
#ifndef TAMRIX_CONFIG_SETTINGS_H
#define TAMRIX_CONFIG_SETTINGS_H

#include "driver/driver_state.h"

/* Profile section and keys (win.ini). */
#define CFG_SECTION TEXT("TAMRIX")
#define CFG_KEY_MODEL TEXT("Scanner")
#define CFG_KEY_INTERFACE TEXT("Interface")
#define CFG_KEY_ID TEXT("ID")
#define CFG_KEY_BAUD TEXT("Baudrate")

/* Defaults and ranges of what the profile may hold. */
#define CFG_DEFAULT_MODEL 5
#define CFG_MAX_PROFILE_MODEL 6
#define CFG_DEFAULT_INTERFACE IF_RS232C
#define CFG_DEFAULT_BAUD 2
#define CFG_MAX_BAUD 3

#endif
