// GP-IB transport through the substitute board library (gpibdll.so, loaded
// by name) and the virtual bus, with a small device of the test's own.
#include "support/platform_fixture.h"

#include "gpib_bus.h"
#include "support/scripted_device.h"
#include "transport/transport.h"

#include <cstdlib>
#include <atomic>
#include <string>

namespace
{

using Bytes = std::vector<uint8_t>;

// The scripted device on the bus, asserting SRQ with a status byte when told.
class Device : public sim::GpibDevice
{
public:
    void Say(const Bytes &bytes) { bytes_->Announce(bytes); }
    void RaiseSrq(uint8_t status)
    {
        status_ = status;
        srq_ = true;
        sim::NotifyGpibBus();
    }
    Bytes Heard() const
    {
        std::string heard = bytes_->received();
        return Bytes(heard.begin(), heard.end());
    }
    void Listen(const uint8_t *data, size_t size) override { bus_->Listen(data, size); }
    size_t Talk(uint8_t *out, size_t max, bool *end) override { return bus_->Talk(out, max, end); }
    size_t Ready() const override { return bus_->Ready(); }
    bool ServiceRequest() const override { return srq_; }
    void DeviceClear() override { bus_->DeviceClear(); }
    uint8_t SerialPoll() override
    {
        srq_ = false;
        return status_;
    }

private:
    std::shared_ptr<tamrix_test::ScriptedDevice> bytes_ = std::make_shared<tamrix_test::ScriptedDevice>();
    std::shared_ptr<sim::GpibDevice> bus_ = sim::MakeGpibByteDevice(bytes_);
    std::atomic<bool> srq_{false};
    std::atomic<uint8_t> status_{0};
};

class GpibTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        sim::ResetGpibBus();
        sim::AttachGpibDevice(5, dev);
        modules = PlatLiveCount(PLAT_KIND_MODULE);
    }
    void TearDown() override
    {
        sim::ResetGpibBus();
        PlatformTest::TearDown();
    }
    // Opens device 5 and forgets the calls made so far.
    void Open()
    {
        ASSERT_NE(GpOpenLine(5), INVALID_HANDLE_VALUE);
        g_lineOpen = 1;
        sim::ClearGpibCalls();
    }
    void Close()
    {
        g_lineOpen = 0;
        EXPECT_TRUE(GpCloseLine());
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);
    }
    static Bytes Commands(const char *name, size_t i = 0) { return sim::GpibCallsOf(name).at(i).commands; }

    std::shared_ptr<Device> dev = std::make_shared<Device>();
    long modules = 0;
};

TEST_F(GpibTest, LoadingNeedsEveryProcedureAndKeepsAnIncompleteLibraryLoaded)
{
    ASSERT_TRUE(GpLoadLibrary());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules + 1);
    EXPECT_TRUE(GpFreeLibrary());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);

    PlatFailCall("LoadLibraryA", 1, 0);
    EXPECT_FALSE(GpLoadLibrary());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);

    // A library without "InitializeGpib", the last name looked up.
    std::string saved = std::getenv("TAMRIX_MODULE_PATH") ? std::getenv("TAMRIX_MODULE_PATH") : "";
    setenv("TAMRIX_MODULE_PATH", TAMRIX_BUILD_DIR "/lib/partial", 1);
    unsigned before = PlatCallCount("GetProcAddress");
    EXPECT_FALSE(GpLoadLibrary());
    EXPECT_EQ(PlatCallCount("GetProcAddress") - before, 14u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules + 1);
    // The open does not release that load either, and never reaches the board.
    EXPECT_EQ(GpOpenLine(5), INVALID_HANDLE_VALUE);
    EXPECT_TRUE(sim::GpibCallsOf("CreateGpib").empty());
    setenv("TAMRIX_MODULE_PATH", saved.c_str(), 1);
    HMODULE loaded = g_gpibModule;
    EXPECT_TRUE(FreeLibrary(loaded));
    EXPECT_TRUE(GpFreeLibrary());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);
}

TEST_F(GpibTest, OpenInitialisesTheBoardAndTransfersAreAddressed)
{
    ASSERT_NE(GpOpenLine(5), INVALID_HANDLE_VALUE);
    g_lineOpen = 1;
    EXPECT_EQ(g_gpibAddress, 5u);
    std::vector<std::pair<std::string, long>> init;
    for (const auto &call : sim::GpibCalls())
        init.emplace_back(call.name, call.args.back());
    EXPECT_EQ(init, (std::vector<std::pair<std::string, long>>{{"CreateGpib", 0},
                                                               {"InitializeGpib", 0},
                                                               {"GetGpibSwitch", 0},
                                                               {"SetGpibTimeout", 50},
                                                               {"SetGpibIFC", 10},
                                                               {"SetGpibREN", 1},
                                                               {"SetGpibDelimiter", 0x80}}));
    sim::ClearGpibCalls();

    EXPECT_TRUE(GpWrite("\x1b"
                        "A",
                        2));
    EXPECT_EQ(Commands("WriteGpib"), (Bytes{0x3F, 0x5F, 0x40, 0x25}));
    EXPECT_EQ(dev->Heard(), (Bytes{0x1b, 'A'}));
    EXPECT_EQ(Commands("WriteGpibCommand"), (Bytes{0x5F}));

    dev->Say({1, 2, 3});
    uint8_t buf[3] = {};
    DWORD got = 0;
    EXPECT_TRUE(GpRead(buf, 3, &got));
    EXPECT_EQ(Commands("ReadGpib"), (Bytes{0x3F, 0x5F, 0x45, 0x20}));
    EXPECT_EQ(Bytes(buf, buf + got), (Bytes{1, 2, 3}));
    EXPECT_EQ(Commands("WriteGpibCommand", 1), (Bytes{0x5F}));
    // Untalking failed: the bytes came but the read fails.
    dev->Say({4});
    sim::FailGpibProcedure("WriteGpibCommand", 1);
    EXPECT_FALSE(GpRead(buf, 1, &got));
    Close();

    // The board's own address is the low five bits of switch byte 2.
    sim::SetGpibBoardAddress(3);
    sim::AttachGpibDevice(7, dev);
    ASSERT_NE(GpOpenLine(7), INVALID_HANDLE_VALUE);
    g_lineOpen = 1;
    sim::ClearGpibCalls();
    EXPECT_TRUE(GpWrite("x", 1));
    EXPECT_EQ(Commands("WriteGpib"), (Bytes{0x3F, 0x5F, 0x43, 0x27}));
    Close();
}

TEST_F(GpibTest, AReadOfAFullBufferContinuesWithoutAddressing)
{
    Open();
    Bytes said;
    for (uint8_t i = 0; i < 40; ++i)
        said.push_back(i);
    dev->Say(said);
    uint8_t buf[40] = {};
    DWORD got = 0;
    ASSERT_TRUE(GpRead(buf, 24, &got));
    EXPECT_EQ(got, 24u);
    EXPECT_EQ(g_gpibReadPending, 1);
    EXPECT_TRUE(sim::GpibCallsOf("WriteGpibCommand").empty()); // still talking
    ASSERT_TRUE(GpRead(buf + 24, 16, &got));
    EXPECT_EQ(g_gpibReadPending, 0);
    EXPECT_TRUE(Commands("ReadGpib", 1).empty());
    EXPECT_EQ(Bytes(buf, buf + 40), said);
    EXPECT_EQ(sim::GpibCallsOf("WriteGpibCommand").size(), 1u);
    Close();
}

TEST_F(GpibTest, TimedReadsSetTheTimeoutAndTellTimeOutsFromFailures)
{
    Open();
    uint8_t buf[8] = {};
    DWORD start = GetTickCount();
    EXPECT_EQ(GpReadTimed(buf, 4, 5000), 0);
    EXPECT_EQ(sim::GpibCallsOf("SetGpibTimeout").at(0).args[1], 50);
    DWORD waited = GetTickCount() - start;
    EXPECT_GE(waited, 5000u);
    EXPECT_LT(waited, 6000u);

    // A device that answers after two seconds wakes the reader.
    tamrix_test::PlatformThread late([this] {
        Sleep(2000);
        dev->Say({9, 8, 7, 6});
        return 0u;
    });
    EXPECT_EQ(GpReadTimed(buf, 4, 5000), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{9, 8, 7, 6}));
    late.Join();

    dev->Say({1, 2});
    sim::FailGpibProcedure("ReadGpib", 1, ERROR_GEN_FAILURE);
    EXPECT_EQ(GpReadTimed(buf, 2, 1000), -1);
    EXPECT_EQ(GpReadTimed(buf, 2, 1000), 2); // the bytes are still there
    // A short message is a failure, not a time-out.
    dev->Say({1});
    SetLastError(0);
    EXPECT_EQ(GpReadTimed(buf, 2, 1000), -1);
    sim::FailGpibProcedure("SetGpibTimeout", 1);
    EXPECT_EQ(GpReadTimed(buf, 2, 1000), -1);
    size_t reads = sim::GpibCallsOf("ReadGpib").size();
    EXPECT_EQ(GpReadTimed(buf, 0, 1000), 0);
    EXPECT_EQ(sim::GpibCallsOf("ReadGpib").size(), reads);

    // The single read for ACK takes a longer message only when it starts with ACK.
    const BYTE dcl = GPIB_DCL;
    dev->Say({0x06, 'x', 'y'});
    EXPECT_EQ(GpReadBytes(buf, 1, 5000), 1);
    EXPECT_TRUE(GpWriteCommand(&dcl, 1));
    dev->Say({0x15, 'x'});
    EXPECT_EQ(GpReadBytes(buf, 1, 5000), -1);
    EXPECT_TRUE(GpWriteCommand(&dcl, 1));
    EXPECT_EQ(GpReadBytes(buf, 1, 500), -1); // silence
    EXPECT_EQ(sim::GpibCallsOf("SetGpibTimeout").back().args[1], 5);
    // A page's worth of transfers leaves a bounded record: the latest 4096
    // calls, with the first 64 bytes of data each.
    const std::string block(200, 'x');
    for (int i = 0; i < 4100; ++i)
        ASSERT_TRUE(GpWrite(block.c_str(), 200));
    EXPECT_EQ(sim::GpibCalls().size(), 4096u);
    EXPECT_EQ(sim::GpibCallsOf("WriteGpib").back().data, Bytes(64, 'x'));
    Close();
}

TEST_F(GpibTest, ServiceRequestsAndSerialPolls)
{
    Open();
    EXPECT_FALSE(GpWaitSrq(1));
    auto controls = sim::GpibCallsOf("ControlGpibSRQ");
    ASSERT_EQ(controls.size(), 2u);
    EXPECT_EQ(controls[0].args[1], 0);
    EXPECT_EQ(controls[1].args[1], 0x80); // switched back after a failed wait too

    tamrix_test::PlatformThread late([this] {
        Sleep(500);
        dev->RaiseSrq(0x51);
        return 0u;
    });
    EXPECT_TRUE(GpWaitSrq(200));
    late.Join();
    BYTE status = 0;
    ASSERT_TRUE(GpSerialPoll(&status));
    EXPECT_EQ(status, 0x51);
    EXPECT_EQ(Commands("ExecuteGpibSP"), (Bytes{5}));
    EXPECT_FALSE(GpWaitSrq(1)); // the poll took the request away

    sim::FailGpibProcedure("ControlGpibSRQ", 2);
    dev->RaiseSrq(0x10);
    EXPECT_FALSE(GpWaitSrq(1));
    sim::FailGpibProcedure("ExecuteGpibSP", 1);
    EXPECT_FALSE(GpSerialPoll(&status));

    // Device clear through an interface command drops what the device had to say.
    const BYTE dcl = GPIB_DCL;
    dev->Say({1, 2});
    EXPECT_TRUE(GpWriteCommand(&dcl, 1));
    EXPECT_EQ(dev->Ready(), 0u);
    Close();
}

TEST_F(GpibTest, FailedOpensAndClosesUndoWhatTheyDid)
{
    long events = PlatLiveCount(PLAT_KIND_EVENT);
    sim::FailGpibProcedure("CreateGpib", 1);
    EXPECT_EQ(GpOpenLine(5), INVALID_HANDLE_VALUE);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);

    for (const char *step : {"InitializeGpib", "GetGpibSwitch", "SetGpibIFC", "SetGpibDelimiter"}) {
        SCOPED_TRACE(step);
        sim::ClearGpibCalls();
        sim::FailGpibProcedure(step, 1);
        EXPECT_EQ(GpOpenLine(5), INVALID_HANDLE_VALUE);
        EXPECT_EQ(sim::GpibCallsOf("CloseGpib").size(), 1u);
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules);
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_EVENT), events); // the board is closed
    }

    // While the board is open, a second create fails.
    Open();
    EXPECT_EQ(sim::board::Create(0), -1);
    g_lineOpen = 1;
    EXPECT_EQ(GpOpenLine(5), INVALID_HANDLE_VALUE);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules + 1);

    // A close that fails keeps the library.
    sim::FailGpibProcedure("CloseGpib", 1);
    EXPECT_FALSE(GpCloseLine());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules + 1);
    EXPECT_EQ(sim::GpibCallsOf("SetGpibREN").at(0).args[1], 0);
    Close();
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_EVENT), events);
}

} // namespace
