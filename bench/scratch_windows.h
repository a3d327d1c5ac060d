// The set-up both MCI benchmarks share: a scratch Windows directory under
// /tmp with the driver installed, the driver module found next to the
// program or in ../lib, and the virtual clock (the scanners' waits cost
// nothing). Empty when the directory cannot be made.
#pragma once

#include <windows.h>
#include <tamrix/platform.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

inline std::string MakeScratchWindows(const std::string &program)
{
    std::string dir = "/tmp/" + program + ".XXXXXX";
    if (!mkdtemp(dir.data())) {
        std::perror((program + ": mkdtemp").c_str());
        return "";
    }
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec).parent_path().string();
    PlatSetModuleSearchPath((self + ":" + self + "/../lib").c_str());
    PlatSetWindowsDirectory(dir.c_str());
    PlatUseVirtualClock(TRUE);
    WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
    return dir;
}
