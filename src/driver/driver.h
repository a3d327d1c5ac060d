/* The driver's two entry points. */
#ifndef TAMRIX_DRIVER_H
#define TAMRIX_DRIVER_H

#include <windows.h>
#include <mmsystem.h>
#include <mmddk.h>

#ifdef __cplusplus
extern "C" {
#endif

BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved);
LRESULT CALLBACK DriverProc(DWORD_PTR driverId, HDRVR driver, UINT msg, LPARAM param1, LPARAM param2);

#ifdef __cplusplus
}
#endif

#endif
