// Whole waited scans over SCSI from a kernel scanner device "\\.\SCNR0"
// whose answers come from the fuzzer's bytes: the sense conditions, the
// not-ready and failed requests, how many image bytes each read delivers
// and what they are, and the buffer status that says whether more follows.
// The scanread command runs through the device layer, the SCSI transport,
// the line store and the conversions into the image. Every input answers
// success or a published error, puts the area back when it fails, and leaves
// no platform object behind.
#include "fuzz_input.h"

#include "device/device.h"
#include "driver/driver.h"
#include "image/image.h"
#include "transport/transport.h"

#include <tamrix/virtual_device.h>

#include <algorithm>
#include <deque>
#include <mutex>

namespace
{

// Each control request takes one byte of `control`: the low two bits
// choose success (0, 3), ERROR_NOT_READY (1) or ERROR_IO_DEVICE (2), the
// next four are the sense condition or, for the buffer status, bit 2 says
// that more data follows. Each read takes a length byte and that many image
// bytes; 255 is a failed read. With nothing left every request succeeds,
// the buffer is empty, and a read takes a second of the device's time.
class ScriptedScsi : public tamrix::VirtualDevice
{
public:
    ScriptedScsi(std::vector<uint8_t> control, std::vector<uint8_t> reads)
        : control_(control.begin(), control.end()), reads_(reads.begin(), reads.end())
    {
    }
    DWORD Read(void *buffer, DWORD size, DWORD *done) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (reads_.empty()) {
            PlatAdvanceClock(1000);
            return ERROR_SUCCESS;
        }
        uint8_t n = reads_.front();
        reads_.pop_front();
        if (n == 255)
            return ERROR_IO_DEVICE;
        DWORD count = std::min<DWORD>({n, size, static_cast<DWORD>(reads_.size())});
        std::copy(reads_.begin(), reads_.begin() + count, static_cast<uint8_t *>(buffer));
        reads_.erase(reads_.begin(), reads_.begin() + count);
        *done = count;
        return ERROR_SUCCESS;
    }
    DWORD Write(const void *, DWORD, DWORD *) override { return ERROR_INVALID_FUNCTION; }
    DWORD Control(DWORD code, const void *, DWORD, void *out, DWORD outSize, DWORD *returned) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        uint8_t b = 0;
        if (!control_.empty()) {
            b = control_.front();
            control_.pop_front();
        }
        if ((b & 3) == 1)
            return ERROR_NOT_READY;
        if ((b & 3) == 2)
            return ERROR_IO_DEVICE;
        if (code == IOCTL_SCNR_REQUEST_SENSE && out && outSize >= 2) {
            std::fill_n(static_cast<uint8_t *>(out), outSize, 0);
            static_cast<uint8_t *>(out)[1] = static_cast<uint8_t>((b >> 2) & 0x0F);
            *returned = outSize;
        } else if (code == IOCTL_SCNR_GET_BUFFER_STATUS && out && outSize >= 4) {
            std::fill_n(static_cast<uint8_t *>(out), outSize, 0);
            static_cast<uint8_t *>(out)[3] = static_cast<uint8_t>((b >> 2) & 1);
            *returned = outSize;
        }
        return ERROR_SUCCESS;
    }

private:
    std::mutex mutex_;
    std::deque<uint8_t> control_, reads_;
};

std::shared_ptr<ScriptedScsi> g_device;

bool Load()
{
    PlatUseVirtualClock(TRUE);
    DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr);
    g_deviceId = 7;
    tamrix::RegisterVirtualDevice("SCNR0", [](DWORD, DWORD *) { return g_device; });
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool loaded = Load();
    static const DWORD models[] = {2, 4, 5, 6};
    static const SHORT resolutions[] = {75, 100, 150, 200, 300, 400};
    static const SHORT steps[] = {1, 2, 4, 8, 16};
    static const SHORT modes[] = {0, 16, 17};
    (void)loaded;
    fuzz::Input in(data, size);
    const DWORD model = in.PickFrom(models);
    const SHORT resolution = in.PickFrom(resolutions);
    const SHORT step = in.PickFrom(steps);
    const SHORT mode = in.PickFrom(modes);
    ScanReadParms read{0, {in.Byte(), in.Byte(), 1 + in.Byte() % 128, 1 + in.Byte() % 64}};
    const size_t controlCount = in.Byte();
    std::vector<uint8_t> control = in.Take(controlCount);
    g_device = std::make_shared<ScriptedScsi>(std::move(control), in.Rest());

    const fuzz::LiveCounts before = fuzz::LiveCounts::Now();
    g_settings = DeviceSettings{model, IF_SCSI, 0, 0};
    if (DevOpen(0, IF_SCSI) != INVALID_HANDLE_VALUE) {
        ImgInitScanParams(model);
        g_scanParams.resolution = resolution;
        g_scanParams.colorStep = step;
        g_scanParams.colorMode = mode;
        g_timeFormat = UNIT_DOT;
        g_imageValid = 0;
        fuzz::Check(ImgCreateInitialImages() == 1, "initial images");
        g_dispReleased = 1;
        const ScanParams area = g_scanParams;
        DWORD rc = MciDispatchCommand(g_deviceId, MCI_SCANREAD, MCI_WAIT | MCI_SCANREAD_RECT, &read);
        fuzz::Check(rc == 0 || rc == MCIERR_SCANNER_ABNORMAL || rc == MCIERR_OUTOFRANGE || rc == MCIERR_OUT_OF_MEMORY ||
                        rc == MCIERR_HARDWARE,
                    "scanread answered an unexpected code");
        fuzz::Trace("scanread %u, image %ux%u\n", rc, g_scanParams.areaWidth, g_scanParams.areaLength);
        if (rc != 0) {
            fuzz::Check(g_scanParams.areaX == area.areaX && g_scanParams.areaY == area.areaY &&
                            g_scanParams.areaWidth == area.areaWidth && g_scanParams.areaLength == area.areaLength,
                        "a failed scan did not put the area back");
            fuzz::Check(g_imageValid == 0, "a failed scan made an image");
        } else {
            fuzz::Check(g_imageValid == 1, "a scan that succeeded left no image");
        }
        g_dispReleased = 0;
        ImgFreeImages();
        fuzz::Check(DevClose(), "device close");
    } else
        fuzz::Trace("not opened\n");
    g_device.reset();
    before.CheckSame("SCSI scan");
    return 0;
}
