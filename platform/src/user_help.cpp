// WinHelpW: there is no help engine; a call with a window and a file name
// succeeds and is recorded for PlatHelpCalls.
#include <windows.h>
#include <tamrix/help.h>

#include "user.h"

#include <algorithm>
#include <string>

namespace
{

struct HelpRecord {
    LONG calls = 0;
    std::u16string file;
    UINT command = 0;
};

HelpRecord &Help()
{
    static auto *record = new HelpRecord;
    return *record;
}

} // namespace

PLAT_INJECTABLE(WinHelpW);

extern "C" BOOL WINAPI WinHelpW(HWND hwnd, LPCWSTR helpFile, UINT command, ULONG_PTR data)
{
    (void)data;
    if (PLAT_FAIL(WinHelpW, ERROR_FILE_NOT_FOUND))
        return FALSE;
    auto lock = plat::LockWorld();
    if (hwnd != nullptr && plat::CheckWindow(hwnd) == nullptr)
        return FALSE;
    if (helpFile == nullptr && command != HELP_QUIT) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    auto &help = Help();
    help.calls++;
    help.file = helpFile != nullptr ? reinterpret_cast<const char16_t *>(helpFile) : u"";
    help.command = command;
    return TRUE;
}

extern "C" LONG WINAPI PlatHelpCalls(LPWSTR file, int fileMax, UINT *command)
{
    auto lock = plat::LockWorld();
    const auto &help = Help();
    if (file != nullptr && fileMax > 0) {
        const size_t n = std::min(help.file.size(), static_cast<size_t>(fileMax - 1));
        help.file.copy(reinterpret_cast<char16_t *>(file), n);
        file[n] = 0;
    }
    if (command != nullptr)
        *command = help.command;
    return help.calls;
}
