// The polled dialect of model 7 over the real GP-IB transport and the
// substitute board library, against the virtual model-7 scanner.
#include "support/platform_fixture.h"

#include "gpib_bus.h"
#include "polled_scanner.h"

#include "image/image.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;
constexpr DWORD kAddress = 5;
bool g_parametersSent = false; // the driver remembers the last resolution code per process

ScanParams Params(SHORT resolution, SHORT x, SHORT y, SHORT width, SHORT length)
{
    ScanParams p{};
    p.resolution = resolution;
    p.areaX = x;
    p.areaY = y;
    p.areaWidth = width;
    p.areaLength = length;
    p.brightness = 5;
    p.contrast = 5;
    p.ditherPattern = 16;
    p.gamma = 1;
    p.colorStep = 1;
    return p;
}

class PolledTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        sim::ResetGpibBus();
        PlatSetModuleSearchPath(TAMRIX_BUILD_DIR "/lib");
        sim::AttachGpibDevice(kAddress, scanner);
        saved = g_settings;
        g_settings.model = 7;
        g_settings.interfaceType = IF_GPIB;
        ASSERT_NE(PortOpen(kAddress, IF_GPIB, 0), INVALID_HANDLE_VALUE);
    }
    void TearDown() override
    {
        ProtFinish();
        EXPECT_TRUE(PortClose());
        g_settings = saved;
        sim::ResetGpibBus();
        PlatSetModuleSearchPath(nullptr);
        PlatformTest::TearDown();
    }
    bool Start() { return ProtStart(); }
    // Parameters (after their ready check) and the messages they made.
    std::vector<std::string> SendParams(const ScanParams &p, BOOL *ok)
    {
        size_t before = scanner->Commands().size();
        g_parametersSent = true;
        *ok = PollWaitReady() && PollSendScanParams(&p);
        auto all = scanner->Commands();
        return std::vector<std::string>(all.begin() + static_cast<long>(before) + 1, all.end());
    }
    std::shared_ptr<sim::PolledScanner> scanner = std::make_shared<sim::PolledScanner>();
    DeviceSettings saved{};
};

std::string Cmd(char letter, char arg)
{
    return std::string{'\x1b', letter, arg};
}

// "D7 H1" -> {Cmd('D', '7'), Cmd('H', '1')}.
std::vector<std::string> Cmds(const std::string &pairs)
{
    std::vector<std::string> out;
    for (size_t i = 0; i + 1 < pairs.size(); i += 3)
        out.push_back(Cmd(pairs[i], pairs[i + 1]));
    return out;
}

TEST_F(PolledTest, ParametersBecomeTheScannersCommands)
{
    ASSERT_TRUE(Start());
    BOOL ok = FALSE;
    ScanParams p = Params(300, 300, 30, 600, 90);
    p.contrast = 0;
    p.brightness = 7;
    p.edgeEnhance = 1;
    p.gamma = 3;
    auto sent = SendParams(p, &ok);
    EXPECT_TRUE(ok);
    std::vector<std::string> want = Cmds("D7 H1");
    want.push_back(std::string("\x1bP\0", 3));
    for (const std::string &c : Cmds("h7 U1 O0 N0 m3 M1"))
        want.push_back(c);
    want.push_back(std::string("\x1bX\0\0\xF0\0\x01\xE0", 8));
    want.push_back(std::string("\x1bY\0\0\x18\0\0\x48", 8));
    for (const std::string &c : Cmds("K3 K4 K1 J1"))
        want.push_back(c);
    EXPECT_EQ(sent, want);

    // Contrast codes, halftone patterns, and a resolution without a code.
    struct Row {
        SHORT resolution, contrast, step, pattern;
        std::vector<std::string> head; // the messages before "\eh"
    };
    const Row rows[] = {
        {100, 9, 16, 3, Cmds("D7 H7 L3 P6")},
        {640, 1, 8, 16, Cmds("DC P1")},
        {90, 3, 16, 32, Cmds("D1 H9 P2")},
        {200, 6, 16, 16, Cmds("D5 H8 P4")},
    };
    for (const Row &row : rows) {
        p = Params(row.resolution, 0, 0, 100, 100);
        p.contrast = row.contrast;
        p.colorStep = row.step;
        p.ditherPattern = row.pattern;
        sent = SendParams(p, &ok);
        EXPECT_TRUE(ok);
        sent.resize(row.head.size());
        EXPECT_EQ(sent, row.head) << "resolution " << row.resolution;
    }
    EXPECT_TRUE(scanner->ProtocolErrors().empty()) << scanner->ProtocolErrors().front();
}

TEST_F(PolledTest, FirstResolutionWithoutCodeSendsZeroByte)
{
    if (g_parametersSent)
        GTEST_SKIP() << "needs a process of its own, as ctest runs it";
    ASSERT_TRUE(Start());
    BOOL ok = FALSE;
    auto sent = SendParams(Params(100, 0, 0, 100, 100), &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(sent.at(0), std::string("\x1b"
                                      "D\0",
                                      3));
}

// (The pixels of whole scans are checked by the sweep.)
TEST_F(PolledTest, WholeImageArrivesBlockByBlockAndTotalsTheGeometry)
{
    // 90 dpi gives a line of whole width units; at 600 dpi the scanner pads
    // its 13-byte lines to the 15 bytes a width value can express.
    for (ScanParams p : {Params(90, 20, 40, 101, 37), Params(600, 100, 300, 101, 21)}) {
        ASSERT_TRUE(Start());
        DWORD raw = 0, stride = 0, width = 0, lines = 0;
        DWORD total = ImgComputeGeometry(&p, &raw, &stride, &width, &lines);
        sim::ClearGpibCalls();
        p.firstBlock = 1; // the block protocol sends the parameters and hands over

        Bytes block(raw);
        std::vector<int> results;
        DWORD got = 0;
        while (got < total && results.size() <= lines) {
            ReadBlock rb{block.data(), raw, 0};
            results.push_back(ProtReadImage(&p, &rb));
            p.firstBlock = 0;
            got += rb.count;
        }
        std::vector<int> want(lines, 1);
        want.back() = 2;
        EXPECT_EQ(results, want) << p.resolution << " dpi";
        EXPECT_EQ(got, total);

        EXPECT_EQ(scanner->Commands().back(), Cmd('K', '0'));
        std::vector<long> timeouts;
        for (const auto &call : sim::GpibCallsOf("SetGpibTimeout"))
            timeouts.push_back(call.args.back());
        EXPECT_EQ(timeouts, (std::vector<long>{600, 100, 100, 10}));
        EXPECT_TRUE(scanner->ProtocolErrors().empty()) << scanner->ProtocolErrors().front();
    }
}

TEST_F(PolledTest, PendingRequestMakesTheReadyCheckFailOnce)
{
    ASSERT_TRUE(Start());
    scanner->RaiseServiceRequest();
    EXPECT_FALSE(PollWaitReady());
    EXPECT_TRUE(PollWaitReady());
    BYTE info[24];
    scanner->RaiseServiceRequest();
    EXPECT_FALSE(PollReadInfo(info));
    EXPECT_TRUE(scanner->ProtocolErrors().empty()) << scanner->ProtocolErrors().front();
}

TEST_F(PolledTest, ScannerFaultsAndFailedTransfersGiveZero)
{
    // A scanner that is still warming up when the ready check comes.
    scanner->SetWarmUpMs(12000);
    EXPECT_FALSE(Start());
    scanner->SetWarmUpMs(sim::PolledScanner::kDefaultWarmUpMs);

    ASSERT_TRUE(Start());
    // The scanner records what it cannot take: a short window, an unknown
    // command, a resolution code it lacks, a pattern without halftone.
    for (const std::string &bad : {std::string("\x1bX\0\0", 4), std::string("\x1bZ1"),
                                   std::string("\x1b"
                                               "D0"),
                                   std::string("\x1bL3")})
        ASSERT_TRUE(GpWrite(bad.data(), static_cast<DWORD>(bad.size())));
    EXPECT_EQ(scanner->ProtocolErrors().size(), 4u);

    scanner->WrongStatusReply("\x1bQ4");
    EXPECT_FALSE(PollCheckStatus());
    for (uint8_t flip : {0, +sim::PolledScanner::kStatusIdle}) {
        ASSERT_TRUE(GpWrite("\x1bQ2", 3));
        scanner->FlipStatusBits(flip);
        EXPECT_EQ(PollSerialPoll(), flip ? 0 : 1);
    }
    EXPECT_TRUE(PollCheckStatus());

    // Not idle after the device clear of the start.
    scanner->FlipStatusBits(sim::PolledScanner::kStatusData);
    EXPECT_FALSE(PollStart());

    ScanParams p = Params(200, 0, 0, 64, 5);
    ASSERT_TRUE(Start());
    sim::FailGpibProcedure("WriteGpib", 12);
    BOOL ok = TRUE;
    SendParams(p, &ok);
    EXPECT_FALSE(ok);

    // Bit 4 still set after "\eR1": the first read fails before any data.
    Bytes block(8);
    ReadBlock rb{block.data(), 8, 0};
    ASSERT_TRUE(Start());
    SendParams(p, &ok);
    ASSERT_TRUE(ok);
    scanner->FlipStatusBits(sim::PolledScanner::kStatusIdle, 3); // status, information, reading
    EXPECT_EQ(PollReadImage(&p, &rb), 0);
    EXPECT_EQ(scanner->Commands().back(), Cmd('R', '1'));

    // An image that ends early fails its last read.
    ASSERT_TRUE(Start());
    SendParams(p, &ok);
    scanner->ShortenImage(3);
    std::vector<int> results;
    for (int i = 0; i < 5; ++i) {
        rb.count = 0;
        results.push_back(PollReadImage(&p, &rb));
    }
    EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 0}));
}

} // namespace
