// The virtual GP-IB bus and the one board on it. Addressing follows the
// interface messages a controller sends: UNL clears every listener, UNT the
// talker, 0x20+n makes address n a listener, 0x40+n the (only) talker; the
// board takes part under its own address like any device. Data written goes
// to every listening device; a read takes the talker's bytes until its EOI,
// a full buffer or the time-out. Waits run on the platform clock.
#include "gpib_bus.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <mutex>

namespace sim
{
namespace
{

constexpr int kAddresses = 31;
constexpr DWORD kPollSliceMs = 10; // waiters look again this often
constexpr int kFirstHandle = 0x4701;

struct Fault {
    std::string name;
    unsigned remaining;
    DWORD error;
};

struct Bus {
    std::mutex mutex;
    std::array<std::shared_ptr<GpibDevice>, kAddresses> devices;
    int boardAddress = 0;
    int talker = -1;        // address of the talker, -1 for none
    uint32_t listeners = 0; // one bit per address
    // The board.
    bool open = false;
    int handle = 0;
    int nextHandle = kFirstHandle;
    uint32_t timeoutTenths = 100;
    uint32_t srqMode = 0x80;
    // The latest calls; `firstCall` numbers the oldest one kept.
    std::deque<GpibCall> calls;
    size_t firstCall = 0;
    std::vector<Fault> faults;
};

Bus &TheBus()
{
    static Bus bus;
    return bus;
}

// Set while the board is open; waiters sleep on it, NotifyGpibBus sets it.
// Kept outside the bus lock so that a device may notify from anywhere.
std::atomic<HANDLE> g_wake{nullptr};

// Records a call and answers whether an injected fault makes it fail.
// Called with the bus lock held.
bool Enter(Bus &bus, const char *name, DWORD *error)
{
    for (auto it = bus.faults.begin(); it != bus.faults.end(); ++it) {
        if (it->name != name)
            continue;
        if (--it->remaining == 0) {
            *error = it->error ? it->error : ERROR_GEN_FAILURE;
            bus.faults.erase(it);
            return true;
        }
    }
    return false;
}

// The record is bounded: the latest kRecordCalls calls, with at most
// kRecordBytes of data each, so that a whole scanned page costs little.
constexpr size_t kRecordCalls = 4096;
constexpr size_t kRecordBytes = 64;

GpibCall &Record(Bus &bus, const char *name, std::initializer_list<long> args)
{
    GpibCall call;
    call.name = name;
    call.args.assign(args);
    if (bus.calls.size() == kRecordCalls) {
        bus.calls.pop_front();
        ++bus.firstCall;
    }
    bus.calls.push_back(std::move(call));
    return bus.calls.back();
}

// Number of the latest call, for Recorded().
size_t LatestCall(const Bus &bus)
{
    return bus.firstCall + bus.calls.size() - 1;
}

void RecordData(GpibCall &call, const uint8_t *data, size_t count)
{
    call.data.assign(data, data + std::min(count, kRecordBytes));
}

void ClearRecord(Bus &bus)
{
    bus.firstCall += bus.calls.size();
    bus.calls.clear();
}

// Ends a call: stores the result in its record and sets the last error on failure.
int Finish(GpibCall &call, int result, DWORD error)
{
    call.result = result;
    call.error = error;
    if (error)
        SetLastError(error);
    return result;
}

// The record of a call that waited without the lock; a scratch record if a
// test cleared the record or it was dropped meanwhile.
GpibCall &Recorded(Bus &bus, size_t number)
{
    static GpibCall scratch;
    if (number < bus.firstCall || number - bus.firstCall >= bus.calls.size())
        return scratch;
    return bus.calls[number - bus.firstCall];
}

bool ValidHandle(const Bus &bus, int handle)
{
    return bus.open && handle == bus.handle;
}

// Interprets interface command bytes. Device clears are collected and run
// by the caller without the lock.
void ApplyCommands(Bus &bus, const uint8_t *bytes, size_t count, std::vector<std::shared_ptr<GpibDevice>> *cleared)
{
    for (size_t i = 0; i < count; ++i) {
        uint8_t b = bytes[i];
        if (b == 0x3F) {
            bus.listeners = 0;
        } else if (b == 0x5F) {
            bus.talker = -1;
        } else if (b >= 0x20 && b < 0x20 + kAddresses) {
            bus.listeners |= 1u << (b - 0x20);
        } else if (b >= 0x40 && b < 0x40 + kAddresses) {
            bus.talker = b - 0x40;
        } else if (b == 0x14) { // DCL: every device
            for (auto &d : bus.devices)
                if (d)
                    cleared->push_back(d);
        } else if (b == 0x04) { // SDC: the addressed listeners
            for (int a = 0; a < kAddresses; ++a)
                if ((bus.listeners >> a & 1) && bus.devices[a] && a != bus.boardAddress)
                    cleared->push_back(bus.devices[a]);
        }
        // Other universal commands (GTL, LLO, GET, SPE, SPD) and secondary
        // addresses change nothing here.
    }
}

void ClearDevices(const std::vector<std::shared_ptr<GpibDevice>> &devices)
{
    for (const auto &d : devices)
        d->DeviceClear();
}

bool BoardListens(const Bus &bus)
{
    return bus.listeners >> bus.boardAddress & 1;
}

// Waits on the platform clock until `ready` holds or `limitMs` passed since
// `start`; answers whether it held. No bus lock is held while waiting.
template <class Pred> bool WaitOnBus(DWORD start, DWORD limitMs, Pred ready)
{
    for (;;) {
        if (ready())
            return true;
        DWORD elapsed = GetTickCount() - start;
        if (elapsed >= limitMs)
            return ready();
        HANDLE wake = g_wake.load();
        DWORD slice = std::min<DWORD>(kPollSliceMs, limitMs - elapsed);
        if (!wake || WaitForSingleObject(wake, slice) == WAIT_FAILED)
            Sleep(slice);
    }
}

class ByteGpibDevice : public GpibDevice
{
public:
    explicit ByteGpibDevice(std::shared_ptr<ByteDevice> device) : device_(std::move(device))
    {
        device_->SetReadyCallback([] { NotifyGpibBus(); });
    }
    ~ByteGpibDevice() override { device_->SetReadyCallback(nullptr); }
    void Listen(const uint8_t *data, size_t size) override { device_->Receive(data, size); }
    size_t Talk(uint8_t *out, size_t max, bool *end) override
    {
        size_t n = device_->Transmit(out, max);
        *end = n > 0 && device_->Pending() == 0;
        return n;
    }
    size_t Ready() const override { return device_->Pending(); }
    void DeviceClear() override { device_->Clear(); }

private:
    std::shared_ptr<ByteDevice> device_;
};

} // namespace

std::shared_ptr<GpibDevice> MakeGpibByteDevice(std::shared_ptr<ByteDevice> device)
{
    return std::make_shared<ByteGpibDevice>(std::move(device));
}

void AttachGpibDevice(int address, std::shared_ptr<GpibDevice> device)
{
    if (address < 0 || address >= kAddresses)
        return;
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.devices[address] = std::move(device);
}

void DetachGpibDevice(int address)
{
    if (address < 0 || address >= kAddresses)
        return;
    std::shared_ptr<GpibDevice> gone;
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    gone = std::move(bus.devices[address]);
}

void DetachAllGpibDevices()
{
    std::array<std::shared_ptr<GpibDevice>, kAddresses> gone;
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    gone.swap(bus.devices);
}

void SetGpibBoardAddress(int address)
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.boardAddress = address & 0x1F;
}

void NotifyGpibBus()
{
    if (HANDLE wake = g_wake.load())
        SetEvent(wake);
}

std::vector<GpibCall> GpibCalls()
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    return std::vector<GpibCall>(bus.calls.begin(), bus.calls.end());
}

std::vector<GpibCall> GpibCallsOf(const std::string &name)
{
    std::vector<GpibCall> out;
    for (auto &call : GpibCalls())
        if (call.name == name)
            out.push_back(std::move(call));
    return out;
}

void ClearGpibCalls()
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    ClearRecord(bus);
}

void FailGpibProcedure(const char *name, unsigned nth, unsigned long error)
{
    if (!name || nth == 0)
        return;
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.faults.push_back({name, nth, static_cast<DWORD>(error)});
}

void ResetGpibFaults()
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.faults.clear();
}

void ResetGpibBus()
{
    HANDLE wake = g_wake.exchange(nullptr);
    if (wake)
        CloseHandle(wake);
    DetachAllGpibDevices();
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    bus.open = false;
    bus.boardAddress = 0;
    bus.talker = -1;
    bus.listeners = 0;
    bus.timeoutTenths = 100;
    bus.srqMode = 0x80;
    ClearRecord(bus);
    bus.faults.clear();
}

namespace board
{

int Create(int boardNumber)
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    GpibCall &call = Record(bus, "CreateGpib", {boardNumber});
    DWORD error = 0;
    if (Enter(bus, "CreateGpib", &error))
        return Finish(call, -1, error);
    if (boardNumber != 0)
        return Finish(call, -1, ERROR_INVALID_PARAMETER);
    if (bus.open)
        return Finish(call, -1, ERROR_BUSY);
    HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!wake)
        return Finish(call, -1, ERROR_GEN_FAILURE);
    g_wake.store(wake);
    bus.open = true;
    bus.handle = bus.nextHandle++;
    bus.talker = -1;
    bus.listeners = 0;
    bus.timeoutTenths = 100;
    return Finish(call, bus.handle, 0);
}

int Close(int handle)
{
    Bus &bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    GpibCall &call = Record(bus, "CloseGpib", {handle});
    DWORD error = 0;
    if (Enter(bus, "CloseGpib", &error))
        return Finish(call, 0, error);
    if (!ValidHandle(bus, handle))
        return Finish(call, 0, ERROR_INVALID_HANDLE);
    bus.open = false;
    if (HANDLE wake = g_wake.exchange(nullptr))
        CloseHandle(wake);
    return Finish(call, 1, 0);
}

// The simple settings share one shape: record, fault, handle check, apply.
template <class Apply> int Setting(const char *name, int handle, long value, Apply apply)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> cleared;
    int result;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call = Record(bus, name, {handle, value});
        DWORD error = 0;
        if (Enter(bus, name, &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        result = Finish(call, apply(bus, &cleared) ? 1 : 0, 0);
    }
    ClearDevices(cleared);
    return result;
}

int Initialize(int handle)
{
    return Setting("InitializeGpib", handle, 0, [](Bus &bus, auto *) {
        bus.talker = -1;
        bus.listeners = 0;
        bus.timeoutTenths = 100;
        return true;
    });
}

int GetSwitch(int handle, uint8_t *switches)
{
    return Setting("GetGpibSwitch", handle, 0, [switches](Bus &bus, auto *) {
        if (!switches)
            return false;
        switches[0] = 0;
        switches[1] = 0;
        switches[2] = static_cast<uint8_t>(kSwitchController | bus.boardAddress);
        return true;
    });
}

int SetTimeout(int handle, uint32_t tenths)
{
    return Setting("SetGpibTimeout", handle, static_cast<long>(tenths), [tenths](Bus &bus, auto *) {
        bus.timeoutTenths = tenths;
        return true;
    });
}

int SetIfc(int handle, uint32_t duration)
{
    // Interface clear: nobody talks or listens, and the devices drop what
    // they were about to say.
    return Setting("SetGpibIFC", handle, static_cast<long>(duration), [](Bus &bus, auto *cleared) {
        bus.talker = -1;
        bus.listeners = 0;
        for (auto &d : bus.devices)
            if (d)
                cleared->push_back(d);
        return true;
    });
}

int SetRen(int handle, uint32_t on)
{
    return Setting("SetGpibREN", handle, static_cast<long>(on), [](Bus &, auto *) { return true; });
}

int SetDelimiter(int handle, uint32_t delimiter)
{
    return Setting("SetGpibDelimiter", handle, static_cast<long>(delimiter), [](Bus &, auto *) { return true; });
}

int ControlSrq(int handle, uint32_t mode)
{
    return Setting("ControlGpibSRQ", handle, static_cast<long>(mode), [mode](Bus &bus, auto *) {
        if (mode != 0 && mode != 0x80)
            return false;
        bus.srqMode = mode;
        return true;
    });
}

int WriteCommand(int handle, const uint8_t *commands, uint32_t count, uint8_t *result)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> cleared;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call = Record(bus, "WriteGpibCommand", {handle, static_cast<long>(count)});
        if (commands)
            call.commands.assign(commands, commands + count);
        DWORD error = 0;
        if (result)
            *result = 0;
        if (Enter(bus, "WriteGpibCommand", &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        if (!commands || !result)
            return Finish(call, 0, ERROR_INVALID_PARAMETER);
        ApplyCommands(bus, commands, count, &cleared);
        *result = 1;
        Finish(call, 1, 0);
    }
    ClearDevices(cleared);
    return 1;
}

int Write(int handle, const uint8_t *commands, uint32_t commandCount, const uint8_t *data, uint32_t count,
          uint32_t *transferred, uint32_t mode)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> cleared, listeners;
    if (transferred)
        *transferred = 0;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call =
            Record(bus, "WriteGpib",
                   {handle, static_cast<long>(commandCount), static_cast<long>(count), static_cast<long>(mode)});
        if (commands)
            call.commands.assign(commands, commands + commandCount);
        if (data)
            RecordData(call, data, count);
        DWORD error = 0;
        if (Enter(bus, "WriteGpib", &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        if ((commandCount && !commands) || (count && !data) || !transferred)
            return Finish(call, 0, ERROR_INVALID_PARAMETER);
        ApplyCommands(bus, commands, commandCount, &cleared);
        if (bus.talker != bus.boardAddress)
            return Finish(call, 0, ERROR_INVALID_FUNCTION); // the board was not made talker
        for (int a = 0; a < kAddresses; ++a)
            if ((bus.listeners >> a & 1) && a != bus.boardAddress && bus.devices[a])
                listeners.push_back(bus.devices[a]);
        if (listeners.empty())
            return Finish(call, 0, ERROR_SEM_TIMEOUT); // nobody accepts the bytes
        Finish(call, 1, 0);
    }
    ClearDevices(cleared);
    for (const auto &d : listeners)
        d->Listen(data, count);
    *transferred = count;
    return 1;
}

int Read(int handle, const uint8_t *commands, uint32_t commandCount, uint8_t *buffer, uint32_t count,
         uint32_t *transferred, uint32_t mode)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> cleared;
    std::shared_ptr<GpibDevice> talker;
    DWORD limitMs;
    size_t index;
    if (transferred)
        *transferred = 0;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call =
            Record(bus, "ReadGpib",
                   {handle, static_cast<long>(commandCount), static_cast<long>(count), static_cast<long>(mode)});
        if (commands)
            call.commands.assign(commands, commands + commandCount);
        DWORD error = 0;
        if (Enter(bus, "ReadGpib", &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        if ((commandCount && !commands) || (count && !buffer) || !transferred)
            return Finish(call, 0, ERROR_INVALID_PARAMETER);
        ApplyCommands(bus, commands, commandCount, &cleared);
        if (!BoardListens(bus))
            return Finish(call, 0, ERROR_INVALID_FUNCTION); // the board was not made listener
        if (bus.talker >= 0 && bus.talker != bus.boardAddress)
            talker = bus.devices[bus.talker];
        limitMs = bus.timeoutTenths * 100;
        index = LatestCall(bus);
    }
    ClearDevices(cleared);

    // Take the talker's bytes until its EOI, a full buffer or the time-out.
    uint32_t got = 0;
    bool end = false;
    DWORD start = GetTickCount();
    while (got < count && !end) {
        size_t n = 0;
        if (talker)
            n = talker->Talk(buffer + got, count - got, &end);
        got += static_cast<uint32_t>(n);
        if (n > 0 || end)
            continue;
        if (!WaitOnBus(start, limitMs, [&] { return talker && talker->Ready() > 0; }))
            break;
    }
    *transferred = got;
    DWORD error = end ? 0 : got == count ? ERROR_INSUFFICIENT_BUFFER : ERROR_SEM_TIMEOUT;
    if (count == 0)
        error = 0;
    std::lock_guard<std::mutex> lock(bus.mutex);
    GpibCall &call = Recorded(bus, index);
    RecordData(call, buffer, got);
    return Finish(call, error ? 0 : 1, error);
}

int SerialPoll(int handle, PollDevices *devices, PollStatuses *statuses, uint32_t *completion)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> polled;
    size_t index;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call = Record(bus, "ExecuteGpibSP", {handle, devices ? static_cast<long>(devices->count) : -1});
        if (devices && devices->addresses)
            call.commands.assign(devices->addresses, devices->addresses + devices->count);
        DWORD error = 0;
        if (completion)
            *completion = 0;
        if (Enter(bus, "ExecuteGpibSP", &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        if (!devices || !devices->addresses || !statuses || !statuses->status || !completion)
            return Finish(call, 0, ERROR_INVALID_PARAMETER);
        for (uint32_t i = 0; i < devices->count; ++i) {
            int a = devices->addresses[i];
            if (a >= kAddresses || !bus.devices[a] || a == bus.boardAddress)
                return Finish(call, 0, ERROR_SEM_TIMEOUT); // no device answers
            polled.push_back(bus.devices[a]);
        }
        // The poll leaves the board listening and nobody talking.
        bus.listeners = 1u << bus.boardAddress;
        bus.talker = -1;
        index = LatestCall(bus);
    }
    for (size_t i = 0; i < polled.size(); ++i)
        statuses->status[i] = polled[i]->SerialPoll();
    *completion = kPollComplete;
    std::lock_guard<std::mutex> lock(bus.mutex);
    GpibCall &call = Recorded(bus, index);
    RecordData(call, statuses->status, polled.size());
    return Finish(call, 1, 0);
}

int WaitSrq(int handle, uint16_t wait)
{
    Bus &bus = TheBus();
    std::vector<std::shared_ptr<GpibDevice>> devices;
    size_t index;
    {
        std::lock_guard<std::mutex> lock(bus.mutex);
        GpibCall &call = Record(bus, "WaitGpibSRQ", {handle, wait});
        DWORD error = 0;
        if (Enter(bus, "WaitGpibSRQ", &error))
            return Finish(call, 0, error);
        if (!ValidHandle(bus, handle))
            return Finish(call, 0, ERROR_INVALID_HANDLE);
        for (auto &d : bus.devices)
            if (d)
                devices.push_back(d);
        index = LatestCall(bus);
    }
    bool srq = WaitOnBus(GetTickCount(), static_cast<DWORD>(wait) * 10, [&] {
        return std::any_of(devices.begin(), devices.end(), [](const auto &d) { return d->ServiceRequest(); });
    });
    std::lock_guard<std::mutex> lock(bus.mutex);
    return Finish(Recorded(bus, index), srq ? 1 : 0, srq ? 0 : ERROR_SEM_TIMEOUT);
}

} // namespace board

} // namespace sim
