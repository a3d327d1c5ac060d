// A scanner of models 1 to 6 speaking the block dialect, as a ByteDevice for
// the virtual COM port or (through MakeGpibByteDevice) the GP-IB bus.
//
// It answers ENQ with ACK when ready; after "\eI" it is busy, and silent, for
// BusyMs() of platform time (GetTickCount, 8000 ms unless changed), so a
// driver must wait before its ready check. Escape commands are parsed
// strictly and recorded in the order received; a malformed command, a stray
// byte or a window outside the model's range is a protocol error. DC2 gives
// the 38-byte scan information for the window received, each ACK the next
// frame: one data frame per line (raw, or run-length coded and XOR-ed with
// the line before), then an end frame, which the driver acknowledges. DC4
// drops the scan; the next ACK gets the end frame. A clear of the line
// (purge) drops what is queued and the scan in progress.
//
// What it scans follows from the commands alone. The window ("\eX", "\eY")
// is in dots of the model's base resolution B: 200 on model 3, the scan
// resolution R of "\er" on models 5 and 6, 320 on the others. It samples
// the glass on the grid of R dots per inch: a window start s and size n
// across give the pixels from the first grid point at or after the window's
// edge, (s x R + B - 1) / B, and (n x R + B - 1) / B of them, as many as the
// window's length holds grid points; down likewise the lines from
// (s x R + B - 1) / B, (n x R + B - 1) / B of them, except on model 4, which
// sends only the n x R / B lines lying wholly inside the window.
// Each line is sim::PackLine of those pixels at R. Three-pass colour sends
// all lines once per colour (green, red, blue).
//
// Its rule for the "beyond the requested length" bit (type bit 4): it cannot
// know the length the driver wanted, only the window, so it flags the line
// that reaches past the window's end, the last line of each pass when
// n x R is not a multiple of B (never on model 4, whose lines all lie inside
// the window). Faults::flaggedLines changes that.
#pragma once

#include "byte_device.h"
#include "page.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace sim
{

class BlockScanner : public ByteDevice
{
public:
    // Ways to misbehave; all off by default.
    struct Faults {
        bool silent = false;     // answers nothing at all
        int enqReply = -1;       // 0..255: this byte instead of ACK to ENQ
        uint8_t endType = 0x80;  // type of the end frame (0x82: abnormal end)
        int lineDelta = 0;       // -1: one line short; +1: one line too many (unflagged)
        bool badTrailer = false; // data frames end with ETX instead of ETB
        int overflowRun = 0;     // compressed: the line's last run is this much longer,
                                 // and a surplus pair follows
        unsigned lateMs = 0;     // every reply becomes readable this long after its request
        int drainFrames = 0;     // data frames still sent after DC4 before the end frame
        int flaggedLines = -1;   // lines at the end of each pass flagged as beyond the
                                 // request; -1: the line past the window's end, if any
    };

    // The window as received, in base dots, and what it became.
    struct Window {
        long acrossStart = 0, acrossSize = 0, downStart = 0, downSize = 0;
        long top = 0;   // first line, at the resolution
        long lines = 0; // lines per pass
        LineFormat format;
    };

    explicit BlockScanner(int model, int transferFormat = 1);

    void Receive(const uint8_t *data, size_t size) override;
    size_t Transmit(uint8_t *out, size_t max) override;
    size_t Pending() const override;
    void Clear() override;

    void SetFaults(const Faults &faults);
    void SetBusyMs(unsigned ms);
    unsigned BusyMs() const;

    // ---- What the driver did ----
    // Every escape command, ESC included, in the order received.
    std::vector<std::string> Commands() const;
    std::vector<std::string> ProtocolErrors() const;
    int EnqCount() const;
    int Dc4Count() const;
    bool FinalAckSeen() const; // the end frame of the last scan was acknowledged
    bool HasWindow() const;
    Window LastWindow() const;
    // The line the scanner sends as frame `index` of the last window.
    std::vector<uint8_t> Line(long index) const;

    // Data frames of the scan in progress (or the last one): sent so far and
    // in all; both 0 before the first scan.
    void FrameProgress(long *sent, long *total) const;

    // The base resolution of the model's window at resolution r.
    static long BaseOf(int model, long r);

private:
    enum class State { Idle, Scanning, Ending, Ended };

    void Handle(std::vector<std::string> &errors);
    bool ParseCommand(size_t *used, std::vector<std::string> &errors);
    void Command(const std::string &cmd, std::vector<std::string> &errors);
    bool CheckWindow(char axis, long start, long size);
    void StartScan(std::vector<std::string> &errors);
    void NextFrame(std::vector<std::string> &errors);
    void Queue(const std::vector<uint8_t> &bytes);
    void QueueFrame(uint8_t type, const std::vector<uint8_t> &payload, uint8_t trailer);
    std::vector<uint8_t> Encode(const std::vector<uint8_t> &line);
    std::vector<uint8_t> LineLocked(long index) const;
    long FramesLocked() const;

    mutable std::mutex mutex_;
    const int model_;
    const int transferFormat_;
    Faults faults_;
    unsigned busyMs_ = 8000;
    unsigned long busyUntil_ = 0;
    bool busySet_ = false;

    std::vector<uint8_t> in_;
    std::deque<uint8_t> out_;
    unsigned long readyAt_ = 0;

    std::vector<std::string> commands_;
    std::vector<std::string> errors_;
    int enqCount_ = 0;
    int dc4Count_ = 0;

    // Settings from the commands.
    long resolution_ = 0;
    int colorStep_ = 1;
    bool levelsSet_ = false;
    int colorMode_ = 0;
    bool across_ = false, down_ = false;
    Window window_;
    bool hasWindow_ = false;

    State state_ = State::Idle;
    long next_ = 0;
    bool aborting_ = false;
    int drainLeft_ = 0;
    bool finalAck_ = false;
    std::vector<uint8_t> previous_;
};

} // namespace sim
