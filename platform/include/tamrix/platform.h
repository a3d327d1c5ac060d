/* Control of the host platform layer for tests and tools: live object
   counts, fault injection, the virtual clock, the Windows directory and
   modules. None of this exists on Windows; driver code never includes it. */
#ifndef TAMRIX_PLATFORM_H
#define TAMRIX_PLATFORM_H

#include "../windows.h"

TAMRIX_EXTERN_C_BEGIN

/* Kinds of counted platform objects. */
typedef enum PlatKind {
    PLAT_KIND_GLOBAL = 0, /* global memory blocks */
    PLAT_KIND_GDI,        /* bitmaps, brushes, pens, palettes (stock objects excluded) */
    PLAT_KIND_DC,         /* memory DCs and window DCs not yet released */
    PLAT_KIND_WINDOW,     /* windows, dialogs and controls */
    PLAT_KIND_THREAD,     /* thread objects (open handle or still running) */
    PLAT_KIND_EVENT,      /* events */
    PLAT_KIND_FILE,       /* files, serial ports and devices */
    PLAT_KIND_TIMER,      /* thread and window timers */
    PLAT_KIND_HOOK,       /* windows hooks */
    PLAT_KIND_MODULE,     /* modules loaded with LoadLibrary */
    PLAT_KIND_STRANDED,   /* threads, timers, window and hook procedures of a
                             module that were still live when FreeLibrary let
                             the module go (never goes down: each is an error) */
    PLAT_KIND_COUNT
} PlatKind;

WINBASEAPI long PlatLiveCount(PlatKind kind);
WINBASEAPI const char *PlatKindName(PlatKind kind);

/* Fault injection. `api` is the exported name ("GlobalAlloc"). The nth
   following call (1 = the next) fails, or every call fails, with the API's
   failure value; GetLastError then answers `error`, or the API's usual code
   when `error` is 0. */
WINBASEAPI void PlatFailCall(const char *api, unsigned nth, DWORD error);
WINBASEAPI void PlatFailAlways(const char *api, DWORD error);
WINBASEAPI void PlatClearFaults(void);
/* Calls of `api` since the last PlatClearFaults (or process start). */
WINBASEAPI unsigned PlatCallCount(const char *api);
/* Names of every injectable API, up to max; returns the total number. */
WINBASEAPI int PlatInjectableApis(const char **names, int max);

/* Clock. Real by default. Under the virtual clock, Sleep, wait time-outs and
   timers complete as soon as every platform thread is blocked, with
   GetTickCount advanced by the time they stand for; every GetTickCount call
   also advances it by 1 ms, so a loop polling it reaches its deadline. */
WINBASEAPI void PlatUseVirtualClock(BOOL on);
WINBASEAPI BOOL PlatIsVirtualClock(void);
WINBASEAPI void PlatAdvanceClock(DWORD ms);
/* A thread that blocks outside the platform (joining a std::thread, reading
   a pipe) brackets the wait with these so the virtual clock can move on. */
WINBASEAPI void PlatBeginExternalWait(void);
WINBASEAPI void PlatEndExternalWait(void);

/* The Windows directory holding win.ini and system.ini: $TAMRIX_WINDIR, else
   ~/.config/tamrix, unless set here (NULL restores the default). */
WINBASEAPI void PlatSetWindowsDirectory(const char *path);
WINBASEAPI const char *PlatGetWindowsDirectory(void);

/* Modules. The module of a loaded ELF object (or of the main program) that
   contains `address`; registered on first use. */
WINBASEAPI HMODULE PlatModuleFromAddress(const void *address);
/* Colon-separated directories LoadLibrary searches (after the directory of
   the main program). Also read from $TAMRIX_MODULE_PATH. */
WINBASEAPI void PlatSetModuleSearchPath(const char *paths);

/* Clipboard. Closes the clipboard, whichever thread has it open, and frees
   what it holds (as EmptyClipboard would), so that tests can see the global
   blocks and GDI objects handed to it go away. */
WINBASEAPI void PlatResetClipboard(void);

TAMRIX_EXTERN_C_END

#endif
