// The block dialect's read side fed by a scanner that says whatever the
// fuzzer's bytes say: the 38-byte scan information that answers DC2, then
// the frames (raw or run-length coded lines, end frames, anything else),
// read through the real port layer of a virtual COM port on the virtual
// clock, in blocks of a chosen size. Every input ends with 0 or 2 from the
// read (a scanner that stops talking times out), hands out no more than a
// block holds, and leaves no memory behind.
#include "fuzz_input.h"
#include "read_block.h"

#include "serial_link.h"

#include "protocol/protocol.h"
#include "transport/transport.h"

#include <memory>
#include <mutex>

namespace
{

constexpr unsigned kPort = 4;

// Answers ENQ with ACK (so every ready check passes), DC2 with the scan:
// information block and frames as one stream, and DC4 (abort) with its
// reply, the frames it drains.
class ScriptedScanner : public sim::ByteDevice
{
public:
    void Load(std::vector<uint8_t> scan, std::vector<uint8_t> abortReply)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script_ = std::move(scan);
        reply_ = std::move(abortReply);
        out_.clear();
    }
    void Receive(const uint8_t *data, size_t size) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < size; i++) {
            if (data[i] == PROT_ENQ) {
                out_.push_back(PROT_ACK);
            } else if (data[i] == PROT_DC2) {
                out_.insert(out_.end(), script_.begin(), script_.end());
                script_.clear();
            } else if (data[i] == PROT_DC4) {
                out_.insert(out_.end(), reply_.begin(), reply_.end());
                reply_.clear();
            }
        }
    }
    size_t Transmit(uint8_t *out, size_t max) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t n = std::min(max, out_.size());
        std::copy(out_.begin(), out_.begin() + static_cast<long>(n), out);
        out_.erase(out_.begin(), out_.begin() + static_cast<long>(n));
        return n;
    }
    size_t Pending() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return out_.size();
    }
    void Clear() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        out_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<uint8_t> script_, reply_, out_;
};

std::shared_ptr<ScriptedScanner> OpenLine()
{
    PlatUseVirtualClock(TRUE);
    auto scanner = std::make_shared<ScriptedScanner>();
    static sim::SerialLink link(kPort, scanner);
    fuzz::Check(link.attached(), "virtual COM port");
    g_settings = DeviceSettings{2, IF_RS232C, kPort, 3};
    fuzz::Check(PortOpen(kPort, IF_RS232C, 3) != INVALID_HANDLE_VALUE, "port open");
    g_lineStarted = 1;
    return scanner;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::shared_ptr<ScriptedScanner> scanner = OpenLine();
    static const SHORT resolutions[] = {90, 100, 150, 200, 300, 400};
    static const SHORT steps[] = {1, 2, 4, 8, 16, 3};
    static const SHORT modes[] = {0, 16, 17};
    fuzz::Input in(data, size);

    g_settings.model = 1 + static_cast<DWORD>(in.Pick(6));
    ScanParams p{};
    p.resolution = in.PickFrom(resolutions);
    p.colorStep = in.PickFrom(steps);
    p.colorMode = in.PickFrom(modes);
    p.ditherPattern = static_cast<SHORT>(in.Pick(40));
    p.areaX = static_cast<SHORT>(p.resolution / 5 + in.Byte());
    p.areaY = static_cast<SHORT>(in.Byte());
    p.areaWidth = static_cast<SHORT>(1 + in.Word() % 2048);
    p.areaLength = static_cast<SHORT>(1 + in.Word() % 512);
    p.brightness = p.contrast = p.tint = p.saturation = 5;
    p.gamma = 1;
    const DWORD capacity = 1 + in.Word() % 4096;
    const long abortAfter = in.Byte(); // blocks read before a stop; 0: none
    const size_t scanBytes = in.Word();
    std::vector<uint8_t> scan = in.Take(scanBytes);
    scanner->Load(std::move(scan), in.Rest());

    const fuzz::LiveCounts before = fuzz::LiveCounts::Now();
    std::vector<BYTE> buffer(capacity + 16, 0xA5);
    int result = 1;
    unsigned long total = 0;
    p.firstBlock = 1;
    for (long blocks = 0; result == 1 && blocks < 1000000; blocks++) {
        if (blocks > 0 && blocks == abortAfter) {
            // As stop does it: the reader has stopped at a block boundary.
            fuzz::Trace("abort %d\n", ProtAbort());
            result = -1;
            break;
        }
        result = fuzz::ReadCheckedBlock(&p, buffer, capacity, &total);
    }
    fuzz::Check(result != 1, "a finite stream never ended");
    if (result == -1) {
        // Whatever the abort met, the next scan starts afresh.
        p.firstBlock = 1;
        ReadBlock block{buffer.data(), capacity, 0};
        result = ProtReadImage(&p, &block);
        fuzz::Check(result == 0 && g_protDetail == PROT_DETAIL_VIOLATION, "a scan after the abort");
    }
    fuzz::Trace("read %d, %lu bytes, detail 0x%x\n", result, total, static_cast<unsigned>(g_protDetail));
    before.CheckSame("block read");
    return 0;
}
