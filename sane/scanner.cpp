#include "scanner.h"

#include "debug.h"
#include "virtual_scanner.h"

#include <windows.h>
#include <mmsystem.h>
#include <tamrix/platform.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>

#ifndef TAMRIX_SANE_MODULE_SUBDIR
#define TAMRIX_SANE_MODULE_SUBDIR "../tamrix"
#endif

namespace tamrix_sane
{

namespace
{

// The driver's own commands, flags and parameter blocks, as its command table
// publishes them.
constexpr UINT kMciScanRead = 0x0C01;
constexpr UINT kMciScanMode = 0x0C02;
constexpr DWORD kScanModeResolution = 0x00010000;
constexpr DWORD kScanModeContrast = 0x00020000;
constexpr DWORD kScanModeColorStep = 0x00040000;
constexpr DWORD kScanModeHalftone = 0x00080000;
constexpr DWORD kScanModeDialog = 0x00100000;
constexpr DWORD kScanModeColorMode = 0x00200000;
constexpr DWORD kScanReadRect = 0x00010000;
constexpr DWORD kColorModeMono = 0x4001;
constexpr DWORD kColorModeColor = 0x4002;
constexpr DWORD kUnitMillimeter = 0x4001;
constexpr DWORD kUnitDot = 0x4003;
constexpr DWORD kStatusScanner = 0x4001;

struct ScanModeBlock {
    DWORD_PTR callback;
    DWORD resolution;
    DWORD contrast;
    DWORD colorStep;
    DWORD colorMode;
};

struct ScanReadBlock {
    DWORD_PTR callback;
    RECT rect; // x, y, width, height
};

// Controls of the driver's scan-mode dialog.
enum : int {
    kOrProcessingBox = 402,
    kEdgeBox = 401,
    kNoiseBox = 403,
    kDitherList = 405,
    kGammaList = 407,
    kBrightnessBar = 417,
    kTintBar = 418,
    kSaturationBar = 419,
};

const char16_t kWindowClass[] = u"TamrixSaneNotify";

std::string Narrow(LPCWSTR w)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
    std::string s(n > 0 ? n - 1 : 0, '\0');
    if (n > 1)
        WideCharToMultiByte(CP_UTF8, 0, w, -1, s.data(), n, nullptr, nullptr);
    return s;
}

SANE_Status StatusOf(DWORD err)
{
    switch (LOWORD(err)) {
    case 0:
        return SANE_STATUS_GOOD;
    case MCIERR_OUTOFRANGE:
    case MCIERR_FLAGS_NOT_COMPATIBLE:
    case MCIERR_MISSING_PARAMETER:
        return SANE_STATUS_INVAL;
    case MCIERR_OUT_OF_MEMORY:
        return SANE_STATUS_NO_MEM;
    case MCIERR_DEVICE_OPEN:
    case MCIERR_CUSTOM_DRIVER_BASE + 2: // busy, or out of order
        return SANE_STATUS_DEVICE_BUSY;
    default:
        return SANE_STATUS_IO_ERROR;
    }
}

std::string BackendDirectory()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&StatusOf), &info) || !info.dli_fname)
        return ".";
    return std::filesystem::path(info.dli_fname).parent_path().string();
}

// The Windows directory of the backend: system.ini names the driver, win.ini
// [TAMRIX] the scanner of the device being opened. $TAMRIX_WINDIR if set, else
// a folder of the user's cache.
std::string WindowsDirectory()
{
    if (const char *env = std::getenv("TAMRIX_WINDIR"); env && *env)
        return env;
    if (const char *cache = std::getenv("XDG_CACHE_HOME"); cache && *cache)
        return std::string(cache) + "/tamrix/sane";
    if (const char *home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.cache/tamrix/sane";
    return "/tmp/tamrix-sane-" + std::to_string(getuid());
}

bool SetUpEnvironment()
{
    std::string dir = BackendDirectory();
    // Installed: the module folder beside SANE's backends; in the build tree: lib.
    std::string path = dir + "/" TAMRIX_SANE_MODULE_SUBDIR ":" + dir + "/../lib";
    if (const char *env = std::getenv("TAMRIX_MODULE_PATH"); env && *env)
        path = std::string(env) + ":" + path;
    PlatSetModuleSearchPath(path.c_str());

    const std::string windir = WindowsDirectory();
    std::error_code ec;
    std::filesystem::create_directories(windir, ec);
    if (ec) {
        Debug(1, "cannot create %s: %s", windir.c_str(), ec.message().c_str());
        return false;
    }
    PlatSetWindowsDirectory(windir.c_str());
    WritePrivateProfileStringW(u"MCI32", u"Scanner", u"TAMRIX.DLL", u"system.ini");
    Debug(3, "Windows directory %s, modules from %s", windir.c_str(), path.c_str());
    return true;
}

void Pump()
{
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

// The only scanner open in this process: the driver serves one device.
std::atomic<bool> g_deviceInUse{false};

// What the dialog timer is to set in the scan-mode dialog on this thread.
struct DialogJob {
    ExtendedSettings wanted;
    bool halftone = false;
    bool done = false;
    ExtendedSettings applied;
};
thread_local DialogJob *t_dialogJob = nullptr;

void SendScroll(HWND dlg, int bar, int value)
{
    SendMessageW(dlg, WM_HSCROLL, MAKEWPARAM(SB_THUMBPOSITION, value), reinterpret_cast<LPARAM>(GetDlgItem(dlg, bar)));
}

void SendCommand(HWND dlg, int id, int code)
{
    SendMessageW(dlg, WM_COMMAND, MAKEWPARAM(id, code), reinterpret_cast<LPARAM>(GetDlgItem(dlg, id)));
}

bool Enabled(HWND dlg, int id)
{
    HWND c = GetDlgItem(dlg, id);
    return c && IsWindowEnabled(c);
}

// Works the scan-mode dialog once it is up, as a user would, then presses OK.
// Runs from the modal dialog's message loop on this thread.
void CALLBACK DialogTimer(HWND, UINT, UINT_PTR, DWORD)
{
    DialogJob *job = t_dialogJob;
    HWND dlg = GetActiveWindow();
    if (!job || job->done || !dlg || !GetDlgItem(dlg, kBrightnessBar))
        return;
    job->done = true;
    const ExtendedSettings &w = job->wanted;
    ExtendedSettings &a = job->applied;
    if (job->halftone && Enabled(dlg, kDitherList)) {
        int pos = w.ditherPattern <= 8 ? w.ditherPattern - 1 : w.ditherPattern == 16 ? 8 : 9;
        if (SendDlgItemMessageW(dlg, kDitherList, CB_SETCURSEL, pos, 0) == pos) {
            SendCommand(dlg, kDitherList, CBN_SELCHANGE);
            a.ditherPattern = w.ditherPattern;
        }
    }
    if (Enabled(dlg, kGammaList) && SendDlgItemMessageW(dlg, kGammaList, CB_SETCURSEL, w.gamma - 1, 0) == w.gamma - 1) {
        SendCommand(dlg, kGammaList, CBN_SELCHANGE);
        a.gamma = w.gamma;
    }
    if (Enabled(dlg, kBrightnessBar)) {
        SendScroll(dlg, kBrightnessBar, w.brightness);
        a.brightness = w.brightness;
    }
    if (Enabled(dlg, kTintBar)) {
        SendScroll(dlg, kTintBar, w.tint);
        a.tint = w.tint;
    }
    if (Enabled(dlg, kSaturationBar)) {
        SendScroll(dlg, kSaturationBar, w.saturation);
        a.saturation = w.saturation;
    }
    if (Enabled(dlg, kEdgeBox)) {
        CheckDlgButton(dlg, kEdgeBox, w.edgeEnhance ? BST_CHECKED : BST_UNCHECKED);
        SendCommand(dlg, kEdgeBox, BN_CLICKED);
        a.edgeEnhance = w.edgeEnhance;
    }
    if (Enabled(dlg, kNoiseBox)) {
        CheckDlgButton(dlg, kNoiseBox, w.noiseReduction ? BST_CHECKED : BST_UNCHECKED);
        SendCommand(dlg, kNoiseBox, BN_CLICKED);
        a.noiseReduction = w.noiseReduction;
    }
    SendCommand(dlg, IDOK, BN_CLICKED);
}

uint8_t LevelOf(uint8_t r, uint8_t g, uint8_t b)
{
    return static_cast<uint8_t>((299u * r + 587u * g + 114u * b) / 1000u);
}

// Turns the clipboard's DIB (header, full colour table, bottom-up rows) into
// the frame's rows: colours through the table, grey as its level, one bit as
// 1 for black. Rows or columns the image lacks stay white.
bool ConvertDib(const uint8_t *dib, size_t size, const Frame &frame, std::vector<uint8_t> *out)
{
    BITMAPINFOHEADER h;
    if (size < sizeof h)
        return false;
    std::memcpy(&h, dib, sizeof h);
    const int bpp = h.biBitCount;
    if (h.biSize != sizeof h || h.biWidth <= 0 || h.biHeight == 0 || h.biCompression != BI_RGB ||
        (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 24))
        return false;
    const size_t entries = bpp == 24 ? 0 : size_t(1) << bpp;
    const size_t width = static_cast<size_t>(h.biWidth);
    const size_t height = static_cast<size_t>(h.biHeight < 0 ? -h.biHeight : h.biHeight);
    const size_t stride = (width * bpp + 31) / 32 * 4;
    const size_t bitsAt = sizeof h + 4 * entries;
    if (bitsAt + stride * height > size)
        return false;
    if (static_cast<int>(width) != frame.width || static_cast<int>(height) != frame.lines)
        Debug(2, "the driver's image is %zu x %zu, the frame %d x %d", width, height, frame.width, frame.lines);

    // What each table entry becomes.
    uint8_t red[256], green[256], blue[256], level[256];
    for (size_t i = 0; i < entries; i++) {
        RGBQUAD q;
        std::memcpy(&q, dib + sizeof h + 4 * i, sizeof q);
        red[i] = q.rgbRed;
        green[i] = q.rgbGreen;
        blue[i] = q.rgbBlue;
        level[i] = LevelOf(q.rgbRed, q.rgbGreen, q.rgbBlue);
    }

    const size_t bpl = static_cast<size_t>(frame.BytesPerLine());
    out->assign(bpl * frame.lines, frame.depth == 1 ? 0 : 0xFF);
    const size_t rows = std::min<size_t>(height, frame.lines);
    const int columns = std::min(static_cast<int>(width), frame.width);
    for (size_t y = 0; y < rows; y++) {
        const uint8_t *src = dib + bitsAt + stride * (h.biHeight > 0 ? height - 1 - y : y);
        uint8_t *dst = out->data() + bpl * y;
        for (int x = 0; x < columns; x++) {
            const unsigned i = bpp == 24  ? 0
                               : bpp == 8 ? src[x]
                               : bpp == 4 ? (src[x / 2] >> (x % 2 ? 0 : 4)) & 15
                                          : (src[x / 8] >> (7 - x % 8)) & 1;
            if (frame.color) {
                dst[3 * x] = bpp == 24 ? src[3 * x + 2] : red[i];
                dst[3 * x + 1] = bpp == 24 ? src[3 * x + 1] : green[i];
                dst[3 * x + 2] = bpp == 24 ? src[3 * x] : blue[i];
                continue;
            }
            const uint8_t v = bpp == 24 ? LevelOf(src[3 * x + 2], src[3 * x + 1], src[3 * x]) : level[i];
            if (frame.depth == 8)
                dst[x] = v;
            else if (v < 128)
                dst[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
        }
    }
    return true;
}

} // namespace

Frame FrameOf(const ScanRequest &request)
{
    Frame f;
    f.color = request.mode == Mode::Color;
    f.depth = request.mode == Mode::Lineart || request.mode == Mode::Halftone ? 1 : 8;
    f.width = request.width;
    f.lines = request.height;
    return f;
}

struct Scanner::Platform {
    std::unique_ptr<mcicmd::VirtualScanner> scanner;
    bool virtualClock = false;
    bool classRegistered = false;
    HWND window = nullptr;

    ~Platform()
    {
        if (window)
            DestroyWindow(window);
        if (classRegistered)
            UnregisterClassW(kWindowClass, GetModuleHandleW(nullptr));
        scanner.reset();
        if (virtualClock)
            PlatUseVirtualClock(FALSE);
    }
};

Scanner::Scanner(const DeviceEntry &entry) : entry_(entry) {}

SANE_Status Scanner::Open(const DeviceEntry &entry, std::unique_ptr<Scanner> *out)
{
    if (g_deviceInUse.exchange(true)) {
        Debug(1, "open %s: the driver serves one scanner at a time, and one is open", entry.name.c_str());
        return SANE_STATUS_DEVICE_BUSY;
    }
    std::unique_ptr<Scanner> s(new Scanner(entry));
    if (pipe(s->pipe_) != 0) {
        g_deviceInUse = false;
        return SANE_STATUS_NO_MEM;
    }
    fcntl(s->pipe_[0], F_SETFL, O_NONBLOCK);
    fcntl(s->pipe_[1], F_SETFL, O_NONBLOCK);
    s->thread_ = std::thread([p = s.get()] { p->Run(); });
    SANE_Status st = s->Call([p = s.get()] { return p->DoOpen(); });
    if (st != SANE_STATUS_GOOD)
        return st; // the destructor undoes what was made
    *out = std::move(s);
    return SANE_STATUS_GOOD;
}

Scanner::~Scanner()
{
    if (thread_.joinable()) {
        Call([this] { DoClose(); });
        {
            std::lock_guard<std::mutex> g(lock_);
            quit_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    for (int fd : pipe_)
        if (fd >= 0)
            close(fd);
    g_deviceInUse = false;
}

void Scanner::Post(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
}

template <class F> auto Scanner::Call(F f) -> decltype(f())
{
    // The job owns the task: it may still be in it when the caller wakes.
    auto task = std::make_shared<std::packaged_task<decltype(f())()>>(std::move(f));
    auto result = task->get_future();
    Post([task] { (*task)(); });
    return result.get();
}

void Scanner::Run()
{
    for (;;) {
        std::function<void()> job;
        bool scanning;
        {
            std::unique_lock<std::mutex> l(lock_);
            if (jobs_.empty() && !quit_ && state_ != State::Scanning) {
                // Waiting outside the platform: its virtual clock may go on.
                l.unlock();
                PlatBeginExternalWait();
                l.lock();
                changed_.wait(l, [this] { return !jobs_.empty() || quit_ || state_ == State::Scanning; });
                l.unlock();
                PlatEndExternalWait();
                l.lock();
            }
            scanning = state_ == State::Scanning;
            // A cancel is seen through (MCI stop) before the next job, which
            // may be the close.
            const bool stopFirst = scanning && !stopSent_ && cancelGeneration_.load() != scanGeneration_;
            if (!jobs_.empty() && !stopFirst) {
                job = std::move(jobs_.front());
                jobs_.pop_front();
            } else if (quit_ && !scanning) {
                return;
            }
        }
        if (job)
            job();
        else if (scanning)
            PollScan();
    }
}

void Scanner::Wake()
{
    changed_.notify_all();
    const char byte = 1;
    ssize_t n = write(pipe_[1], &byte, 1); // a full pipe is readable already
    (void)n;
}

struct Scanner::Window {
    static LRESULT CALLBACK Proc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
    {
        if (msg == MM_MCINOTIFY) {
            if (auto *self = reinterpret_cast<Scanner *>(GetWindowLongPtrW(wnd, GWLP_USERDATA))) {
                self->notified_ = true;
                self->notifyCode_ = wParam;
            }
            return 0;
        }
        return DefWindowProcW(wnd, msg, wParam, lParam);
    }
};

uint32_t Scanner::Command(unsigned message, uint32_t flags, void *block, const char *what)
{
    DWORD err = mciSendCommandW(deviceId_, message, flags, reinterpret_cast<DWORD_PTR>(block));
    if (LOWORD(err)) {
        WCHAR text[512] = {};
        if (!mciGetErrorStringW(err, text, 512))
            text[0] = 0;
        Debug(1, "%s: MCI error %u: %s", what, static_cast<unsigned>(LOWORD(err)), Narrow(text).c_str());
    } else {
        Debug(4, "%s: done", what);
    }
    return err;
}

uint32_t Scanner::Capability(uint32_t item)
{
    MCI_GETDEVCAPS_PARMS p{};
    p.dwItem = item;
    if (LOWORD(Command(MCI_GETDEVCAPS, MCI_WAIT | MCI_GETDEVCAPS_ITEM, &p, "capability")))
        return 0;
    return p.dwReturn;
}

SANE_Status Scanner::DoOpen()
{
    platform_ = std::make_unique<Platform>();
    if (!SetUpEnvironment())
        return SANE_STATUS_IO_ERROR;
    mcicmd::ScannerChoice choice;
    choice.model = entry_.modelNumber;
    choice.interface = entry_.interface;
    choice.id = entry_.id;
    choice.baud = 3;
    mcicmd::StoreScannerChoice(choice);
    if (entry_.isVirtual) {
        platform_->scanner = std::make_unique<mcicmd::VirtualScanner>(choice);
        if (!platform_->scanner->attached()) {
            Debug(1, "cannot attach the %s", platform_->scanner->description().c_str());
            return SANE_STATUS_IO_ERROR;
        }
        Debug(2, "%s", platform_->scanner->description().c_str());
        PlatUseVirtualClock(TRUE);
        platform_->virtualClock = true;
    }

    HINSTANCE self = GetModuleHandleW(nullptr);
    WNDCLASSW wc{};
    wc.lpfnWndProc = Window::Proc;
    wc.hInstance = self;
    wc.lpszClassName = kWindowClass;
    platform_->classRegistered = RegisterClassW(&wc) != 0;
    platform_->window = CreateWindowExW(0, kWindowClass, u"tamrix", 0, 0, 0, 0, 0, nullptr, nullptr, self, nullptr);
    if (!platform_->window) {
        Debug(1, "cannot create the notification window (error %lu)", static_cast<unsigned long>(GetLastError()));
        return SANE_STATUS_NO_MEM;
    }
    SetWindowLongPtrW(platform_->window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));

    MCI_OPEN_PARMSW open{};
    open.lpstrDeviceType = u"scanner";
    DWORD err = mciSendCommandW(0, MCI_OPEN, MCI_OPEN_TYPE | MCI_WAIT, reinterpret_cast<DWORD_PTR>(&open));
    if (LOWORD(err)) {
        WCHAR text[512] = {};
        if (!mciGetErrorStringW(err, text, 512))
            text[0] = 0;
        Debug(1, "open %s: MCI error %u: %s", entry_.name.c_str(), static_cast<unsigned>(LOWORD(err)),
              Narrow(text).c_str());
        return StatusOf(err);
    }
    deviceId_ = open.wDeviceID;

    // Lengths in tenths of a millimetre, then back to dots for scanread.
    MCI_SET_PARMS set{};
    set.dwTimeFormat = kUnitMillimeter;
    Command(MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, &set, "set time format millimeter");
    caps_.minStartX = static_cast<int>(Capability(0x4005));
    caps_.maxWidth = static_cast<int>(Capability(0x4007));
    caps_.maxLength = static_cast<int>(Capability(0x4008));
    set.dwTimeFormat = kUnitDot;
    Command(MCI_SET, MCI_WAIT | MCI_SET_TIME_FORMAT, &set, "set time format dot");
    caps_.canScanColor = Capability(0x4001) != 0;
    caps_.canStop = Capability(0x4004) != 0;
    caps_.maxResolution = static_cast<int>(Capability(0x4009));
    caps_.minResolution = static_cast<int>(Capability(0x400A));
    caps_.resolutionStep = std::max(1, static_cast<int>(Capability(0x400B)));
    caps_.maxContrast = static_cast<int>(Capability(0x400C));
    caps_.minContrast = static_cast<int>(Capability(0x400D));
    caps_.contrastStep = std::max(1, static_cast<int>(Capability(0x400E)));
    caps_.maxColorStep = static_cast<int>(Capability(0x400F));
    caps_.minColorStep = static_cast<int>(Capability(0x4010));
    caps_.canHalftone = Capability(0x4014) != 0;
    if (caps_.maxWidth <= 0 || caps_.maxLength <= 0 || caps_.maxResolution < caps_.minResolution ||
        caps_.minResolution <= 0) {
        Debug(1, "open %s: the driver reports no usable scan area or resolution", entry_.name.c_str());
        return SANE_STATUS_IO_ERROR;
    }
    Debug(2, "opened %s: area %d..%d x %d (0.1 mm), %d..%d dpi by %d, colour %d", entry_.name.c_str(), caps_.minStartX,
          caps_.maxWidth, caps_.maxLength, caps_.minResolution, caps_.maxResolution, caps_.resolutionStep,
          caps_.canScanColor);
    return SANE_STATUS_GOOD;
}

void Scanner::DoClose()
{
    if (deviceId_) {
        // Close also ends a scan that still runs.
        MCI_GENERIC_PARMS g{};
        Command(MCI_CLOSE, MCI_WAIT, &g, "close");
        deviceId_ = 0;
    }
    Pump();
    platform_.reset();
    std::lock_guard<std::mutex> l(lock_);
    state_ = State::Idle;
}

SANE_Status Scanner::SetScanMode(const ScanRequest &r)
{
    ScanModeBlock b{};
    DWORD flags = MCI_WAIT | kScanModeResolution | kScanModeContrast | kScanModeColorMode;
    b.resolution = static_cast<DWORD>(r.resolution);
    b.contrast = static_cast<DWORD>(r.contrast);
    b.colorMode = r.mode == Mode::Color ? kColorModeColor : kColorModeMono;
    if (r.mode == Mode::Halftone) {
        flags |= kScanModeHalftone;
    } else {
        flags |= kScanModeColorStep;
        b.colorStep = 1u << r.bits;
    }
    return StatusOf(Command(kMciScanMode, flags, &b, "scanmode"));
}

SANE_Status Scanner::RunModeDialog(const ScanRequest &r)
{
    DialogJob job;
    job.wanted = r.extended;
    job.halftone = r.mode == Mode::Halftone;
    job.applied = driverExtended_;
    t_dialogJob = &job;
    UINT_PTR timer = SetTimer(nullptr, 0, 1, DialogTimer);
    ScanModeBlock b{};
    DWORD err = Command(kMciScanMode, MCI_WAIT | kScanModeDialog | (job.halftone ? kScanModeHalftone : 0), &b,
                        "scanmode dialog");
    if (timer)
        KillTimer(nullptr, timer);
    t_dialogJob = nullptr;
    if (LOWORD(err) || !job.done) {
        Debug(1, "the scan-mode dialog did not take the extended settings");
        return LOWORD(err) ? StatusOf(err) : SANE_STATUS_IO_ERROR;
    }
    driverExtended_ = job.applied;
    Debug(3, "scan-mode dialog: brightness %d gamma %d tint %d saturation %d dither %d edge %d noise %d",
          job.applied.brightness, job.applied.gamma, job.applied.tint, job.applied.saturation,
          job.applied.ditherPattern, job.applied.edgeEnhance, job.applied.noiseReduction);
    return SANE_STATUS_GOOD;
}

SANE_Status Scanner::Start(const ScanRequest &request)
{
    const unsigned generation = cancelGeneration_.load();
    readGeneration_ = generation;
    SANE_Status st = Call([this, &request, generation] { return DoStart(request, generation); });
    // Nothing is readable until this scan has an answer.
    char drain[64];
    while (read(pipe_[0], drain, sizeof drain) > 0) {
    }
    return st;
}

SANE_Status Scanner::DoStart(const ScanRequest &request, unsigned generation)
{
    // A scan cancelled a moment ago, or never read to its end, is stopped and
    // its image dropped.
    if (state_ == State::Scanning) {
        scanGeneration_ = generation - 1;
        while (state_ == State::Scanning)
            PollScan();
    }
    scanGeneration_ = generation;
    {
        std::lock_guard<std::mutex> l(lock_);
        state_ = State::Idle;
        data_.clear();
        readOffset_ = 0;
        frame_ = FrameOf(request);
    }
    request_ = request;
    if (SANE_Status st = SetScanMode(request); st != SANE_STATUS_GOOD)
        return st;

    // The extended settings go through the scan-mode dialog, and only when
    // they differ from what the driver holds.
    ExtendedSettings wanted = driverExtended_;
    const ExtendedSettings &e = request.extended;
    wanted.brightness = e.brightness;
    wanted.gamma = e.gamma;
    wanted.edgeEnhance = e.edgeEnhance;
    wanted.noiseReduction = e.noiseReduction;
    if (request.mode == Mode::Color) {
        wanted.tint = e.tint;
        wanted.saturation = e.saturation;
    }
    if (request.mode == Mode::Halftone)
        wanted.ditherPattern = e.ditherPattern;
    if (!(wanted == driverExtended_)) {
        ScanRequest r = request;
        r.extended = wanted;
        if (SANE_Status st = RunModeDialog(r); st != SANE_STATUS_GOOD)
            return st;
    }

    ScanReadBlock b{};
    b.callback = reinterpret_cast<DWORD_PTR>(platform_->window);
    b.rect = RECT{request.x, request.y, request.width, request.height};
    notified_ = false;
    stopSent_ = false;
    Debug(3, "scanread %d %d %d %d at %d dpi", request.x, request.y, request.width, request.height, request.resolution);
    threadsBeforeScan_ = PlatLiveCount(PLAT_KIND_THREAD);
    if (DWORD err = Command(kMciScanRead, MCI_NOTIFY | kScanReadRect, &b, "scanread"); LOWORD(err))
        return StatusOf(err);
    std::lock_guard<std::mutex> l(lock_);
    state_ = State::Scanning;
    return SANE_STATUS_GOOD;
}

void Scanner::PollScan()
{
    Pump();
    if (!notified_ && !stopSent_ && cancelGeneration_.load() != scanGeneration_) {
        Debug(3, "cancel: stopping the scan");
        MCI_GENERIC_PARMS g{};
        Command(MCI_STOP, MCI_WAIT, &g, "stop");
        stopSent_ = true;
        Pump();
    }
    if (notified_) {
        FinishScan(notifyCode_);
        return;
    }
    Sleep(2);
}

void Scanner::FinishScan(uintptr_t how)
{
    notified_ = false;
    State state = State::Failed;
    SANE_Status failure = SANE_STATUS_IO_ERROR;
    std::vector<uint8_t> data;
    bool failed = how != MCI_NOTIFY_SUCCESSFUL;
    if (cancelGeneration_.load() != scanGeneration_) {
        state = State::Cancelled;
    } else if (how == MCI_NOTIFY_SUCCESSFUL) {
        failure = FetchImage(&data);
        if (failure == SANE_STATUS_GOOD)
            state = State::Ready;
    } else if (how == MCI_NOTIFY_ABORTED) {
        state = State::Cancelled;
    } else {
        MCI_STATUS_PARMS s{};
        s.dwItem = kStatusScanner;
        Command(MCI_STATUS, MCI_WAIT | MCI_STATUS_ITEM, &s, "status scanner");
        Debug(1, "the scan failed (notification %u, scanner mode %lu%s)", static_cast<unsigned>(how),
              static_cast<unsigned long>(s.dwReturn), s.dwReturn == MCI_MODE_NOT_READY ? ": not ready" : "");
    }
    if (failed) {
        // The driver notifies a stopped or failed scan while its scan thread
        // still frees the scan's buffers; a scanread in that moment would
        // meet them half freed. Wait (a bounded while) for the thread to end.
        for (int i = 0; i < 2000 && PlatLiveCount(PLAT_KIND_THREAD) > threadsBeforeScan_; i++)
            Sleep(1);
    }
    {
        std::lock_guard<std::mutex> l(lock_);
        state_ = state;
        failure_ = failure;
        data_ = std::move(data);
        readOffset_ = 0;
    }
    Wake();
}

SANE_Status Scanner::FetchImage(std::vector<uint8_t> *data)
{
    MCI_GENERIC_PARMS g{};
    if (DWORD err = Command(MCI_COPY, MCI_WAIT, &g, "copy"); LOWORD(err))
        return StatusOf(err);
    if (!OpenClipboard(platform_->window)) {
        Debug(1, "cannot open the clipboard (error %lu)", static_cast<unsigned long>(GetLastError()));
        return SANE_STATUS_IO_ERROR;
    }
    SANE_Status st = SANE_STATUS_IO_ERROR;
    if (HANDLE mem = GetClipboardData(CF_DIB)) {
        if (auto *dib = static_cast<const uint8_t *>(GlobalLock(mem))) {
            Frame frame;
            {
                std::lock_guard<std::mutex> l(lock_);
                frame = frame_;
            }
            st = ConvertDib(dib, GlobalSize(mem), frame, data) ? SANE_STATUS_GOOD : SANE_STATUS_IO_ERROR;
            GlobalUnlock(mem);
        }
    }
    if (st != SANE_STATUS_GOOD)
        Debug(1, "the clipboard holds no image the backend can read");
    EmptyClipboard(); // frees the image and its palette
    CloseClipboard();
    return st;
}

SANE_Status Scanner::Read(SANE_Byte *out, SANE_Int max, SANE_Int *length, bool blocking)
{
    *length = 0;
    std::unique_lock<std::mutex> l(lock_);
    for (;;) {
        if (cancelGeneration_.load() != readGeneration_.load())
            return SANE_STATUS_CANCELLED;
        switch (state_) {
        case State::Idle:
            return SANE_STATUS_INVAL;
        case State::Failed:
            return failure_;
        case State::Cancelled:
            return SANE_STATUS_CANCELLED;
        case State::Scanning:
            if (!blocking)
                return SANE_STATUS_GOOD;
            // Timed, so that a cancel from a signal handler is seen too.
            changed_.wait_for(l, std::chrono::milliseconds(50));
            continue;
        case State::Ready:
            break;
        }
        const size_t left = data_.size() - readOffset_;
        if (left == 0)
            return SANE_STATUS_EOF;
        const size_t n = std::min(left, static_cast<size_t>(std::max(max, 0)));
        std::memcpy(out, data_.data() + readOffset_, n);
        readOffset_ += n;
        *length = static_cast<SANE_Int>(n);
        return SANE_STATUS_GOOD;
    }
}

void Scanner::Cancel()
{
    cancelGeneration_.fetch_add(1);
    const char byte = 1;
    ssize_t n = write(pipe_[1], &byte, 1);
    (void)n;
}

Frame Scanner::frame() const
{
    std::lock_guard<std::mutex> l(lock_);
    return frame_;
}

} // namespace tamrix_sane
