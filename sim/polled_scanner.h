// The virtual KT-700 (model 7) on the GP-IB bus: the polled dialect. The
// scanner takes one escape command per message, answers status and scan
// information queries through service requests and serial polls, and sends
// the image as one message of raw packed lines after "\eR1".
//
// Status byte: bit 4 = idle and ready for a command, bit 0 = a reply or the
// image waits to be read. After a device clear: 0x10 with SRQ. After a
// query ("\eQ1", "\eQ2"): 0x11 with SRQ. After "\eR1": 0x01 with SRQ. While
// it warms up after "\eI1" it reports 0x00 and holds back its answers (and
// their SRQ) until the warm-up time has passed on the platform clock.
//
// What it scans follows from the commands alone: the window ("\eX", "\eY")
// is in 1/240 inch and the resolution R comes from the "\eD" code. It sends
// the pixels and lines lying wholly inside the window, from left x R / 240
// and top x R / 240: width x R / 240 pixels (halftone or two levels, one bit
// each, 1 = black) on length x R / 240 lines. Its scan information describes
// a line by a width value w, the line being R x w / 240 bytes: it reports the
// smallest w whose bytes hold the line's pixels and sends lines of that many
// bytes, the page going on past the window in the padding; the line count n
// is the number of lines.
#pragma once

#include "gpib_bus.h"

#include <windows.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace sim
{

class PolledScanner : public GpibDevice
{
public:
    static constexpr uint8_t kStatusIdle = 0x10;
    static constexpr uint8_t kStatusData = 0x01;
    static constexpr DWORD kDefaultWarmUpMs = 5000;

    // Resolution of a code byte '1'..'9', 'A'..'C'; 0 for anything else.
    static int ResolutionOfCode(uint8_t code);

    void Listen(const uint8_t *data, size_t size) override;
    size_t Talk(uint8_t *out, size_t max, bool *end) override;
    size_t Ready() const override;
    bool ServiceRequest() const override;
    uint8_t SerialPoll() override;
    void DeviceClear() override;

    // ---- What the driver did ----------------------------------------------
    // Every message received, as it came.
    std::vector<std::string> Commands() const;
    // Malformed or out-of-order messages, one text each.
    std::vector<std::string> ProtocolErrors() const;
    int DeviceClears() const;
    // The scan as the last parameters set it up.
    struct Setup {
        uint8_t resolutionCode = 0; // '1'..'C', 0 when none was ever chosen
        int colorStep = 1;          // 1 or 16 (halftone)
        int ditherPattern = 0;      // 1..8 with "\eH7", 16, 32
        uint8_t contrastCode = 0;
        long left = 0, width = 0, top = 0, length = 0; // window, 1/240 inch
    };
    Setup CurrentSetup() const;
    // What the image of the current setup totals and how the scan
    // information describes it (w, n with n * (R * w / 240) == total).
    struct Geometry {
        int resolution = 0;
        long pixels = 0, lines = 0, lineBytes = 0, total = 0;
        uint16_t widthValue = 0, lineCount = 0;
        bool described = false; // false when the window holds nothing or w, n pass 16 bits
    };
    Geometry CurrentGeometry() const;

    // ---- Faults (each used once, by the next occasion) ---------------------
    void SetWarmUpMs(DWORD ms);
    // Asserts SRQ now, as if the scanner had something to report.
    void RaiseServiceRequest();
    // The next "\eQ2" is answered with these bytes instead of "\eQ3".
    void WrongStatusReply(const std::string &reply);
    // The nth next serial poll (1 = the next) reports its status byte with
    // these bits flipped.
    void FlipStatusBits(uint8_t bits, unsigned nth = 1);
    // The next image ends this many bytes early (EOI on the last one sent).
    void ShortenImage(size_t bytes);

private:
    enum class Phase { Cleared, WarmingUp, Ready, Reading };
    struct Reply {
        std::vector<uint8_t> bytes;
        bool reading = false;
    };
    void Command(const std::vector<uint8_t> &m);
    void Error(const std::string &what);
    void Answer(std::vector<uint8_t> bytes, bool reading);
    void Settle(); // brings the warm-up to its end when its time has come
    Geometry GeometryLocked() const;
    std::vector<uint8_t> Info() const;
    std::vector<uint8_t> Image(); // uses up a shortening fault

    mutable std::mutex mutex_;
    Phase phase_ = Phase::Cleared;
    bool srq_ = false;
    std::vector<uint8_t> out_;
    size_t outPos_ = 0;
    std::vector<Reply> deferred_; // answers held back while warming up
    DWORD warmUpMs_ = kDefaultWarmUpMs;
    DWORD readyAt_ = 0;
    Setup setup_;
    bool halftoneNeedsPattern_ = false;
    std::vector<std::string> commands_, errors_;
    int clears_ = 0;
    // Faults.
    std::string wrongReply_;
    bool wrongReplyArmed_ = false;
    uint8_t flipBits_ = 0;
    unsigned flipAt_ = 0;
    size_t shortenBy_ = 0;
};

} // namespace sim
