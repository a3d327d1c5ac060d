// Debug output under $SANE_DEBUG_TAMRIX (a level; 1 = errors, 3 = commands).
#pragma once

namespace tamrix_sane
{

int DebugLevel();
void Debug(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

} // namespace tamrix_sane
