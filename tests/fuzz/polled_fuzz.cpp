// The polled dialect of model 7 fed by a GP-IB device that answers from the
// fuzzer's bytes: its service requests and serial-poll status bytes come
// from one list, its talk messages (the status reply, the 24-byte scan
// information, the image stream) from another. The start and a whole read
// run through the real GP-IB transport and the substitute board library on
// the virtual clock. Every input ends the read with 0 or 2, within what the
// blocks hold, and leaves nothing behind.
#include "fuzz_input.h"
#include "read_block.h"

#include "gpib_bus.h"

#include "protocol/protocol.h"
#include "transport/transport.h"

#include <deque>
#include <memory>
#include <mutex>

namespace
{

constexpr int kAddress = 6;

// `polls`: the device's state after each message it receives (the first
// one from the start): bit 7 raises a service request, the rest is the
// status byte a serial poll reads (and the poll clears the request). With
// the list used up the device is quiet. `talk`: its talk messages, each a
// length byte and that many bytes, ended with EOI.
class ScriptedDevice : public sim::GpibDevice
{
public:
    ScriptedDevice(std::vector<uint8_t> polls, const std::vector<uint8_t> &talk) : polls_(polls.begin(), polls.end())
    {
        for (size_t i = 0; i < talk.size();) {
            size_t n = std::min<size_t>(talk[i], talk.size() - i - 1);
            i++;
            messages_.emplace_back(talk.begin() + static_cast<long>(i), talk.begin() + static_cast<long>(i + n));
            i += n;
        }
        NextState();
    }
    void Listen(const uint8_t *, size_t) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        NextState();
    }
    size_t Talk(uint8_t *out, size_t max, bool *end) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        *end = false;
        if (messages_.empty())
            return 0;
        auto &message = messages_.front();
        size_t n = std::min(max, message.size());
        std::copy(message.begin(), message.begin() + static_cast<long>(n), out);
        message.erase(message.begin(), message.begin() + static_cast<long>(n));
        if (message.empty()) {
            *end = true;
            messages_.pop_front();
        }
        return n;
    }
    size_t Ready() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return messages_.empty() ? 0 : std::max<size_t>(1, messages_.front().size());
    }
    bool ServiceRequest() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return request_;
    }
    uint8_t SerialPoll() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        request_ = false;
        return status_;
    }

private:
    void NextState()
    {
        uint8_t state = 0;
        if (!polls_.empty()) {
            state = polls_.front();
            polls_.pop_front();
        }
        request_ = (state & 0x80) != 0;
        status_ = state & 0x7F;
    }
    mutable std::mutex mutex_;
    std::deque<uint8_t> polls_;
    std::deque<std::vector<uint8_t>> messages_;
    bool request_ = false;
    uint8_t status_ = 0;
};

bool OpenLine()
{
    PlatUseVirtualClock(TRUE);
    PlatSetModuleSearchPath(TAMRIX_BUILD_DIR "/lib");
    sim::ResetGpibBus();
    sim::AttachGpibDevice(kAddress, std::make_shared<ScriptedDevice>(std::vector<uint8_t>{}, std::vector<uint8_t>{}));
    g_settings = DeviceSettings{7, IF_GPIB, kAddress, 0};
    fuzz::Check(PortOpen(kAddress, IF_GPIB, 0) != INVALID_HANDLE_VALUE, "GP-IB line open");
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool open = OpenLine();
    static const SHORT resolutions[] = {90, 100, 200, 300, 400, 640};
    (void)open;
    fuzz::Input in(data, size);
    ScanParams p{};
    p.resolution = in.PickFrom(resolutions);
    p.colorStep = in.Pick(2) ? 16 : 1;
    p.ditherPattern = static_cast<SHORT>(in.Pick(40));
    p.contrast = static_cast<SHORT>(in.Pick(10));
    p.areaWidth = static_cast<SHORT>(1 + in.Word() % 2048);
    p.areaLength = static_cast<SHORT>(1 + in.Word() % 512);
    p.brightness = 5;
    p.gamma = 1;
    const DWORD capacity = 1 + in.Word() % 4096;
    const size_t pollCount = in.Byte();
    std::vector<uint8_t> polls = in.Take(pollCount);
    sim::AttachGpibDevice(kAddress, std::make_shared<ScriptedDevice>(std::move(polls), in.Rest()));
    sim::ClearGpibCalls();

    const fuzz::LiveCounts before = fuzz::LiveCounts::Now();
    const BOOL started = ProtStart();
    int result = -1;
    unsigned long total = 0;
    if (started) {
        std::vector<BYTE> buffer(capacity + 16, 0xA5);
        result = 1;
        p.firstBlock = 1;
        for (long blocks = 0; result == 1 && blocks < 100000; blocks++) {
            result = fuzz::ReadCheckedBlock(&p, buffer, capacity, &total);
        }
        ProtFinish();
    }
    fuzz::Trace("start %d, read %d, %lu bytes\n", started, result, total);
    before.CheckSame("polled read");
    return 0;
}
