// The port layer on RS-232C against a virtual COM port with a scripted
// scanner on the far end (open, timed reads, writes), and the virtual COM
// port's own contract where the port layer does not reach it.
#include "support/platform_fixture.h"

#include "serial_link.h"
#include "support/scripted_device.h"
#include "transport/transport.h"

#include <tamrix/serial_port.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr unsigned kPort = 2;

using ScriptedScanner = tamrix_test::ScriptedDevice;

std::vector<uint8_t> Bytes(size_t n, uint8_t first = 0)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(first + i);
    return v;
}

class PortTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        savedModule_ = g_hModule;
        g_hModule = GetModuleHandleW(nullptr);
        g_lineOpen = 0;
        g_lineInterface = 0;
        g_lineHandle = INVALID_HANDLE_VALUE;
        g_lastBaudRate = 0;
        scanner_ = std::make_shared<ScriptedScanner>();
        link_ = std::make_unique<sim::SerialLink>(kPort, scanner_);
        ASSERT_TRUE(link_->attached());
    }
    void TearDown() override
    {
        if (g_lineOpen)
            PortClose();
        if (raw_ != INVALID_HANDLE_VALUE)
            CloseHandle(raw_);
        link_.reset();
        g_hModule = savedModule_;
        PlatformTest::TearDown();
    }
    void Open(DWORD baudIndex = 2) { ASSERT_NE(PortOpen(kPort, IF_RS232C, baudIndex), INVALID_HANDLE_VALUE); }
    static HANDLE OpenCom()
    {
        return CreateFileW(TEXT("COM2"), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    void SetTimeouts(DWORD interval, DWORD multiplier, DWORD constant)
    {
        COMMTIMEOUTS t{interval, multiplier, constant, 0, 0};
        ASSERT_TRUE(SetCommTimeouts(raw_, &t));
    }

    std::shared_ptr<ScriptedScanner> scanner_;
    std::unique_ptr<sim::SerialLink> link_;
    HINSTANCE savedModule_ = nullptr;
    HANDLE raw_ = INVALID_HANDLE_VALUE; // the COM port opened without the port layer
};

// ---- Open --------------------------------------------------------------

TEST_F(PortTest, OpenSetsTheLineUpForTheScannerAndKeepsItAgainstASecondOpen)
{
    // Settings the driver does not own must survive its open.
    HANDLE raw = OpenCom();
    ASSERT_NE(raw, INVALID_HANDLE_VALUE);
    DCB before{};
    ASSERT_TRUE(GetCommState(raw, &before));
    before.fDsrSensitivity = 1;
    before.fTXContinueOnXoff = 0;
    before.fParity = 1;
    before.XonLim = 77;
    before.StopBits = TWOSTOPBITS;
    ASSERT_TRUE(SetCommState(raw, &before));
    ASSERT_TRUE(CloseHandle(raw));
    scanner_->Offer({0x15, 0x15}); // stale bytes from before the open

    EXPECT_EQ(PortOpen(1, IF_RS232C, 2), INVALID_HANDLE_VALUE) << "COM1 has no scanner";
    HANDLE line = PortOpen(kPort, IF_RS232C, 2);
    ASSERT_NE(line, INVALID_HANDLE_VALUE);
    EXPECT_EQ(g_lineHandle, line);
    EXPECT_EQ(g_lineInterface, IF_RS232C);
    EXPECT_EQ(g_lineOpen, 1);

    DCB dcb{};
    COMMTIMEOUTS t{};
    ASSERT_TRUE(tamrix::GetSerialPortSettings(kPort, &dcb, &t));
    EXPECT_EQ(dcb.DCBlength, 28u);
    EXPECT_EQ(dcb.BaudRate, 9600u);
    EXPECT_EQ((std::vector<DWORD>{dcb.fBinary, dcb.fParity, dcb.fOutxCtsFlow, dcb.fOutxDsrFlow, dcb.fDtrControl,
                                  dcb.fOutX, dcb.fInX, dcb.fErrorChar, dcb.fNull, dcb.fRtsControl, dcb.fAbortOnError}),
              (std::vector<DWORD>{1, 0, 1, 1, DTR_CONTROL_HANDSHAKE, 0, 0, 0, 0, RTS_CONTROL_HANDSHAKE, 1}));
    EXPECT_EQ((std::vector<int>{dcb.ByteSize, dcb.Parity, dcb.StopBits}), (std::vector<int>{8, NOPARITY, ONESTOPBIT}));
    EXPECT_EQ((std::vector<DWORD>{dcb.fDsrSensitivity, dcb.fTXContinueOnXoff, dcb.XonLim}),
              (std::vector<DWORD>{1, 0, 77}));
    EXPECT_EQ((std::vector<DWORD>{t.ReadIntervalTimeout, t.ReadTotalTimeoutMultiplier, t.ReadTotalTimeoutConstant,
                                  t.WriteTotalTimeoutMultiplier, t.WriteTotalTimeoutConstant}),
              (std::vector<DWORD>{MAXDWORD, 56, 10, 500, 1}));
    EXPECT_GE(scanner_->clears, 1) << "the open purges the line";
    EXPECT_EQ(scanner_->Pending(), 0u);

    EXPECT_EQ(PortOpen(kPort, IF_RS232C, 3), INVALID_HANDLE_VALUE);
    EXPECT_EQ(g_lineHandle, line);
    ASSERT_TRUE(tamrix::GetSerialPortSettings(kPort, &dcb, nullptr));
    EXPECT_EQ(dcb.BaudRate, 9600u);
    EXPECT_TRUE(PortWrite("\x05", 1));
    EXPECT_EQ(scanner_->received(), "\x05");

    EXPECT_TRUE(PortClose());
    EXPECT_FALSE(tamrix::IsSerialPortOpen(kPort));
    EXPECT_EQ((std::vector<int>{g_lineOpen, g_lineInterface}), (std::vector<int>{0, 0}));
    EXPECT_EQ(g_lineHandle, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(PortClose()) << "nothing open";
}

TEST_F(PortTest, LineSpeedFollowsTheBaudIndexAndAnUnknownIndexKeepsTheLastSpeed)
{
    const std::pair<DWORD, DWORD> opens[] = {{3, 19200}, {7, 19200}, {1, 4800}, {0, 4800}, {2, 9600}};
    for (auto [index, speed] : opens) {
        Open(index);
        DCB dcb{};
        ASSERT_TRUE(tamrix::GetSerialPortSettings(kPort, &dcb, nullptr));
        EXPECT_EQ(dcb.BaudRate, speed) << "index " << index;
        EXPECT_EQ(g_lastBaudRate, speed);
        ASSERT_TRUE(PortClose());
    }
}

TEST_F(PortTest, EveryFailedStepOfOpenLeavesThePortFree)
{
    for (const char *api :
         {"LoadStringA", "CreateFileA", "SetCommTimeouts", "GetCommState", "SetCommState", "PurgeComm"}) {
        long files = PlatLiveCount(PLAT_KIND_FILE);
        PlatFailCall(api, 1, 0);
        EXPECT_EQ(PortOpen(kPort, IF_RS232C, 2), INVALID_HANDLE_VALUE) << api;
        EXPECT_EQ(g_lineOpen, 0) << api;
        EXPECT_FALSE(tamrix::IsSerialPortOpen(kPort)) << api;
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_FILE), files) << api;
        PlatClearFaults();
    }
    Open();
}

// ---- Read --------------------------------------------------------------

TEST_F(PortTest, ReadGathersEveryByteAndALineErrorFailsIt)
{
    Open();
    std::vector<uint8_t> info = Bytes(38, 0x40);
    scanner_->Offer(info);
    std::vector<uint8_t> got(38);
    EXPECT_EQ(PortRead(got.data(), 38, 15000), 38);
    EXPECT_EQ(got, info);
    EXPECT_EQ(PortRead(got.data(), 0, 15000), 0);

    scanner_->Offer(Bytes(4));
    tamrix::RaiseSerialLineErrors(kPort, CE_FRAME);
    EXPECT_EQ(PortRead(got.data(), 4, 5000), -1);
    EXPECT_TRUE(PortClearAndPurge());
    scanner_->Offer({0x06});
    EXPECT_EQ(PortRead(got.data(), 1, 5000), 1) << "the error was cleared";
    EXPECT_EQ(got[0], 0x06);
}

TEST_F(PortTest, TimeOutAllowsEmptyReadsByTheBytesStillMissing)
{
    Open();
    std::vector<uint8_t> got(38);
    // 15000 / (38 * 56 + 10) = 7 empty reads allowed; the eighth gives up.
    PlatClearFaults();
    EXPECT_EQ(PortRead(got.data(), 38, 15000), 0);
    EXPECT_EQ(PlatCallCount("ReadFile"), 8u);

    // Ten bytes come during the seventh read: with 28 missing, 15000 / 1578
    // = 9 empty reads are allowed, so three more are tried after the seventh
    // empty one before the time-out.
    const DWORD emptyRead = 38 * 56 + 10;
    scanner_->Offer(Bytes(10), GetTickCount() + 6 * emptyRead + emptyRead / 2);
    PlatClearFaults();
    EXPECT_EQ(PortRead(got.data(), 38, 15000), 0);
    EXPECT_EQ(PlatCallCount("ReadFile"), 6u + 1u + 4u);
    EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.begin() + 10), Bytes(10));

    // The rest arriving in time completes the read: after 20 bytes the
    // allowance for the last 18 (14 empty reads) outlasts the first one (7).
    scanner_->Offer(Bytes(20), GetTickCount() + 3 * emptyRead);
    scanner_->Offer(Bytes(18, 20), GetTickCount() + 7 * emptyRead);
    EXPECT_EQ(PortRead(got.data(), 38, 15000), 38);
    EXPECT_EQ(got, Bytes(38));
}

// ---- Write -------------------------------------------------------------

TEST_F(PortTest, WritesReachTheScannerAndAShortWritePurges)
{
    Open();
    EXPECT_TRUE(PortWriteFormat("\x1b"
                                "D%d,%u",
                                -300, 42u));
    EXPECT_TRUE(PortWrite("\x05", 1));
    EXPECT_EQ(scanner_->received(), "\x1b"
                                    "D-300,42\x05");

    scanner_->Offer({1, 2, 3});
    int clears = scanner_->clears;
    tamrix::LimitSerialWrites(kPort, 3);
    EXPECT_FALSE(PortWrite("\x1b"
                           "C12345",
                           7));
    EXPECT_EQ(scanner_->clears, clears + 1);
    EXPECT_EQ(scanner_->Pending(), 0u);

    // A line without an interface moves nothing and reports success.
    tamrix::LimitSerialWrites(kPort, MAXDWORD);
    g_lineInterface = 0;
    uint8_t got[3] = {9, 9, 9};
    scanner_->Offer({1, 2, 3});
    EXPECT_TRUE(PortWrite("X", 1));
    EXPECT_EQ(PortRead(got, 3, 1000), 3);
    EXPECT_EQ(got[0], 9);
    EXPECT_EQ(scanner_->Pending(), 3u);
    g_lineInterface = IF_RS232C;
}

// ---- The COM port itself ------------------------------------------------

TEST_F(PortTest, PortExistsWhileAttachedAndOpensOnceAtATime)
{
    EXPECT_FALSE(sim::AttachSerial(kPort, std::make_shared<ScriptedScanner>())) << "taken";
    raw_ = OpenCom();
    ASSERT_NE(raw_, INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenCom(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    ASSERT_TRUE(CloseHandle(raw_));
    raw_ = OpenCom();
    ASSERT_NE(raw_, INVALID_HANDLE_VALUE) << "free again after the close";
    ASSERT_TRUE(CloseHandle(raw_));
    raw_ = INVALID_HANDLE_VALUE;

    link_.reset();
    EXPECT_EQ(OpenCom(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
}

TEST_F(PortTest, SetCommStateRefusesImpossibleSettingsAndKeepsTheOldOnes)
{
    raw_ = OpenCom();
    DCB dcb{}, now{};
    ASSERT_TRUE(GetCommState(raw_, &dcb));
    for (auto [baud, bits] : {std::pair<DWORD, BYTE>{0, 8}, {4800, 4}, {4800, 9}}) {
        DCB bad = dcb;
        bad.BaudRate = baud;
        bad.ByteSize = bits;
        EXPECT_FALSE(SetCommState(raw_, &bad));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
        ASSERT_TRUE(GetCommState(raw_, &now));
        EXPECT_EQ(std::make_pair(now.BaudRate, now.ByteSize), std::make_pair(dcb.BaudRate, dcb.ByteSize));
    }
}

TEST_F(PortTest, LineErrorsAreReportedOnceAndStopTransfersWhenAbortingOnErrors)
{
    raw_ = OpenCom();
    ASSERT_NE(raw_, INVALID_HANDLE_VALUE);
    SetTimeouts(MAXDWORD, 0, 0);
    DCB dcb{};
    ASSERT_TRUE(GetCommState(raw_, &dcb));
    uint8_t buf[3];
    DWORD got = 0;
    for (DWORD abort : {0u, 1u}) {
        dcb.fAbortOnError = abort;
        ASSERT_TRUE(SetCommState(raw_, &dcb));
        scanner_->Announce({7, 8, 9});
        tamrix::RaiseSerialLineErrors(kPort, CE_FRAME | CE_OVERRUN);
        EXPECT_EQ(ReadFile(raw_, buf, 1, &got, nullptr), abort ? FALSE : TRUE);
        EXPECT_EQ(WriteFile(raw_, "x", 1, &got, nullptr), abort ? FALSE : TRUE);
        if (abort) {
            EXPECT_EQ(GetLastError(), DWORD(ERROR_OPERATION_ABORTED));
        }

        DWORD errors = 0;
        COMSTAT stat{};
        ASSERT_TRUE(ClearCommError(raw_, &errors, &stat));
        EXPECT_EQ(errors, CE_FRAME | CE_OVERRUN);
        EXPECT_EQ(stat.cbInQue, abort ? 3u : 2u);
        ASSERT_TRUE(ClearCommError(raw_, &errors, &stat));
        EXPECT_EQ(errors, 0u);
        EXPECT_TRUE(ReadFile(raw_, buf, 3, &got, nullptr));
        EXPECT_EQ(got, abort ? 3u : 2u);
    }
}

} // namespace
