// line_bench: the driver's line pipeline alone, one colour mode at a time.
// Each iteration is what the scan thread does for every received line of a
// page: the line is converted into the DIB row layout and stored into the
// new image (ImgStoreLine), or only converted (ImgConvertLine). The lines
// are 4080 pixels wide, a KS-650's page width at 480 dpi; bytes_per_second
// counts the DIB bytes made, so 24-bit colour compares with the page size.
//
//   line_bench [--benchmark_filter=REGEX] [other Google Benchmark options]
#include <benchmark/benchmark.h>

#include "driver/driver.h"
#include "driver/driver_state.h"
#include "image/image.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace
{

constexpr int kWidth = 4080;
constexpr int kLines = 64; // rows of the new image; the stores go round them

struct Mode {
    const char *name;
    SHORT colorMode, colorStep;
    DWORD model; // 3: one colour per pass
};

const Mode kModes[] = {
    {"2 levels", 0, 1, 5},           {"16 levels", 0, 4, 5},
    {"256 levels", 0, 8, 5},         {"8 colours", 1, 1, 5},
    {"64 colours", 1, 2, 5},         {"24-bit 512 colours", 1, 3, 5},
    {"24-bit full colour", 1, 8, 5}, {"24-bit 4096 colours, 3 passes", 1, 4, 3},
};

// Makes the new image for the mode; false when the driver refuses.
bool BeginScan(const Mode &mode, DWORD *rawBytes, DWORD *stride)
{
    g_settings.model = mode.model;
    g_dispReleased = 1;
    g_scanParams = ScanParams{};
    g_scanParams.resolution = 480;
    g_scanParams.colorMode = mode.colorMode;
    g_scanParams.colorStep = mode.colorStep;
    g_scanParams.areaWidth = kWidth;
    g_scanParams.areaLength = kLines;
    DWORD widthPx, lines;
    ImgComputeGeometry(&g_scanParams, rawBytes, stride, &widthPx, &lines);
    if (!ImgCreateScanBuffers(*rawBytes, *stride, widthPx, lines))
        return false;
    ImgStoreLine(0);
    return true;
}

// A line of scanner bytes that is not all one value.
void FillRaw(BYTE *raw, DWORD bytes)
{
    uint32_t x = 12345;
    for (DWORD i = 0; i < bytes; i++) {
        x = x * 1103515245u + 12345u;
        raw[i] = static_cast<BYTE>(x >> 16);
    }
}

void StoreLine(benchmark::State &state, const Mode *mode)
{
    DWORD rawBytes, stride;
    if (!BeginScan(*mode, &rawBytes, &stride)) {
        state.SkipWithError("the scan buffers could not be made");
        return;
    }
    FillRaw(g_rawLine, rawBytes);
    std::vector<BYTE> line(g_rawLine, g_rawLine + rawBytes);
    for (auto _ : state) {
        // The store may shift the raw line in place: each line arrives anew.
        std::copy(line.begin(), line.end(), g_rawLine);
        ImgStoreLine(1);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * stride);
    ImgFreeScanBuffers(0);
}

void ConvertLine(benchmark::State &state, const Mode *mode)
{
    DWORD rawBytes, stride;
    if (!BeginScan(*mode, &rawBytes, &stride)) {
        state.SkipWithError("the scan buffers could not be made");
        return;
    }
    std::vector<BYTE> raw(rawBytes), row(stride);
    FillRaw(raw.data(), rawBytes);
    BITMAPINFOHEADER header = g_scanInfo->bmiHeader;
    header.biClrUsed = g_scanClrUsed;
    int planar = g_linePlanar;
    for (auto _ : state) {
        ImgConvertLine(raw.data(), row.data(), 1, &header, mode->colorMode != 0, planar, planar ? 1 : 0);
        benchmark::DoNotOptimize(row.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * stride);
    ImgFreeScanBuffers(0);
}

} // namespace

int main(int argc, char **argv)
{
    DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_ATTACH, nullptr);
    for (const Mode &mode : kModes) {
        benchmark::RegisterBenchmark((std::string("store line/") + mode.name).c_str(), StoreLine, &mode);
        benchmark::RegisterBenchmark((std::string("convert line/") + mode.name).c_str(), ConvertLine, &mode);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    DllEntryPoint(GetModuleHandleW(nullptr), DLL_PROCESS_DETACH, nullptr);
    return 0;
}
