// SCSI transport through the platform's DeviceIoControl and the virtual
// scanner device "\\.\SCNR0": open, start with sense conditions, the mode
// and window bytes, the not-ready and no-data retries, early and late ends,
// and abort (whole scans are in the sweep).
#include "support/platform_fixture.h"

#include "image/image.h"
#include "transport/transport.h"

#include "scsi_scanner.h"

#include <algorithm>
#include <vector>

namespace
{

const DWORD kRead = 0; // what the scanner records for a ReadFile

class ScsiTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        savedSettings_ = g_settings;
        savedParams_ = g_scanParams;
        Attach(2);
    }
    void TearDown() override
    {
        if (g_scsiOpen)
            ScsiClose();
        g_scsiStarted = 0;
        scanner_.reset();
        g_settings = savedSettings_;
        g_scanParams = savedParams_;
        PlatformTest::TearDown();
    }
    void Attach(int model)
    {
        scanner_.reset();
        scanner_ = sim::ScsiScanner::Attach(model);
        g_settings.model = static_cast<DWORD>(model);
        g_settings.interfaceType = IF_SCSI;
        ImgInitScanParams(static_cast<DWORD>(model));
    }
    void OpenAndStart()
    {
        ASSERT_NE(ScsiOpen(), INVALID_HANDLE_VALUE);
        ASSERT_EQ(ScsiStart(), TRUE);
    }
    // Reads blocks of the geometry's line size until the transport says
    // "last" or fails; returns the final result and the bytes in `image`.
    int ReadAll(ScanParams params, std::vector<uint8_t> *image)
    {
        DWORD raw, stride, width, lines;
        ImgComputeGeometry(&params, &raw, &stride, &width, &lines);
        std::vector<uint8_t> line(raw);
        params.firstBlock = 1;
        int result, n = 0;
        do {
            ReadBlock block{line.data(), raw, 0};
            result = ScsiReadImage(&params, &block);
            params.firstBlock = 0;
            image->insert(image->end(), line.begin(), line.begin() + block.count);
            ++n;
        } while (result == 1 && n < 100000);
        return result;
    }
    std::shared_ptr<sim::ScsiScanner> scanner_;

private:
    DeviceSettings savedSettings_{};
    ScanParams savedParams_{};
};

TEST_F(ScsiTest, PlatformDeviceIoControlAndExclusiveOpen)
{
    DWORD returned = 7;
    EXPECT_FALSE(DeviceIoControl(nullptr, IOCTL_SCNR_TEST_UNIT_READY, nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(returned, 0u);

    tamrix_test::TempDir dir;
    std::string path = dir / "plain.bin";
    HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(DeviceIoControl(file, IOCTL_SCNR_TEST_UNIT_READY, nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
    CloseHandle(file);

    HANDLE first = CreateFileA("\\\\.\\SCNR0", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    HANDLE second = CreateFileA("\\\\.\\scnr0", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(second, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(scanner_->Opens(), 1);

    // Wrong buffer sizes are refused and recorded; the right ones pass.
    BYTE sense[19] = {};
    EXPECT_FALSE(DeviceIoControl(first, IOCTL_SCNR_REQUEST_SENSE, nullptr, 0, sense, 19, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(scanner_->ProtocolErrors().size(), 1u);
    EXPECT_TRUE(DeviceIoControl(first, IOCTL_SCNR_REQUEST_SENSE, nullptr, 0, sense, 18, &returned, nullptr));
    EXPECT_EQ(returned, 18u);
    EXPECT_EQ(sense[1] & 0x0F, 6) << "power-on condition";
    DWORD dummy = 0;
    EXPECT_FALSE(WriteFile(first, "x", 1, &dummy, nullptr));

    CloseHandle(first);
    EXPECT_FALSE(scanner_->IsOpen());
    HANDLE again = CreateFileA("\\\\.\\SCNR0", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(again, INVALID_HANDLE_VALUE);
    CloseHandle(again);
}

TEST_F(ScsiTest, OpenCloseAndStartConditions)
{
    PlatFailCall("DeviceIoControl", 1, ERROR_IO_DEVICE);
    EXPECT_EQ(ScsiOpen(), INVALID_HANDLE_VALUE) << "SET TIMEOUT failed";
    EXPECT_FALSE(scanner_->IsOpen());
    EXPECT_EQ(g_scsiOpen, 0u);

    HANDLE h = ScsiOpen();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(scanner_->CommandTimeout(), 60u);
    size_t sent = scanner_->Requests().size();
    unsigned creates = PlatCallCount("CreateFileA");
    EXPECT_EQ(ScsiOpen(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(PlatCallCount("CreateFileA"), creates) << "a second open tries the device";
    EXPECT_EQ(scanner_->Requests().size(), sent);

    // The first sense may report anything but 4 (power-on 6 here), the
    // second must be clean; only then comes TEST UNIT READY.
    EXPECT_EQ(ScsiStart(), TRUE);
    EXPECT_EQ(ScsiFinish(), TRUE);
    EXPECT_EQ(ScsiFinish(), FALSE);
    struct Case {
        std::vector<int> queued;
        BOOL started;
    } cases[] = {{{4}, FALSE}, {{6, 0}, TRUE}, {{0, 2}, FALSE}, {{11, 0}, TRUE}};
    for (const Case &c : cases) {
        for (int q : c.queued)
            scanner_->QueueSense(q);
        EXPECT_EQ(ScsiStart(), c.started) << c.queued[0];
        EXPECT_EQ(g_scsiStarted, static_cast<DWORD>(c.started));
        EXPECT_EQ(scanner_->Codes().back() == IOCTL_SCNR_TEST_UNIT_READY, c.started == TRUE);
        ScsiFinish();
    }
    EXPECT_EQ(ScsiClose(), TRUE);
    EXPECT_EQ(ScsiClose(), FALSE);
    EXPECT_EQ(g_scsiHandle, INVALID_HANDLE_VALUE);
}

TEST_F(ScsiTest, ModeAndWindowBytesReachTheScannerAsTheScan)
{
    struct Case {
        SHORT resolution, brightness, colorStep, colorMode, dither;
        BYTE level, composition, bits, halftone, flag0;
    } cases[] = {
        {400, 0, 1, 0, 16, 1, 0, 1, 1, 0},      {90, 5, 16, 0, 5, 128, 1, 1, 5, 0},
        {300, 9, 3, 0, 32, 192, 2, 3, 0x21, 0}, {200, 1, 1, 17, 16, 64, 3, 1, 1, 1},
        {200, 5, 1, 16, 16, 128, 3, 1, 1, 0},   {100, 5, 16, 16, 32, 128, 4, 1, 0x21, 0},
        {150, 5, 8, 16, 16, 128, 5, 8, 1, 0},
    };
    OpenAndStart();
    for (const Case &c : cases) {
        ScanParams p = g_scanParams;
        p.resolution = c.resolution;
        p.brightness = p.tint = c.brightness;
        p.colorStep = c.colorStep;
        p.colorMode = c.colorMode;
        p.ditherPattern = c.dither;
        p.areaX = 12, p.areaY = 34, p.areaWidth = 56, p.areaLength = 3;
        p.orProcessing = 1, p.noiseReduction = 1, p.edgeEnhance = 0, p.gamma = 4;
        std::vector<uint8_t> image;
        EXPECT_EQ(ReadAll(p, &image), 2);

        std::vector<sim::ScsiScanner::Request> requests = scanner_->Requests();
        std::vector<uint8_t> mode, window;
        for (const auto &r : requests) {
            if (r.code == IOCTL_SCNR_MODE_SELECT)
                mode = r.input;
            if (r.code == IOCTL_SCNR_SET_WINDOW)
                window = r.input;
        }
        ASSERT_EQ(mode.size(), 12u);
        ASSERT_EQ(window.size(), 56u);
        BYTE hi = static_cast<BYTE>(c.resolution >> 8), lo = static_cast<BYTE>(c.resolution);
        EXPECT_EQ(mode[8], hi);
        EXPECT_EQ(mode[9], lo);
        EXPECT_EQ(std::vector<uint8_t>(window.begin() + 10, window.begin() + 14),
                  (std::vector<uint8_t>{hi, lo, hi, lo}));
        EXPECT_EQ(window[30], c.level);
        EXPECT_EQ(window[52], c.level);
        EXPECT_EQ(window[33], c.composition);
        EXPECT_EQ(window[34], c.bits);
        EXPECT_EQ(window[36], c.halftone);
        EXPECT_EQ(window[49], 0x80 | 0x20 | 0x08 | c.flag0);
        EXPECT_EQ(window[51], 4);

        // The scanner reads the same scan back.
        sim::ScsiWindow w = scanner_->Window();
        EXPECT_EQ(scanner_->MeasurementDivisor(), c.resolution);
        EXPECT_EQ(w.left, 12);
        EXPECT_EQ(w.top, 34);
        EXPECT_EQ(w.width, 56);
        EXPECT_EQ(w.length, 3);
        EXPECT_EQ(w.format.colorStep, c.colorStep);
        EXPECT_EQ(w.format.colorMode, c.colorMode);
        EXPECT_TRUE(scanner_->ProtocolErrors().empty()) << scanner_->ProtocolErrors()[0];
    }
    std::vector<DWORD> codes = scanner_->Codes();
    EXPECT_EQ(std::count(codes.begin(), codes.end(), static_cast<DWORD>(IOCTL_SCNR_SCAN)), 0) << "only model 6 is told";
}

TEST_F(ScsiTest, NotReadyAndMissingDataAreRetriedWithinTheirBudgets)
{
    OpenAndStart();
    scanner_->NotReadyFor(5);
    EXPECT_EQ(ScsiTestUnitReady(), TRUE);

    DWORD t0 = GetTickCount();
    scanner_->NotReadyForMs(10000);
    EXPECT_EQ(ScsiTestUnitReady(), FALSE);
    DWORD spent = GetTickCount() - t0;
    EXPECT_GE(spent, 4000u);
    EXPECT_LT(spent, 5000u);

    // A device busy for 30 s delays the buffer status but the block arrives;
    // data that start after 20 s still come.
    ScanParams p = g_scanParams;
    p.areaWidth = 40, p.areaLength = 3;
    PlatAdvanceClock(10000);
    scanner_->NoDataForMs(20000);
    std::vector<uint8_t> image;
    std::vector<uint8_t> line(5);
    p.firstBlock = 1;
    ReadBlock block{line.data(), 5, 0};
    EXPECT_EQ(ScsiReadImage(&p, &block), 1);
    EXPECT_EQ(block.count, 5u);
    scanner_->NotReadyForMs(30000);
    p.firstBlock = 0;
    block.count = 0;
    EXPECT_EQ(ScsiReadImage(&p, &block), 1) << "status retried for 60 s";

    // A single failed empty read is read again; silence beyond 60 s fails.
    scanner_->FailRequest(kRead, 1, ERROR_IO_DEVICE);
    EXPECT_EQ(ScsiReadImage(&p, &block), 2);
    t0 = GetTickCount();
    p.firstBlock = 1;
    scanner_->NoDataForMs(70000);
    block.count = 99;
    EXPECT_EQ(ScsiReadImage(&p, &block), 0);
    EXPECT_EQ(block.count, 0u);
    EXPECT_GE(GetTickCount() - t0, 60000u);
}

TEST_F(ScsiTest, EarlyEndExtraDataAndAbort)
{
    OpenAndStart();
    ScanParams p = g_scanParams;
    p.areaWidth = 64, p.areaLength = 4;
    std::vector<uint8_t> image;

    scanner_->SetLineDelta(-1);
    EXPECT_EQ(ReadAll(p, &image), 2);
    EXPECT_EQ(image.size(), 3u * 8);

    // One line too many: the block that completes the image says "more".
    scanner_->SetLineDelta(1);
    std::vector<uint8_t> line(8);
    p.firstBlock = 1;
    int results[4];
    for (int &r : results) {
        ReadBlock block{line.data(), 8, 0};
        r = ScsiReadImage(&p, &block);
        p.firstBlock = 0;
    }
    EXPECT_EQ(results[3], 1);
    EXPECT_TRUE(scanner_->Scanning());
    EXPECT_EQ(ScsiTestUnitReady(), FALSE) << "busy while data remain";

    size_t before = scanner_->Codes().size();
    EXPECT_EQ(ScsiAbort(), TRUE);
    std::vector<DWORD> codes = scanner_->Codes();
    EXPECT_EQ(std::vector<DWORD>(codes.begin() + before, codes.end()),
              (std::vector<DWORD>{IOCTL_SCNR_ABORT, IOCTL_SCNR_REQUEST_SENSE}));
    EXPECT_FALSE(scanner_->Scanning());
    EXPECT_EQ(ScsiStart(), TRUE) << "the abort's condition was cleared";

    scanner_->FailRequest(IOCTL_SCNR_ABORT, 1, ERROR_IO_DEVICE);
    EXPECT_EQ(ScsiAbort(), FALSE);
    scanner_->FailRequest(IOCTL_SCNR_REQUEST_SENSE, 1, ERROR_IO_DEVICE);
    EXPECT_EQ(ScsiAbort(), FALSE);
}

} // namespace
