// The page lying on every virtual scanner's glass, and the packing of its
// scan lines the way the scanners send them. The page is a fixed chart
// defined in physical units, so a scan at any resolution and area shows the
// same picture and a test can compute every expected pixel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim
{

struct Rgb {
    uint8_t r, g, b;
};

// The page at a point given in 1/1200 inch from the glass's top-left corner.
// By default the chart: a frame, grey and colour bars and a gradient.
Rgb PageSample(long x1200, long y1200);

// Lays a picture on the glass instead of the chart, for every scanner of the
// process: an uncompressed 24- or 32-bit BMP file, its top-left corner at the
// glass's, at the resolution its header gives (200 dpi when it gives none),
// on a white lid. Done before scanning; an empty path puts the chart back.
// False with a message in *error when the file is not such a BMP.
bool LayPictureOnGlass(const std::string &bmpPath, std::string *error);
inline uint8_t Grey(Rgb c)
{
    return static_cast<uint8_t>((c.r * 30 + c.g * 59 + c.b * 11) / 100);
}

// What a scan asks for, in the scanner's terms.
struct LineFormat {
    int model = 1; // 1 to 7
    int resolution = 200;
    int colorStep = 1; // bits per sample 1..8, or 16 = halftone
    int colorMode = 0; // 0 monochrome, 16 colour, 17 colour in three passes (model 3)
    long left = 0;     // first pixel across, at the resolution
    long width = 0;    // pixels across (the scanner's line, possibly wider than asked)
};

// Pixels per byte p and bytes per pixel group q of a line, as the scanners pack it.
void PackingOf(const LineFormat &format, int *p, int *q);
// Bytes of one line of `width` pixels.
long LineBytes(const LineFormat &format);
// Number of passes: 3 for colour in three passes, else 1.
int Passes(const LineFormat &format);
// The packed line `row` (at the resolution, counted from the glass's top) of
// pass `pass` (0-based: green, red, blue for three passes).
//  - monochrome: 1 bit per pixel with 1 = black (threshold, or an ordered
//    dither for halftone), else the level in the top bits: 2-bit levels four
//    to a byte, 3- or 4-bit levels in nibbles, 5- to 8-bit levels in bytes,
//    first pixel first (most significant bits);
//  - colour in one pass: colour step 1 or halftone, a nibble per pixel with
//    red, green, blue in bits 3, 2, 1; else three bytes red, green, blue per
//    pixel with the level in the top bits;
//  - three passes: one channel per pass, packed like monochrome.
std::vector<uint8_t> PackLine(const LineFormat &format, long row, int pass = 0);

} // namespace sim
