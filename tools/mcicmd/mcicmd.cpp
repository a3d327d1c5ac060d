// mcicmd: sends MCI command strings to the scanner driver and prints the
// answers, with a hidden window of its own that receives the notifications.
#include <windows.h>
#include <mmddk.h>
#include <mmsystem.h>
#include <tamrix/platform.h>

#include "command_help.h"
#include "snapshot.h"
#include "virtual_scanner.h"

#include <editline/readline.h>
#include <signal.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <sstream>
#include <string>
#include <vector>

namespace
{

const char kHelp[] = "usage: mcicmd [options] [COMMAND...]\n"
                     "\n"
                     "Sends MCI command strings (for example \"open scanner alias s wait\") to the\n"
                     "multimedia layer, which passes them to the TAMRIX scanner driver. Each\n"
                     "COMMAND argument is one command string. Without commands and without -f,\n"
                     "commands are read from standard input, one per line (with a prompt, line\n"
                     "editing and history when standard input is a terminal).\n"
                     "\n"
                     "Every command string ends with \"wait\" or \"notify\" (the driver refuses a\n"
                     "command with neither, error 273). With \"wait\" mcicmd returns when the work\n"
                     "is done; with \"notify\" it returns at once and the end is reported later:\n"
                     "  notify: successful|superseded|aborted|failure (device N) #K \"COMMAND\"\n"
                     "where #K counts the notify commands of the run. Superseded means a later\n"
                     "notify command came first; the command's own end is reported too.\n"
                     "\n"
                     "For each command the return string, if any, is printed on standard output;\n"
                     "a failed command prints \"error N: <text>\" on standard error and ends the\n"
                     "run with exit status 1 (unless -k is given).\n"
                     "\n"
                     "A scan, from start to file:\n"
                     "  mcicmd --install --scanner ks-620:rs232c:1 \"open scanner alias s wait\" \\\n"
                     "      \"scanmode s resolution 200 wait\" \"scanread s rect 0 0 400 600 wait\" \\\n"
                     "      \"save s page.bmp wait\" \"close s wait\"\n"
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
                     "                      (OpenDriver/SendDriverMessage) before running commands;\n"
                     "                      needed once in a new --windir\n"
                     "  --timeout MS        time limit of .wait (default 30000)\n"
                     "  --scanner SPEC      configure the scanner in win.ini [TAMRIX] before running:\n"
                     "                      MODEL[:INTERFACE[:ID]], MODEL 1..7 or KS-610..KS-660,\n"
                     "                      KT-700; INTERFACE scsi, rs232c or gpib; ID the COM port\n"
                     "                      (1..9) or GP-IB address (0..30); e.g. ks-620:gpib:5.\n"
                     "                      KS-610: rs232c; KS-630: rs232c, gpib; KT-700: gpib;\n"
                     "                      the others: scsi, rs232c, gpib\n"
                     "  --no-scanner        attach no virtual scanner (commands that reach the\n"
                     "                      scanner then fail as with a scanner switched off)\n"
                     "  --real-time         let the scanners' mandated waits (9 s after start, time-\n"
                     "                      outs) take real time; by default they pass at once on a\n"
                     "                      virtual clock while a virtual scanner is attached\n"
                     "  --snapshot FILE     save what the display window shows (as .snapshot does)\n"
                     "                      before the first close command, or at the end\n"
                     "  --dialog-answer ok|cancel\n"
                     "                      answer the driver's modal scan-mode dialog (\"scanmode\n"
                     "                      DEVICE dialog wait\") with OK or Cancel; without it such\n"
                     "                      a command is refused, as nobody could answer it\n"
                     "  -h, --help          show this text\n"
                     "\n"
                     "Meta-commands (in scripts and interactive input):\n"
                     "  help [COMMAND]      this text, or one command's keywords\n"
                     "  quit, exit          end the run (as end of input does)\n"
                     "  .wait [#K|DEVICE] [MS]\n"
                     "                      process messages until the notify commands have ended:\n"
                     "                      all of them, number K, or those sent to DEVICE; after\n"
                     "                      MS (default --timeout) it fails (exit status 1)\n"
                     "  .sleep MS           process messages for MS milliseconds\n"
                     "  .snapshot FILE      save what the driver's display window shows as a\n"
                     "                      bitmap (FILE.bmp) or PNG image (FILE.png)\n"
                     "Ctrl-C stops (MCI \"stop\") the notified scans still running; a second\n"
                     "Ctrl-C before that is done ends mcicmd. A scan given with \"wait\" runs to\n"
                     "its end: give scanread with \"notify\" and then .wait to be able to stop it.\n"
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

HWND g_wnd; // receives what no notify command asked for

struct Quit {
};

// One notify command: the window that receives its notifications, so that
// each notification is heard as the answer to the command it belongs to.
struct Notified {
    int order = 0;       // 1 for the first notify command of the run
    std::string device;  // the device name or alias the command addressed
    std::string command; // the command string
    HWND window = nullptr;
    bool done = false; // heard successful, failure or aborted
};

std::vector<Notified> g_notified;
int g_doneCount;
volatile sig_atomic_t g_interrupt;
bool g_interactive;

const char *NotifyName(WPARAM code)
{
    return code == MCI_NOTIFY_SUCCESSFUL   ? "successful"
           : code == MCI_NOTIFY_SUPERSEDED ? "superseded"
           : code == MCI_NOTIFY_ABORTED    ? "aborted"
           : code == MCI_NOTIFY_FAILURE    ? "failure"
                                           : "unknown";
}

// Superseded only says that a later notify command came; the command's own
// end (successful, failure or aborted) still follows or came before.
LRESULT CALLBACK WndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == MM_MCINOTIFY) {
        for (Notified &n : g_notified) {
            if (n.window != wnd)
                continue;
            std::printf("notify: %s (device %ld) #%d \"%s\"\n", NotifyName(wParam), static_cast<long>(lParam), n.order,
                        n.command.c_str());
            if (wParam != MCI_NOTIFY_SUPERSEDED && !n.done) {
                n.done = true;
                g_doneCount++;
            }
        }
        std::fflush(stdout);
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

void StopNotifiedScans();

// Processes messages until `done()` or `ms` have passed; true when done.
// Ctrl-C in between stops the notified scans still running.
template <class F> bool PumpFor(DWORD ms, F done)
{
    DWORD start = GetTickCount();
    for (;;) {
        Pump();
        if (g_interrupt) {
            g_interrupt = 0;
            StopNotifiedScans();
        }
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
    bool help = false;
    DWORD timeout = 30000;
    std::string scanner;
    bool noScanner = false;
    bool realTime = false;
    std::string snapshot;
    int dialogAnswer = 0; // IDOK or IDCANCEL: answers the driver's modal dialogs
};

std::string Lower(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::string> Words(const std::string &line)
{
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string w; in >> w;)
        words.push_back(w);
    return words;
}

bool HasWord(const std::vector<std::string> &words, const char *word)
{
    for (const std::string &w : words)
        if (Lower(w) == word)
            return true;
    return false;
}

// The name later commands use for the device a command addresses: the alias
// an open gives it, else the device word.
std::string DeviceOf(const std::vector<std::string> &words)
{
    if (words.size() < 2)
        return "";
    if (Lower(words[0]) == "open")
        for (size_t i = 2; i + 1 < words.size(); i++)
            if (Lower(words[i]) == "alias")
                return Lower(words[i + 1]);
    return Lower(words[1]);
}

// Ctrl-C: stop (MCI stop, with wait) every device with a notified scan that
// has not ended.
void StopNotifiedScans()
{
    std::vector<std::string> devices;
    for (const Notified &n : g_notified) {
        std::vector<std::string> w = Words(n.command);
        if (!n.done && !w.empty() && Lower(w[0]) == "scanread" &&
            std::find(devices.begin(), devices.end(), n.device) == devices.end())
            devices.push_back(n.device);
    }
    if (devices.empty()) {
        std::fprintf(stderr, "mcicmd: interrupted: no notified scan is running%s\n", g_interactive ? "" : "; stopping");
        if (!g_interactive)
            std::exit(130);
        return;
    }
    for (const std::string &d : devices) {
        std::string stop = "stop " + d + " wait";
        std::fprintf(stderr, "mcicmd: interrupted: %s\n", stop.c_str());
        MCIERROR err = mciSendStringW(Wide(stop).c_str(), nullptr, 0, nullptr);
        if (err)
            std::fprintf(stderr, "mcicmd: stop %s: error %u\n", d.c_str(), static_cast<unsigned>(LOWORD(err)));
    }
}

void OnInterrupt(int)
{
    if (g_interrupt) {
        // A second Ctrl-C before the first was acted on: leave now.
        signal(SIGINT, SIG_DFL);
        raise(SIGINT);
    }
    g_interrupt = 1;
}

// .wait [#N | DEVICE] [MS]
bool RunWait(const std::vector<std::string> &words, const Options &opt)
{
    unsigned long ms = opt.timeout;
    std::string target;
    for (size_t i = 1; i < words.size(); i++) {
        char *end = nullptr;
        unsigned long v = std::strtoul(words[i].c_str(), &end, 10);
        if (!words[i].empty() && std::isdigit(static_cast<unsigned char>(words[i][0])) && *end == 0)
            ms = v;
        else if (target.empty())
            target = words[i];
        else {
            std::fprintf(stderr, "error: .wait takes a command (#N or a device) and a time limit\n");
            return false;
        }
    }
    std::vector<const Notified *> awaited;
    if (!target.empty() && target[0] == '#') {
        int order = std::atoi(target.c_str() + 1);
        if (order < 1 || order > static_cast<int>(g_notified.size())) {
            std::fprintf(stderr, "error: .wait %s: there is no notify command #%d (%zu so far)\n", target.c_str(),
                         order, g_notified.size());
            return false;
        }
        awaited.push_back(&g_notified[order - 1]);
    } else {
        for (const Notified &n : g_notified)
            if (target.empty() || n.device == Lower(target))
                awaited.push_back(&n);
        if (!target.empty() && awaited.empty()) {
            std::fprintf(stderr, "error: .wait %s: no notify command was sent to %s\n", target.c_str(), target.c_str());
            return false;
        }
    }
    auto allDone = [&] {
        for (const Notified *n : awaited)
            if (!n->done)
                return false;
        return true;
    };
    if (PumpFor(static_cast<DWORD>(ms), allDone))
        return true;
    for (const Notified *n : awaited)
        if (!n->done)
            std::fprintf(stderr, "error: #%d \"%s\" not ended after %lu ms\n", n->order, n->command.c_str(), ms);
    return false;
}

// Answers the modal dialog the driver shows on this thread.
int g_answer;
void CALLBACK AnswerDialog(HWND, UINT, UINT_PTR, DWORD)
{
    HWND dlg = GetActiveWindow();
    if (dlg && GetDlgItem(dlg, g_answer))
        PostMessageW(dlg, WM_COMMAND, static_cast<WPARAM>(g_answer), 0);
}

std::vector<mcicmd::CommandInfo> g_commands;

void PrintHelp(const std::string &command)
{
    if (command.empty()) {
        std::fputs(kHelp, stdout);
        std::fputs("\n", stdout);
    }
    std::string text = mcicmd::DescribeCommands(g_commands, Lower(command));
    if (!text.empty())
        std::fputs(text.c_str(), stdout);
    else if (!command.empty())
        std::printf("no command %s; the commands are:", command.c_str());
    if (g_commands.empty())
        std::fputs("(the driver's commands are listed when the driver module can be loaded: see below)\n", stdout);
    if (!command.empty() && text.empty()) {
        for (const mcicmd::CommandInfo &c : g_commands)
            std::printf(" %s", c.name.c_str());
        std::printf("\n");
    }
    std::fflush(stdout);
}

std::string g_windir;
bool g_snapshotTaken;

// --snapshot: what the display window shows before the device closes.
bool TakeSnapshot(const std::string &file)
{
    g_snapshotTaken = true;
    Pump();
    std::string error;
    if (mcicmd::SaveDisplaySnapshot(file, &error))
        return true;
    std::fprintf(stderr, "mcicmd: --snapshot %s: %s\n", file.c_str(), error.c_str());
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
    std::vector<std::string> words = Words(line);
    const std::string verb = Lower(words[0]);
    if (verb == "help" || verb == ".help") {
        PrintHelp(words.size() > 1 ? words[1] : "");
        return true;
    }
    if (verb == "quit" || verb == "exit" || verb == ".quit") {
        std::fflush(stdout);
        throw Quit{};
    }
    if (line[0] == '.') {
        if (verb == ".sleep") {
            unsigned long ms = words.size() > 1 ? std::strtoul(words[1].c_str(), nullptr, 10) : 0;
            PumpFor(static_cast<DWORD>(ms), [] { return false; });
            return true;
        }
        if (verb == ".wait")
            return RunWait(words, opt);
        if (verb == ".snapshot") {
            g_snapshotTaken = true;
            if (words.size() != 2) {
                std::fprintf(stderr, "error: .snapshot takes one file name (.bmp or .png)\n");
                return false;
            }
            Pump();
            std::string error;
            if (mcicmd::SaveDisplaySnapshot(words[1], &error))
                return true;
            std::fprintf(stderr, "error: .snapshot %s: %s\n", words[1].c_str(), error.c_str());
            return false;
        }
        std::fprintf(stderr, "error: unknown meta-command %s (see help)\n", line.c_str());
        return false;
    }
    if (verb == "close" && !opt.snapshot.empty() && !g_snapshotTaken && !TakeSnapshot(opt.snapshot))
        return false;
    const bool notify = HasWord(words, "notify");
    const bool modalDialog = verb == "scanmode" && HasWord(words, "dialog") && !notify;
    if (modalDialog && !opt.dialogAnswer) {
        std::fprintf(stderr,
                     "error: \"%s\" would show the driver's scan-mode dialog and wait until somebody answers it; "
                     "nobody can see it here. Give the values on the command line instead (help scanmode), "
                     "or --dialog-answer ok|cancel to answer it\n",
                     line.c_str());
        return false;
    }
    Pump();
    HWND callback = g_wnd;
    if (notify) {
        callback = CreateWindowExW(0, TEXT("McicmdNotify"), TEXT("mcicmd"), 0, 0, 0, 0, 0, nullptr, nullptr,
                                   GetModuleHandleW(nullptr), nullptr);
        if (!callback) {
            std::fprintf(stderr, "error: cannot make a window for the notifications of \"%s\"\n", line.c_str());
            return false;
        }
    }
    UINT_PTR answerTimer = 0;
    if (modalDialog) {
        g_answer = opt.dialogAnswer;
        answerTimer = SetTimer(nullptr, 0, 200, AnswerDialog);
    }
    WCHAR ret[1024] = {};
    MCIERROR err = mciSendStringW(Wide(line).c_str(), ret, 1024, callback);
    if (answerTimer)
        KillTimer(nullptr, answerTimer);
    if (err) {
        if (notify)
            DestroyWindow(callback);
        WCHAR text[512] = {};
        if (!mciGetErrorStringW(err, text, 512))
            text[0] = 0;
        std::fprintf(stderr, "error %u: %s\n", static_cast<unsigned>(LOWORD(err)), Narrow(text).c_str());
        if (LOWORD(err) == MCIERR_DEVICE_NOT_INSTALLED)
            std::fprintf(stderr,
                         "mcicmd: no such device is entered in %s/system.ini [MCI32]; run mcicmd with --install to "
                         "install the driver there\n",
                         g_windir.c_str());
        Pump();
        return false;
    }
    // Registered before the queue is pumped: an immediate notification is
    // already waiting there.
    if (notify)
        g_notified.push_back(Notified{static_cast<int>(g_notified.size()) + 1, DeviceOf(words), line, callback});
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
    g_windir = dir;
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
            opt.help = true;
        } else if (a == "-k" || a == "--keep-going") {
            opt.keepGoing = true;
        } else if (a == "--install") {
            opt.install = true;
        } else if (a == "--no-scanner") {
            opt.noScanner = true;
        } else if (a == "--real-time") {
            opt.realTime = true;
        } else if (a == "--scanner" || a == "-f" || a == "--file" || a == "--windir" || a == "--timeout" ||
                   a == "--snapshot" || a == "--dialog-answer") {
            const char *v = value(a.c_str());
            if (!v)
                return 2;
            if (a == "--scanner")
                opt.scanner = v;
            else if (a == "--windir")
                opt.windir = v;
            else if (a == "--snapshot")
                opt.snapshot = v;
            else if (a == "--timeout")
                opt.timeout = static_cast<DWORD>(std::strtoul(v, nullptr, 10));
            else if (a == "--dialog-answer") {
                std::string answer = Lower(v);
                if (answer != "ok" && answer != "cancel") {
                    std::fprintf(stderr, "mcicmd: --dialog-answer takes ok or cancel\n");
                    return 2;
                }
                opt.dialogAnswer = answer == "ok" ? IDOK : IDCANCEL;
            } else
                opt.file = v;
        } else if (a.size() > 1 && a[0] == '-' && opt.commands.empty()) {
            std::fprintf(stderr, "mcicmd: unknown option %s (see --help)\n", a.c_str());
            return 2;
        } else {
            opt.commands.push_back(a);
        }
    }
    return -1;
}

// The commands of the driver's own command table, for help.
void LoadCommandTable()
{
    HMODULE module = LoadLibraryW(TEXT("TAMRIX.DLL"));
    if (!module)
        return;
    WCHAR name[64] = {};
    // String 2 of the driver names its command table resource.
    if (LoadStringW(module, 2, name, 64) > 0)
        g_commands = mcicmd::ReadCommandTable(module, name);
    FreeLibrary(module);
}

// A line on standard error (a terminal) while the virtual scanner sends a
// scan: lines sent of lines in the window, bytes a second, time left.
class ProgressLine
{
public:
    explicit ProgressLine(const mcicmd::VirtualScanner *scanner) : scanner_(scanner)
    {
        long a, b, c;
        if (scanner && isatty(2) && scanner->ScanProgress(&a, &b, &c))
            thread_ = std::thread([this] { Run(); });
    }
    ~ProgressLine()
    {
        if (!thread_.joinable())
            return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

private:
    void Run()
    {
        using Clock = std::chrono::steady_clock;
        long lastSent = 0, lastTotal = 0;
        Clock::time_point start;
        bool shown = false;
        // Prints the line when a scan runs, or has just ended after being
        // shown; false when there is nothing to show.
        auto show = [&]() {
            long sent = 0, total = 0, lineBytes = 0;
            scanner_->ScanProgress(&sent, &total, &lineBytes);
            if (total != lastTotal || sent < lastSent) { // a new scan
                lastTotal = total;
                start = Clock::now();
                shown = false;
            }
            lastSent = sent;
            if (total <= 0 || (!shown && sent >= total))
                return;
            double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            double rate = seconds >= 0.2 ? sent / seconds : 0; // lines a second, once measurable
            const double bytes = rate * lineBytes;
            char text[160];
            std::snprintf(text, sizeof text, "\rscan: %ld of %ld lines, ", sent, total);
            std::string line = text;
            if (rate > 0) {
                std::snprintf(text, sizeof text, "%.1f %s, ", bytes >= 1e6 ? bytes / 1e6 : bytes / 1e3,
                              bytes >= 1e6 ? "MB/s" : "kB/s");
                const long left = static_cast<long>((total - sent) / rate);
                line += text + std::to_string(left / 60) + ":" + (left % 60 < 10 ? "0" : "") +
                        std::to_string(left % 60) + " left";
            }
            std::fprintf(stderr, "%s\x1b[K", line.c_str());
            shown = true;
            if (sent >= total) {
                std::fputs("\n", stderr);
                shown = false;
                lastTotal = -1; // shown to its end; wait for the next scan
            }
            std::fflush(stderr);
        };
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return stop_; }))
            show();
        if (shown)
            show(); // the state at the end
        if (shown)
            std::fputs("\n", stderr);
    }

    const mcicmd::VirtualScanner *scanner_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
};

// Reads commands from the terminal with line editing and history.
bool ReadTerminalLine(std::string *line)
{
    for (;;) {
        PlatBeginExternalWait();
        char *text = readline("mci> ");
        PlatEndExternalWait();
        if (text) {
            *line = text;
            if (!line->empty())
                add_history(text);
            std::free(text);
            return true;
        }
        if (!g_interrupt)
            return false;
        // Ctrl-C at the prompt: stop what runs, and ask again.
        std::fputs("\n", stdout);
        g_interrupt = 0;
        StopNotifiedScans();
    }
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    if (int rc = ParseOptions(argc, argv, opt); rc >= 0)
        return rc;
    SetUpModulePath();
    if (opt.help) {
        LoadCommandTable();
        PrintHelp("");
        return 0;
    }
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

    ProgressLine progress(scanner.get());
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
    LoadCommandTable();

    struct sigaction sa {
    };
    sa.sa_handler = OnInterrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);

    bool failed = false;
    auto run = [&](const std::string &line) {
        if (RunLine(line, opt))
            return true;
        failed = true;
        return opt.keepGoing;
    };
    try {
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
        } else if (isatty(0)) {
            g_interactive = true;
            std::fputs("mcicmd: type MCI command strings; \"help\" lists the commands, \"quit\" ends\n", stdout);
            for (std::string line; ReadTerminalLine(&line);)
                run(line);
        } else {
            for (;;) {
                std::string line;
                // Reading the input blocks outside the platform: the
                // virtual clock may move on meanwhile.
                PlatBeginExternalWait();
                bool got = static_cast<bool>(std::getline(std::cin, line));
                PlatEndExternalWait();
                if (!got && g_interrupt) { // Ctrl-C while reading: stop what runs
                    std::cin.clear();
                    g_interrupt = 0;
                    StopNotifiedScans();
                    continue;
                }
                if (!got || !run(line))
                    break;
            }
        }
    } catch (const Quit &) {
    }
    Pump();
    if (!opt.snapshot.empty() && !g_snapshotTaken && !TakeSnapshot(opt.snapshot))
        failed = true;
    for (const Notified &n : g_notified)
        DestroyWindow(n.window);
    DestroyWindow(g_wnd);
    UnregisterClassW(TEXT("McicmdNotify"), self);
    return failed ? 1 : 0;
}
