// The virtual GP-IB bus behind the substitute board library "GPIBDLL":
// devices are attached at an address (0 to 30); the library addresses them
// with the interface command bytes it is given (UNL, UNT, talk and listen
// addresses) and moves data to and from the addressed device.
#pragma once

#include "byte_device.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace sim
{

class GpibDevice
{
public:
    virtual ~GpibDevice() = default;
    // Data written to the device while it is addressed to listen.
    virtual void Listen(const uint8_t *data, size_t size) = 0;
    // Data read from the device while it is addressed to talk: moves up to
    // `max` bytes into `out`, returns how many, and sets *end when the
    // device's message ended with the last of them (EOI).
    virtual size_t Talk(uint8_t *out, size_t max, bool *end) = 0;
    // Bytes the device has ready to talk now.
    virtual size_t Ready() const = 0;
    // Whether the device asserts SRQ.
    virtual bool ServiceRequest() const { return false; }
    // Serial poll: the status byte; polling clears the service request.
    virtual uint8_t SerialPoll() { return 0; }
    // Device Clear (DCL or SDC) and interface clear.
    virtual void DeviceClear() {}
};

// Adapts a byte-talking scanner to the bus: what it has queued is its talk
// message, ended (EOI) with the last queued byte.
std::shared_ptr<GpibDevice> MakeGpibByteDevice(std::shared_ptr<ByteDevice> device);

// The bus, one per process. Attaching at an address replaces what was there.
void AttachGpibDevice(int address, std::shared_ptr<GpibDevice> device);
void DetachGpibDevice(int address);
void DetachAllGpibDevices();
// The board's own address, reported in byte 2 of the switch settings (low five bits).
void SetGpibBoardAddress(int address);
// Test hooks: the next calls of a library procedure (by its name, e.g.
// "ReadGpib") fail; a procedure name made missing is not exported by the
// library loaded next (GetProcAddress finds nothing).
void FailGpibProcedure(const char *name, unsigned nth);
void HideGpibProcedure(const char *name);
void ResetGpibFaults();

} // namespace sim
