// The block dialect of the driver over a virtual COM port, against the
// virtual block-dialect scanner, on the virtual clock.
#include "support/platform_fixture.h"

#include "block_scanner.h"
#include "serial_link.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace
{

constexpr unsigned kPort = 3;

std::string Esc(const std::string &rest)
{
    return "\x1b" + rest;
}

std::string Window(char axis, int start, int size)
{
    return std::string{'\x1b',
                       axis,
                       static_cast<char>(start >> 8),
                       static_cast<char>(start & 0xFF),
                       static_cast<char>(size >> 8),
                       static_cast<char>(size & 0xFF)};
}

ScanParams Params(int resolution, int x, int y, int width, int length)
{
    ScanParams p{};
    p.resolution = static_cast<SHORT>(resolution);
    p.areaX = static_cast<SHORT>(x);
    p.areaY = static_cast<SHORT>(y);
    p.areaWidth = static_cast<SHORT>(width);
    p.areaLength = static_cast<SHORT>(length);
    p.brightness = p.contrast = p.tint = p.saturation = 5;
    p.ditherPattern = 16;
    p.gamma = 1;
    p.colorStep = 1;
    return p;
}

struct Scan {
    int result = -1;
    std::vector<BYTE> data;
};

class ProtocolTest : public PlatformTest
{
protected:
    void Open(int model, int format = 1)
    {
        UseVirtualClock();
        scanner_ = std::make_shared<sim::BlockScanner>(model, format);
        link_ = std::make_unique<sim::SerialLink>(kPort, scanner_);
        ASSERT_TRUE(link_->attached());
        g_settings = DeviceSettings{static_cast<DWORD>(model), IF_RS232C, kPort, 3};
        ASSERT_NE(PortOpen(kPort, IF_RS232C, 3), INVALID_HANDLE_VALUE);
    }
    void TearDown() override
    {
        PortClose();
        link_.reset();
        g_lineStarted = 0;
        PlatformTest::TearDown();
    }
    // Reads blocks of `capacity` bytes until `total` bytes came or a read
    // answered other than 1.
    Scan Read(ScanParams p, DWORD capacity, size_t total)
    {
        Scan scan;
        std::vector<BYTE> buffer(capacity);
        p.firstBlock = 1;
        do {
            ReadBlock block{buffer.data(), capacity, 0};
            scan.result = ProtReadImage(&p, &block);
            p.firstBlock = 0;
            scan.data.insert(scan.data.end(), buffer.begin(), buffer.begin() + block.count);
        } while (scan.result == 1 && scan.data.size() < total);
        return scan;
    }
    // What the scanner's lines hold, cut to `bytes` each.
    std::vector<BYTE> Expected(long lines, size_t bytes) const
    {
        std::vector<BYTE> all;
        for (long i = 0; i < lines; i++) {
            auto line = scanner_->Line(i);
            all.insert(all.end(), line.begin(), line.begin() + static_cast<long>(bytes));
        }
        return all;
    }
    std::shared_ptr<sim::BlockScanner> scanner_;
    std::unique_ptr<sim::SerialLink> link_;
};

TEST_F(ProtocolTest, OneScanOnTheWireByteForByte)
{
    Open(1);
    DWORD before = GetTickCount();
    ASSERT_TRUE(ProtStart());
    EXPECT_GE(GetTickCount() - before, 9000u);
    EXPECT_EQ(g_lineStarted, 1u);

    Scan scan = Read(Params(200, 32, 0, 800, 1000), 100, 100000);
    EXPECT_EQ(scan.result, 2);
    EXPECT_EQ(g_protDetail, 0u);
    ASSERT_EQ(scan.data.size(), 100000u);
    EXPECT_TRUE(scan.data == Expected(1000, 100));
    EXPECT_TRUE(scanner_->FinalAckSeen());

    std::vector<std::string> expected;
    for (const char *c : {"I",  "@3", "L",  "J1", "T3", "M1", "K2", "K3", "f3", "e3", "C5",       "O1",
                          "U1", "c1", "h5", "S5", "D1", "H1", "m1", "B1", "g5", "s5", "r02000200"})
        expected.push_back(Esc(c));
    expected.push_back(Window('X', 51, 1280));
    expected.push_back(Window('Y', 0, 1600));
    EXPECT_EQ(scanner_->Commands(), expected);
    EXPECT_TRUE(scanner_->ProtocolErrors().empty());

    EXPECT_TRUE(ProtFinish());
    EXPECT_FALSE(ProtFinish());
}

// The mode's commands and the window; each scan is cut short by an abort.
TEST_F(ProtocolTest, ModeAndWindowCommands)
{
    struct Case {
        int model, resolution, x, width, length, colorStep, colorMode, dither;
        std::vector<std::string> present, absent;
    };
    const Case cases[] = {
        {1, 200, 32, 64, 8, 16, 0, 32, {Esc("D4"), Esc("C5"), Esc("B1")}, {Esc("D2"), Esc("D1")}},
        {1, 200, 32, 64, 8, 16, 0, 5, {Esc("D2"), Esc("P5")}, {Esc("D1"), Esc("D4")}},
        {4, 200, 32, 64, 8, 16, 16, 16, {Esc("C1"), Esc("B3"), Esc("D3")}, {Esc("C5")}},
        {3, 200, 0, 64, 8, 16, 17, 16, {Esc("C5"), Esc("B2")}, {Esc("C1")}},
        {2, 200, 32, 64, 8, 4, 0, 16, {Esc("C1"), Esc("D1"), Esc("H4")}, {Esc("C5")}},
        {1, 160, 16, 1200, 4, 1, 0, 16, {Window('X', 32, 2400)}, {}},
        {6, 300, 0, 64, 4, 8, 0, 16, {Esc("F0300"), Window('X', 0, 64)}, {}},
        // 1000 lines at 300 dpi: model 4 counts whole lines and needs one base dot more.
        {4, 300, 32, 64, 1000, 1, 0, 16, {Window('Y', 0, 1067)}, {}},
        {1, 300, 32, 64, 1000, 1, 0, 16, {Window('Y', 0, 1066)}, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("model " + std::to_string(c.model) + " width " + std::to_string(c.width));
        Open(c.model);
        ScanParams p = Params(c.resolution, c.x, 0, c.width, c.length);
        p.colorStep = static_cast<SHORT>(c.colorStep);
        p.colorMode = static_cast<SHORT>(c.colorMode);
        p.ditherPattern = static_cast<SHORT>(c.dither);
        std::vector<BYTE> buffer(4096);
        ReadBlock block{buffer.data(), static_cast<DWORD>(buffer.size()), 0};
        p.firstBlock = 1;
        EXPECT_NE(ProtReadImage(&p, &block), 0);
        EXPECT_TRUE(ProtAbort());
        auto cmds = scanner_->Commands();
        for (const auto &want : c.present)
            EXPECT_NE(std::find(cmds.begin(), cmds.end(), want), cmds.end()) << want.substr(1);
        for (const auto &never : c.absent)
            EXPECT_EQ(std::find(cmds.begin(), cmds.end(), never), cmds.end()) << never.substr(1);
        EXPECT_TRUE(scanner_->ProtocolErrors().empty());
        PortClose();
        link_.reset();
    }
}

TEST_F(ProtocolTest, LeftEdgeBelowTheFirstBaseDotsIsRefused)
{
    Open(1);
    std::vector<BYTE> buffer(64);
    ReadBlock block{buffer.data(), 64, 0};
    ScanParams p = Params(200, 19, 0, 64, 8); // 30 base dots
    p.firstBlock = 1;
    EXPECT_EQ(ProtReadImage(&p, &block), 0);
    EXPECT_EQ(g_protDetail, static_cast<DWORD>(PROT_DETAIL_PARAMS));
    auto cmds = scanner_->Commands();
    EXPECT_EQ(std::find_if(cmds.begin(), cmds.end(), [](const std::string &s) { return s[1] == 'X'; }), cmds.end());

    Scan ok = Read(Params(200, 20, 0, 64, 8), 8, 64); // 32 base dots
    EXPECT_EQ(ok.result, 2);
    EXPECT_EQ(scanner_->LastWindow().acrossStart, 32);
}

// How a scan ends, as the read reports it.
TEST_F(ProtocolTest, ScanOutcomes)
{
    struct Case {
        const char *name;
        sim::BlockScanner::Faults faults;
        int result;
        size_t bytes;
        DWORD detail;
    };
    auto with = [](auto set) {
        sim::BlockScanner::Faults f;
        set(f);
        return f;
    };
    const Case cases[] = {
        {"abnormal end", with([](auto &f) { f.endType = 0x82; }), 0, 80, PROT_DETAIL_ABNORMAL_END},
        {"end nibble 3", with([](auto &f) { f.endType = 0x83; }), 2, 80, 0},
        {"one line early", with([](auto &f) { f.lineDelta = -1; }), 2, 72, 0},
        {"one line extra", with([](auto &f) { f.lineDelta = 1; }), 1, 80, 0},
        {"bad trailer", with([](auto &f) { f.badTrailer = true; }), 0, 0, PROT_DETAIL_VIOLATION},
        {"late replies", with([](auto &f) { f.lateMs = 3000; }), 2, 80, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Open(1);
        scanner_->SetFaults(c.faults);
        Scan scan = Read(Params(200, 32, 0, 64, 10), 8, 80);
        EXPECT_EQ(scan.result, c.result);
        EXPECT_EQ(scan.data.size(), c.bytes);
        EXPECT_EQ(g_protDetail, c.detail);
        if (c.result == 1) {
            EXPECT_TRUE(ProtAbort());
        }
        PortClose();
        link_.reset();
    }
}

// The window's rounding can give more lines than asked; the read drops
// them from every pass whether the scanner flags them or not, keeps a
// flagged line that was asked for, and still refuses a line beyond them.
TEST_F(ProtocolTest, SurplusLinesOfTheWindowAreDroppedFlaggedOrNot)
{
    struct Case {
        const char *name;
        int model, resolution, x, y, length, flagged, delta;
        SHORT colorMode;
        int result;
    };
    // The lines cross the lower edge of the page's frame, so that they differ.
    const Case cases[] = {
        // 640 dpi: a window of 6/320 inch gives 12 lines for 11.
        {"surplus line unflagged", 2, 640, 64, 58, 11, 0, 0, 0, 2},
        {"surplus line flagged", 2, 640, 64, 58, 11, 1, 0, 0, 2},
        // 300 dpi: the partly covered last line is flagged but was asked for.
        {"flagged line asked for", 1, 300, 32, 26, 10, -1, 0, 0, 2},
        // Three passes at 400 dpi, 7 lines: each pass has 8, the last
        // unflagged; the blue bar makes the passes differ.
        {"surplus line in every pass", 3, 400, 480, 36, 7, 0, 0, 17, 2},
        {"a line beyond the surplus", 2, 640, 64, 58, 11, 0, 1, 0, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Open(c.model);
        sim::BlockScanner::Faults f;
        f.flaggedLines = c.flagged;
        f.lineDelta = c.delta;
        scanner_->SetFaults(f);
        ScanParams p = Params(c.resolution, c.x, c.y, 64, c.length);
        p.colorMode = c.colorMode;
        const int passes = c.colorMode == 17 ? 3 : 1;
        Scan scan = Read(p, 8, static_cast<size_t>(c.length * passes) * 8);
        EXPECT_EQ(scan.result, c.result);
        std::vector<BYTE> expected;
        for (int pass = 0; pass < passes; pass++)
            for (long row = 0; row < c.length; row++) {
                auto line = scanner_->Line(pass * scanner_->LastWindow().lines + row);
                expected.insert(expected.end(), line.begin(), line.begin() + 8);
            }
        EXPECT_TRUE(scan.data == expected);
        if (c.result == 1) {
            EXPECT_TRUE(ProtAbort());
        }
        EXPECT_TRUE(scanner_->ProtocolErrors().empty());
        PortClose();
        link_.reset();
    }
}

TEST_F(ProtocolTest, CompressedLinesAndTheirClipping)
{
    // 300 pixels at 160 dpi: 38 bytes a line, read in blocks of 50 that split lines.
    const int overflows[] = {0, 1, 5};
    for (int overflow : overflows) {
        SCOPED_TRACE(overflow);
        Open(1, 5);
        sim::BlockScanner::Faults f;
        f.overflowRun = overflow;
        scanner_->SetFaults(f);
        Scan scan = Read(Params(160, 32, 0, 300, 40), 50, 40 * 38);
        if (overflow == 5) {
            // The clipped last run still passes the line's end.
            EXPECT_EQ(scan.result, 0);
            EXPECT_EQ(g_protDetail, static_cast<DWORD>(PROT_DETAIL_VIOLATION));
        } else {
            EXPECT_EQ(scan.result, 2);
            EXPECT_TRUE(scan.data == Expected(40, 38));
        }
        PortClose();
        link_.reset();
    }
}

TEST_F(ProtocolTest, AbortDrainsToTheEndFrameAndANewScanFollows)
{
    Open(2);
    ASSERT_TRUE(ProtStart());
    sim::BlockScanner::Faults f;
    f.drainFrames = 3;
    scanner_->SetFaults(f);
    std::vector<BYTE> buffer(8);
    ReadBlock block{buffer.data(), 8, 0};
    ScanParams p = Params(200, 32, 0, 64, 100);
    p.firstBlock = 1;
    ASSERT_EQ(ProtReadImage(&p, &block), 1);
    EXPECT_TRUE(ProtAbort());
    EXPECT_EQ(scanner_->Dc4Count(), 1);
    EXPECT_TRUE(scanner_->FinalAckSeen());

    scanner_->SetFaults({});
    Scan again = Read(Params(200, 32, 0, 64, 5), 8, 40);
    EXPECT_EQ(again.result, 2);
    EXPECT_TRUE(again.data == Expected(5, 8));
    EXPECT_TRUE(scanner_->ProtocolErrors().empty());
    EXPECT_TRUE(ProtFinish());
}

TEST_F(ProtocolTest, ReadyCheckBudgetOnTheVirtualClock)
{
    for (int model : {1, 3}) {
        SCOPED_TRACE(model);
        Open(model);
        sim::BlockScanner::Faults silent;
        silent.silent = true;
        scanner_->SetFaults(silent);
        DWORD before = GetTickCount();
        EXPECT_FALSE(ProtWaitReady());
        EXPECT_EQ(scanner_->EnqCount(), model == 3 ? 122 : 152);
        EXPECT_GE(GetTickCount() - before, (model == 3 ? 122u : 152u) * 5000u);
        PortClose();
        link_.reset();
    }

    Open(1);
    sim::BlockScanner::Faults nak;
    nak.enqReply = 0x15;
    scanner_->SetFaults(nak);
    EXPECT_FALSE(ProtWaitReady());
    EXPECT_EQ(scanner_->EnqCount(), 1);
    PortClose();
    link_.reset();

    // Busy for 20 s after the start: the ready check keeps asking past the 9 s pause.
    Open(1);
    scanner_->SetBusyMs(20000);
    DWORD before = GetTickCount();
    EXPECT_TRUE(ProtStart());
    EXPECT_GE(GetTickCount() - before, 20000u);
    EXPECT_GT(scanner_->EnqCount(), 1);
}

} // namespace
