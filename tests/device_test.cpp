// The device layer and the scan path end to end over a virtual COM port:
// scanread starts the scan thread, the device layer reads the image from the
// virtual block-dialect scanner through the protocol and the port, and the
// application hears of it through MM_MCINOTIFY. Stopping a running scan
// goes through the stop handshake with the reader and aborts on the wire.
#include "driver_fixture.h"

#include "block_scanner.h"
#include "serial_link.h"

#include "device/device.h"
#include "display/display_rects.h"
#include "image/image.h"
#include "protocol/protocol.h"
#include "transport/transport.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace
{

using Codes = std::vector<UINT>;
constexpr unsigned kPort = 2;

class DeviceTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        baseThreads_ = PlatLiveCount(PLAT_KIND_THREAD);
        scanner_ = std::make_shared<sim::BlockScanner>(2, 5);
        link_ = std::make_unique<sim::SerialLink>(kPort, scanner_);
        ASSERT_TRUE(link_->attached());
        g_settings = DeviceSettings{2, IF_RS232C, kPort, 3};
        ASSERT_NE(DevOpen(kPort, IF_RS232C), INVALID_HANDLE_VALUE);
        ImgInitScanParams(2);
        g_timeFormat = UNIT_DOT;
        ASSERT_TRUE(ImgCreateInitialImages());
        g_dispReleased = 1; // no display window in these tests
    }
    void TearDown() override
    {
        WaitForScanThread();
        g_dispReleased = 0;
        ImgFreeImages();
        EXPECT_TRUE(DevClose());
        link_.reset();
        g_lineStarted = 0;
        DriverTest::TearDown();
    }
    // Starts a notified scan of `rect` (dots).
    DWORD ScanRead(HWND callback, RECT rect)
    {
        ScanReadParms p{(DWORD_PTR)callback, rect};
        return MciDispatchCommand(g_deviceId, MCI_SCANREAD, MCI_NOTIFY | MCI_SCANREAD_RECT, &p);
    }
    // Lets platform time pass until the notified scan reports.
    static void RunUntilIdle()
    {
        for (int i = 0; i < 200 && g_timerActive; i++)
            RunOneTick();
    }
    void WaitForScanThread()
    {
        for (int i = 0; i < 1000 && PlatLiveCount(PLAT_KIND_THREAD) > baseThreads_; i++)
            Sleep(10);
    }

    std::shared_ptr<sim::BlockScanner> scanner_;
    std::unique_ptr<sim::SerialLink> link_;
    long baseThreads_ = 0;
};

TEST_F(DeviceTest, NotifiedScanArrivesWholeAndIsCommitted)
{
    HWND app = MakeWindow();
    ASSERT_EQ(ScanRead(app, {64, 40, 320, 120}), 0u);
    EXPECT_EQ(g_scanBusy, 1u);
    RunUntilIdle();
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_TRUE(scanner_->ProtocolErrors().empty());
    EXPECT_TRUE(scanner_->FinalAckSeen());
    EXPECT_EQ(g_imageValid, 1u);

    // (Its pixels are checked by the whole-scan sweep.)
    EXPECT_EQ(g_imageInfo->bmiHeader.biWidth, 320);
    EXPECT_EQ(g_imageInfo->bmiHeader.biHeight, 120);
    EXPECT_EQ(g_srcRect.width, 320);
    EXPECT_EQ(g_scanParams.areaX, 64);
}

// A scan is stopped while the reader is between frames: by the stop command,
// and by a later notify command that supersedes the scan through the
// internal stop. Either way the scanner gets the abort (DC4), the scan's
// callback hears "aborted" at once, the area and the image stay as they
// were, and the superseded scan then hears "superseded".
TEST_F(DeviceTest, StoppedScanIsAbortedOnTheWireAndHeardAsAborted)
{
    HWND app = MakeWindow();
    HWND other = MakeWindow();
    for (bool supersede : {false, true}) {
        SCOPED_TRACE(supersede ? "superseded by status" : "stop command");
        sim::BlockScanner::Faults slow;
        slow.lateMs = 40; // every frame takes 40 ms of platform time
        scanner_->SetFaults(slow);
        const int dc4Before = scanner_->Dc4Count();
        const ScanParams before = g_scanParams;
        HBITMAP imageBefore = g_imageBitmap;

        ASSERT_EQ(ScanRead(app, {64, 0, 320, 400}), 0u);
        Sleep(12000); // start (9 s) and a few dozen frames
        ASSERT_EQ(MciReadResult(&g_scanResult), -1);
        ASSERT_EQ(g_scanStarted, 1u);

        if (supersede) {
            MCI_STATUS_PARMS status{(DWORD_PTR)other, 0, MCI_STATUS_READY, 0};
            ASSERT_EQ(MciDispatchCommand(g_deviceId, MCI_STATUS, MCI_NOTIFY | MCI_STATUS_ITEM, &status), 0u);
            EXPECT_EQ(status.dwReturn, 0u) << "scanning: not ready";
            EXPECT_EQ(TakeNotifications(app), (Codes{MCI_NOTIFY_ABORTED, MCI_NOTIFY_SUPERSEDED}));
            EXPECT_EQ(TakeNotifications(other), Codes{MCI_NOTIFY_SUCCESSFUL});
        } else {
            MCI_GENERIC_PARMS stop{(DWORD_PTR)other};
            ASSERT_EQ(MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop), 0u);
            EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_ABORTED});
        }
        EXPECT_EQ(scanner_->Dc4Count(), dc4Before + 1);
        EXPECT_EQ(g_scanBusy + g_scanAborted + g_abortRequest, 0u);
        EXPECT_EQ(MciReadResult(&g_scanResult), (LONG)MCIERR_SCANNER_ABNORMAL);
        EXPECT_EQ(memcmp(&g_scanParams, &before, sizeof before), 0);
        EXPECT_EQ(g_imageBitmap, imageBefore);
        EXPECT_TRUE(scanner_->ProtocolErrors().empty());
        WaitForScanThread();
        if (g_timerActive)
            RunUntilIdle();
        EXPECT_TRUE(TakeNotifications(app).empty());
        scanner_->SetFaults({});
    }
    // The line is usable afterwards: the scanner answers the ready check,
    // and a scanner that stays silent is reported not ready.
    EXPECT_EQ(DevGetMode(), (DWORD)MCI_MODE_OPEN);
    sim::BlockScanner::Faults silent;
    silent.silent = true;
    scanner_->SetFaults(silent);
    EXPECT_EQ(DevGetMode(), (DWORD)MCI_MODE_NOT_READY);
    g_imageValid = 1;
    scanner_->SetFaults({});
    EXPECT_EQ(DevGetMode(), (DWORD)MCI_MODE_STOP);
}

// A stop that comes as the reader takes the last line finds the scan
// started, and waits for the scan's result while the scan thread finishes:
// hiding the application's window (the target while the display is
// released) sends to this thread, which must take that in while it waits,
// or the two wait for each other. The interleaving (stop reading the
// started flag just before the reader cleared it) is forced here; a stop
// still waiting after a few real seconds is released and reported.
TEST_F(DeviceTest, StopAtTheScansEndTakesInWhatTheScanSendsMeanwhile)
{
    HWND app = MakeWindow();
    HWND target = MakeWindow();
    ShowWindow(target, SW_SHOW);
    g_targetWnd = target;
    const int dc4Before = scanner_->Dc4Count();
    ASSERT_EQ(ScanRead(app, {64, 40, 320, 40}), 0u);
    for (int i = 0; i < 2000 && IsWindowVisible(target); i++)
        Sleep(5); // the scan thread's hiding of the window waits for this thread
    ASSERT_FALSE(IsWindowVisible(target));
    ASSERT_EQ(MciReadResult(&g_scanResult), -1);
    g_scanStarted = 1;

    std::mutex m;
    std::condition_variable cv;
    bool returned = false, stuck = false;
    std::thread rescue([&] {
        std::unique_lock<std::mutex> lock(m);
        if (!cv.wait_for(lock, std::chrono::seconds(5), [&] { return returned; })) {
            stuck = true;
            g_abortRequest = 0;
        }
    });
    MCI_GENERIC_PARMS stop{0};
    const DWORD rc = MciDispatchCommand(g_deviceId, MCI_STOP, MCI_WAIT, &stop);
    {
        std::lock_guard<std::mutex> lock(m);
        returned = true;
    }
    cv.notify_one();
    rescue.join();
    EXPECT_FALSE(stuck) << "stop and the scan thread waited for each other";
    EXPECT_EQ(rc, 0u);
    // Every line had come: the scan is done, not aborted.
    EXPECT_EQ(TakeNotifications(app), Codes{MCI_NOTIFY_SUCCESSFUL});
    EXPECT_EQ(g_imageValid, 1u);
    EXPECT_EQ(scanner_->Dc4Count(), dc4Before);
    EXPECT_EQ(g_scanBusy + g_abortRequest, 0u);
    g_targetWnd = nullptr;
}

} // namespace
