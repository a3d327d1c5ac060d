#include "page.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>

namespace sim
{

namespace
{

// 4x4 ordered dither thresholds for halftone.
constexpr uint8_t kBayer[4][4] = {{8, 136, 40, 168}, {200, 72, 232, 104}, {56, 184, 24, 152}, {248, 120, 216, 88}};

bool IsColour(const LineFormat &f)
{
    return f.colorMode == 16;
}

int SampleBits(int colorStep)
{
    return colorStep == 16 ? 1 : std::clamp(colorStep, 1, 8);
}

// One channel value quantised to `bits` and placed in the top bits of a byte
// (bits 1: 1 = dark, i.e. black).
uint8_t Quantise(uint8_t value, int bits, bool halftone, long x, long y)
{
    if (bits == 1) {
        uint8_t threshold = halftone ? kBayer[y & 3][x & 3] : 128;
        return value < threshold ? 1 : 0;
    }
    return static_cast<uint8_t>(value >> (8 - bits));
}

// A picture laid on the glass; pictures stay for the life of the process, as
// a scan in progress may still be reading the previous one.
struct Picture {
    long width = 0, height = 0, dpi = 200;
    std::vector<Rgb> pixels; // top row first
};
std::atomic<const Picture *> g_picture{nullptr};

unsigned long Le(const std::string &b, size_t at, int bytes)
{
    unsigned long v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | static_cast<uint8_t>(b[at + static_cast<size_t>(i)]);
    return v;
}

} // namespace

bool LayPictureOnGlass(const std::string &path, std::string *error)
{
    if (path.empty()) {
        g_picture.store(nullptr);
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    const std::string b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof()) {
        *error = "cannot read " + path;
        return false;
    }
    if (b.size() < 54 || b[0] != 'B' || b[1] != 'M') {
        *error = path + " is not a BMP file";
        return false;
    }
    const unsigned long offset = Le(b, 10, 4), bpp = Le(b, 28, 2), compression = Le(b, 30, 4);
    const long width = static_cast<int32_t>(Le(b, 18, 4)), rawHeight = static_cast<int32_t>(Le(b, 22, 4));
    const long height = rawHeight < 0 ? -rawHeight : rawHeight;
    if ((bpp != 24 && bpp != 32) || compression != 0 || width <= 0 || height <= 0 || width > 20000 || height > 20000) {
        *error = path + ": only uncompressed 24- and 32-bit BMP files can lie on the glass";
        return false;
    }
    const size_t stride = static_cast<size_t>((width * static_cast<long>(bpp) + 31) / 32 * 4);
    if (offset > b.size() || (b.size() - offset) / stride < static_cast<size_t>(height)) {
        *error = path + " is cut short";
        return false;
    }
    auto picture = std::make_unique<Picture>();
    picture->width = width;
    picture->height = height;
    const long ppm = static_cast<int32_t>(Le(b, 38, 4));
    if (ppm > 0)
        picture->dpi = std::max(1L, (ppm * 254 + 5000) / 10000);
    picture->pixels.resize(static_cast<size_t>(width * height));
    for (long y = 0; y < height; ++y) {
        const size_t row = offset + stride * static_cast<size_t>(rawHeight < 0 ? y : height - 1 - y);
        for (long x = 0; x < width; ++x) {
            const size_t at = row + static_cast<size_t>(x) * (bpp / 8);
            picture->pixels[static_cast<size_t>(y * width + x)] = {
                static_cast<uint8_t>(b[at + 2]), static_cast<uint8_t>(b[at + 1]), static_cast<uint8_t>(b[at])};
        }
    }
    static std::mutex keepLock;
    static std::vector<std::unique_ptr<Picture>> kept;
    std::lock_guard<std::mutex> guard(keepLock);
    kept.push_back(std::move(picture));
    g_picture.store(kept.back().get());
    return true;
}

Rgb PageSample(long x, long y)
{
    if (const Picture *picture = g_picture.load()) {
        const long px = x * picture->dpi / 1200, py = y * picture->dpi / 1200;
        if (x < 0 || y < 0 || px >= picture->width || py >= picture->height)
            return {255, 255, 255};
        return picture->pixels[static_cast<size_t>(py * picture->width + px)];
    }
    // The glass is 8.5 x 11.69 inch; outside it the lid is white.
    if (x < 0 || y < 0 || x >= 10200 || y >= 14028)
        return {255, 255, 255};
    // A black frame 1/10 inch wide around the page.
    if (x < 120 || y < 120 || x >= 10080 || y >= 13908)
        return {0, 0, 0};
    // Top band: eight colour bars, one inch each.
    if (y < 1320) {
        int bar = static_cast<int>((x - 120) / 1200);
        uint8_t r = (bar & 4) ? 255 : 0, g = (bar & 2) ? 255 : 0, b = (bar & 1) ? 255 : 0;
        return {r, g, b};
    }
    // Middle band: a horizontal grey ramp, dark on the left.
    if (y < 4920) {
        auto v = static_cast<uint8_t>(std::clamp((x - 120) * 256 / 9960, 0L, 255L));
        return {v, v, v};
    }
    // Lower part: a checkerboard of 1/4-inch squares in two tints.
    bool odd = (((x - 120) / 300) + ((y - 4920) / 300)) & 1;
    return odd ? Rgb{200, 60, 30} : Rgb{240, 240, 210};
}

void PackingOf(const LineFormat &f, int *p, int *q)
{
    *q = 1;
    if (IsColour(f)) {
        if (f.colorStep == 1 || f.colorStep == 16) {
            *p = 2;
        } else {
            *p = 1;
            *q = 3;
        }
        return;
    }
    int bits = SampleBits(f.colorStep);
    *p = bits == 1 ? 8 : bits == 2 ? 4 : bits <= 4 ? 2 : 1;
}

long LineBytes(const LineFormat &f)
{
    int p, q;
    PackingOf(f, &p, &q);
    return (f.width + p - 1) / p * q;
}

int Passes(const LineFormat &f)
{
    return f.colorMode == 17 ? 3 : 1;
}

namespace
{

// Rows of the chart that look alike: the part of the page a row crosses and,
// in the checkerboard, which tint its first square has. Two rows of one
// class hold the same samples at every x.
int RowClass(long y)
{
    if (y < 0 || y >= 14028)
        return 0;
    if (y < 120 || y >= 13908)
        return 1;
    if (y < 1320)
        return 2;
    if (y < 4920)
        return 3;
    return 4 + static_cast<int>(((y - 4920) / 300) & 1);
}

// The last line packed on this thread: the scanners send runs of rows of one
// class, and a row of the same class, format and pass is packed alike (the
// halftone dither also follows the row modulo 4).
struct PackedLine {
    LineFormat format;
    int pass = -1;
    int rowClass = -1;
    long ditherRow = -1;
    std::vector<uint8_t> line;
};
thread_local PackedLine t_lastPacked;

bool SameFormat(const LineFormat &a, const LineFormat &b)
{
    return a.model == b.model && a.resolution == b.resolution && a.colorStep == b.colorStep &&
           a.colorMode == b.colorMode && a.left == b.left && a.width == b.width;
}

std::vector<uint8_t> PackNewLine(const LineFormat &f, long row, int pass);

} // namespace

std::vector<uint8_t> PackLine(const LineFormat &f, long row, int pass)
{
    PackedLine &last = t_lastPacked;
    const int rowClass = f.resolution > 0 ? RowClass(row * 1200 / f.resolution) : -1;
    const long ditherRow = f.colorStep == 16 ? (row & 3) : 0;
    if (rowClass < 0 || !SameFormat(last.format, f) || last.pass != pass || last.rowClass != rowClass ||
        last.ditherRow != ditherRow) {
        last.line = PackNewLine(f, row, pass);
        last.format = f;
        last.pass = pass;
        last.rowClass = rowClass;
        last.ditherRow = ditherRow;
    }
    return last.line;
}

namespace
{

std::vector<uint8_t> PackNewLine(const LineFormat &f, long row, int pass)
{
    std::vector<uint8_t> line(static_cast<size_t>(LineBytes(f)), 0);
    int p, q;
    PackingOf(f, &p, &q);
    const bool halftone = f.colorStep == 16;
    const int bits = SampleBits(f.colorStep);
    const long y1200 = row * 1200 / f.resolution;
    for (long i = 0; i < f.width; ++i) {
        const long x = f.left + i;
        const Rgb c = PageSample(x * 1200 / f.resolution, y1200);
        if (IsColour(f) && q == 3) {
            uint8_t *px = &line[static_cast<size_t>(i * 3)];
            px[0] = Quantise(c.r, bits, false, x, row) << (8 - bits);
            px[1] = Quantise(c.g, bits, false, x, row) << (8 - bits);
            px[2] = Quantise(c.b, bits, false, x, row) << (8 - bits);
            continue;
        }
        uint8_t sample; // right-aligned value of this pixel's slot
        int slotBits;
        if (IsColour(f)) {
            // Nibble with red, green, blue in bits 3, 2, 1 (1 = the colour is present).
            sample = static_cast<uint8_t>(((1 - Quantise(c.r, 1, halftone, x, row)) << 3) |
                                          ((1 - Quantise(c.g, 1, halftone, x, row)) << 2) |
                                          ((1 - Quantise(c.b, 1, halftone, x, row)) << 1));
            slotBits = 4;
        } else {
            uint8_t value = Grey(c);
            if (f.colorMode == 17)
                value = pass == 0 ? c.g : pass == 1 ? c.r : c.b;
            slotBits = 8 / p;
            sample = Quantise(value, bits, halftone, x, row);
            if (bits == 1 && f.colorMode == 17)
                sample ^= 1; // a pass sets the bit where its colour is present
            if (bits > 1)
                sample = static_cast<uint8_t>(sample << (slotBits - bits)); // level in the top bits of the slot
        }
        const long bit = (i % p) * slotBits;
        line[static_cast<size_t>(i / p)] |= static_cast<uint8_t>(sample << (8 - slotBits - bit));
    }
    return line;
}

} // namespace

} // namespace sim
