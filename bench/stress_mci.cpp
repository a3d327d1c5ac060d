// stress_mci: notified scans and saves on each interface, interrupted by
// stop, close or status at moments chosen by a seeded random generator,
// through the command strings an application sends. After each seed the
// device is closed (the driver is unloaded), every platform object must be
// gone, nothing of the driver may have been left running at the unload, and
// every notified command must have heard what it should:
//   scan stopped:            aborted, or successful when it had ended first
//   scan superseded (status): superseded plus aborted or successful
//   scan or save when closed: aborted, or successful when it had ended first
//   left to finish:           successful
//
//   stress_mci [FIRST_SEED [COUNT]]      exit status 0 when every seed passed
#include <windows.h>
#include <mmsystem.h>
#include <tamrix/platform.h>

#include "block_scanner.h"
#include "gpib_bus.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include "scratch_windows.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{

using Codes = std::vector<UINT>;

std::u16string Wide(const std::string &s)
{
    return std::u16string(s.begin(), s.end());
}

LRESULT CALLBACK CollectProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == MM_MCINOTIFY) {
        auto *codes = reinterpret_cast<Codes *>(GetWindowLongPtrW(wnd, GWLP_USERDATA));
        codes->push_back(static_cast<UINT>(wParam));
        return 0;
    }
    return DefWindowProcW(wnd, msg, wParam, lParam);
}

void Profile(const char *key, unsigned value)
{
    std::u16string v = Wide(std::to_string(value));
    WriteProfileStringW(TEXT("TAMRIX"), reinterpret_cast<LPCWSTR>(Wide(key).c_str()),
                        reinterpret_cast<LPCWSTR>(v.c_str()));
}

std::string Name(const Codes &codes)
{
    std::string out;
    for (UINT c : codes) {
        out += out.empty() ? "" : ",";
        out += c == MCI_NOTIFY_SUCCESSFUL   ? "successful"
               : c == MCI_NOTIFY_SUPERSEDED ? "superseded"
               : c == MCI_NOTIFY_ABORTED    ? "aborted"
               : c == MCI_NOTIFY_FAILURE    ? "failure"
                                            : std::to_string(c);
    }
    return "[" + out + "]";
}

const char *const kInterfaces[] = {"?", "SCSI", "RS-232C", "GP-IB"};

class Seed
{
public:
    explicit Seed(unsigned seed) : seed_(seed), rng_(seed) {}
    bool Run(const std::string &dir);

private:
    bool Send(const std::string &command, HWND callback = nullptr)
    {
        WCHAR ret[128];
        MCIERROR err = mciSendStringW(reinterpret_cast<LPCWSTR>(Wide(command).c_str()), ret, 128, callback);
        if (err != 0)
            return Fail("\"" + command + "\" answered " + std::to_string(err));
        return true;
    }
    bool Fail(const std::string &what)
    {
        std::printf("seed %u (model %u on %s): %s\n", seed_, model_, kInterfaces[interface_], what.c_str());
        ok_ = false;
        return false;
    }
    // Lets the operation run on for a random while: some of the thread's
    // messages, some real time.
    void Jitter()
    {
        int polls = std::uniform_int_distribution<int>(0, 6)(rng_);
        MSG msg;
        for (int i = 0; i < polls; i++)
            while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageW(&msg);
        usleep(std::uniform_int_distribution<unsigned>(0, 3000)(rng_));
    }
    // Runs the message loop until `codes` holds `count` notifications.
    void WaitFor(const Codes &codes, size_t count)
    {
        MSG msg;
        while (codes.size() < count && GetMessageW(&msg, nullptr, 0, 0) > 0)
            DispatchMessageW(&msg);
    }
    bool Expect(const char *what, const Codes &got, std::initializer_list<Codes> allowed)
    {
        // What is already posted counts.
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&msg);
        for (const Codes &a : allowed)
            if (got == a)
                return true;
        return Fail(std::string(what) + " heard " + Name(got));
    }
    bool Round(HWND scanWnd, HWND saveWnd, HWND statusWnd, bool *closed);

    unsigned seed_;
    unsigned model_ = 0, interface_ = 0;
    std::mt19937 rng_;
    bool ok_ = true;
    Codes scan_, save_, status_;
};

// In dots at 100 dpi, inside every model's area.
const char *const kRects[] = {"rect 30 10 60 40", "rect 40 20 120 80", "rect 30 30 200 150"};

bool Seed::Round(HWND scanWnd, HWND saveWnd, HWND statusWnd, bool *closed)
{
    scan_.clear();
    save_.clear();
    status_.clear();
    std::string rect = kRects[std::uniform_int_distribution<int>(0, 2)(rng_)];
    int action = std::uniform_int_distribution<int>(0, 6)(rng_);
    if (action <= 4) {
        if (!Send("scanread s " + rect + " notify", scanWnd))
            return false;
        Jitter();
        switch (action) {
        case 0:
            if (!Send("stop s wait"))
                return false;
            WaitFor(scan_, 1);
            return Expect("stopped scan", scan_, {{MCI_NOTIFY_ABORTED}, {MCI_NOTIFY_SUCCESSFUL}});
        case 1:
            if (!Send("status s ready notify", statusWnd))
                return false;
            WaitFor(scan_, 2);
            return Expect("superseded scan", scan_,
                          {{MCI_NOTIFY_ABORTED, MCI_NOTIFY_SUPERSEDED},
                           {MCI_NOTIFY_SUCCESSFUL, MCI_NOTIFY_SUPERSEDED},
                           {MCI_NOTIFY_SUPERSEDED, MCI_NOTIFY_SUCCESSFUL}}) &&
                   Expect("status", status_, {{MCI_NOTIFY_SUCCESSFUL}});
        case 2:
            if (!Send("status s ready wait"))
                return false;
            WaitFor(scan_, 1);
            return Expect("scan beside status", scan_, {{MCI_NOTIFY_SUCCESSFUL}});
        case 3:
            *closed = true;
            if (!Send("close s wait"))
                return false;
            return Expect("scan ended by close", scan_, {{MCI_NOTIFY_ABORTED}, {MCI_NOTIFY_SUCCESSFUL}});
        default:
            WaitFor(scan_, 1);
            return Expect("scan", scan_, {{MCI_NOTIFY_SUCCESSFUL}});
        }
    }
    // Saves need an image: a waited scan first.
    if (!Send("scanread s " + rect + " wait"))
        return false;
    std::string file = "save" + std::to_string(seed_) + ".bmp";
    if (action == 5) {
        // The sequence of a user's script: a waited save, then close at once.
        *closed = true;
        return Send("save s " + file + " wait") && Send("close s wait");
    }
    if (!Send("save s " + file + " notify", saveWnd))
        return false;
    Jitter();
    if (std::uniform_int_distribution<int>(0, 1)(rng_) == 0) {
        *closed = true;
        if (!Send("close s wait"))
            return false;
        return Expect("save ended by close", save_, {{MCI_NOTIFY_ABORTED}, {MCI_NOTIFY_SUCCESSFUL}});
    }
    WaitFor(save_, 1);
    return Expect("save", save_, {{MCI_NOTIFY_SUCCESSFUL}});
}

bool Seed::Run(const std::string &dir)
{
    // Models 1 to 6 (model 7 cannot be stopped) on the three interfaces, as
    // the settings allow them: model 1 on RS-232C only, model 3 not on SCSI.
    unsigned interface = 1 + seed_ % 3;
    static const unsigned kModels[4][6] = {{}, {2, 4, 5, 6, 2, 4}, {1, 2, 3, 4, 5, 6}, {2, 3, 4, 5, 6, 3}};
    unsigned model = kModels[interface][std::uniform_int_distribution<unsigned>(0, 5)(rng_)];
    model_ = model;
    interface_ = interface;
    Profile("Scanner", model);
    Profile("Interface", interface);
    Profile("ID", interface == 2 ? 1 : 2);
    Profile("Baudrate", 3);
    std::unique_ptr<sim::SerialLink> serial;
    std::shared_ptr<sim::ScsiScanner> scsi;
    if (interface == 1)
        scsi = sim::ScsiScanner::Attach(static_cast<int>(model));
    else if (interface == 2)
        serial = std::make_unique<sim::SerialLink>(1, std::make_shared<sim::BlockScanner>(model, 5));
    else
        sim::AttachGpibDevice(2, sim::MakeGpibByteDevice(std::make_shared<sim::BlockScanner>(model, 5)));

    std::array<long, PLAT_KIND_COUNT> before{};
    for (int k = 0; k < PLAT_KIND_COUNT; k++)
        before[k] = PlatLiveCount(static_cast<PlatKind>(k));

    HWND wnds[3];
    Codes *lists[3] = {&scan_, &save_, &status_};
    for (int i = 0; i < 3; i++) {
        wnds[i] = CreateWindowExW(0, TEXT("StressSink"), TEXT(""), 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
        SetWindowLongPtrW(wnds[i], GWLP_USERDATA, reinterpret_cast<LONG_PTR>(lists[i]));
    }
    (void)dir;
    bool closed = false;
    if (Send("open scanner alias s wait") && Send("scanmode s resolution 100 wait")) {
        int rounds = std::uniform_int_distribution<int>(1, 4)(rng_);
        for (int r = 0; r < rounds && !closed && ok_; r++)
            Round(wnds[0], wnds[1], wnds[2], &closed);
        if (!closed)
            Send("close s wait");
    }
    // Notifications that come after close has returned are errors too.
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
        DispatchMessageW(&msg);
    if (scan_.size() + save_.size() + status_.size() > 3)
        Fail("notifications after close: scan " + Name(scan_) + " save " + Name(save_));
    for (HWND w : wnds)
        DestroyWindow(w);

    if (scsi)
        scsi->Detach();
    if (interface == 3)
        sim::DetachGpibDevice(2);
    serial.reset();
    for (int k = 0; k < PLAT_KIND_COUNT; k++) {
        long now = PlatLiveCount(static_cast<PlatKind>(k));
        if (now != before[k])
            Fail(std::string("live ") + PlatKindName(static_cast<PlatKind>(k)) + ": " + std::to_string(before[k]) +
                 " -> " + std::to_string(now));
    }
    return ok_;
}

} // namespace

int main(int argc, char **argv)
{
    const unsigned first = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 1;
    const unsigned count = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 30;
    const std::string dir = MakeScratchWindows("stress_mci");
    if (dir.empty())
        return 2;
    // Saved files land in the scratch directory.
    if (chdir(dir.c_str()) != 0)
        return 2;
    WNDCLASSW wc{};
    wc.lpfnWndProc = CollectProc;
    wc.lpszClassName = TEXT("StressSink");
    RegisterClassW(&wc);

    unsigned failed = 0;
    for (unsigned s = first; s < first + count; s++) {
        Seed seed(s);
        if (!seed.Run(dir))
            failed++;
    }
    std::printf("stress_mci: %u of %u seeds from %u failed\n", failed, count, first);
    UnregisterClassW(TEXT("StressSink"), nullptr);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return failed ? 1 : 0;
}
