// mcicmd: sends MCI command strings to the scanner driver and prints the
// answers, with a hidden window of its own that receives the notifications.
#include <windows.h>
#include <mmddk.h>
#include <mmsystem.h>
#include <tamrix/platform.h>

#include "virtual_scanner.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace
{

const char kHelp[] = "usage: mcicmd [options] [COMMAND...]\n"
                     "\n"
                     "Sends MCI command strings (for example \"open scanner alias s wait\") to the\n"
                     "multimedia layer, which passes them to the TAMRIX scanner driver. Each\n"
                     "COMMAND argument is one command string. Without commands and without -f,\n"
                     "commands are read from standard input, one per line (with a prompt when\n"
                     "standard input is a terminal).\n"
                     "\n"
                     "For each command the return string, if any, is printed on standard output;\n"
                     "a failed command prints \"error N: <text>\" on standard error and ends the\n"
                     "run with exit status 1 (unless -k is given). Notifications requested with\n"
                     "\"notify\" are printed as they arrive:\n"
                     "  notify: successful|superseded|aborted|failure (device N)\n"
                     "\n"
                     "Options:\n"
                     "  -f, --file FILE     read commands from FILE, one per line; blank lines and\n"
                     "                      lines starting with '#' are skipped\n"
                     "  -k, --keep-going    go on after a failed command (exit status still 1)\n"
                     "  --windir DIR        Windows directory holding system.ini, win.ini and\n"
                     "                      dosdevices (default: $TAMRIX_WINDIR, else a private\n"
                     "                      directory, ~/.cache/tamrix/mcicmd, in which the driver\n"
                     "                      is entered in system.ini)\n"
                     "  --install           install the driver through its DRV_INSTALL message\n"
                     "                      (OpenDriver/SendDriverMessage) before running commands\n"
                     "  --timeout MS        time limit of .wait (default 30000)\n"
                     "  --scanner SPEC      configure the scanner in win.ini [TAMRIX] before running:\n"
                     "                      MODEL[:INTERFACE[:ID]], MODEL 1..7 or KS-610..KS-660,\n"
                     "                      KT-700; INTERFACE scsi, rs232c or gpib; ID the COM port\n"
                     "                      (1..9) or GP-IB address (0..30); e.g. ks-620:gpib:5\n"
                     "  --no-scanner        attach no virtual scanner (commands that reach the\n"
                     "                      scanner then fail as with a scanner switched off)\n"
                     "  --real-time         let the scanners' mandated waits (9 s after start, time-\n"
                     "                      outs) take real time; by default they pass at once on a\n"
                     "                      virtual clock while a virtual scanner is attached\n"
                     "  -h, --help          show this text\n"
                     "\n"
                     "Meta-commands (in scripts and interactive input):\n"
                     "  .wait [MS]          process messages until every notify command issued so\n"
                     "                      far has been answered, or the time limit has passed\n"
                     "                      (error: exit status 1)\n"
                     "  .sleep MS           process messages for MS milliseconds\n"
                     "\n"
                     "The driver module tamrix.so is looked for next to mcicmd, in ../lib and in\n"
                     "$TAMRIX_MODULE_PATH. The default Windows directory has the driver entered\n"
                     "(system.ini [MCI32] Scanner=TAMRIX.DLL). Unless --no-scanner is given, a\n"
                     "virtual scanner of the model win.ini [TAMRIX] names (default: KS-650 on\n"
                     "RS-232C, COM1) is attached to the interface the driver will open, and\n"
                     "speaks that scanner's wire protocol; a line on standard error says which.\n"
                     "A COM port that the Windows directory links to a tty (dosdevices/com1 ->\n"
                     "/dev/ttyUSB0) is that tty: no virtual scanner is put there, and the clock\n"
                     "is real.\n";

HWND g_wnd;
int g_pending; // notify commands not yet answered

std::u16string Wide(const std::string &s)
{
    int n = MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, nullptr, 0);
    std::u16string w(n > 0 ? n - 1 : 0, u'\0');
    if (n > 1)
        MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, w.data(), n);
    return w;
}

std::string Narrow(LPCWSTR w)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
    std::string s(n > 0 ? n - 1 : 0, '\0');
    if (n > 1)
        WideCharToMultiByte(CP_UTF8, 0, w, -1, s.data(), n, nullptr, nullptr);
    return s;
}

LRESULT CALLBACK WndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == MM_MCINOTIFY) {
        const char *what = wParam == MCI_NOTIFY_SUCCESSFUL   ? "successful"
                           : wParam == MCI_NOTIFY_SUPERSEDED ? "superseded"
                           : wParam == MCI_NOTIFY_ABORTED    ? "aborted"
                           : wParam == MCI_NOTIFY_FAILURE    ? "failure"
                                                             : "unknown";
        std::printf("notify: %s (device %ld)\n", what, static_cast<long>(lParam));
        std::fflush(stdout);
        if (g_pending > 0)
            g_pending--;
        return 0;
    }
    return DefWindowProcW(wnd, msg, wParam, lParam);
}

void Pump()
{
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

// Processes messages until `done()` or `ms` have passed; true when done.
template <class F> bool PumpFor(DWORD ms, F done)
{
    DWORD start = GetTickCount();
    for (;;) {
        Pump();
        if (done())
            return true;
        if (GetTickCount() - start >= ms)
            return false;
        Sleep(10);
    }
}

struct Options {
    std::vector<std::string> commands;
    std::string file;
    std::string windir;
    bool keepGoing = false;
    bool install = false;
    DWORD timeout = 30000;
    std::string scanner;
    bool noScanner = false;
    bool realTime = false;
};

bool HasWord(const std::string &line, const char *word)
{
    std::string lower;
    for (char c : line)
        lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    size_t n = std::strlen(word);
    for (size_t p = lower.find(word); p != std::string::npos; p = lower.find(word, p + 1)) {
        bool startOk = p == 0 || std::isspace(static_cast<unsigned char>(lower[p - 1]));
        bool endOk = p + n == lower.size() || std::isspace(static_cast<unsigned char>(lower[p + n]));
        if (startOk && endOk)
            return true;
    }
    return false;
}

// Runs one line; false when it failed.
bool RunLine(std::string line, const Options &opt)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n' || std::isspace((unsigned char)line.back())))
        line.pop_back();
    size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#')
        return true;
    line = line.substr(first);
    if (line[0] == '.') {
        char *end = nullptr;
        if (line.rfind(".sleep", 0) == 0) {
            unsigned long ms = std::strtoul(line.c_str() + 6, &end, 10);
            PumpFor(static_cast<DWORD>(ms), [] { return false; });
            return true;
        }
        if (line.rfind(".wait", 0) == 0) {
            unsigned long ms = std::strtoul(line.c_str() + 5, &end, 10);
            if (end == line.c_str() + 5)
                ms = opt.timeout;
            if (PumpFor(static_cast<DWORD>(ms), [] { return g_pending == 0; }))
                return true;
            std::fprintf(stderr, "error: %d notification(s) still pending after %lu ms\n", g_pending, ms);
            return false;
        }
        std::fprintf(stderr, "error: unknown meta-command %s\n", line.c_str());
        return false;
    }
    Pump();
    WCHAR ret[1024] = {};
    MCIERROR err = mciSendStringW(Wide(line).c_str(), ret, 1024, g_wnd);
    if (err) {
        WCHAR text[512] = {};
        if (!mciGetErrorStringW(err, text, 512))
            text[0] = 0;
        std::fprintf(stderr, "error %u: %s\n", static_cast<unsigned>(LOWORD(err)), Narrow(text).c_str());
        Pump();
        return false;
    }
    // Counted before the queue is pumped: an immediate notification is
    // already waiting there.
    if (HasWord(line, "notify"))
        g_pending++;
    if (ret[0])
        std::printf("%s\n", Narrow(ret).c_str());
    std::fflush(stdout);
    Pump();
    return true;
}

std::string SelfDir()
{
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : p.parent_path().string();
}

void SetUpModulePath()
{
    std::string dir = SelfDir();
    std::string path = dir + ":" + dir + "/../lib";
    if (const char *env = std::getenv("TAMRIX_MODULE_PATH"); env && *env)
        path = std::string(env) + ":" + path;
    PlatSetModuleSearchPath(path.c_str());
}

bool SetUpWindowsDirectory(const Options &opt)
{
    std::string dir = opt.windir;
    if (const char *env = std::getenv("TAMRIX_WINDIR"); dir.empty() && env && *env)
        dir = env;
    const bool enterDriver = opt.windir.empty(); // not in a directory the user named
    if (dir.empty()) {
        const char *home = std::getenv("HOME");
        dir = std::string(home && *home ? home : "/tmp") + "/.cache/tamrix/mcicmd";
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        std::fprintf(stderr, "mcicmd: cannot create %s: %s\n", dir.c_str(), ec.message().c_str());
        return false;
    }
    PlatSetWindowsDirectory(dir.c_str());
    if (enterDriver)
        WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
    return true;
}

bool Install()
{
    HDRVR drv = OpenDriver(TEXT("TAMRIX.DLL"), nullptr, 0);
    if (!drv) {
        std::fprintf(stderr, "mcicmd: cannot load TAMRIX.DLL\n");
        return false;
    }
    LRESULT r = SendDriverMessage(drv, DRV_INSTALL, 0, 0);
    CloseDriver(drv, 0, 0);
    if (r == 0) {
        std::fprintf(stderr, "mcicmd: the driver refused DRV_INSTALL\n");
        return false;
    }
    return true;
}

int ParseOptions(int argc, char **argv, Options &opt)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&](const char *name) -> const char * {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "mcicmd: %s needs a value\n", name);
                return nullptr;
            }
            return argv[++i];
        };
        if (a == "-h" || a == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "-k" || a == "--keep-going") {
            opt.keepGoing = true;
        } else if (a == "--install") {
            opt.install = true;
        } else if (a == "--no-scanner") {
            opt.noScanner = true;
        } else if (a == "--real-time") {
            opt.realTime = true;
        } else if (a == "--scanner") {
            const char *v = value("--scanner");
            if (!v)
                return 2;
            opt.scanner = v;
        } else if (a == "-f" || a == "--file") {
            const char *v = value("-f");
            if (!v)
                return 2;
            opt.file = v;
        } else if (a == "--windir") {
            const char *v = value("--windir");
            if (!v)
                return 2;
            opt.windir = v;
        } else if (a == "--timeout") {
            const char *v = value("--timeout");
            if (!v)
                return 2;
            opt.timeout = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
        } else if (a.size() > 1 && a[0] == '-' && opt.commands.empty()) {
            std::fprintf(stderr, "mcicmd: unknown option %s (see --help)\n", a.c_str());
            return 2;
        } else {
            opt.commands.push_back(a);
        }
    }
    return -1;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    if (int rc = ParseOptions(argc, argv, opt); rc >= 0)
        return rc;
    SetUpModulePath();
    if (!SetUpWindowsDirectory(opt))
        return 2;
    if (!opt.scanner.empty()) {
        mcicmd::ScannerChoice choice;
        std::string error;
        if (!mcicmd::ParseScannerChoice(opt.scanner, &choice, &error)) {
            std::fprintf(stderr, "mcicmd: --scanner: %s\n", error.c_str());
            return 2;
        }
        if (choice.model == 7)
            std::fprintf(stderr, "mcicmd: note: the settings cannot select the KT-700 (model 7); the driver reads "
                                 "model 7 as the KS-650\n");
        mcicmd::StoreScannerChoice(choice);
    }
    std::unique_ptr<mcicmd::VirtualScanner> scanner;
    if (!opt.noScanner) {
        scanner = std::make_unique<mcicmd::VirtualScanner>(mcicmd::ReadScannerChoice());
        if (!scanner->attached()) {
            std::fprintf(stderr, "mcicmd: cannot attach the %s\n", scanner->description().c_str());
            return 2;
        }
        std::fprintf(stderr, "mcicmd: %s\n", scanner->description().c_str());
        if (!opt.realTime && !scanner->linked())
            PlatUseVirtualClock(TRUE);
    }

    HINSTANCE self = GetModuleHandleW(nullptr);
    WNDCLASSW wc{};
    wc.lpfnWndProc = WndProc;
    wc.hInstance = self;
    wc.lpszClassName = TEXT("McicmdNotify");
    RegisterClassW(&wc);
    g_wnd = CreateWindowExW(0, TEXT("McicmdNotify"), TEXT("mcicmd"), 0, 0, 0, 0, 0, nullptr, nullptr, self, nullptr);
    if (!g_wnd) {
        std::fprintf(stderr, "mcicmd: cannot create the notification window\n");
        return 2;
    }
    if (opt.install && !Install())
        return 1;

    bool failed = false;
    auto run = [&](const std::string &line) {
        if (RunLine(line, opt))
            return true;
        failed = true;
        return opt.keepGoing;
    };
    if (!opt.file.empty()) {
        std::ifstream in(opt.file);
        if (!in) {
            std::fprintf(stderr, "mcicmd: cannot read %s: %s\n", opt.file.c_str(), std::strerror(errno));
            return 2;
        }
        for (std::string line; std::getline(in, line);)
            if (!run(line))
                break;
    } else if (!opt.commands.empty()) {
        for (const std::string &c : opt.commands)
            if (!run(c))
                break;
    } else {
        bool tty = isatty(0);
        for (;;) {
            if (tty) {
                std::printf("mci> ");
                std::fflush(stdout);
            }
            std::string line;
            // Reading the terminal blocks outside the platform: the virtual
            // clock may move on meanwhile.
            PlatBeginExternalWait();
            bool got = static_cast<bool>(std::getline(std::cin, line));
            PlatEndExternalWait();
            if (!got)
                break;
            if (!run(line) && !tty)
                break;
        }
    }
    Pump();
    DestroyWindow(g_wnd);
    UnregisterClassW(TEXT("McicmdNotify"), self);
    return failed ? 1 : 0;
}
