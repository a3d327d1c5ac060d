// The kernel scanner device behind "\\.\SCNR0": a SCSI scanner of one of the
// models 1 to 7, driven by the eight device control codes and read with
// ReadFile. It checks every request's buffer sizes (ERROR_INVALID_PARAMETER
// when wrong) and contents (a malformed MODE SELECT or SET WINDOW is recorded
// as a protocol error and fails with ERROR_IO_DEVICE, leaving the sense
// condition 5), turns the window back into a scan, and delivers the scan's
// packed lines (sim::PackLine) one line at a time, split when the reader
// asks for less. Model 6 scans only after SCAN; the others start on the
// first read after the window was set. TEST UNIT READY answers
// ERROR_NOT_READY while a scan still has data to deliver.
//
// What it scans follows from MODE SELECT and SET WINDOW alone: the window's
// values are in 1/D inch, D being the measurement divisor of MODE SELECT
// (1200 until one is set), and a value v is v x R / D pixels at the window's
// resolution R (rounded down). It sends the window's width in pixels packed
// as sim::LineBytes says (bits, 2-bit levels, nibbles or bytes per grey
// sample; a nibble or three bytes per colour pixel) on the window's length
// in lines, once per colour in three passes (green, red, blue) when the
// window's vendor byte asks for them.
#pragma once

#include "page.h"

#include <tamrix/virtual_device.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sim
{

// The scan as the scanner understood the window, in pixels of the scan.
struct ScsiWindow {
    int resolution = 0;
    long left = 0, top = 0, width = 0, length = 0;
    int brightness = 0, threshold = 0, contrast = 0;
    int composition = 0;  // 0..5
    int bitsPerPixel = 0; // byte 34
    int halftone = 0;     // pattern
    int vendorFlags = 0;  // byte 49
    int gamma = 0, tint = 0, saturation = 0;
    LineFormat format; // what the scanner delivers, from the above
};

class ScsiScanner : public tamrix::VirtualDevice, public std::enable_shared_from_this<ScsiScanner>
{
public:
    // A request the scanner received: the control code (0 for a ReadFile),
    // the input bytes, the output size asked for and the error it answered.
    struct Request {
        DWORD code = 0;
        std::vector<uint8_t> input;
        DWORD outSize = 0;
        DWORD error = ERROR_SUCCESS;
    };

    // A scanner of `model` switched on: the first REQUEST SENSE reports the
    // power-on condition 6.
    explicit ScsiScanner(int model);
    // Makes a scanner and registers it under `name` until Detach() (or its
    // destruction).
    static std::shared_ptr<ScsiScanner> Attach(int model, const std::string &name = "SCNR0");
    void Detach();
    ~ScsiScanner() override;

    DWORD Read(void *buffer, DWORD size, DWORD *done) override;
    DWORD Write(const void *buffer, DWORD size, DWORD *done) override;
    DWORD Control(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned) override;
    void Close() override;

    // ---- What the driver did ----
    std::vector<Request> Requests() const;
    std::vector<DWORD> Codes() const; // control codes only, in order
    std::vector<std::string> ProtocolErrors() const;
    bool IsOpen() const;
    int Opens() const;
    bool HasWindow() const;
    ScsiWindow Window() const;
    int MeasurementDivisor() const;
    DWORD CommandTimeout() const; // value of SET TIMEOUT, 0 before
    bool Scanning() const;
    long BytesDelivered() const; // in the current or last scan
    long BytesPerLine() const;   // of the current or last scan
    long LinesPerPass() const;   // lines the current or last scan delivers per pass

    // ---- Faults ----
    // Conditions reported by the next REQUEST SENSEs, one each, before the
    // scanner's own.
    void QueueSense(int condition);
    // The next `count` requests (control or read) fail with ERROR_NOT_READY.
    void NotReadyFor(int count);
    // Every request fails with ERROR_NOT_READY for `ms` from now.
    void NotReadyForMs(DWORD ms);
    // Reads deliver nothing (and succeed) for `ms` from the start of the scan
    // data, or from now if a scan runs.
    void NoDataForMs(DWORD ms);
    // The scan delivers `delta` lines more (or fewer, if negative) per pass
    // than the window asks for.
    void SetLineDelta(long delta);
    // The `nth` next request with `code` (0: ReadFile) fails with `error`.
    void FailRequest(DWORD code, int nth, DWORD error);

private:
    DWORD ControlLocked(DWORD code, const uint8_t *in, DWORD inSize, uint8_t *out, DWORD outSize, DWORD *returned);
    bool Busy();
    bool InjectedFailure(DWORD code, DWORD *error);
    void ProtocolError(const std::string &what);
    bool ParseWindow(const uint8_t *w, ScsiWindow *window);
    void StartScan();
    size_t Remaining() const;

    mutable std::mutex mutex_;
    const int model_;
    std::string name_;
    bool registered_ = false;
    bool open_ = false;
    int opens_ = 0;
    std::vector<Request> requests_;
    std::vector<std::string> errors_;
    std::deque<int> sense_;
    int condition_ = 0;
    int divisor_ = 1200;
    DWORD timeout_ = 0;
    bool hasWindow_ = false;
    ScsiWindow window_;
    int notReadyCount_ = 0;
    DWORD notReadyUntil_ = 0;
    bool notReadySpan_ = false;
    DWORD noDataMs_ = 0;
    long lineDelta_ = 0;
    struct Failure {
        DWORD code;
        int nth;
        DWORD error;
    };
    std::vector<Failure> failures_;
    // The scan: window set and not yet scanned, started, lines per pass,
    // bytes per line, bytes delivered, and the start of data when held back.
    bool armed_ = false;
    bool scanning_ = false;
    long lines_ = 0;
    long lineBytes_ = 0;
    long delivered_ = 0;
    bool dataDelay_ = false;
    DWORD dataFrom_ = 0;
};

} // namespace sim
