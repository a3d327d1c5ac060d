// The substitute GP-IB board library "GPIBDLL" (gpibdll.so): the 14
// procedures the driver resolves by name, each forwarding to the board of
// the virtual bus in libtamrixsim, which the tests share. Built a second
// time with GPIBDLL_WITHOUT_INITIALIZE into another directory, it lacks
// "InitializeGpib", as an incomplete vendor library would.
#include "gpib_bus.h"

#include <windows.h>

#define GPIBDLL_EXPORT extern "C" __attribute__((visibility("default")))

GPIBDLL_EXPORT int WINAPI CreateGpib(int board)
{
    return sim::board::Create(board);
}

GPIBDLL_EXPORT int WINAPI CloseGpib(int handle)
{
    return sim::board::Close(handle);
}

#ifndef GPIBDLL_WITHOUT_INITIALIZE
GPIBDLL_EXPORT int WINAPI InitializeGpib(int handle)
{
    return sim::board::Initialize(handle);
}
#endif

GPIBDLL_EXPORT int WINAPI GetGpibSwitch(int handle, BYTE *switches)
{
    return sim::board::GetSwitch(handle, switches);
}

GPIBDLL_EXPORT int WINAPI SetGpibTimeout(int handle, DWORD tenths)
{
    return sim::board::SetTimeout(handle, tenths);
}

GPIBDLL_EXPORT int WINAPI SetGpibIFC(int handle, DWORD duration)
{
    return sim::board::SetIfc(handle, duration);
}

GPIBDLL_EXPORT int WINAPI SetGpibREN(int handle, DWORD on)
{
    return sim::board::SetRen(handle, on);
}

GPIBDLL_EXPORT int WINAPI SetGpibDelimiter(int handle, DWORD delimiter)
{
    return sim::board::SetDelimiter(handle, delimiter);
}

GPIBDLL_EXPORT int WINAPI WriteGpib(int handle, const BYTE *commands, DWORD commandCount, const BYTE *data, DWORD count,
                                    DWORD *transferred, DWORD mode)
{
    return sim::board::Write(handle, commands, commandCount, data, count, reinterpret_cast<uint32_t *>(transferred),
                             mode);
}

GPIBDLL_EXPORT int WINAPI ReadGpib(int handle, const BYTE *commands, DWORD commandCount, BYTE *buffer, DWORD count,
                                   DWORD *transferred, DWORD mode)
{
    return sim::board::Read(handle, commands, commandCount, buffer, count, reinterpret_cast<uint32_t *>(transferred),
                            mode);
}

GPIBDLL_EXPORT int WINAPI WriteGpibCommand(int handle, const BYTE *commands, DWORD count, BYTE *result)
{
    return sim::board::WriteCommand(handle, commands, count, result);
}

GPIBDLL_EXPORT int WINAPI ExecuteGpibSP(int handle, void *devices, void *statuses, DWORD *completion)
{
    return sim::board::SerialPoll(handle, static_cast<sim::board::PollDevices *>(devices),
                                  static_cast<sim::board::PollStatuses *>(statuses),
                                  reinterpret_cast<uint32_t *>(completion));
}

GPIBDLL_EXPORT int WINAPI WaitGpibSRQ(int handle, WORD wait)
{
    return sim::board::WaitSrq(handle, wait);
}

GPIBDLL_EXPORT int WINAPI ControlGpibSRQ(int handle, DWORD mode)
{
    return sim::board::ControlSrq(handle, mode);
}
