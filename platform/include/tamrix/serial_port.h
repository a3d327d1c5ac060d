// Virtual COM ports for virtual devices and tests. A peer is the far end of
// the cable: it gets the bytes written to the port and offers the bytes the
// port reads. While a peer is attached as COMn, CreateFile("COMn") opens the
// port (one handle at a time) and the comm API works on it; otherwise COMn
// does not exist. None of this exists on Windows; driver code never includes
// it.
#pragma once

#include "../windows.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tamrix
{

#define TAMRIX_SERIAL_API __attribute__((visibility("default")))

// Called from the threads that use the port, never with a platform lock
// held. A peer may call the platform (events, GetTickCount) from these, but
// must not hold a lock of its own across SerialPortReady().
class TAMRIX_SERIAL_API SerialPeer
{
public:
    virtual ~SerialPeer() = default;
    // Bytes written to the port, at once and in order.
    virtual void Receive(const uint8_t *data, size_t size) = 0;
    // Moves up to `max` bytes for the port's reader into `out`; returns how many.
    virtual size_t Transmit(uint8_t *out, size_t max) = 0;
    // Bytes the peer could transmit now.
    virtual size_t Pending() const = 0;
    // PurgeComm was called with these PURGE_* flags.
    virtual void Purged(DWORD flags) { (void)flags; }
};

// Attaches `peer` as COMn (n from 1 to 255). False when n is out of range or
// a peer is already attached there.
TAMRIX_SERIAL_API bool AttachSerialPeer(unsigned port, std::shared_ptr<SerialPeer> peer);
// Detaches the peer: COMn ceases to exist. A handle still open stays valid
// but its reads time out empty and its writes fail.
TAMRIX_SERIAL_API void DetachSerialPeer(unsigned port);
// The peer has bytes that became ready on their own: wakes waiting readers.
TAMRIX_SERIAL_API void SerialPortReady(unsigned port);
// Raises line errors (CE_FRAME, CE_OVERRUN, ...) that ClearCommError reports
// and clears. With fAbortOnError set, reads and writes fail with
// ERROR_OPERATION_ABORTED until then.
TAMRIX_SERIAL_API void RaiseSerialLineErrors(unsigned port, DWORD errors);
// The port takes at most `bytes` of each following write and reports the
// rest as not written after the write time-out (as when the far end holds
// CTS low); MAXDWORD lifts the limit.
TAMRIX_SERIAL_API void LimitSerialWrites(unsigned port, DWORD bytes);

// The port's settings as the last SetCommState and SetCommTimeouts left them
// (they outlive the handle, as on Windows). False when nothing was ever
// attached as COMn.
TAMRIX_SERIAL_API bool GetSerialPortSettings(unsigned port, DCB *dcb, COMMTIMEOUTS *timeouts);
// Whether a handle to COMn is open.
TAMRIX_SERIAL_API bool IsSerialPortOpen(unsigned port);

} // namespace tamrix
