#include "debug.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace tamrix_sane
{

int DebugLevel()
{
    const char *env = std::getenv("SANE_DEBUG_TAMRIX");
    return env ? std::atoi(env) : 0;
}

void Debug(int level, const char *format, ...)
{
    if (level > DebugLevel())
        return;
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    static const auto start = std::chrono::steady_clock::now();
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    std::fprintf(stderr, "[tamrix %6lld ms] %s\n", static_cast<long long>(ms), text);
}

} // namespace tamrix_sane
