// The virtual SCSI scanner device: request checking, window parsing, scan
// data and the fault hooks. See scsi_scanner.h.
#include "scsi_scanner.h"

#include <algorithm>
#include <cstring>

namespace sim
{

namespace
{

// The device's control codes (device type 0x1B) and their buffer sizes.
constexpr DWORD kTestUnitReady = 0x1B0004;
constexpr DWORD kModeSelect = 0x1B800C;
constexpr DWORD kRequestSense = 0x1B4018;
constexpr DWORD kSetWindow = 0x1B801C;
constexpr DWORD kBufferStatus = 0x1B4024;
constexpr DWORD kSetTimeout = 0x1B8028;
constexpr DWORD kAbort = 0x1B002F;
constexpr DWORD kScan = 0x1B0030;

struct CodeInfo {
    DWORD code;
    DWORD inSize;
    DWORD outSize;
    const char *name;
};

constexpr CodeInfo kCodes[] = {
    {kTestUnitReady, 0, 0, "TEST UNIT READY"},
    {kModeSelect, 12, 0, "MODE SELECT"},
    {kRequestSense, 0, 18, "REQUEST SENSE"},
    {kSetWindow, 56, 0, "SET WINDOW"},
    {kBufferStatus, 0, 12, "GET BUFFER STATUS"},
    {kSetTimeout, 4, 0, "SET TIMEOUT"},
    {kAbort, 0, 0, "ABORT"},
    {kScan, 0, 0, "SCAN"},
};

// Sense conditions the scanner sets itself.
constexpr int kConditionIllegalRequest = 5;
constexpr int kConditionPowerOn = 6;
constexpr int kConditionAborted = 0xB;

unsigned Be16(const uint8_t *p)
{
    return unsigned(p[0]) << 8 | p[1];
}

unsigned long Be32(const uint8_t *p)
{
    return (unsigned long)Be16(p) << 16 | Be16(p + 2);
}

bool Before(DWORD deadline)
{
    return static_cast<int32_t>(GetTickCount() - deadline) < 0;
}

} // namespace

ScsiScanner::ScsiScanner(int model) : model_(model)
{
    sense_.push_back(kConditionPowerOn);
}

std::shared_ptr<ScsiScanner> ScsiScanner::Attach(int model, const std::string &name)
{
    auto scanner = std::make_shared<ScsiScanner>(model);
    std::weak_ptr<ScsiScanner> weak = scanner;
    tamrix::RegisterVirtualDevice(name, [weak](DWORD, DWORD *error) -> std::shared_ptr<tamrix::VirtualDevice> {
        auto self = weak.lock();
        if (!self) {
            *error = ERROR_FILE_NOT_FOUND;
            return nullptr;
        }
        std::lock_guard<std::mutex> g(self->mutex_);
        self->open_ = true;
        ++self->opens_;
        return self;
    });
    scanner->name_ = name;
    scanner->registered_ = true;
    return scanner;
}

void ScsiScanner::Detach()
{
    if (registered_)
        tamrix::UnregisterVirtualDevice(name_);
    registered_ = false;
}

ScsiScanner::~ScsiScanner()
{
    Detach();
}

void ScsiScanner::ProtocolError(const std::string &what)
{
    errors_.push_back(what);
}

bool ScsiScanner::Busy()
{
    if (notReadyCount_ > 0) {
        --notReadyCount_;
        return true;
    }
    if (notReadySpan_) {
        if (Before(notReadyUntil_))
            return true;
        notReadySpan_ = false;
    }
    return false;
}

bool ScsiScanner::InjectedFailure(DWORD code, DWORD *error)
{
    for (auto it = failures_.begin(); it != failures_.end(); ++it) {
        if (it->code == code && --it->nth == 0) {
            *error = it->error;
            failures_.erase(it);
            return true;
        }
    }
    return false;
}

DWORD ScsiScanner::Control(DWORD code, const void *in, DWORD inSize, void *out, DWORD outSize, DWORD *returned)
{
    std::lock_guard<std::mutex> g(mutex_);
    Request request;
    request.code = code;
    if (in)
        request.input.assign(static_cast<const uint8_t *>(in), static_cast<const uint8_t *>(in) + inSize);
    request.outSize = outSize;
    request.error =
        ControlLocked(code, static_cast<const uint8_t *>(in), inSize, static_cast<uint8_t *>(out), outSize, returned);
    requests_.push_back(std::move(request));
    return requests_.back().error;
}

DWORD ScsiScanner::ControlLocked(DWORD code, const uint8_t *in, DWORD inSize, uint8_t *out, DWORD outSize,
                                 DWORD *returned)
{
    const CodeInfo *info = nullptr;
    for (const CodeInfo &c : kCodes)
        if (c.code == code)
            info = &c;
    if (!info) {
        ProtocolError("unknown control code " + std::to_string(code));
        return ERROR_INVALID_FUNCTION;
    }
    if (inSize != info->inSize || outSize != info->outSize || (inSize && !in) || (outSize && !out)) {
        ProtocolError(std::string(info->name) + ": buffer sizes " + std::to_string(inSize) + "/" +
                      std::to_string(outSize));
        return ERROR_INVALID_PARAMETER;
    }
    DWORD error;
    if (InjectedFailure(code, &error))
        return error;
    if (Busy())
        return ERROR_NOT_READY;

    switch (code) {
    case kTestUnitReady:
        // The unit is busy while a scan still has data to deliver.
        return scanning_ && Remaining() ? ERROR_NOT_READY : ERROR_SUCCESS;
    case kModeSelect:
        if (in[0] != 0x0B || in[1] || in[2] || in[3] || in[4] != 0x03 || in[5] != 0x06 || in[6] != 0 ||
            Be16(in + 8) == 0) {
            ProtocolError("MODE SELECT: malformed measurement-units page");
            condition_ = kConditionIllegalRequest;
            return ERROR_IO_DEVICE;
        }
        divisor_ = static_cast<int>(Be16(in + 8));
        return ERROR_SUCCESS;
    case kSetWindow: {
        ScsiWindow window;
        if (!ParseWindow(in, &window)) {
            condition_ = kConditionIllegalRequest;
            return ERROR_IO_DEVICE;
        }
        window_ = window;
        hasWindow_ = armed_ = true;
        scanning_ = false;
        return ERROR_SUCCESS;
    }
    case kScan:
        if (!armed_) {
            ProtocolError("SCAN without a window");
            condition_ = kConditionIllegalRequest;
            return ERROR_IO_DEVICE;
        }
        StartScan();
        return ERROR_SUCCESS;
    case kRequestSense: {
        int condition = condition_;
        if (!sense_.empty()) {
            condition = sense_.front();
            sense_.pop_front();
        } else {
            condition_ = 0;
        }
        std::memset(out, 0, outSize);
        out[0] = 0x70;
        out[1] = static_cast<uint8_t>(condition & 0x0F);
        out[2] = static_cast<uint8_t>(condition & 0x0F);
        out[7] = 10;
        *returned = outSize;
        return ERROR_SUCCESS;
    }
    case kBufferStatus: {
        std::memset(out, 0, outSize);
        size_t remaining = scanning_ ? Remaining() : 0;
        size_t shown = std::min<size_t>(remaining, 0xFFFFFF);
        out[2] = 0x0B;
        out[3] = remaining ? 1 : 0;
        out[9] = static_cast<uint8_t>(shown >> 16);
        out[10] = static_cast<uint8_t>(shown >> 8);
        out[11] = static_cast<uint8_t>(shown);
        *returned = outSize;
        return ERROR_SUCCESS;
    }
    case kSetTimeout:
        std::memcpy(&timeout_, in, 4);
        return ERROR_SUCCESS;
    case kAbort:
        if (scanning_ || armed_)
            condition_ = kConditionAborted;
        scanning_ = armed_ = false;
        return ERROR_SUCCESS;
    }
    return ERROR_INVALID_FUNCTION;
}

bool ScsiScanner::ParseWindow(const uint8_t *w, ScsiWindow *window)
{
    auto fail = [this](const std::string &what) {
        ProtocolError("SET WINDOW: " + what);
        return false;
    };
    for (int i = 0; i < 6; ++i)
        if (w[i])
            return fail("reserved header byte set");
    if (Be16(w + 6) != 48 || w[8] != 0)
        return fail("descriptor length or window identifier");
    unsigned xres = Be16(w + 10), yres = Be16(w + 12);
    if (xres == 0 || xres != yres)
        return fail("resolution");
    unsigned long left = Be32(w + 14), top = Be32(w + 18), width = Be32(w + 22), length = Be32(w + 26);
    if (width == 0 || length == 0 || width > 0xFFFF || length > 0xFFFF || left > 0xFFFF || top > 0xFFFF)
        return fail("area");
    int composition = w[33], bits = w[34];
    if (composition > 5)
        return fail("image composition");
    bool multiLevel = composition == 2 || composition == 5;
    if (bits < 1 || bits > 8 || (!multiLevel && bits != 1))
        return fail("bits per pixel");
    if (w[48] != 7)
        return fail("vendor-unique byte 48");

    auto pixels = [&](unsigned long v) { return static_cast<long>(v * xres / static_cast<unsigned>(divisor_)); };
    window->resolution = static_cast<int>(xres);
    window->left = pixels(left);
    window->top = pixels(top);
    window->width = pixels(width);
    window->length = pixels(length);
    if (window->width == 0 || window->length == 0)
        return fail("area below one pixel");
    window->brightness = w[30];
    window->threshold = w[31];
    window->contrast = w[32];
    window->composition = composition;
    window->bitsPerPixel = bits;
    window->halftone = static_cast<int>(Be16(w + 35));
    window->vendorFlags = w[49];
    window->gamma = w[51];
    window->tint = w[52];
    window->saturation = w[53];

    LineFormat &f = window->format;
    f.model = model_;
    f.resolution = window->resolution;
    int level = composition % 3;
    f.colorStep = level == 0 ? 1 : level == 1 ? 16 : bits;
    f.colorMode = composition < 3 ? 0 : (w[49] & 1) ? 17 : 16;
    f.left = window->left;
    f.width = window->width;
    return true;
}

void ScsiScanner::StartScan()
{
    armed_ = false;
    scanning_ = true;
    lines_ = std::max(0L, window_.length + lineDelta_);
    lineBytes_ = LineBytes(window_.format);
    delivered_ = 0;
    if (noDataMs_) {
        dataDelay_ = true;
        dataFrom_ = GetTickCount() + noDataMs_;
        noDataMs_ = 0;
    }
}

size_t ScsiScanner::Remaining() const
{
    long total = lines_ * lineBytes_ * Passes(window_.format);
    return total > delivered_ ? static_cast<size_t>(total - delivered_) : 0;
}

DWORD ScsiScanner::Read(void *buffer, DWORD size, DWORD *done)
{
    std::lock_guard<std::mutex> g(mutex_);
    Request request;
    request.outSize = size;
    DWORD &error = request.error;
    if (InjectedFailure(0, &error)) {
    } else if (Busy()) {
        error = ERROR_NOT_READY;
    } else if (!scanning_ && (!armed_ || model_ == 6)) {
        ProtocolError(armed_ ? "read before SCAN" : "read without a scan");
        condition_ = kConditionIllegalRequest;
        error = ERROR_IO_DEVICE;
    } else {
        if (!scanning_)
            StartScan();
        if (dataDelay_ && !Before(dataFrom_))
            dataDelay_ = false;
        if (!dataDelay_ && Remaining()) {
            long line = delivered_ / lineBytes_, offset = delivered_ % lineBytes_;
            std::vector<uint8_t> packed =
                PackLine(window_.format, window_.top + line % std::max(1L, lines_), static_cast<int>(line / lines_));
            DWORD n = static_cast<DWORD>(std::min<long>(size, lineBytes_ - offset));
            std::memcpy(buffer, packed.data() + offset, n);
            delivered_ += n;
            *done = n;
        }
        if (!Remaining())
            scanning_ = false;
    }
    requests_.push_back(std::move(request));
    return requests_.back().error;
}

DWORD ScsiScanner::Write(const void *, DWORD, DWORD *)
{
    std::lock_guard<std::mutex> g(mutex_);
    ProtocolError("WriteFile on the scanner device");
    return ERROR_INVALID_FUNCTION;
}

void ScsiScanner::Close()
{
    std::lock_guard<std::mutex> g(mutex_);
    open_ = false;
    scanning_ = armed_ = false;
}

std::vector<ScsiScanner::Request> ScsiScanner::Requests() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return requests_;
}

std::vector<DWORD> ScsiScanner::Codes() const
{
    std::lock_guard<std::mutex> g(mutex_);
    std::vector<DWORD> codes;
    for (const Request &r : requests_)
        if (r.code)
            codes.push_back(r.code);
    return codes;
}

std::vector<std::string> ScsiScanner::ProtocolErrors() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return errors_;
}

bool ScsiScanner::IsOpen() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return open_;
}

int ScsiScanner::Opens() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return opens_;
}

bool ScsiScanner::HasWindow() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return hasWindow_;
}

ScsiWindow ScsiScanner::Window() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return window_;
}

int ScsiScanner::MeasurementDivisor() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return divisor_;
}

DWORD ScsiScanner::CommandTimeout() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return timeout_;
}

bool ScsiScanner::Scanning() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return scanning_;
}

long ScsiScanner::BytesDelivered() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return delivered_;
}

long ScsiScanner::BytesPerLine() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return lineBytes_;
}

long ScsiScanner::LinesPerPass() const
{
    std::lock_guard<std::mutex> g(mutex_);
    return lines_;
}

void ScsiScanner::QueueSense(int condition)
{
    std::lock_guard<std::mutex> g(mutex_);
    sense_.push_back(condition);
}

void ScsiScanner::NotReadyFor(int count)
{
    std::lock_guard<std::mutex> g(mutex_);
    notReadyCount_ = count;
}

void ScsiScanner::NotReadyForMs(DWORD ms)
{
    std::lock_guard<std::mutex> g(mutex_);
    notReadySpan_ = true;
    notReadyUntil_ = GetTickCount() + ms;
}

void ScsiScanner::NoDataForMs(DWORD ms)
{
    std::lock_guard<std::mutex> g(mutex_);
    if (scanning_) {
        dataDelay_ = true;
        dataFrom_ = GetTickCount() + ms;
    } else {
        noDataMs_ = ms;
    }
}

void ScsiScanner::SetLineDelta(long delta)
{
    std::lock_guard<std::mutex> g(mutex_);
    lineDelta_ = delta;
}

void ScsiScanner::FailRequest(DWORD code, int nth, DWORD error)
{
    std::lock_guard<std::mutex> g(mutex_);
    failures_.push_back({code, nth, error});
}

} // namespace sim
