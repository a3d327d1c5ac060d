// The virtual model-7 scanner of the polled dialect.
#include "polled_scanner.h"

#include "page.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim
{
namespace
{

constexpr uint8_t kEsc = 0x1B;
constexpr uint8_t kRqs = 0x40; // set in the status byte of a device that requested service
constexpr char kCodes[] = "123456789ABC";
constexpr int kResolutions[] = {90, 120, 160, 180, 200, 240, 300, 320, 400, 480, 600, 640};
constexpr size_t kInfoBytes = 24;

std::string Printable(const std::vector<uint8_t> &m)
{
    std::string s;
    for (uint8_t b : m) {
        if (b == kEsc) {
            s += "\\e";
        } else if (b >= 0x20 && b < 0x7F) {
            s += static_cast<char>(b);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", b);
            s += hex;
        }
    }
    return s;
}

long Window(const std::vector<uint8_t> &m, size_t at)
{
    return static_cast<long>(m[at]) << 8 | m[at + 1];
}

} // namespace

int PolledScanner::ResolutionOfCode(uint8_t code)
{
    for (size_t i = 0; i < sizeof kResolutions / sizeof kResolutions[0]; ++i)
        if (code == static_cast<uint8_t>(kCodes[i]))
            return kResolutions[i];
    return 0;
}

void PolledScanner::Listen(const uint8_t *data, size_t size)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Settle();
        std::vector<uint8_t> m(data, data + size);
        commands_.emplace_back(m.begin(), m.end());
        Command(m);
    }
    NotifyGpibBus();
}

size_t PolledScanner::Talk(uint8_t *out, size_t max, bool *end)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Settle();
    size_t n = std::min(max, out_.size() - outPos_);
    std::copy_n(out_.begin() + static_cast<long>(outPos_), n, out);
    outPos_ += n;
    *end = n > 0 && outPos_ == out_.size();
    return n;
}

size_t PolledScanner::Ready() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const_cast<PolledScanner *>(this)->Settle();
    return out_.size() - outPos_;
}

bool PolledScanner::ServiceRequest() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const_cast<PolledScanner *>(this)->Settle();
    return srq_;
}

uint8_t PolledScanner::SerialPoll()
{
    std::lock_guard<std::mutex> lock(mutex_);
    Settle();
    uint8_t status = 0;
    if (phase_ == Phase::Reading)
        status = kStatusData;
    else if (phase_ != Phase::WarmingUp)
        status = static_cast<uint8_t>(kStatusIdle | (outPos_ < out_.size() ? kStatusData : 0));
    if (flipAt_ && --flipAt_ == 0)
        status ^= flipBits_;
    if (srq_)
        status |= kRqs;
    srq_ = false;
    return status;
}

void PolledScanner::DeviceClear()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++clears_;
        phase_ = Phase::Cleared;
        out_.clear();
        outPos_ = 0;
        deferred_.clear();
        halftoneNeedsPattern_ = false;
        srq_ = true; // idle again, and says so
    }
    NotifyGpibBus();
}

void PolledScanner::Error(const std::string &what)
{
    errors_.push_back(what + " (\"" +
                      Printable(std::vector<uint8_t>(commands_.back().begin(), commands_.back().end())) + "\")");
}

void PolledScanner::Answer(std::vector<uint8_t> bytes, bool reading)
{
    if (phase_ == Phase::WarmingUp) {
        deferred_.push_back({std::move(bytes), reading});
        return;
    }
    out_ = std::move(bytes);
    outPos_ = 0;
    if (reading)
        phase_ = Phase::Reading;
    srq_ = true;
}

void PolledScanner::Settle()
{
    if (phase_ != Phase::WarmingUp || static_cast<LONG>(GetTickCount() - readyAt_) < 0)
        return;
    phase_ = Phase::Ready;
    std::vector<Reply> held;
    held.swap(deferred_);
    for (auto &reply : held)
        Answer(std::move(reply.bytes), reply.reading);
}

void PolledScanner::Command(const std::vector<uint8_t> &m)
{
    if (m.size() < 3 || m[0] != kEsc) {
        Error("not an escape command");
        return;
    }
    const char c = static_cast<char>(m[1]);
    const uint8_t a = m[2];
    const bool window = c == 'X' || c == 'Y';
    if (m.size() != (window ? 8u : 3u)) {
        Error("wrong length");
        return;
    }
    if (phase_ == Phase::WarmingUp && !(c == 'Q' && a == '2')) {
        Error("command while warming up");
        return;
    }
    if (phase_ == Phase::Reading && !(c == 'K' && a == '0')) {
        Error("command while sending the image");
        return;
    }
    if (halftoneNeedsPattern_ && c != 'L') {
        Error("halftone without its dither pattern");
        halftoneNeedsPattern_ = false;
    }
    auto fixed = [&](const char *allowed) {
        if (a == 0 || !std::strchr(allowed, a)) {
            Error("bad argument");
            return false;
        }
        return true;
    };
    switch (c) {
    case 'I':
        if (fixed("1")) {
            phase_ = Phase::WarmingUp;
            readyAt_ = GetTickCount() + warmUpMs_;
            out_.clear();
            outPos_ = 0;
        }
        break;
    case '@':
        if (fixed("2") && phase_ != Phase::Ready)
            Error("start before warming up");
        break;
    case 'D':
        if (a != 0 && ResolutionOfCode(a) == 0)
            Error("bad resolution code");
        else if (a != 0)
            setup_.resolutionCode = a; // a zero byte keeps the code as it was
        break;
    case 'H':
        if (fixed("1789")) {
            setup_.colorStep = a == '1' ? 1 : 16;
            setup_.ditherPattern = a == '8' ? 16 : a == '9' ? 32 : 0;
            halftoneNeedsPattern_ = a == '7';
        }
        break;
    case 'L':
        if (!halftoneNeedsPattern_)
            Error("dither pattern without halftone");
        else if (fixed("12345678"))
            setup_.ditherPattern = a - '0';
        halftoneNeedsPattern_ = false;
        break;
    case 'P':
        if (a == 0 || fixed("123456789"))
            setup_.contrastCode = a;
        break;
    case 'h':
    case 'U':
    case 'O':
    case 'N':
    case 'm':
        fixed("0123456789");
        break;
    case 'M':
    case 'J':
        fixed("1");
        break;
    case 'X':
    case 'Y':
        if (m[2] != 0 || m[5] != 0) {
            Error("bad window bytes");
        } else if (c == 'X') {
            setup_.left = Window(m, 3);
            setup_.width = Window(m, 6);
        } else {
            setup_.top = Window(m, 3);
            setup_.length = Window(m, 6);
        }
        break;
    case 'K':
        if (a == '0') {
            if (phase_ != Phase::Reading)
                Error("end of reading while not reading");
            else if (outPos_ < out_.size())
                Error("end of reading with " + std::to_string(out_.size() - outPos_) + " bytes unread");
            phase_ = Phase::Ready;
            out_.clear();
            outPos_ = 0;
        } else {
            fixed("341");
        }
        break;
    case 'R':
        if (!fixed("1"))
            break;
        if (!GeometryLocked().described) {
            Error("start of reading without a scan set up");
            break;
        }
        Answer(Image(), true);
        break;
    case 'Q':
        if (a == '2') {
            std::string reply = wrongReplyArmed_ ? wrongReply_ : std::string("\x1bQ3");
            wrongReplyArmed_ = false;
            Answer(std::vector<uint8_t>(reply.begin(), reply.end()), false);
        } else if (fixed("1")) {
            if (setup_.resolutionCode == 0)
                Error("scan information without a resolution");
            else
                Answer(Info(), false);
        }
        break;
    default:
        Error("unknown command");
        break;
    }
}

PolledScanner::Geometry PolledScanner::GeometryLocked() const
{
    Geometry g;
    g.resolution = ResolutionOfCode(setup_.resolutionCode);
    if (g.resolution == 0 || setup_.width <= 0 || setup_.length <= 0)
        return g;
    const long r = g.resolution;
    // The pixels and lines lying inside the window, one bit each.
    g.pixels = setup_.width * r / 240;
    g.lines = setup_.length * r / 240;
    const long packed = (g.pixels + 7) / 8;
    // A line is R * w / 240 bytes: the smallest w whose bytes hold them.
    const long w = (packed * 240 + r - 1) / r;
    g.lineBytes = r * w / 240;
    g.total = g.lines * g.lineBytes;
    g.widthValue = static_cast<uint16_t>(w);
    g.lineCount = static_cast<uint16_t>(g.lines);
    g.described = g.pixels > 0 && g.lines > 0 && w <= 0xFFFF && g.lines <= 0xFFFF;
    return g;
}

std::vector<uint8_t> PolledScanner::Info() const
{
    // Bytes the driver does not use are 0xFF, so that a misplaced field shows.
    std::vector<uint8_t> info(kInfoBytes, 0xFF);
    Geometry g = GeometryLocked();
    info[0] = static_cast<uint8_t>(std::strchr(kCodes, setup_.resolutionCode) - kCodes + 1);
    info[17] = static_cast<uint8_t>(g.widthValue >> 8);
    info[18] = static_cast<uint8_t>(g.widthValue);
    info[22] = static_cast<uint8_t>(g.lineCount >> 8);
    info[23] = static_cast<uint8_t>(g.lineCount);
    return info;
}

std::vector<uint8_t> PolledScanner::Image()
{
    Geometry g = GeometryLocked();
    LineFormat f;
    f.model = 7;
    f.resolution = g.resolution;
    f.colorStep = setup_.colorStep;
    f.left = setup_.left * g.resolution / 240;
    f.width = g.lineBytes * 8; // the page goes on past the window in the padding
    const long top = setup_.top * g.resolution / 240;
    std::vector<uint8_t> image;
    image.reserve(static_cast<size_t>(g.total));
    for (long row = 0; row < g.lines; ++row) {
        std::vector<uint8_t> line = PackLine(f, top + row);
        image.insert(image.end(), line.begin(), line.end());
    }
    image.resize(image.size() - std::min(image.size(), shortenBy_));
    shortenBy_ = 0;
    return image;
}

std::vector<std::string> PolledScanner::Commands() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

std::vector<std::string> PolledScanner::ProtocolErrors() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

int PolledScanner::DeviceClears() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return clears_;
}

PolledScanner::Setup PolledScanner::CurrentSetup() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return setup_;
}

PolledScanner::Geometry PolledScanner::CurrentGeometry() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return GeometryLocked();
}

void PolledScanner::SetWarmUpMs(DWORD ms)
{
    std::lock_guard<std::mutex> lock(mutex_);
    warmUpMs_ = ms;
}

void PolledScanner::RaiseServiceRequest()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        srq_ = true;
    }
    NotifyGpibBus();
}

void PolledScanner::WrongStatusReply(const std::string &reply)
{
    std::lock_guard<std::mutex> lock(mutex_);
    wrongReply_ = reply;
    wrongReplyArmed_ = true;
}

void PolledScanner::FlipStatusBits(uint8_t bits, unsigned nth)
{
    std::lock_guard<std::mutex> lock(mutex_);
    flipBits_ = bits;
    flipAt_ = nth;
}

void PolledScanner::ShortenImage(size_t bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    shortenBy_ = bytes;
}

} // namespace sim
