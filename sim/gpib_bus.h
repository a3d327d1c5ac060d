// The virtual GP-IB bus behind the substitute board library "GPIBDLL":
// devices are attached at an address (0 to 30); the library addresses them
// with the interface command bytes it is given (UNL, UNT, talk and listen
// addresses) and moves data to and from the addressed device.
#pragma once

#include "byte_device.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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
// Wakes whoever waits on the bus (a reader waiting for a talker, a wait for
// a service request): a device that gets data ready or raises SRQ outside
// Listen() calls this. Waiters also look again every few milliseconds.
void NotifyGpibBus();

// ---- Test hooks ----------------------------------------------------------
// A library that lacks "InitializeGpib" is built as <build>/lib/partial/gpibdll.so:
// put that directory first on the module search path to load it as "GPIBDLL".

// One call of a library procedure as the board saw it. The bus keeps the
// latest 4096 calls, each with the first 64 bytes of its data.
struct GpibCall {
    std::string name;              // "ReadGpib"
    std::vector<long> args;        // scalar arguments in order, the handle first
    std::vector<uint8_t> commands; // interface command bytes given
    std::vector<uint8_t> data;     // data written, or data read (the first 64 bytes)
    long result = 0;               // the procedure's return value
    unsigned long error = 0;       // last error set by a failing call, else 0
};
std::vector<GpibCall> GpibCalls();
// The calls of one procedure only.
std::vector<GpibCall> GpibCallsOf(const std::string &name);
void ClearGpibCalls();
// The nth next call (1 = the next) of the procedure `name` fails with its
// failure value (-1 for "CreateGpib", 0 otherwise) and leaves `error` as the
// last error (ERROR_GEN_FAILURE when 0).
void FailGpibProcedure(const char *name, unsigned nth, unsigned long error = 0);
void ResetGpibFaults();
// Everything back to the start: the board closed if a test left it open,
// no devices, board address 0, no record, no faults.
void ResetGpibBus();

// ---- The board, as the substitute library exports it ----------------------
// The exported procedures of gpibdll only forward to these. The board is one
// per process: it opens with board number 0 and a second open fails while
// it is open. Time-outs are in tenths of a second (0 waits for nothing that
// is not ready at once); the service-request wait value counts 10 ms units.
namespace board
{

// Serial poll lists: `count` device addresses in, one status byte per device
// out; `reserved` is not looked at.
struct PollDevices {
    uint32_t count;
    uint8_t *addresses;
};
struct PollStatuses {
    uint16_t reserved;
    uint8_t *status;
};
// Completion code of a serial poll that got every status byte.
constexpr uint32_t kPollComplete = 0x31;
// Bits of switch byte 2 above the board address (system controller).
constexpr uint8_t kSwitchController = 0x80;

int Create(int boardNumber);
int Close(int handle);
int Initialize(int handle);
int GetSwitch(int handle, uint8_t *switches);
int SetTimeout(int handle, uint32_t tenths);
int SetIfc(int handle, uint32_t duration);
int SetRen(int handle, uint32_t on);
int SetDelimiter(int handle, uint32_t delimiter);
int Write(int handle, const uint8_t *commands, uint32_t commandCount, const uint8_t *data, uint32_t count,
          uint32_t *transferred, uint32_t mode);
int Read(int handle, const uint8_t *commands, uint32_t commandCount, uint8_t *buffer, uint32_t count,
         uint32_t *transferred, uint32_t mode);
int WriteCommand(int handle, const uint8_t *commands, uint32_t count, uint8_t *result);
int SerialPoll(int handle, PollDevices *devices, PollStatuses *statuses, uint32_t *completion);
int WaitSrq(int handle, uint16_t wait);
int ControlSrq(int handle, uint32_t mode);

} // namespace board

} // namespace sim
