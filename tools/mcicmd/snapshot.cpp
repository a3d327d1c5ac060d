#include "snapshot.h"

#include <windows.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <vector>

namespace mcicmd
{

namespace
{

// The driver's display window: a top-level window of the class it registers.
HWND FindDisplayWindow()
{
    for (HWND w = GetWindow(GetDesktopWindow(), GW_CHILD); w; w = GetWindow(w, GW_HWNDNEXT)) {
        WCHAR name[32] = {};
        if (GetClassNameW(w, name, 32) > 0 && lstrcmpiW(name, TEXT("TamrixWnd")) == 0)
            return w;
    }
    return nullptr;
}

void Put32(std::vector<uint8_t> &out, uint32_t v, bool bigEndian)
{
    for (int i = 0; i < 4; i++)
        out.push_back(static_cast<uint8_t>(bigEndian ? v >> (24 - 8 * i) : v >> (8 * i)));
}

uint32_t Crc32(const uint8_t *p, size_t n, uint32_t crc = 0)
{
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i;
            for (int k = 0; k < 8; k++)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    crc = ~crc;
    for (size_t i = 0; i < n; i++)
        crc = table[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

void Chunk(std::vector<uint8_t> &out, const char *type, const std::vector<uint8_t> &data)
{
    Put32(out, static_cast<uint32_t>(data.size()), true);
    size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    Put32(out, Crc32(out.data() + start, out.size() - start), true);
}

// rows: top-down RGB, 3 bytes a pixel. The image data is stored (deflate
// blocks without compression): no library needed, any viewer reads it.
std::vector<uint8_t> Png(int width, int height, const std::vector<uint8_t> &rgb)
{
    std::vector<uint8_t> raw;
    raw.reserve(static_cast<size_t>(height) * (1 + 3 * width));
    for (int y = 0; y < height; y++) {
        raw.push_back(0);
        raw.insert(raw.end(), rgb.begin() + static_cast<long>(y) * 3 * width,
                   rgb.begin() + static_cast<long>(y + 1) * 3 * width);
    }
    std::vector<uint8_t> z = {0x78, 0x01};
    for (size_t at = 0; at < raw.size() || at == 0;) {
        size_t n = std::min<size_t>(65535, raw.size() - at);
        z.push_back(at + n == raw.size() ? 1 : 0);
        z.push_back(static_cast<uint8_t>(n));
        z.push_back(static_cast<uint8_t>(n >> 8));
        z.push_back(static_cast<uint8_t>(~n));
        z.push_back(static_cast<uint8_t>(~n >> 8));
        z.insert(z.end(), raw.begin() + static_cast<long>(at), raw.begin() + static_cast<long>(at + n));
        at += n;
        if (n == 0)
            break;
    }
    uint32_t a = 1, b = 0;
    for (uint8_t c : raw) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    Put32(z, (b << 16) | a, true);

    std::vector<uint8_t> out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> header;
    Put32(header, static_cast<uint32_t>(width), true);
    Put32(header, static_cast<uint32_t>(height), true);
    header.insert(header.end(), {8, 2, 0, 0, 0}); // 8-bit RGB
    Chunk(out, "IHDR", header);
    Chunk(out, "IDAT", z);
    Chunk(out, "IEND", {});
    return out;
}

std::vector<uint8_t> Bmp(int width, int height, const std::vector<uint8_t> &rgb)
{
    const uint32_t stride = (static_cast<uint32_t>(width) * 3 + 3) & ~3u;
    const uint32_t size = stride * static_cast<uint32_t>(height);
    std::vector<uint8_t> out = {'B', 'M'};
    Put32(out, 54 + size, false);
    Put32(out, 0, false);
    Put32(out, 54, false);
    Put32(out, 40, false);
    Put32(out, static_cast<uint32_t>(width), false);
    Put32(out, static_cast<uint32_t>(height), false);
    Put32(out, 1 | (24u << 16), false); // planes, bits
    for (int i = 0; i < 6; i++)
        Put32(out, i == 1 ? size : 0, false);
    for (int y = height - 1; y >= 0; y--) {
        const uint8_t *row = rgb.data() + static_cast<size_t>(y) * 3 * width;
        for (int x = 0; x < width; x++)
            out.insert(out.end(), {row[3 * x + 2], row[3 * x + 1], row[3 * x]});
        out.resize(out.size() + (stride - 3 * static_cast<uint32_t>(width)), 0);
    }
    return out;
}

} // namespace

bool SaveDisplaySnapshot(const std::string &file, std::string *error)
{
    HWND wnd = FindDisplayWindow();
    if (!wnd) {
        *error = "there is no display window (open the scanner first)";
        return false;
    }
    RECT rc{};
    GetClientRect(wnd, &rc);
    const int width = rc.right - rc.left, height = rc.bottom - rc.top;
    if (width <= 0 || height <= 0) {
        *error = "the display window has no client area (window DEVICE state restore wait)";
        return false;
    }
    if (!IsWindowVisible(wnd))
        std::fprintf(stderr, "mcicmd: note: the display window is hidden; this is what it would show "
                             "(window DEVICE state show wait shows it)\n");

    BITMAPINFO bi{};
    bi.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    bi.bmiHeader.biWidth = width;
    bi.bmiHeader.biHeight = -height; // top-down
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 24;
    bi.bmiHeader.biCompression = BI_RGB;
    void *bits = nullptr;
    HDC screen = GetDC(wnd);
    HDC mem = screen ? CreateCompatibleDC(screen) : nullptr;
    HBITMAP dib = mem ? CreateDIBSection(mem, &bi, DIB_RGB_COLORS, &bits, nullptr, 0) : nullptr;
    HGDIOBJ old = dib ? SelectObject(mem, dib) : nullptr;
    bool copied = old && BitBlt(mem, 0, 0, width, height, screen, 0, 0, SRCCOPY);
    std::vector<uint8_t> rgb;
    if (copied) {
        const size_t stride = (static_cast<size_t>(width) * 3 + 3) & ~size_t{3};
        rgb.resize(static_cast<size_t>(width) * height * 3);
        for (int y = 0; y < height; y++) {
            const uint8_t *row = static_cast<const uint8_t *>(bits) + y * stride;
            for (int x = 0; x < width; x++) { // the DIB holds blue, green, red
                rgb[(static_cast<size_t>(y) * width + x) * 3] = row[3 * x + 2];
                rgb[(static_cast<size_t>(y) * width + x) * 3 + 1] = row[3 * x + 1];
                rgb[(static_cast<size_t>(y) * width + x) * 3 + 2] = row[3 * x];
            }
        }
    }
    if (old)
        SelectObject(mem, old);
    if (dib)
        DeleteObject(dib);
    if (mem)
        DeleteDC(mem);
    if (screen)
        ReleaseDC(wnd, screen);
    if (!copied) {
        *error = "cannot read the display window's picture";
        return false;
    }
    const bool png = file.size() > 4 &&
                     (file.compare(file.size() - 4, 4, ".png") == 0 || file.compare(file.size() - 4, 4, ".PNG") == 0);
    const std::vector<uint8_t> data = png ? Png(width, height, rgb) : Bmp(width, height, rgb);
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
    out.close();
    if (!out) {
        *error = "cannot write the file";
        return false;
    }
    return true;
}

} // namespace mcicmd
