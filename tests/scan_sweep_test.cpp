// A seeded sweep of whole scans: every model on every interface it has, in
// every colour mode, step and halftone, at resolutions across each model's
// range, with random rectangles in every time format. Each scan goes from
// scanread through the device layer to the virtual scanner on the wire and
// back into the current image, whose pixels must show the page on the glass
// where the scanner's window lay. A failure prints the mcicmd line that
// repeats the scan.
#include "support/image_fixture.h"

#include "block_scanner.h"
#include "gpib_bus.h"
#include "page.h"
#include "polled_scanner.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include "device/device.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>

namespace
{

constexpr unsigned kPort = 2;
constexpr DWORD kAddress = 6;

struct ModelInfo {
    int low, high, tens; // resolutions
    bool colour;
    std::vector<DWORD> interfaces;
    long areaLeft, areaWidth, areaHeight; // scan area, 1/1000 inch
};

const ModelInfo &Info(int model)
{
    static const ModelInfo info[8] = {
        {},
        {50, 320, 10, false, {IF_RS232C}, 100, 8000, 11680},
        {90, 640, 10, false, {IF_SCSI, IF_RS232C, IF_GPIB}, 100, 8000, 11680},
        {90, 400, 10, true, {IF_RS232C, IF_GPIB}, 0, 4200, 6400},
        {5, 320, 1, true, {IF_SCSI, IF_RS232C, IF_GPIB}, 100, 8000, 11680},
        {50, 480, 10, true, {IF_SCSI, IF_RS232C, IF_GPIB}, 0, 8500, 11690},
        {50, 600, 10, false, {IF_SCSI, IF_RS232C, IF_GPIB}, 0, 8500, 11690},
        {90, 640, 10, false, {IF_GPIB}, 0, 8260, 11690},
    };
    return info[model];
}

// The window unit of each wire, per inch: what the scanner's window edges
// are rounded to.
long WindowUnit(int model, DWORD iface, int r)
{
    if (iface == IF_SCSI || model == 5 || model == 6)
        return r;
    return model == 7 ? 240 : model == 3 ? 200 : 320;
}

const char *kModelNames[8] = {"", "ks-610", "ks-620", "ks-630", "ks-640", "ks-650", "ks-660", "kt-700"};

struct Case {
    int model = 1;
    DWORD iface = IF_RS232C;
    int format = 1; // block dialect frames: 1 raw, 5 compressed
    int resolution = 90;
    SHORT colorStep = 1; // bits, or 16 for halftone
    SHORT colorMode = 0;
    SHORT ditherPattern = 16;
    DWORD unit = UNIT_DOT;
    LONG x = 0, y = 0, w = 1, h = 1;

    std::string Mcicmd() const
    {
        static const char *ifNames[4] = {"", "scsi", "rs232c:", "gpib:"};
        std::ostringstream s;
        s << "build/host/bin/mcicmd --scanner " << kModelNames[model] << ":" << ifNames[iface];
        if (iface == IF_RS232C)
            s << 1;
        else if (iface == IF_GPIB)
            s << kAddress;
        s << " \"open scanner alias s wait\"";
        if (unit != UNIT_DOT)
            s << " \"set s time format " << (unit == UNIT_MILLIMETER ? "millimeter" : "inch") << " wait\"";
        s << " \"scanmode s resolution " << resolution;
        if (colorStep == 16)
            s << " halftone";
        else
            s << " colorstep " << (1 << colorStep);
        s << " colormode " << (colorMode ? COLORMODE_COLOR : COLORMODE_MONO) << " wait\"";
        s << " \"scanread s rect " << x << " " << y << " " << w << " " << h << " wait\"";
        if (colorStep == 16 && ditherPattern != 16)
            s << "   (dither pattern " << ditherPattern << ", from the mode dialog)";
        if (iface != IF_SCSI && model != 7)
            s << "   (frames of format " << format << ")";
        return s.str();
    }
};

// The levels of each channel of pixel `i` of a line packed as page.h says,
// brighter levels higher (one channel for grey, three otherwise).
std::vector<int> Unpack(const sim::LineFormat &f, const std::vector<uint8_t> &line, long i)
{
    int p, q;
    sim::PackingOf(f, &p, &q);
    const int bits = f.colorStep == 16 ? 1 : f.colorStep;
    if (f.colorMode == 16 && q == 3) {
        const uint8_t *px = &line[static_cast<size_t>(i * 3)];
        return {px[0] >> (8 - bits), px[1] >> (8 - bits), px[2] >> (8 - bits)};
    }
    const int slot = 8 / p;
    const int sample = (line[static_cast<size_t>(i / p)] >> (8 - slot - (i % p) * slot)) & ((1 << slot) - 1);
    if (f.colorMode == 16)
        return {(sample >> 3) & 1, (sample >> 2) & 1, (sample >> 1) & 1};
    if (bits == 1)
        return {f.colorMode == 17 ? sample : 1 - sample}; // grey: 1 is black
    return {sample >> (slot - bits)};
}

class ScanSweepTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        PlatSetModuleSearchPath(TAMRIX_BUILD_DIR "/lib");
    }
    void TearDown() override
    {
        g_dispReleased = 0;
        PlatSetModuleSearchPath(nullptr);
        DriverTest::TearDown();
    }

    // Runs one scan; returns "" or what went wrong.
    std::string Run(const Case &c)
    {
        std::shared_ptr<sim::BlockScanner> block;
        std::shared_ptr<sim::PolledScanner> polled;
        std::shared_ptr<sim::ScsiScanner> scsi;
        std::unique_ptr<sim::SerialLink> link;
        DWORD id = 0;
        if (c.iface == IF_SCSI) {
            scsi = sim::ScsiScanner::Attach(c.model);
        } else if (c.iface == IF_RS232C) {
            block = std::make_shared<sim::BlockScanner>(c.model, c.format);
            link = std::make_unique<sim::SerialLink>(kPort, block);
            id = kPort;
        } else {
            sim::ResetGpibBus();
            if (c.model == 7) {
                polled = std::make_shared<sim::PolledScanner>();
                sim::AttachGpibDevice(kAddress, polled);
            } else {
                block = std::make_shared<sim::BlockScanner>(c.model, c.format);
                sim::AttachGpibDevice(kAddress, sim::MakeGpibByteDevice(block));
            }
            id = kAddress;
        }
        g_settings = DeviceSettings{static_cast<DWORD>(c.model), c.iface, id, 3};
        std::string failure;
        if (DevOpen(id, c.iface) == INVALID_HANDLE_VALUE) {
            failure = "the device did not open";
        } else {
            failure = Scan(c, block.get(), polled.get(), scsi.get());
            g_dispReleased = 0; // so that the display copy goes too
            ImgFreeImages();
            if (!DevClose())
                failure += " the device did not close";
        }
        g_lineStarted = 0;
        if (scsi)
            scsi->Detach();
        if (c.iface == IF_GPIB)
            sim::ResetGpibBus();
        return failure;
    }

    std::string Scan(const Case &c, sim::BlockScanner *block, sim::PolledScanner *polled, sim::ScsiScanner *scsi)
    {
        ImgInitScanParams(static_cast<DWORD>(c.model));
        g_scanParams.resolution = static_cast<SHORT>(c.resolution);
        g_scanParams.colorStep = c.colorStep;
        g_scanParams.colorMode = c.colorMode;
        g_scanParams.ditherPattern = c.ditherPattern;
        g_timeFormat = c.unit;
        if (!ImgCreateInitialImages())
            return "no initial images";
        g_dispReleased = 1; // no display window
        ScanReadParms parms{0, RECT{c.x, c.y, c.w, c.h}};
        DWORD rc = MciDispatchCommand(g_deviceId, MCI_SCANREAD, MCI_WAIT | MCI_SCANREAD_RECT, &parms);
        if (rc == MCIERR_OUTOFRANGE)
            return "refused";
        if (rc != 0)
            return "scanread answered " + std::to_string(rc);

        // Where the scanner's window lay, in pixels at the resolution.
        const int r = c.resolution;
        sim::LineFormat f;
        long top = 0;
        if (block) {
            if (!block->ProtocolErrors().empty())
                return "scanner: " + block->ProtocolErrors()[0];
            f = block->LastWindow().format;
            top = block->LastWindow().top;
        } else if (polled) {
            if (!polled->ProtocolErrors().empty())
                return "scanner: " + polled->ProtocolErrors()[0];
            auto s = polled->CurrentSetup();
            f.model = 7;
            f.resolution = r;
            f.colorStep = c.colorStep;
            f.left = s.left * r / 240;
            top = s.top * r / 240;
        } else {
            if (!scsi->ProtocolErrors().empty())
                return "scanner: " + scsi->ProtocolErrors()[0];
            f = scsi->Window().format;
            top = scsi->Window().top;
        }
        // The window starts at the requested pixel, or left of it and above it
        // by less than one of the wire's units.
        const long slack = (r + WindowUnit(c.model, c.iface, r) - 1) / WindowUnit(c.model, c.iface, r);
        const long areaX = g_scanRectPx.x - g_alignShift, areaY = g_scanRectPx.y;
        std::ostringstream where;
        where << "window at " << f.left << "," << top << " for " << areaX << "," << areaY;
        if (f.left > areaX || areaX - f.left >= slack || top > areaY || areaY - top >= slack)
            return where.str();

        const BITMAPINFOHEADER &h = g_imageInfo->bmiHeader;
        if (h.biWidth != g_scanRectPx.width || h.biHeight != g_scanRectPx.height)
            return "image " + std::to_string(h.biWidth) + " x " + std::to_string(h.biHeight) + " for " +
                   std::to_string(g_scanRectPx.width) + " x " + std::to_string(g_scanRectPx.height);
        tamrix_test::DibRows dib = tamrix_test::ReadDib(g_imageDC, g_imageBitmap, h);

        // Pixels that show the page: the left shift drops some at the end,
        // and an unaligned line repeats its last byte.
        f.colorMode = c.colorMode;
        f.colorStep = c.colorStep;
        f.left += g_alignShift;
        f.width = h.biWidth;
        long width = h.biWidth - g_alignShift;
        if (g_alignFailed) {
            int p, q;
            sim::PackingOf(f, &p, &q);
            width -= p;
        }
        // Each channel's level must map to one value, higher levels to
        // brighter values.
        std::vector<std::map<int, int>> seen(3);
        for (long y = 0; y < h.biHeight; y++) {
            for (int pass = 0; pass < sim::Passes(f); pass++) {
                std::vector<uint8_t> line = sim::PackLine(f, top + y, pass);
                for (long x = 0; x < width; x++) {
                    std::vector<int> levels = Unpack(f, line, x);
                    // The image of a two-level pass paints a group of four
                    // pixels whose bits read 1011 as 0101, by design.
                    if (sim::Passes(f) == 3 && (f.colorStep == 1 || f.colorStep == 16)) {
                        long group = x & ~3L;
                        int bits = 0;
                        for (long k = 0; k < 4; k++)
                            bits = bits << 1 | Unpack(f, line, group + k)[0];
                        if (bits == 0xB)
                            levels[0] = (0x5 >> (3 - (x - group))) & 1;
                    }
                    std::array<int, 3> rgb = dib.Rgb(static_cast<int>(x), static_cast<int>(y));
                    for (int ch = 0; ch < 3; ch++) {
                        // Grey sets every channel; a pass of three sets
                        // green, red, blue in turn.
                        int level = levels.size() == 3 ? levels[ch] : levels[0];
                        if (sim::Passes(f) == 3 && ch != (pass == 0 ? 1 : pass == 1 ? 0 : 2))
                            continue;
                        auto [it, fresh] = seen[ch].emplace(level, rgb[ch]);
                        if (!fresh && it->second != rgb[ch]) {
                            std::ostringstream m;
                            m << where.str() << ": pixel " << x << "," << y << " channel " << ch << " is " << rgb[ch]
                              << ", level " << level << " elsewhere " << it->second;
                            return m.str();
                        }
                    }
                }
            }
        }
        for (auto &levels : seen) {
            int last = -1;
            for (auto [level, value] : levels) {
                if (value <= last)
                    return where.str() + ": level " + std::to_string(level) + " not brighter than the one below";
                last = value;
            }
        }
        return "";
    }
};

TEST_F(ScanSweepTest, EveryRectangleTheDriverAcceptsScansThePage)
{
    std::mt19937 rng(20261123);
    auto pick = [&](long low, long high) { return std::uniform_int_distribution<long>(low, high)(rng); };
    int scans = 0, failures = 0;
    // Scans that once ended in 513: model 6 above 400 dpi on the character
    // interfaces, odd lengths at twice the base on models 2 and 3.
    const Case known[] = {
        {6, IF_RS232C, 1, 600, 1, 0, 16, UNIT_DOT, 3, 7, 603, 100},
        {6, IF_GPIB, 5, 600, 1, 0, 16, UNIT_DOT, 0, 0, 800, 800},
        {2, IF_RS232C, 1, 640, 1, 0, 16, UNIT_DOT, 70, 0, 101, 101},
        {3, IF_GPIB, 5, 400, 1, 0, 16, UNIT_DOT, 0, 0, 100, 101},
    };
    for (const Case &c : known) {
        std::string failure = Run(c);
        scans++;
        if (!failure.empty()) {
            failures++;
            ADD_FAILURE() << failure << "\n  " << c.Mcicmd();
        }
    }
    for (int model = 1; model <= 7; model++) {
        const ModelInfo &m = Info(model);
        for (DWORD iface : m.interfaces) {
            // Modes: every step in monochrome, halftone with each kind of
            // pattern, and the colour modes where the model has colour.
            struct Mode {
                SHORT step, colour, dither;
            };
            std::vector<Mode> modes{{1, 0, 16}, {16, 0, 5}, {16, 0, 16}, {16, 0, 32}};
            if (model != 1 && model != 7)
                for (SHORT s = 2; s <= 8; s++)
                    modes.push_back({s, 0, 16});
            if (m.colour) {
                SHORT colour = model == 3 ? 17 : 16;
                for (SHORT s = 1; s <= 8; s++)
                    modes.push_back({s, colour, 16});
                modes.push_back({16, colour, 3});
            }
            for (const Mode &mode : modes) {
                // Resolutions: the range's ends, twice the base, and one between.
                std::vector<int> resolutions{m.high, m.low};
                if (model == 7) {
                    const int codes[] = {90, 120, 160, 180, 200, 240, 300, 320, 400, 480, 600, 640};
                    resolutions = {640, 480, codes[pick(0, 11)]};
                } else {
                    long base = WindowUnit(model, iface, 100);
                    if (base != 100 && 2 * base <= m.high)
                        resolutions.push_back(static_cast<int>(2 * base));
                    resolutions.push_back(static_cast<int>(pick(m.low, m.high) / m.tens * m.tens));
                }
                for (int r : resolutions) {
                    Case c;
                    c.model = model;
                    c.iface = iface;
                    c.format = pick(0, 1) ? 5 : 1;
                    c.resolution = r;
                    c.colorStep = mode.step;
                    c.colorMode = mode.colour;
                    c.ditherPattern = mode.dither;
                    const DWORD units[] = {UNIT_DOT, UNIT_MILLIMETER, UNIT_INCH};
                    c.unit = units[pick(0, 2)];
                    // A rectangle in 1/1000 inch inside the area, mostly small;
                    // sometimes the smallest size or at the area's right edge.
                    long wIn = pick(1, 4) == 1 ? pick(1, 20) : pick(20, 600);
                    long hIn = pick(1, 4) == 1 ? pick(1, 20) : pick(20, 150);
                    long xIn = pick(1, 5) == 1 ? m.areaWidth - wIn : pick(m.areaLeft, m.areaWidth - wIn);
                    long yIn = pick(0, m.areaHeight - hIn);
                    auto to = [&](long thousandths, bool size) {
                        long v = c.unit == UNIT_DOT    ? thousandths * r / 1000
                                 : c.unit == UNIT_INCH ? thousandths / 10
                                                       : thousandths * 254 / 1000;
                        return size ? std::max(v, 1L) : v;
                    };
                    c.x = to(xIn, false) + (c.unit == UNIT_DOT ? 0 : 1);
                    c.y = to(yIn, false);
                    c.w = to(wIn, true);
                    c.h = to(hIn, true);
                    if (c.unit == UNIT_DOT && pick(0, 3) == 0) {
                        c.w |= 1;
                        c.h |= 1;
                    }
                    std::string failure = Run(c);
                    if (failure == "refused")
                        continue;
                    scans++;
                    if (!failure.empty()) {
                        failures++;
                        ADD_FAILURE() << failure << "\n  " << c.Mcicmd();
                    }
                }
            }
        }
    }
    EXPECT_GT(scans, 300);
    std::printf("%d scans, %d failed\n", scans, failures);
}

} // namespace
