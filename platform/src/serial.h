// COM ports behind file handles. A port is either virtual (a peer object in
// this process is the far end, serial.cpp) or a host tty that the Windows
// directory's "dosdevices" folder links as comN (serial_tty.cpp). The comm
// API calls (GetCommState, PurgeComm, ...) reach either through this
// interface; ReadFile and WriteFile through Stream.
#pragma once

#include "devices.h"

namespace plat
{

class CommPort : public Stream
{
public:
    // Each sets the last error and returns false on failure.
    virtual bool GetState(DCB *dcb) = 0;
    // `dcb` has been checked for sizes the port cannot take at all.
    virtual bool SetState(const DCB &dcb) = 0;
    virtual bool GetTimeouts(COMMTIMEOUTS *timeouts) = 0;
    virtual bool SetTimeouts(const COMMTIMEOUTS &timeouts) = 0;
    // PURGE_* flags, already checked.
    virtual bool Purge(DWORD flags) = 0;
    // Reports and clears the line errors (CE_*); fills the queue counts.
    virtual bool ClearError(DWORD *errors, COMSTAT *stat) = 0;
    // SETXOFF .. CLRDTR, SETBREAK, CLRBREAK, already checked.
    virtual bool Escape(DWORD function) = 0;
};

// How long a COMMTIMEOUTS read of `size` bytes may wait, shared by both
// kinds of port. Windows' documented combinations: MAXDWORD interval with
// zero totals returns at once with what is there; MAXDWORD interval and
// multiplier with a constant returns as soon as any byte is there (waiting
// at most the constant for the first); otherwise the total time-out
// (multiplier x size + constant) bounds the read, none when both are 0, and
// an interval time-out other than 0 and MAXDWORD ends the read when that
// long passes between two bytes.
struct ReadPlan {
    bool immediate = false;
    bool anyByte = false;
    bool bounded = false;
    uint64_t totalMs = 0;
    DWORD intervalMs = 0; // 0: no interval time-out
};
ReadPlan PlanRead(const COMMTIMEOUTS &t, DWORD size);

// Time one character takes on the line with these settings, in microseconds
// (start bit, data bits, parity bit and stop bits at the baud rate).
uint64_t CharacterMicros(const DCB &dcb);

// CreateFile of "COMn" or "\\.\COMn" (n from 1 to 255) when the Windows
// directory holds a "dosdevices/comN" entry (usually a symbolic link to a
// tty such as /dev/ttyUSB0): opens that tty as a COM port in *port, or sets
// the last error and leaves *port null. False when the name is not a COM
// port name or no such entry exists (the port is then virtual, if any).
bool OpenLinkedComPort(const std::string &name, std::shared_ptr<Stream> *port);

} // namespace plat
