// Fault sweep: each scenario runs once cleanly, counting the injectable
// platform calls its swept part makes; then each of those calls fails in
// turn (every occurrence, or a seeded sample of a call made many times).
// Every run must end with the command's own error or a clean success, with
// no hang (bounded on the virtual clock, and a real-time watchdog that names
// the run), with nothing left alive once the device is closed and the driver
// unloaded, and with the image from before the failure intact.
//
// TAMRIX_SWEEP_SEED changes the sample, TAMRIX_SWEEP_ONLY=API:N runs only
// that failure, TAMRIX_SWEEP_VERBOSE=1 prints each clean run's calls.
//
// Scenarios through WINMM run the real driver module; model 7 (which the
// settings cannot select) and the dialogs, which need the driver's own
// window handles, run the driver built into the test program.
#include "driver_fixture.h"

#include "block_scanner.h"
#include "gpib_bus.h"
#include "polled_scanner.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include "config/config.h"
#include "resources/resource.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Codes = std::vector<DWORD>;
using Calls = std::map<std::string, unsigned>;

std::vector<std::string> InjectableApis()
{
    const char *names[128];
    int n = PlatInjectableApis(names, 128);
    return std::vector<std::string>(names, names + std::min(n, 128));
}

Calls CallCounts()
{
    Calls calls;
    for (const std::string &api : InjectableApis())
        if (unsigned n = PlatCallCount(api.c_str()))
            calls[api] = n;
    return calls;
}

template <class T> bool OneOf(const T &value, const std::vector<T> &allowed)
{
    return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}
bool OneOf(DWORD value, const Codes &allowed)
{
    return OneOf<DWORD>(value, allowed);
}
bool OneOf(const std::string &value, const std::vector<std::string> &allowed)
{
    return OneOf<std::string>(value, allowed);
}

std::string Show(const Codes &codes)
{
    std::ostringstream out;
    for (DWORD c : codes)
        out << c << " ";
    return out.str();
}

// ---- Watchdog: a run that takes more than a few real seconds hangs ---------

class Watchdog
{
public:
    static Watchdog &Get()
    {
        static Watchdog *dog = new Watchdog;
        return *dog;
    }
    void Arm(const std::string &what)
    {
        std::lock_guard<std::mutex> g(mutex_);
        what_ = what;
        snprintf(s_crashLabel, sizeof s_crashLabel, "%s", what.c_str());
        deadline_ = Now() + kLimitMs;
    }
    void Disarm()
    {
        std::lock_guard<std::mutex> g(mutex_);
        deadline_ = 0;
    }

private:
    static constexpr long long kLimitMs = 20000;
    static long long Now()
    {
        using namespace std::chrono;
        return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    }
    static inline char s_crashLabel[256];
    static void OnCrash(int sig)
    {
        const char head[] = "CRASH during ";
        (void)!write(2, head, sizeof head - 1);
        (void)!write(2, s_crashLabel, strlen(s_crashLabel));
        (void)!write(2, "\n", 1);
        signal(sig, SIG_DFL);
        raise(sig);
    }
    Watchdog()
    {
        signal(SIGSEGV, OnCrash);
        signal(SIGBUS, OnCrash);
        signal(SIGABRT, OnCrash);
        std::thread([this] {
            for (;;) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                std::lock_guard<std::mutex> g(mutex_);
                if (deadline_ && Now() > deadline_) {
                    std::fprintf(stderr, "HANG: %s did not end within %lld ms\n", what_.c_str(), kLimitMs);
                    std::fflush(stderr);
                    std::_Exit(3);
                }
            }
        }).detach();
    }
    std::mutex mutex_;
    std::string what_;
    long long deadline_ = 0;
};

// ---- Scenarios and the sweep ------------------------------------------------

// One run of a scenario. Setup() and Cleanup() run without faults; Act() is
// the swept part; Check() runs after the faults are cleared and judges what
// Act() saw. `clean` says whether this is the counting run.
class Scenario
{
public:
    virtual ~Scenario() = default;
    virtual void Setup() {}
    virtual void Act() = 0;
    virtual void Check(bool clean) = 0;
    virtual void Cleanup() {}
};

struct Sweep {
    const char *name;
    std::function<std::unique_ptr<Scenario>()> make;
};

unsigned Seed()
{
    const char *env = getenv("TAMRIX_SWEEP_SEED");
    return env ? (unsigned)strtoul(env, nullptr, 0) : 20261123u;
}

// The occurrences of a call made `n` times that are failed: all of them up
// to a few, else the first three, the last two and three drawn at random.
std::vector<unsigned> Occurrences(unsigned n, std::mt19937 &random)
{
    std::vector<unsigned> picks;
    if (n <= 6) {
        for (unsigned k = 1; k <= n; k++)
            picks.push_back(k);
        return picks;
    }
    picks = {1, 2, 3, n - 1, n};
    std::uniform_int_distribution<unsigned> any(4, n - 2);
    for (int i = 0; i < 3; i++)
        picks.push_back(any(random));
    return picks;
}

// The call failing in the current run; empty in the clean run.
std::string &Failing()
{
    static std::string api;
    return api;
}

// Runs one scenario once; `api` empty for the clean run. Returns the calls
// Act() made; `fired` tells whether the injected failure happened.
Calls RunOnce(const Sweep &sweep, const std::string &api, unsigned nth, bool *fired)
{
    Failing() = api;
    std::ostringstream label;
    label << sweep.name << ": " << (api.empty() ? "clean run" : api + " call #" + std::to_string(nth) + " fails")
          << " (seed " << Seed() << ")";
    SCOPED_TRACE(label.str());
    Watchdog::Get().Arm(label.str());
    sim::ResetGpibBus();
    PlatResetClipboard();
    const tamrix_test::LiveCounts before = tamrix_test::SnapshotLiveCounts();
    Calls calls;
    {
        std::unique_ptr<Scenario> s = sweep.make();
        s->Setup();
        PlatClearFaults();
        if (!api.empty())
            PlatFailCall(api.c_str(), nth, 0);
        s->Act();
        calls = CallCounts();
        PlatClearFaults();
        if (fired)
            *fired = !api.empty() && calls[api] >= nth;
        s->Check(api.empty());
        s->Cleanup();
    }
    sim::ResetGpibBus();
    PlatResetClipboard();
    // A board library that lacks a procedure stays loaded: the driver
    // never frees that load. The application lets it go.
    if (api == "GetProcAddress")
        if (HMODULE board = GetModuleHandleW(u"GPIBDLL"))
            FreeLibrary(board);
    // A DeleteObject that fails leaves that one object; nothing else may
    // stay once the device is closed and the driver unloaded.
    tamrix_test::LiveCounts allowed = before;
    if (api == "DeleteObject")
        allowed[PLAT_KIND_GDI] = std::max(before[PLAT_KIND_GDI], PlatLiveCount(PLAT_KIND_GDI));
    std::string leaks = tamrix_test::LiveCountDifferences(allowed);
    EXPECT_TRUE(leaks.empty()) << "left alive after close:\n" << leaks;
    EXPECT_LE(PlatLiveCount(PLAT_KIND_GDI), before[PLAT_KIND_GDI] + 1);
    Watchdog::Get().Disarm();
    return calls;
}

// TAMRIX_SWEEP_ONLY=API:N runs only that fault of each sweep (to repeat
// one under a debugger).
const std::string &Only()
{
    static const std::string only = getenv("TAMRIX_SWEEP_ONLY") ? getenv("TAMRIX_SWEEP_ONLY") : "";
    return only;
}

// Sweeps every call of every scenario; returns the calls whose injected
// failure happened at least once.
std::set<std::string> RunSweeps(const std::vector<Sweep> &sweeps)
{
    std::set<std::string> fired;
    for (const Sweep &sweep : sweeps) {
        Calls clean = RunOnce(sweep, "", 0, nullptr);
        if (getenv("TAMRIX_SWEEP_VERBOSE")) {
            std::printf("%s, clean run:", sweep.name);
            for (const auto &[api, n] : clean)
                std::printf(" %s %u", api.c_str(), n);
            std::printf("\n");
        }
        if (::testing::Test::HasFailure())
            return fired; // the scenario itself is broken: no point in sweeping it
        std::mt19937 random(Seed() ^ (unsigned)std::hash<std::string>()(sweep.name));
        for (const auto &[api, n] : clean) {
            for (unsigned k : Occurrences(n, random)) {
                if (!Only().empty() && Only() != api + ":" + std::to_string(k))
                    continue;
                bool hit = false;
                RunOnce(sweep, api, k, &hit);
                if (hit)
                    fired.insert(api);
                if (::testing::Test::HasFailure())
                    return fired; // one clear report, not hundreds
            }
        }
    }
    return fired;
}

// ---- The application side, through WINMM and the real module -------------

enum class Itf { Serial, Gpib, Scsi };

LRESULT CALLBACK AppProc(HWND w, UINT m, WPARAM wp, LPARAM lp)
{
    return DefWindowProcW(w, m, wp, lp);
}

// A virtual KS-650 on one interface, named by win.ini, and the driver named
// by system.ini, in a Windows directory of the run's own.
class Bench
{
public:
    explicit Bench(Itf itf) : itf_(itf)
    {
        WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
        const char16_t *iface = itf == Itf::Scsi ? u"1" : itf == Itf::Serial ? u"2" : u"3";
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Scanner"), TEXT("5"));
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Interface"), iface);
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("ID"), itf == Itf::Gpib ? u"2" : itf == Itf::Serial ? u"1" : u"0");
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Baudrate"), TEXT("3"));
        if (itf == Itf::Serial) {
            serial_ = std::make_unique<sim::SerialLink>(1, block_);
        } else if (itf == Itf::Gpib) {
            sim::AttachGpibDevice(2, sim::MakeGpibByteDevice(block_));
        } else {
            scsi_ = sim::ScsiScanner::Attach(5);
        }
    }
    ~Bench()
    {
        if (scsi_)
            scsi_->Detach();
        if (itf_ == Itf::Gpib)
            sim::ResetGpibBus();
    }
    sim::BlockScanner &block() { return *block_; }
    const std::string &dir() const { return windir_.path(); }

private:
    tamrix_test::TempDir windir_{true};
    Itf itf_;
    std::shared_ptr<sim::BlockScanner> block_ = std::make_shared<sim::BlockScanner>(5, 5);
    std::unique_ptr<sim::SerialLink> serial_;
    std::shared_ptr<sim::ScsiScanner> scsi_;
};

// Runs the calling thread's message loop for up to `ms` of (virtual) time,
// or until a notification came when `untilOne`; returns the codes heard.
Codes PumpNotes(DWORD ms, bool untilOne)
{
    Codes codes;
    DWORD start = GetTickCount();
    for (;;) {
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (msg.message == MM_MCINOTIFY)
                codes.push_back((DWORD)msg.wParam);
            else
                DispatchMessageW(&msg);
        }
        if ((untilOne && !codes.empty()) || GetTickCount() - start >= ms)
            return codes;
        Sleep(50);
    }
}

// The application: a window for notifications, command strings, its message
// loop, and what it reads from the clipboard and from saved files.
class App
{
public:
    App()
    {
        WNDCLASSW wc{};
        wc.lpfnWndProc = AppProc;
        wc.lpszClassName = u"FaultSweepApp";
        RegisterClassW(&wc);
        wnd_ = CreateWindowExW(0, u"FaultSweepApp", u"", 0, 0, 0, 200, 150, nullptr, nullptr, nullptr, nullptr);
    }
    ~App()
    {
        DestroyWindow(wnd_);
        UnregisterClassW(u"FaultSweepApp", nullptr);
    }
    HWND wnd() const { return wnd_; }
    // The result, with the driver's own errors (513, 514) without the
    // device id WINMM puts in the high word.
    DWORD Send(const std::u16string &cmd)
    {
        ret_[0] = 0;
        DWORD rc = mciSendStringW(cmd.c_str(), ret_, 64, wnd_);
        return LOWORD(rc) >= MCIERR_CUSTOM_DRIVER_BASE ? LOWORD(rc) : rc;
    }
    std::u16string Ret() const { return ret_; }
    bool IsOpen() const { return mciGetDeviceIDW(u"s") != 0; }

    Codes Pump(DWORD ms, bool untilOne) { return PumpNotes(ms, untilOne); }
    // A notified command: its result, then the notifications heard until
    // one came and two seconds more (a second one would be wrong).
    DWORD Notified(const std::u16string &cmd, Codes *notes)
    {
        DWORD rc = Send(cmd + u" notify");
        *notes = Pump(600000, true);
        Codes more = Pump(2500, false);
        notes->insert(notes->end(), more.begin(), more.end());
        return rc;
    }

    // The CF_DIB block on the clipboard, as the application reads it
    // (copied into a block of its own that it grows as it reads), and the
    // picture drawn into a bitmap of its own. Empty when anything failed.
    static std::string ReadClipboard()
    {
        std::string bytes;
        if (!OpenClipboard(nullptr))
            return bytes;
        HANDLE dib = GetClipboardData(CF_DIB);
        const BYTE *p = dib ? static_cast<const BYTE *>(GlobalLock(dib)) : nullptr;
        if (p) {
            SIZE_T size = GlobalSize(dib);
            HGLOBAL own = GlobalAlloc(GMEM_MOVEABLE, 40);
            HGLOBAL grown = own ? GlobalReAlloc(own, size, GMEM_MOVEABLE) : nullptr;
            if (BYTE *q = grown ? static_cast<BYTE *>(GlobalLock(grown)) : nullptr) {
                memcpy(q, p, size);
                if (Draw(reinterpret_cast<const BITMAPINFO *>(q)))
                    bytes.assign(reinterpret_cast<const char *>(q), size);
                GlobalUnlock(grown);
            }
            GlobalFree(grown ? grown : own);
            GlobalUnlock(dib);
        }
        CloseClipboard();
        return bytes;
    }
    // The current image as the copy command gives it.
    std::string Image()
    {
        std::string bytes = Send(u"copy s wait") == 0 ? ReadClipboard() : "";
        PlatResetClipboard();
        return bytes;
    }
    // A file as the application reads it back; empty when it is not there.
    static std::string ReadFileBack(const std::string &path)
    {
        std::string bytes;
        HANDLE f = CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (f == INVALID_HANDLE_VALUE)
            return bytes;
        DWORD size = SetFilePointer(f, 0, nullptr, FILE_END);
        if (size != INVALID_SET_FILE_POINTER && SetFilePointer(f, 0, nullptr, FILE_BEGIN) == 0) {
            bytes.resize(size);
            DWORD got = 0;
            if (!ReadFile(f, bytes.data(), size, &got, nullptr) || got != size)
                bytes.clear();
        }
        CloseHandle(f);
        return bytes;
    }

    // COM1 opened and set up by the application itself: it can be once
    // the driver has let it go.
    static bool UsePort()
    {
        HANDLE port = CreateFileW(u"COM1", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (port == INVALID_HANDLE_VALUE)
            return false;
        COMMTIMEOUTS timeouts{};
        bool ok = SetupComm(port, 4096, 4096) && GetCommTimeouts(port, &timeouts) && EscapeCommFunction(port, SETDTR) &&
                  FlushFileBuffers(port);
        CloseHandle(port);
        return ok;
    }

private:
    static bool Draw(const BITMAPINFO *info)
    {
        HDC screen = GetDC(nullptr);
        HDC dc = screen ? CreateCompatibleDC(screen) : nullptr;
        HBITMAP bmp = dc ? CreateCompatibleBitmap(screen, info->bmiHeader.biWidth, info->bmiHeader.biHeight) : nullptr;
        bool ok = bmp != nullptr;
        if (screen)
            ReleaseDC(nullptr, screen);
        if (bmp)
            DeleteObject(bmp);
        if (dc)
            DeleteDC(dc);
        return ok;
    }
    HWND wnd_ = nullptr;
    WCHAR ret_[64];
};

constexpr DWORD kOk = 0;
const DWORD kNoteOk = MCI_NOTIFY_SUCCESSFUL, kNoteAborted = MCI_NOTIFY_ABORTED, kNoteFailed = MCI_NOTIFY_FAILURE;

// Calls the driver does not check, by design, whose failure can only change
// pixels: a line not stored, a fill not made. After a success with one of
// them failing, the image has the clean run's header and size.
bool SamePicture(const std::string &now, const std::string &ref)
{
    if (now == ref)
        return true;
    return OneOf(Failing(), {"SetDIBits", "BitBlt"}) && now.size() == ref.size() && now.compare(0, 40, ref, 0, 40) == 0;
}

// What the clean run of a scenario produced, for the faulted runs to
// compare with (one per scenario name).
std::map<std::string, std::string> &Reference()
{
    static std::map<std::string, std::string> refs;
    return refs;
}

// A scenario on an open device with a scanned image (unless `scanFirst` is
// false); Cleanup closes the device if the swept part left it open.
class DeviceScenario : public Scenario
{
public:
    DeviceScenario(std::string name, Itf itf, bool scanFirst = true)
        : name_(std::move(name)), bench_(itf), scanFirst_(scanFirst)
    {
    }
    void Setup() override
    {
        ASSERT_EQ(app_.Send(u"open scanner alias s wait"), kOk);
        if (scanFirst_) {
            ASSERT_EQ(app_.Send(u"scanread s rect 0 0 40 24 wait"), kOk);
            before_ = app_.Image();
            ASSERT_FALSE(before_.empty());
        }
    }
    void Cleanup() override
    {
        if (app_.IsOpen()) {
            EXPECT_EQ(app_.Send(u"close s wait"), kOk) << "a second close after the swept part";
        }
        EXPECT_FALSE(app_.IsOpen());
    }

protected:
    // The image is the one from before, or (after a success) the one the
    // clean run made.
    void ExpectImage(bool changed, bool clean)
    {
        std::string now = app_.Image();
        std::string &ref = Reference()[name_ + "/image"];
        if (clean && changed)
            ref = now;
        if (changed) {
            EXPECT_TRUE(SamePicture(now, ref)) << "the image is not the one the clean run made";
        } else
            EXPECT_TRUE(now == before_) << "the image from before is not intact";
    }
    std::string name_;
    Bench bench_;
    App app_;
    bool scanFirst_;
    std::string before_;
};

class OpenScenario : public DeviceScenario
{
public:
    explicit OpenScenario(Itf itf) : DeviceScenario("open", itf, false) {}
    void Setup() override {}
    void Act() override
    {
        rc_ = app_.Send(u"open scanner alias s wait");
        if (rc_ == kOk)
            status_ = app_.Send(u"status s ready wait");
    }
    void Check(bool clean) override
    {
        if (clean) {
            EXPECT_EQ(rc_, kOk);
        }
        EXPECT_TRUE(OneOf(rc_, {kOk, MCIERR_OUT_OF_MEMORY, MCIERR_DEVICE_NOT_READY, MCIERR_CANNOT_LOAD_DRIVER}))
            << "open answered " << rc_;
        EXPECT_EQ(app_.IsOpen(), rc_ == kOk);
        if (rc_ == kOk) {
            EXPECT_TRUE(OneOf(status_, {kOk, MCIERR_DEVICE_NOT_READY})) << status_;
            EXPECT_EQ(app_.Send(u"scanread s rect 0 0 16 8 wait"), kOk) << "the device works once the faults are gone";
        }
    }

private:
    DWORD rc_ = 0, status_ = 0;
};

const Codes kScanErrors = {MCIERR_OUT_OF_MEMORY, MCIERR_SCANNER_ABNORMAL, MCIERR_HARDWARE, MCIERR_DRIVER_INTERNAL,
                           MCIERR_NO_WINDOW};

class ScanScenario : public DeviceScenario
{
public:
    ScanScenario(const char *name, Itf itf, bool notify) : DeviceScenario(name, itf), notify_(notify) {}
    void Act() override
    {
        const std::u16string cmd = u"scanread s rect 8 4 48 32";
        rc_ = notify_ ? app_.Notified(cmd, &notes_) : app_.Send(cmd + u" wait");
    }
    void Check(bool clean) override
    {
        bool ok = rc_ == kOk;
        if (notify_) {
            // A scan that fails before the command looks at its result is
            // answered at once, and not notified.
            EXPECT_TRUE(ok || OneOf(rc_, kScanErrors)) << "scanread notify answered " << rc_;
            if (ok) {
                ASSERT_EQ(notes_.size(), 1u) << "notifications: " << Show(notes_);
                EXPECT_TRUE(OneOf(notes_[0], {kNoteOk, kNoteFailed})) << notes_[0];
                ok = notes_[0] == kNoteOk;
            } else {
                EXPECT_TRUE(notes_.empty()) << "a refused command is not notified: " << Show(notes_);
            }
        } else {
            EXPECT_TRUE(rc_ == kOk || OneOf(rc_, kScanErrors)) << "scanread wait answered " << rc_;
        }
        if (clean) {
            EXPECT_TRUE(ok);
        }
        // 346: committed but not shown.
        ExpectImage(ok || rc_ == MCIERR_NO_WINDOW, clean);
    }

private:
    bool notify_;
    DWORD rc_ = 0;
    Codes notes_;
};

// A notified scan stopped, or the device closed, while the scanner sends.
class InterruptScenario : public DeviceScenario
{
public:
    InterruptScenario(const char *name, bool close) : DeviceScenario(name, Itf::Serial), close_(close) {}
    void Setup() override
    {
        DeviceScenario::Setup();
        sim::BlockScanner::Faults slow;
        slow.lateMs = 40;
        bench_.block().SetFaults(slow);
    }
    void Act() override
    {
        scan_ = app_.Send(u"scanread s rect 0 0 200 300 notify");
        Sleep(12000); // the start and some lines
        rc_ = app_.Send(close_ ? u"close s wait" : u"stop s wait");
        notes_ = app_.Pump(close_ ? 3000 : 600000, !close_);
        Codes more = app_.Pump(2500, false);
        notes_.insert(notes_.end(), more.begin(), more.end());
        if (close_)
            portFree_ = App::UsePort();
    }
    void Check(bool clean) override
    {
        if (close_ && !OneOf(Failing(), {"CreateFileW", "SetupComm", "GetCommTimeouts", "EscapeCommFunction",
                                         "FlushFileBuffers"})) {
            EXPECT_TRUE(portFree_) << "COM1 is still held after close";
        }
        EXPECT_TRUE(scan_ == kOk || OneOf(scan_, kScanErrors)) << "scanread answered " << scan_;
        if (close_) {
            EXPECT_TRUE(OneOf(rc_, {kOk, MCIERR_HARDWARE, MCIERR_DRIVER_INTERNAL, MCIERR_DEVICE_NOT_READY}))
                << "close answered " << rc_;
        } else {
            EXPECT_TRUE(OneOf(rc_, {kOk, 1})) << "stop answered " << rc_;
        }
        if (scan_ == kOk) {
            ASSERT_EQ(notes_.size(), 1u) << "notifications: " << Show(notes_);
            EXPECT_TRUE(OneOf(notes_[0], {kNoteAborted, kNoteFailed})) << notes_[0];
            if (clean) {
                EXPECT_EQ(notes_[0], kNoteAborted);
            }
        } else {
            EXPECT_TRUE(notes_.empty()) << Show(notes_);
        }
        bench_.block().SetFaults({});
        if (close_) {
            EXPECT_FALSE(app_.IsOpen()) << "the device is closed whatever the driver answered";
            EXPECT_EQ(app_.Send(u"open scanner alias s wait"), kOk) << "the device opens again";
        } else {
            ExpectImage(false, clean);
        }
    }

private:
    bool close_;
    bool portFree_ = false;
    DWORD scan_ = 0, rc_ = 0;
    Codes notes_;
};

const Codes kSaveErrors = {MCIERR_OUT_OF_MEMORY,     MCIERR_DRIVER_INTERNAL, MCIERR_FILE_NOT_FOUND,
                           MCIERR_FILENAME_REQUIRED, MCIERR_FILE_WRITE,      MCIERR_FILE_NOT_SAVED};

class SaveScenario : public DeviceScenario
{
public:
    SaveScenario(const char *name, bool notify) : DeviceScenario(name, Itf::Serial), notify_(notify) {}
    void Act() override
    {
        std::string path = bench_.dir() + "/saved.bmp";
        std::u16string cmd = u"save s " + std::u16string(path.begin(), path.end());
        rc_ = notify_ ? app_.Notified(cmd, &notes_) : app_.Send(cmd + u" wait");
        file_ = App::ReadFileBack(path);
    }
    void Check(bool clean) override
    {
        bool ok = rc_ == kOk;
        if (notify_) {
            // A save that fails before the command looks at its result is
            // answered at once, and not notified.
            EXPECT_TRUE(ok || OneOf(rc_, kSaveErrors)) << "save notify answered " << rc_;
            if (ok) {
                ASSERT_EQ(notes_.size(), 1u) << "notifications: " << Show(notes_);
                EXPECT_TRUE(OneOf(notes_[0], {kNoteOk, kNoteFailed})) << notes_[0];
                ok = notes_[0] == kNoteOk;
            }
        } else {
            EXPECT_TRUE(ok || OneOf(rc_, kSaveErrors)) << "save wait answered " << rc_;
        }
        std::string &ref = Reference()[name_ + "/file"];
        if (clean) {
            EXPECT_TRUE(ok);
            ref = file_;
        }
        // The application's own reading of the file may fail too; what it
        // read in full is the clean run's file, and a failed save leaves none.
        if (ok && !file_.empty()) {
            EXPECT_TRUE(file_ == ref) << "the saved file differs from the clean run's";
        }
        if (!ok) {
            EXPECT_TRUE(file_.empty()) << "a failed save leaves no file";
        }
        ExpectImage(false, clean);
    }

private:
    bool notify_;
    DWORD rc_ = 0;
    Codes notes_;
    std::string file_;
};

// Close while a notified save has not been reported yet, or after the
// application ended the display window's thread itself (posting the quit
// message to the window it found by its title): close has no thread left
// to post to and terminates it instead.
class CloseScenario : public DeviceScenario
{
public:
    CloseScenario(const char *name, bool save) : DeviceScenario(name, Itf::Serial), save_(save) {}
    void Setup() override
    {
        DeviceScenario::Setup();
        if (save_)
            return;
        HWND disp = GetWindow(GetDesktopWindow(), GW_CHILD);
        WCHAR title[32];
        while (disp && !(GetWindowTextW(disp, title, 32) && std::u16string(title) == u"Scanner  Image Data"))
            disp = GetWindow(disp, GW_HWNDNEXT);
        ASSERT_NE(disp, nullptr);
        DWORD thread = GetWindowThreadProcessId(disp, nullptr);
        ASSERT_TRUE(PostMessageW(disp, WM_QUIT, 0, 0));
        for (int i = 0; i < 400 && PostThreadMessageW(thread, WM_NULL, 0, 0); i++)
            Sleep(5);
        ASSERT_FALSE(PostThreadMessageW(thread, WM_NULL, 0, 0)) << "the display thread goes on";
    }
    void Act() override
    {
        const std::string path = bench_.dir() + "/saved.bmp";
        if (save_)
            save_rc_ = app_.Send(u"save s " + std::u16string(path.begin(), path.end()) + u" notify");
        rc_ = app_.Send(u"close s wait");
        notes_ = app_.Pump(3000, false);
        file_ = App::ReadFileBack(path);
    }
    void Check(bool clean) override
    {
        EXPECT_TRUE(OneOf(rc_, {kOk, MCIERR_DEVICE_NOT_READY})) << "close answered " << rc_;
        EXPECT_TRUE(save_rc_ == kOk || OneOf(save_rc_, kSaveErrors)) << "save answered " << save_rc_;
        if (clean) {
            EXPECT_TRUE(rc_ == kOk && save_rc_ == kOk);
        }
        // The save is cancelled or done; either way its caller hears it was
        // aborted, and a file is whole or not there.
        EXPECT_EQ(notes_, save_ && save_rc_ == kOk ? Codes{kNoteAborted} : Codes{}) << Show(notes_);
        if (!file_.empty()) {
            uint32_t size = 0;
            if (file_.size() >= 6)
                memcpy(&size, file_.data() + 2, 4);
            EXPECT_TRUE(file_.compare(0, 2, "BM") == 0 && size == file_.size()) << "a partial file stays";
        }
        EXPECT_FALSE(app_.IsOpen());
        EXPECT_EQ(app_.Send(u"open scanner alias s wait"), kOk) << "the device opens again";
    }

private:
    bool save_;
    DWORD rc_ = 0, save_rc_ = 0;
    Codes notes_;
    std::string file_;
};

class CopyScenario : public DeviceScenario
{
public:
    CopyScenario() : DeviceScenario("copy", Itf::Serial) {}
    void Act() override
    {
        rc_ = app_.Send(u"copy s wait");
        pasted_ = App::ReadClipboard();
    }
    void Check(bool clean) override
    {
        EXPECT_TRUE(OneOf(rc_, {kOk, MCIERR_OUT_OF_MEMORY, MCIERR_CREATEWINDOW})) << "copy answered " << rc_;
        if (clean) {
            EXPECT_TRUE(rc_ == kOk && pasted_ == before_);
        }
        if (rc_ == kOk && !pasted_.empty()) {
            EXPECT_TRUE(pasted_ == before_) << "the clipboard holds something else than the image";
        }
        PlatResetClipboard();
        ExpectImage(false, clean);
    }

private:
    DWORD rc_ = 0;
    std::string pasted_;
};

// The display commands: into the application's window, resized, cropped,
// hidden and shown again, and where the rectangles are.
class DisplayScenario : public DeviceScenario
{
public:
    DisplayScenario() : DeviceScenario("put/where/window", Itf::Serial) {}
    void Act() override
    {
        std::string handle = std::to_string(reinterpret_cast<uintptr_t>(app_.wnd()));
        for (const std::u16string &cmd :
             {u"window s handle " + std::u16string(handle.begin(), handle.end()),
              std::u16string(u"put s destination at 0 0 120 90"), std::u16string(u"put s source at 4 2 20 12"),
              std::u16string(u"where s source"), std::u16string(u"window s state hide"),
              std::u16string(u"window s state show"), std::u16string(u"where s destination"),
              std::u16string(u"window s handle default")}) {
            results_.push_back(app_.Send(cmd + u" wait"));
            UpdateWindow(app_.wnd());
            app_.Pump(100, false);
        }
    }
    void Check(bool clean) override
    {
        for (DWORD rc : results_) {
            EXPECT_TRUE(OneOf(rc, {kOk, MCIERR_OUT_OF_MEMORY, MCIERR_NO_WINDOW})) << "answered " << rc;
        }
        if (clean) {
            EXPECT_EQ(results_, Codes(results_.size(), kOk));
        }
        ExpectImage(false, clean);
    }

private:
    Codes results_;
};

// ---- The driver built into the test program ---------------------------------

// Loads and opens the built-in driver as WINMM would, for the scenarios
// that need its globals.
class BuiltInDriver
{
public:
    BuiltInDriver()
    {
        DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr);
        loaded_ = DriverProc(0, nullptr, DRV_LOAD, 0, 0) == 1;
    }
    ~BuiltInDriver()
    {
        if (open_)
            Close();
        if (loaded_)
            DriverProc(0, nullptr, DRV_FREE, 0, 0);
        DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_DETACH, nullptr);
    }
    DWORD Open()
    {
        MCI_OPEN_PARMSW p{};
        p.wDeviceID = 3;
        DWORD rc = Send(MCI_OPEN_DRIVER, MCI_WAIT, &p);
        open_ = rc == 0;
        return rc;
    }
    DWORD Close()
    {
        MCI_GENERIC_PARMS p{};
        open_ = false;
        return Send(MCI_CLOSE_DRIVER, MCI_WAIT, &p);
    }
    static DWORD Send(UINT msg, DWORD flags, void *parms)
    {
        return (DWORD)DriverProc(3, nullptr, msg, flags, (LPARAM)parms);
    }
    // The image's header and bits, as copy puts them on the clipboard.
    static std::string Image()
    {
        MCI_GENERIC_PARMS p{};
        std::string bytes = Send(MCI_COPY, MCI_WAIT, &p) == 0 ? App::ReadClipboard() : "";
        PlatResetClipboard();
        return bytes;
    }

private:
    bool loaded_ = false, open_ = false;
};

// Model 7 on GP-IB with the polled dialect; the settings stop at model 6,
// so the device is opened as a model 5 and then made a model 7.
class PolledScanScenario : public Scenario
{
public:
    explicit PolledScanScenario(bool notify) : notify_(notify)
    {
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Scanner"), TEXT("5"));
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Interface"), TEXT("3"));
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("ID"), TEXT("2"));
    }
    void Setup() override
    {
        scanner_ = std::make_shared<sim::PolledScanner>();
        sim::AttachGpibDevice(2, scanner_);
        ASSERT_EQ(driver_.Open(), 0u);
        g_settings.model = 7;
        ImgInitScanParams(7);
        wnd_ = CreateWindowExW(0, u"STATIC", u"", 0, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
        ASSERT_EQ(Scan(0, 0, 40, 24, MCI_WAIT), 0u);
        before_ = BuiltInDriver::Image();
        ASSERT_FALSE(before_.empty());
    }
    void Act() override
    {
        rc_ = Scan(8, 4, 48, 32, notify_ ? MCI_NOTIFY : MCI_WAIT);
        MCI_GENERIC_PARMS p{(DWORD_PTR)wnd_};
        stop_ = BuiltInDriver::Send(MCI_STOP, MCI_WAIT, &p);
        if (notify_ && rc_ == 0)
            notes_ = PumpNotes(600000, true);
    }
    void Check(bool clean) override
    {
        EXPECT_EQ(stop_, (DWORD)MCIERR_UNSUPPORTED_FUNCTION) << "model 7 cannot stop";
        bool ok = rc_ == 0;
        if (notify_) {
            EXPECT_TRUE(ok || OneOf(rc_, kScanErrors)) << "scanread notify answered " << rc_;
            if (ok) {
                ASSERT_EQ(notes_.size(), 1u) << Show(notes_);
                EXPECT_TRUE(OneOf(notes_[0], {kNoteOk, kNoteFailed})) << notes_[0];
                ok = notes_[0] == kNoteOk;
            }
        } else {
            EXPECT_TRUE(ok || OneOf(rc_, kScanErrors)) << "scanread wait answered " << rc_;
        }
        std::string now = BuiltInDriver::Image();
        std::string &ref = Reference()[std::string("model 7/") + (notify_ ? "notify" : "wait")];
        if (clean) {
            EXPECT_TRUE(ok);
            ref = now;
        }
        if (ok || rc_ == MCIERR_NO_WINDOW) {
            EXPECT_TRUE(SamePicture(now, ref)) << "the image is not the one the clean run made";
        } else
            EXPECT_TRUE(now == before_) << "the image from before is not intact";
    }
    void Cleanup() override
    {
        EXPECT_EQ(driver_.Close(), 0u);
        DestroyWindow(wnd_);
    }

private:
    DWORD Scan(int x, int y, int w, int h, DWORD flags)
    {
        ScanReadParms p{(DWORD_PTR)wnd_, {x, y, w, h}};
        return BuiltInDriver::Send(MCI_SCANREAD, flags | MCI_SCANREAD_RECT, &p);
    }
    tamrix_test::TempDir windir_{true};
    bool notify_;
    std::shared_ptr<sim::PolledScanner> scanner_;
    BuiltInDriver driver_;
    std::string before_;
    HWND wnd_ = nullptr;
    DWORD rc_ = 0, stop_ = 0;
    Codes notes_;
};

HWND WaitFor(
    const HWND &wnd, const std::function<bool()> &gone = [] { return false; })
{
    for (int i = 0; i < 2000 && wnd == nullptr && !gone(); i++)
        Sleep(5);
    return wnd;
}

// An application thread made before the swept part (its own creation is
// not what is swept) that runs `fn` once started.
class AppThread
{
public:
    explicit AppThread(std::function<void()> fn)
        : fn_(std::move(fn)), thread_([this] {
              while (!go_)
                  Sleep(1);
              fn_();
              done_ = true;
              return 0u;
          })
    {
    }
    void Start() { go_ = true; }
    bool done() const { return done_; }
    // Waits (virtual time, no platform call that the sweep could fail)
    // for the thread to end; it is joined for good on destruction.
    bool Join()
    {
        for (DWORD start = GetTickCount(); !done_ && GetTickCount() - start < 600000;)
            Sleep(10);
        return done_;
    }

private:
    std::function<void()> fn_;
    std::atomic<bool> go_{false}, done_{false};
    tamrix_test::PlatformThread thread_;
};

void Click(HWND dlg, int id)
{
    SendMessageW(GetDlgItem(dlg, id), BM_CLICK, 0, 0);
}

// The scan-mode dialog, modal (the command waits on the application's
// thread) or modeless (on a thread of its own, notified): the user moves the
// brightness and presses OK.
class ModeDialogScenario : public Scenario
{
public:
    explicit ModeDialogScenario(bool notify) : notify_(notify) {}
    void Setup() override
    {
        g_settings = {2, IF_RS232C, 1, 2};
        ImgInitScanParams(2);
        g_deviceId = 3;
        before_ = g_scanParams;
        app_ = std::make_unique<AppThread>([this] {
            HWND wnd = CreateWindowExW(0, u"STATIC", u"", 0, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
            ScanModeParms p{(DWORD_PTR)wnd, 200, 0, 0, 0};
            const DWORD flags = MCI_SCANMODE_RESOLUTION | MCI_SCANMODE_DIALOG;
            rc_ = BuiltInDriver::Send(MCI_SCANMODE, flags | (notify_ ? MCI_NOTIFY : MCI_WAIT), &p);
            if (notify_ && rc_ == 0)
                notes_ = PumpNotes(600000, true);
            DestroyWindow(wnd);
        });
    }
    void Act() override
    {
        app_->Start();
        if (HWND dlg = WaitFor(g_modeDlgWnd, [&] { return app_->done(); })) {
            SendMessageW(GetDlgItem(dlg, IDC_MODE_BRIGHT_SCROLL), WM_KEYDOWN, VK_RIGHT, 0);
            UpdateWindow(dlg);
            Click(dlg, IDOK);
        }
        ended_ = app_->Join();
        // The dialog thread closes its own handle as it goes.
        for (int i = 0; i < 1000 && g_modeDlgWnd; i++)
            Sleep(5);
    }
    void Check(bool clean) override
    {
        EXPECT_TRUE(ended_) << "the application thread hangs";
        const Codes allowed = {kOk, MCIERR_MISSING_PARAMETER, MCIERR_CREATEWINDOW, MCIERR_NONAPPLICABLE_FUNCTION,
                               MCIERR_OUT_OF_MEMORY};
        EXPECT_TRUE(OneOf(rc_, allowed)) << "scanmode answered " << rc_;
        bool ok = rc_ == kOk;
        if (notify_ && ok) {
            ASSERT_EQ(notes_.size(), 1u) << Show(notes_);
            ok = notes_[0] == kNoteOk;
            EXPECT_TRUE(ok || notes_[0] == kNoteFailed) << notes_[0];
        }
        if (clean) {
            EXPECT_TRUE(ok && g_scanParams.brightness == before_.brightness + 1);
        }
        if (ok) {
            EXPECT_EQ(g_scanParams.resolution, 200);
        } else
            EXPECT_EQ(memcmp(&g_scanParams, &before_, sizeof before_), 0) << "a failed dialog leaves the parameters";
        EXPECT_EQ(g_modeDlgWnd, nullptr);
    }
    void Cleanup() override
    {
        if (g_timerActive && g_timerId)
            KillTimer(nullptr, g_timerId);
        g_timerActive = 0;
    }

private:
    tamrix_test::TempDir windir_{true};
    BuiltInDriver driver_;
    bool notify_;
    std::unique_ptr<AppThread> app_;
    ScanParams before_{};
    DWORD rc_ = 0;
    Codes notes_;
    bool ended_ = false;
};

// DRV_CONFIGURE: the configuration dialog with the GP-IB dialog, then the
// RS-232C dialog, help, and OK; then DRV_INSTALL and DRV_REMOVE.
class ConfigScenario : public Scenario
{
public:
    void Setup() override
    {
        std::ofstream(windir_ / "win.ini") << "[TAMRIX]\nScanner=2\nInterface=3\nID=2\nBaudrate=2\n";
        sim::AttachGpibDevice(2, sim::MakeGpibByteDevice(std::make_shared<sim::BlockScanner>(2)));
        app_ = std::make_unique<AppThread>([this] {
            HWND parent = CreateWindowExW(0, u"STATIC", u"", 0, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
            DRVCONFIGINFO config{sizeof(DRVCONFIGINFO), TEXT("Drivers32"), TEXT("Scanner")};
            configure_ = DriverProc(0, nullptr, DRV_CONFIGURE, (LPARAM)parent, (LPARAM)&config);
            DestroyWindow(parent);
        });
    }
    void Act() override
    {
        app_->Start();
        auto over = [&] { return app_->done(); };
        if (HWND dlg = WaitFor(g_cfgDlgWnd, over)) {
            SubDialog(dlg, over);
            // RS-232C is the second entry when the port probe found COM1.
            LRESULT n = SendDlgItemMessageW(dlg, IDC_CFG_IF, CB_GETCOUNT, 0, 0);
            for (LRESULT i = 0; i < n; i++) {
                WCHAR text[16] = {};
                SendDlgItemMessageW(dlg, IDC_CFG_IF, CB_GETLBTEXT, i, (LPARAM)text);
                if (std::u16string(text) == u"RS-232C") {
                    SendDlgItemMessageW(dlg, IDC_CFG_IF, CB_SETCURSEL, i, 0);
                    SendMessageW(dlg, WM_COMMAND, MAKEWPARAM(IDC_CFG_IF, CBN_SELCHANGE),
                                 (LPARAM)GetDlgItem(dlg, IDC_CFG_IF));
                    SubDialog(dlg, over);
                }
            }
            Click(dlg, IDC_CFG_HELP);
            PostMessageW(dlg, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), (LPARAM)GetDlgItem(dlg, IDOK));
        }
        ended_ = app_->Join();
        install_ = DriverProc(0, nullptr, DRV_INSTALL, 0, 0);
        remove_ = DriverProc(0, nullptr, DRV_REMOVE, 0, 0);
        for (const char16_t *key : {u"Scanner", u"Interface", u"ID", u"Baudrate"}) {
            WCHAR value[16] = {};
            GetProfileStringW(TEXT("TAMRIX"), key, TEXT("-"), value, 16);
            profile_ += std::u16string(value) + u";";
        }
    }
    void Check(bool clean) override
    {
        EXPECT_TRUE(ended_) << "the configuration request hangs";
        EXPECT_TRUE(OneOf((DWORD)configure_, {DRVCNF_CANCEL, DRVCNF_OK, DRVCNF_RESTART})) << configure_;
        EXPECT_EQ(g_cfgDlgWnd, nullptr);
        EXPECT_EQ(g_cfgSubDlgWnd, nullptr);
        EXPECT_TRUE(OneOf((DWORD)install_, {DRVCNF_CANCEL, DRVCNF_OK, DRVCNF_RESTART})) << install_;
        EXPECT_TRUE(OneOf((DWORD)remove_, {DRVCNF_CANCEL, DRVCNF_OK, DRVCNF_RESTART})) << remove_;
        // Cancel or a failed dialog writes nothing; OK writes the whole
        // choice, unless a write of it failed. The clean run chose RS-232C.
        if (clean) {
            EXPECT_TRUE(configure_ == DRVCNF_OK && profile_ == u"2;2;1;2;")
                << std::string(profile_.begin(), profile_.end());
        }
        if (configure_ != DRVCNF_OK) {
            EXPECT_TRUE(profile_ == u"2;3;2;2;") << "the profile changed without OK";
        } else if (Failing() != "WriteProfileStringW") {
            // What the probes found (and the settings as read) decide the
            // choices offered; whatever was chosen is written whole.
            EXPECT_TRUE(profile_.find(u"-") == std::u16string::npos) << "the choice is not written whole";
        }
    }

private:
    // Opens the settings sub-dialog of the chosen interface and presses OK
    // in it (after a step of the GP-IB address spin, drawn first).
    static void SubDialog(HWND dlg, const std::function<bool()> &over)
    {
        PostMessageW(dlg, WM_COMMAND, IDC_CFG_SETTINGS, (LPARAM)GetDlgItem(dlg, IDC_CFG_SETTINGS));
        // The sub-dialog may fail to appear: give it a bounded while.
        HWND sub = nullptr;
        for (int i = 0; i < 400 && !(sub = g_cfgSubDlgWnd) && !over(); i++)
            Sleep(5);
        if (!sub)
            return;
        if (HWND spin = GetDlgItem(sub, IDC_GPIB_SPIN)) {
            InvalidateRect(spin, nullptr, TRUE);
            UpdateWindow(spin);
        }
        PostMessageW(sub, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), (LPARAM)GetDlgItem(sub, IDOK));
        for (int i = 0; i < 400 && g_cfgSubDlgWnd && !over(); i++)
            Sleep(5);
    }
    tamrix_test::TempDir windir_{true};
    sim::SerialLink port_{1, std::make_shared<sim::BlockScanner>(2)};
    BuiltInDriver driver_;
    std::unique_ptr<AppThread> app_;
    LRESULT configure_ = -7, install_ = -7, remove_ = -7;
    std::u16string profile_;
    bool ended_ = false;
};

// ---- The sweeps, split for ctest -j2 ---------------------------------------

template <class T, class... A> Sweep Make(const char *name, A... args)
{
    return {name, [=] { return std::unique_ptr<Scenario>(new T(args...)); }};
}

// Calls each sweep must reach (its injected failure happened in at least
// one run); together they are every injectable call of the platform.
const std::map<std::string, std::vector<std::string>> &MustReach()
{
    static const std::map<std::string, std::vector<std::string>> reach = {
        {"Open",
         {"LoadLibraryW",    "GetProcAddress",     "FindResourceW",       "LoadResource",    "mciLoadCommandResource",
          "RegisterClassW",  "GetProfileIntW",     "CreateFileA",         "GetCommState",    "SetCommState",
          "SetCommTimeouts", "PurgeComm",          "LoadLibraryA",        "DeviceIoControl", "CreateEventW",
          "CreateThread",    "SetEvent",           "WaitForSingleObject", "GlobalAlloc",     "GlobalLock",
          "GetDC",           "CreateCompatibleDC", "CreateDIBSection",    "SelectObject",    "BitBlt",
          "LoadStringA"}},
        {"ScanSerial",
         {"ReadFile", "WriteFile", "ClearCommError", "SetDIBits", "StretchBlt", "SetTimer", "BeginPaint",
          "CreateSolidBrush"}},
        {"ScanGpib", {"DeleteObject"}},
        {"ScanScsi", {}},
        {"ScanModel7", {}},
        {"StopAndClose",
         {"mciFreeCommandResource", "CreateFileW", "SetupComm", "GetCommTimeouts", "EscapeCommFunction",
          "FlushFileBuffers", "GetExitCodeThread", "TerminateThread"}},
        {"Save", {"DeleteFileW", "GetDIBits", "SetFilePointer"}},
        {"CopyAndDisplay",
         {"OpenClipboard", "EmptyClipboard", "SetClipboardData", "CloseClipboard", "CreatePalette", "GetClipboardData",
          "GlobalReAlloc", "CreateCompatibleBitmap", "SetWindowsHookExW", "SetMapMode"}},
        {"ModeDialogs", {"DialogBoxParamW", "CreateDialogParamW", "LoadStringW"}},
        {"ConfigDialogs", {"WinHelpW", "CreatePen", "WriteProfileStringW", "WritePrivateProfileStringW"}},
    };
    return reach;
}

void RunAndCheckReach(const char *group, const std::vector<Sweep> &sweeps)
{
    std::set<std::string> fired = RunSweeps(sweeps);
    std::printf("%s: %zu calls failed in turn:", group, fired.size());
    for (const std::string &api : fired)
        std::printf(" %s", api.c_str());
    std::printf("\n");
    if (::testing::Test::HasFailure())
        return;
    for (const std::string &api : MustReach().at(group))
        EXPECT_TRUE(fired.count(api)) << group << " never made " << api << " fail";
}

class FaultSweep : public ::testing::Test
{
protected:
    void SetUp() override
    {
        PlatClearFaults();
        PlatUseVirtualClock(TRUE);
    }
    void TearDown() override
    {
        PlatClearFaults();
        PlatUseVirtualClock(FALSE);
    }
};

TEST_F(FaultSweep, Open)
{
    RunAndCheckReach("Open", {Make<OpenScenario>("open RS-232C", Itf::Serial),
                              Make<OpenScenario>("open GP-IB", Itf::Gpib), Make<OpenScenario>("open SCSI", Itf::Scsi)});
}

TEST_F(FaultSweep, ScanSerial)
{
    RunAndCheckReach("ScanSerial",
                     {Make<ScanScenario>("scanread wait RS-232C", "scanread wait RS-232C", Itf::Serial, false),
                      Make<ScanScenario>("scanread notify RS-232C", "scanread notify RS-232C", Itf::Serial, true)});
}

TEST_F(FaultSweep, ScanGpib)
{
    RunAndCheckReach("ScanGpib",
                     {Make<ScanScenario>("scanread wait GP-IB", "scanread wait GP-IB", Itf::Gpib, false),
                      Make<ScanScenario>("scanread notify GP-IB", "scanread notify GP-IB", Itf::Gpib, true)});
}

TEST_F(FaultSweep, ScanScsi)
{
    RunAndCheckReach("ScanScsi", {Make<ScanScenario>("scanread wait SCSI", "scanread wait SCSI", Itf::Scsi, false),
                                  Make<ScanScenario>("scanread notify SCSI", "scanread notify SCSI", Itf::Scsi, true)});
}

TEST_F(FaultSweep, ScanModel7)
{
    RunAndCheckReach("ScanModel7", {Make<PolledScanScenario>("scanread wait model 7 GP-IB", false),
                                    Make<PolledScanScenario>("scanread notify model 7 GP-IB", true)});
}

TEST_F(FaultSweep, StopAndClose)
{
    RunAndCheckReach("StopAndClose", {Make<InterruptScenario>("stop during a scan", "stop", false),
                                      Make<InterruptScenario>("close during a scan", "close", true),
                                      Make<CloseScenario>("close during a notified save", "close save", true),
                                      Make<CloseScenario>("close without a display thread", "close quit", false)});
}

TEST_F(FaultSweep, Save)
{
    RunAndCheckReach("Save", {Make<SaveScenario>("save wait", "save wait", false),
                              Make<SaveScenario>("save notify", "save notify", true)});
}

TEST_F(FaultSweep, CopyAndDisplay)
{
    RunAndCheckReach("CopyAndDisplay", {Make<CopyScenario>("copy"), Make<DisplayScenario>("put/where/window")});
}

TEST_F(FaultSweep, ModeDialogs)
{
    RunAndCheckReach("ModeDialogs", {Make<ModeDialogScenario>("scan-mode dialog modal", false),
                                     Make<ModeDialogScenario>("scan-mode dialog modeless", true)});
}

TEST_F(FaultSweep, ConfigDialogs)
{
    RunAndCheckReach("ConfigDialogs", {Make<ConfigScenario>("configuration dialogs")});
}

// The sweeps above name, between them, every call the platform can fail.
TEST(FaultSweepCoverage, EveryInjectableCallIsSwept)
{
    std::set<std::string> named;
    for (const auto &[group, apis] : MustReach())
        named.insert(apis.begin(), apis.end());
    std::vector<std::string> all = InjectableApis();
    EXPECT_EQ(all.size(), 63u);
    for (const std::string &api : all) {
        EXPECT_TRUE(named.count(api)) << api << " is reached by no sweep";
    }
    for (const std::string &api : named) {
        EXPECT_TRUE(std::find(all.begin(), all.end(), api) != all.end()) << api << " is not injectable";
    }
}

} // namespace
