// The backend through the SANE API as a frontend calls it, in one process
// with the platform so that its live object counts can be checked.
#include <sane/sane.h>
#include <sane/saneopts.h>
#include <tamrix/platform.h>

#include "scsi_scanner.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace
{

class BackendTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        dir_ = std::filesystem::temp_directory_path() / ("tamrix-sane-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir_);
        std::ofstream(dir_ / "tamrix.conf") << "ks-640:scsi virtual\nks-620:gpib:5 virtual\n"
                                               "ks-650:scsi\nks-650:rs232c:3\n";
        setenv("SANE_CONFIG_DIR", dir_.c_str(), 1);
        setenv("TAMRIX_WINDIR", (dir_ / "windir").c_str(), 1);
        ASSERT_EQ(sane_init(nullptr, nullptr), SANE_STATUS_GOOD);
    }
    void TearDown() override
    {
        sane_exit();
        std::filesystem::remove_all(dir_);
    }

    int Find(SANE_Handle h, const char *name)
    {
        for (int i = 1; const SANE_Option_Descriptor *d = sane_get_option_descriptor(h, i); i++)
            if (d->name && std::strcmp(d->name, name) == 0)
                return i;
        ADD_FAILURE() << "no option " << name;
        return 0;
    }
    bool Active(SANE_Handle h, const char *name)
    {
        return SANE_OPTION_IS_ACTIVE(sane_get_option_descriptor(h, Find(h, name))->cap);
    }
    SANE_Status SetWord(SANE_Handle h, const char *name, SANE_Word v, SANE_Int *info = nullptr)
    {
        return sane_control_option(h, Find(h, name), SANE_ACTION_SET_VALUE, &v, info);
    }
    SANE_Status SetText(SANE_Handle h, const char *name, const char *v, SANE_Int *info = nullptr)
    {
        char buf[64];
        std::strncpy(buf, v, sizeof buf);
        return sane_control_option(h, Find(h, name), SANE_ACTION_SET_VALUE, buf, info);
    }
    // Reads a whole frame; the status that ended it.
    SANE_Status ReadFrame(SANE_Handle h, std::vector<SANE_Byte> *out)
    {
        SANE_Byte buf[4096];
        SANE_Int n = 0;
        SANE_Status st;
        while ((st = sane_read(h, buf, sizeof buf, &n)) == SANE_STATUS_GOOD)
            out->insert(out->end(), buf, buf + n);
        return st;
    }

    std::filesystem::path dir_;
};

TEST_F(BackendTest, OptionsFollowTheModelAndModeAndRefuseBadValues)
{
    SANE_Handle h = nullptr;
    ASSERT_EQ(sane_open("tamrix:ks-640:scsi", &h), SANE_STATUS_GOOD);
    SANE_Handle second = nullptr;
    EXPECT_EQ(sane_open("ks-620:gpib:5", &second), SANE_STATUS_DEVICE_BUSY) << "the driver serves one scanner";
    EXPECT_EQ(sane_open("ks-630:gpib:1", &second), SANE_STATUS_INVAL) << "not in tamrix.conf";

    SANE_Int info = 0;
    EXPECT_FALSE(Active(h, "tint"));
    ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_COLOR, &info), SANE_STATUS_GOOD);
    EXPECT_EQ(info, SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS);
    EXPECT_TRUE(Active(h, "tint"));
    EXPECT_TRUE(Active(h, "saturation"));
    EXPECT_FALSE(Active(h, SANE_NAME_HALFTONE_PATTERN));
    ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_RESOLUTION, 45, &info), SANE_STATUS_GOOD) << "any step on a KS-640";
    EXPECT_EQ(info, SANE_INFO_RELOAD_PARAMS);
    ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_BR_X, SANE_FIX(2.6 + 25.4)), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_BR_Y, SANE_FIX(50.8)), SANE_STATUS_GOOD);
    SANE_Parameters p;
    ASSERT_EQ(sane_get_parameters(h, &p), SANE_STATUS_GOOD);
    EXPECT_EQ(p.format, SANE_FRAME_RGB);
    EXPECT_EQ(p.depth, 8);
    EXPECT_EQ(p.pixels_per_line, 45);
    EXPECT_EQ(p.lines, 90);
    EXPECT_EQ(p.bytes_per_line, 135);

    // Refused without a change: out of range, off the list, inactive.
    EXPECT_EQ(SetWord(h, SANE_NAME_SCAN_RESOLUTION, 321), SANE_STATUS_INVAL);
    EXPECT_EQ(SetWord(h, SANE_NAME_SCAN_TL_X, SANE_FIX(1.0)), SANE_STATUS_INVAL);
    EXPECT_EQ(SetWord(h, SANE_NAME_BIT_DEPTH, 9), SANE_STATUS_INVAL);
    EXPECT_EQ(SetWord(h, "edge-enhancement", 2), SANE_STATUS_INVAL);
    EXPECT_EQ(SetText(h, SANE_NAME_SCAN_MODE, "Sepia"), SANE_STATUS_INVAL);
    EXPECT_EQ(SetText(h, SANE_NAME_HALFTONE_PATTERN, "Dither 2"), SANE_STATUS_INVAL);
    EXPECT_EQ(sane_control_option(h, 1, SANE_ACTION_GET_VALUE, &info, nullptr), SANE_STATUS_INVAL) << "a group";
    EXPECT_EQ(sane_control_option(h, 99, SANE_ACTION_GET_VALUE, &info, nullptr), SANE_STATUS_INVAL);
    SANE_Word res = 0;
    ASSERT_EQ(sane_control_option(h, Find(h, SANE_NAME_SCAN_RESOLUTION), SANE_ACTION_GET_VALUE, &res, nullptr),
              SANE_STATUS_GOOD);
    EXPECT_EQ(res, 45);

    // Lineart: one bit, the depth goes inactive; an empty area cannot start.
    ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_LINEART), SANE_STATUS_GOOD);
    EXPECT_FALSE(Active(h, SANE_NAME_BIT_DEPTH));
    ASSERT_EQ(sane_get_parameters(h, &p), SANE_STATUS_GOOD);
    EXPECT_EQ(p.format, SANE_FRAME_GRAY);
    EXPECT_EQ(p.depth, 1);
    EXPECT_EQ(p.bytes_per_line, 6);
    const SANE_Range *x = sane_get_option_descriptor(h, Find(h, SANE_NAME_SCAN_BR_X))->constraint.range;
    ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_BR_X, x->min), SANE_STATUS_GOOD);
    EXPECT_EQ(sane_start(h), SANE_STATUS_INVAL);
    sane_close(h);
}

TEST_F(BackendTest, CancelStopsAScanTheNextScanWorksAndNothingLeaks)
{
    long before[PLAT_KIND_COUNT];
    for (int k = 0; k < PLAT_KIND_COUNT; k++)
        before[k] = PlatLiveCount(static_cast<PlatKind>(k));
    for (int cycle = 0; cycle < 2; cycle++) {
        SANE_Handle h = nullptr;
        ASSERT_EQ(sane_open(cycle ? "ks-620:gpib:5" : "", &h), SANE_STATUS_GOOD);
        ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_GRAY), SANE_STATUS_GOOD);
        ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_RESOLUTION, 300), SANE_STATUS_GOOD);
        // Extended settings go through the driver's scan-mode dialog.
        ASSERT_EQ(SetWord(h, SANE_NAME_BRIGHTNESS, 7), SANE_STATUS_GOOD);
        ASSERT_EQ(SetText(h, "gamma-correction", "None"), SANE_STATUS_GOOD);
        ASSERT_EQ(SetWord(h, "edge-enhancement", SANE_TRUE), SANE_STATUS_GOOD);

        // A whole page at 300 dpi takes seconds; cancel right after start.
        ASSERT_EQ(sane_start(h), SANE_STATUS_GOOD);
        sane_cancel(h);
        SANE_Byte b[16];
        SANE_Int n = -1;
        EXPECT_EQ(sane_read(h, b, sizeof b, &n), SANE_STATUS_CANCELLED);
        EXPECT_EQ(n, 0);

        ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_BR_Y, SANE_FIX(25.4)), SANE_STATUS_GOOD);
        SANE_Parameters before, p;
        ASSERT_EQ(sane_get_parameters(h, &before), SANE_STATUS_GOOD);
        ASSERT_EQ(sane_start(h), SANE_STATUS_GOOD);
        ASSERT_EQ(sane_get_parameters(h, &p), SANE_STATUS_GOOD);
        EXPECT_EQ(p.lines, 300);
        EXPECT_TRUE(before.format == p.format && before.depth == p.depth && before.lines == p.lines &&
                    before.pixels_per_line == p.pixels_per_line && before.bytes_per_line == p.bytes_per_line)
            << "the same frame before and after start";
        // Non-blocking: the select fd becomes readable once there is data.
        ASSERT_EQ(sane_set_io_mode(h, SANE_TRUE), SANE_STATUS_GOOD);
        SANE_Int fd = -1;
        ASSERT_EQ(sane_get_select_fd(h, &fd), SANE_STATUS_GOOD);
        std::vector<SANE_Byte> frame;
        SANE_Status st;
        for (;;) {
            pollfd pfd{fd, POLLIN, 0};
            ASSERT_EQ(poll(&pfd, 1, 60000), 1);
            SANE_Byte buf[8192];
            st = sane_read(h, buf, sizeof buf, &n);
            if (st != SANE_STATUS_GOOD)
                break;
            frame.insert(frame.end(), buf, buf + n);
        }
        EXPECT_EQ(st, SANE_STATUS_EOF);
        EXPECT_EQ(frame.size(), static_cast<size_t>(p.bytes_per_line) * p.lines);
        EXPECT_GT(std::count(frame.begin(), frame.end(), 0xFF), 0) << "white paper";
        EXPECT_LT(std::count(frame.begin(), frame.end(), 0xFF), static_cast<long>(frame.size())) << "the chart";
        sane_cancel(h);

        // Blocking again, a second scan on the same handle.
        frame.clear();
        ASSERT_EQ(sane_start(h), SANE_STATUS_GOOD);
        EXPECT_EQ(ReadFrame(h, &frame), SANE_STATUS_EOF);
        EXPECT_EQ(frame.size(), static_cast<size_t>(p.bytes_per_line) * p.lines);
        sane_cancel(h);
        sane_close(h);
    }
    for (int k = 0; k < PLAT_KIND_COUNT; k++)
        EXPECT_EQ(PlatLiveCount(static_cast<PlatKind>(k)), before[k]) << PlatKindName(static_cast<PlatKind>(k));
}

TEST_F(BackendTest, ExtendedSettingsReachTheScannerThroughTheDriversDialog)
{
    // A scanner the test attaches itself, to see the window the driver sends.
    auto scsi = sim::ScsiScanner::Attach(5);
    PlatUseVirtualClock(TRUE);
    SANE_Handle h = nullptr;
    ASSERT_EQ(sane_open("ks-650:scsi", &h), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, SANE_NAME_SCAN_BR_Y, SANE_FIX(10.0)), SANE_STATUS_GOOD);
    ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_COLOR), SANE_STATUS_GOOD);
    auto scan = [&] {
        std::vector<SANE_Byte> frame;
        EXPECT_EQ(sane_start(h), SANE_STATUS_GOOD);
        EXPECT_EQ(ReadFrame(h, &frame), SANE_STATUS_EOF);
        sane_cancel(h);
        return scsi->Window();
    };
    const sim::ScsiWindow plain = scan();
    ASSERT_EQ(SetWord(h, SANE_NAME_BRIGHTNESS, 1), SANE_STATUS_GOOD);
    ASSERT_EQ(SetText(h, "gamma-correction", "Printer 1"), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "edge-enhancement", SANE_TRUE), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "tint", 1), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "saturation", 8), SANE_STATUS_GOOD);
    EXPECT_FALSE(Active(h, "noise-reduction")) << "a KS-650 has none";
    const sim::ScsiWindow changed = scan();
    EXPECT_NE(changed.brightness, plain.brightness);
    EXPECT_NE(changed.gamma, plain.gamma);
    EXPECT_NE(changed.vendorFlags, plain.vendorFlags);
    EXPECT_NE(changed.tint, plain.tint);
    EXPECT_NE(changed.saturation, plain.saturation);
    // The halftone pattern, from the dialog's dither list.
    ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_HALFTONE), SANE_STATUS_GOOD);
    const sim::ScsiWindow dither2 = scan();
    ASSERT_EQ(SetText(h, SANE_NAME_HALFTONE_PATTERN, "Dither 1, pattern 3"), SANE_STATUS_GOOD);
    EXPECT_NE(scan().halftone, dither2.halftone);
    ASSERT_EQ(SetText(h, SANE_NAME_SCAN_MODE, SANE_VALUE_SCAN_MODE_COLOR), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "tint", 5), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "saturation", 5), SANE_STATUS_GOOD);
    // Back to the defaults, through the dialog again.
    ASSERT_EQ(SetWord(h, SANE_NAME_BRIGHTNESS, 5), SANE_STATUS_GOOD);
    ASSERT_EQ(SetText(h, "gamma-correction", "CRT 1"), SANE_STATUS_GOOD);
    ASSERT_EQ(SetWord(h, "edge-enhancement", SANE_FALSE), SANE_STATUS_GOOD);
    const sim::ScsiWindow again = scan();
    EXPECT_EQ(again.brightness, plain.brightness);
    EXPECT_EQ(again.gamma, plain.gamma);
    EXPECT_EQ(again.vendorFlags, plain.vendorFlags);
    EXPECT_EQ(again.tint, plain.tint);
    EXPECT_EQ(again.saturation, plain.saturation);
    sane_close(h);
    scsi->Detach();

    // A configured scanner that is not there: an I/O error, the MCI error in
    // the debug output.
    setenv("SANE_DEBUG_TAMRIX", "1", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(sane_open("ks-650:rs232c:3", &h), SANE_STATUS_IO_ERROR);
    const std::string log = testing::internal::GetCapturedStderr();
    unsetenv("SANE_DEBUG_TAMRIX");
    EXPECT_NE(log.find("MCI error 276"), std::string::npos) << log;
}

} // namespace
