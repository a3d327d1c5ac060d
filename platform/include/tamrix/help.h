/* Test control of the help engine: WinHelpW opens no help window on this
   platform; it succeeds and records its calls for tests to read. */
#ifndef TAMRIX_PLATFORM_HELP_H
#define TAMRIX_PLATFORM_HELP_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Number of WinHelpW calls so far; with `file` (at least `fileMax` WCHARs)
   and `command` non-null, the last call's file name and command. */
WINBASEAPI LONG WINAPI PlatHelpCalls(LPWSTR file, int fileMax, UINT *command);

#ifdef __cplusplus
}
#endif

#endif
