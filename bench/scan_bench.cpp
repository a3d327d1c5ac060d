// scan_bench: how fast the driver takes a whole page from each kind of
// virtual scanner, through the command strings an application sends. The
// scanners' mandated waits pass on the virtual clock, so the figures are the
// driver's own work (protocol, frames, decompression, line conversion, the
// DIB) plus the virtual line's.
//
//   scan_bench [REPEATS]
#include <windows.h>
#include <mmsystem.h>
#include <tamrix/platform.h>

#include "block_scanner.h"
#include "gpib_bus.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include "scratch_windows.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace
{

std::u16string Wide(const std::string &s)
{
    return std::u16string(s.begin(), s.end());
}

bool Send(const std::string &command)
{
    WCHAR ret[128];
    MCIERROR err = mciSendStringW(reinterpret_cast<LPCWSTR>(Wide(command).c_str()), ret, 128, nullptr);
    if (err) {
        std::fprintf(stderr, "scan_bench: \"%s\" failed with %u\n", command.c_str(), static_cast<unsigned>(err));
        return false;
    }
    return true;
}

void Profile(const char *key, unsigned value)
{
    std::u16string v = Wide(std::to_string(value));
    WriteProfileStringW(TEXT("TAMRIX"), reinterpret_cast<LPCWSTR>(Wide(key).c_str()),
                        reinterpret_cast<LPCWSTR>(v.c_str()));
}

struct Case {
    const char *name;
    unsigned model, interface, id;
    int resolution;
    const char *mode; // scanmode arguments besides the resolution
    int rect[4];      // x y width length in 0.01 inch
};

} // namespace

int main(int argc, char **argv)
{
    const int repeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const std::string dir = MakeScratchWindows("scan_bench");
    if (dir.empty())
        return 2;

    const Case cases[] = {
        {"KS-620 RS-232C, 2 levels, 400 dpi", 2, 2, 1, 400, "colorstep 2", {20, 0, 760, 1100}},
        {"KS-650 RS-232C, 8 colours, 480 dpi", 5, 2, 1, 480, "colorstep 2", {0, 0, 850, 1100}},
        {"KS-660 GP-IB, 256 levels, 300 dpi", 6, 3, 2, 300, "colorstep 256", {0, 0, 850, 1100}},
        {"KS-640 SCSI, 256 levels, 320 dpi", 4, 1, 0, 320, "colorstep 256", {20, 0, 760, 1100}},
        {"KS-630 RS-232C, 3 passes of 16 levels, 400 dpi", 3, 2, 1, 400, "colorstep 16", {0, 0, 400, 600}},
    };
    std::printf("%-48s %12s\n", "scanner and mode (full page)", "ms per page");
    int failed = 0;
    for (const Case &c : cases) {
        Profile("Scanner", c.model);
        Profile("Interface", c.interface);
        Profile("ID", c.id);
        Profile("Baudrate", 3);
        std::unique_ptr<sim::SerialLink> serial;
        std::shared_ptr<sim::ScsiScanner> scsi;
        if (c.interface == 1)
            scsi = sim::ScsiScanner::Attach(static_cast<int>(c.model));
        else if (c.interface == 2)
            serial = std::make_unique<sim::SerialLink>(c.id, std::make_shared<sim::BlockScanner>(c.model, 5));
        else
            sim::AttachGpibDevice(static_cast<int>(c.id),
                                  sim::MakeGpibByteDevice(std::make_shared<sim::BlockScanner>(c.model, 5)));

        bool ok = Send("open scanner alias s wait") &&
                  Send("scanmode s resolution " + std::to_string(c.resolution) + " " + c.mode + " wait");
        // The rectangle in dots at the scan's resolution (the command strings
        // have no usable time-format keyword: the table's constants are padded).
        std::string rect;
        for (int v : c.rect)
            rect += " " + std::to_string(v * c.resolution / 100);
        double bestMs = 1e30;
        for (int i = 0; ok && i < repeats; i++) {
            auto t0 = std::chrono::steady_clock::now();
            ok = Send("scanread s rect" + rect + " wait");
            auto t1 = std::chrono::steady_clock::now();
            bestMs = std::min(bestMs, std::chrono::duration<double, std::milli>(t1 - t0).count());
        }
        Send("close s wait");
        if (scsi)
            scsi->Detach();
        if (c.interface == 3)
            sim::DetachGpibDevice(static_cast<int>(c.id));
        serial.reset();
        if (!ok) {
            std::printf("%-48s %12s\n", c.name, "failed");
            failed++;
            continue;
        }
        std::printf("%-48s %12.1f\n", c.name, bestMs);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return failed ? 1 : 0;
}
