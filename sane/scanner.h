// One open scanner: the driver, loaded through WINMM, opened on the
// configured scanner and driven with MCI commands and parameter blocks from a
// thread of the backend's own. Every call into the platform happens on that
// thread, so the program's threads (and a signal handler calling cancel) never
// become platform threads.
#pragma once

#include "devices.h"

#include <sane/sane.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tamrix_sane
{

enum class Mode { Lineart, Halftone, Gray, Color };

// What the driver reports through "capability", in tenths of a millimetre
// where a length.
struct Capabilities {
    bool canScanColor = false;
    bool canHalftone = false;
    bool canStop = true;
    int minStartX = 0; // 0.1 mm
    int maxWidth = 0;  // 0.1 mm
    int maxLength = 0; // 0.1 mm
    int minResolution = 0, maxResolution = 0, resolutionStep = 1;
    int minContrast = 0, maxContrast = 0, contrastStep = 1;
    int minColorStep = 2, maxColorStep = 2;
};

// The extended settings the driver takes only from its scan-mode dialog.
struct ExtendedSettings {
    int brightness = 5;     // 0..9
    int gamma = 1;          // 1..5
    int tint = 5;           // 0..9
    int saturation = 5;     // 0..9
    int ditherPattern = 16; // 1..8, 16, 32
    bool edgeEnhance = false;
    bool noiseReduction = false;
    bool operator==(const ExtendedSettings &) const = default;
};

struct ScanRequest {
    Mode mode = Mode::Lineart;
    int bits = 1; // levels per channel are 2^bits
    int resolution = 90;
    int x = 0, y = 0, width = 0, height = 0; // dots at the resolution
    int contrast = 5;
    ExtendedSettings extended;
};

// The frame sane_read hands out.
struct Frame {
    bool color = false;
    int depth = 1;
    int width = 0;
    int lines = 0;
    int BytesPerLine() const { return color ? 3 * width : depth == 1 ? (width + 7) / 8 : width; }
};
Frame FrameOf(const ScanRequest &request);

class Scanner
{
public:
    // Opens the driver on the scanner of `entry`; SANE_STATUS_GOOD and the
    // scanner in *out, or the reason it could not be opened.
    static SANE_Status Open(const DeviceEntry &entry, std::unique_ptr<Scanner> *out);
    ~Scanner(); // closes the device and ends the thread
    Scanner(const Scanner &) = delete;
    Scanner &operator=(const Scanner &) = delete;

    const DeviceEntry &entry() const { return entry_; }
    const Capabilities &caps() const { return caps_; }

    // Sets the scan mode and starts the scan; returns once the driver has
    // taken the scanread command (or refused it).
    SANE_Status Start(const ScanRequest &request);
    // Up to `max` bytes of the frame; with `blocking` false, 0 bytes and
    // SANE_STATUS_GOOD while the scan is still running.
    SANE_Status Read(SANE_Byte *data, SANE_Int max, SANE_Int *length, bool blocking);
    // Stops a running scan (MCI stop) and ends the frame. Only touches
    // atomics and a pipe, so a signal handler may call it.
    void Cancel();
    int SelectFd() const { return pipe_[0]; }
    // The frame of the scan started last (exact once it has been read).
    Frame frame() const;

private:
    explicit Scanner(const DeviceEntry &entry);
    enum class State { Idle, Scanning, Ready, Failed, Cancelled };

    void Run();
    void Post(std::function<void()> job);
    template <class F> auto Call(F f) -> decltype(f());
    void Wake();

    // On the worker thread.
    SANE_Status DoOpen();
    void DoClose();
    SANE_Status DoStart(const ScanRequest &request, unsigned generation);
    void PollScan();
    void FinishScan(uintptr_t how);
    SANE_Status SetScanMode(const ScanRequest &request);
    SANE_Status RunModeDialog(const ScanRequest &request);
    SANE_Status FetchImage(std::vector<uint8_t> *data);
    uint32_t Command(unsigned message, uint32_t flags, void *block, const char *what);
    uint32_t Capability(uint32_t item);
    struct Window; // the notification window's procedure

    DeviceEntry entry_;
    Capabilities caps_;

    std::thread thread_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    bool quit_ = false;

    // Worker-only state.
    struct Platform;
    std::unique_ptr<Platform> platform_;
    unsigned deviceId_ = 0;
    bool notified_ = false;
    bool stopSent_ = false;
    uintptr_t notifyCode_ = 0;
    unsigned scanGeneration_ = 0;
    long threadsBeforeScan_ = 0;
    ScanRequest request_;
    ExtendedSettings driverExtended_; // what the driver holds now

    // Shared under lock_.
    State state_ = State::Idle;
    SANE_Status failure_ = SANE_STATUS_GOOD;
    Frame frame_;
    std::vector<uint8_t> data_;
    size_t readOffset_ = 0;

    std::atomic<unsigned> cancelGeneration_{0};
    std::atomic<unsigned> readGeneration_{0};
    int pipe_[2] = {-1, -1};
};

} // namespace tamrix_sane
