// Helpers shared by the fuzz targets: a reader that takes values from the
// front of the fuzzer's bytes (zeros once they run out), and the check that
// stops the run on a broken rule (a crash the fuzzer keeps as an input).
#pragma once

#include <windows.h>
#include <tamrix/platform.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz
{

class Input
{
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t Word()
    {
        uint16_t high = Byte();
        return static_cast<uint16_t>(high << 8 | Byte());
    }
    // One of `n` choices (n > 0).
    size_t Pick(size_t n) { return Byte() % n; }
    template <class T, size_t N> T PickFrom(const T (&values)[N]) { return values[Pick(N)]; }
    // Up to `max` of the next bytes.
    std::vector<uint8_t> Take(size_t max)
    {
        size_t n = size_ - pos_ < max ? size_ - pos_ : max;
        std::vector<uint8_t> out(data_ + pos_, data_ + pos_ + n);
        pos_ += n;
        return out;
    }
    std::vector<uint8_t> Rest() { return Take(size_ - pos_); }
    size_t Left() const { return size_ - pos_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// A rule the code under test broke: reported and ended like a crash.
[[noreturn]] inline void Fail(const char *what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

inline void Check(bool ok, const char *what)
{
    if (!ok)
        Fail(what);
}

// How an input ended, printed when TAMRIX_FUZZ_TRACE is set (to see how
// deep the stored inputs reach).
__attribute__((format(printf, 1, 2))) inline void Trace(const char *format, ...)
{
    static const bool on = std::getenv("TAMRIX_FUZZ_TRACE") != nullptr;
    if (!on)
        return;
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

// Live platform objects of every kind, to tell that an input left nothing behind.
struct LiveCounts {
    long counts[PLAT_KIND_COUNT] = {};
    static LiveCounts Now()
    {
        LiveCounts c;
        for (int k = 0; k < PLAT_KIND_COUNT; ++k)
            c.counts[k] = PlatLiveCount(static_cast<PlatKind>(k));
        return c;
    }
    void CheckSame(const char *where) const
    {
        LiveCounts now = Now();
        for (int k = 0; k < PLAT_KIND_COUNT; ++k) {
            if (now.counts[k] != counts[k]) {
                std::fprintf(stderr, "%s: %s objects %ld -> %ld\n", where, PlatKindName(static_cast<PlatKind>(k)),
                             counts[k], now.counts[k]);
                Fail("platform objects left behind");
            }
        }
    }
};

} // namespace fuzz
