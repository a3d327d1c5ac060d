// tamrix-scanner: one virtual scanner of models 1 to 6 (the block dialect)
// on a tty, for a driver in another process or on another machine. It
// serves a new pseudo-terminal (the path of its other end is the first line
// on standard output) or a tty given by path, in real time: the scanner's
// waits are the real ones, and its bytes leave at the speed the line is set
// to (start bit, data bits, parity, stop bits at the baud rate). On a
// pseudo-terminal the line settings are the ones the driver's side asked
// for; each change is reported on standard output as a line
//   line: <baud> <data bits><parity N/O/E/M/S><stop bits> rtscts=<on|off> raw=<yes|no>
// It runs until SIGINT or SIGTERM.
//
// The scanner is sim::BlockScanner, the same one the in-process virtual COM
// ports carry; this program is only the cable between it and the tty.
#include "block_scanner.h"
#include "page.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

const char kHelp[] = "usage: tamrix-scanner [options]\n"
                     "\n"
                     "Serves one virtual Korvane scanner (models 1 to 6, block dialect) on a tty,\n"
                     "in real time, until SIGINT or SIGTERM. Without --tty it makes a new\n"
                     "pseudo-terminal and prints the path of its other end on the first line;\n"
                     "link COMn to that path (ln -s /dev/pts/N $TAMRIX_WINDIR/dosdevices/comN)\n"
                     "and the driver talks to this scanner.\n"
                     "\n"
                     "options:\n"
                     "  --model N           model 1 to 6 (KS-610 ... KS-660); default 2\n"
                     "  --tty PATH          serve this tty (a serial port with a null-modem cable\n"
                     "                      to the driver's machine) instead of a new pty\n"
                     "  --baud B            line speed set on --tty (4800, 9600, 19200; default\n"
                     "                      9600); a pty takes the speed the driver sets\n"
                     "  --format F          frame format: 1 raw lines, 5 compressed; default 5\n"
                     "  --busy-ms MS        how long the scanner stays busy after initialise;\n"
                     "                      default 8000\n"
                     "  --no-pacing         send bytes as fast as the tty takes them\n"
                     "  --page FILE.bmp     lay this picture on the glass instead of the test chart\n"
                     "                      (uncompressed 24- or 32-bit BMP, at the resolution of its\n"
                     "                      header, top-left corner on the glass's)\n"
                     "faults (all off by default):\n"
                     "  --silent            answer nothing at all\n"
                     "  --enq-reply BYTE    answer ENQ with this byte instead of ACK\n"
                     "  --end-type T        type byte of the end frame (130 = abnormal end)\n"
                     "  --line-delta D      send D lines more (1) or fewer (-1) than the window\n"
                     "  --bad-trailer       end data frames with ETX instead of ETB\n"
                     "  --overflow-run N    compressed lines overrun their length by N\n"
                     "  --late-ms MS        every reply is sent this long after its request\n"
                     "  --drain-frames N    data frames still sent after an abort\n"
                     "  --flagged-lines N   lines at the end flagged as beyond the request\n"
                     "\n"
                     "The page on the glass is the virtual scanners' test chart: colour bars, a\n"
                     "grey ramp and a checkerboard inside a black frame.\n";

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int)
{
    g_stop = 1;
}

struct Options {
    int model = 2;
    std::string tty;
    unsigned baud = 9600;
    int format = 5;
    long busyMs = 8000;
    bool pacing = true;
    std::string page;
    sim::BlockScanner::Faults faults;
};

bool Number(const char *text, long low, long high, long *out)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 0);
    if (errno || end == text || *end || v < low || v > high)
        return false;
    *out = v;
    return true;
}

// -1: go on; otherwise the exit status.
int Parse(int argc, char **argv, Options &o)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        long v = 0;
        auto number = [&](long low, long high) {
            if (i + 1 >= argc || !Number(argv[i + 1], low, high, &v)) {
                std::fprintf(stderr, "tamrix-scanner: %s needs a number from %ld to %ld\n", a.c_str(), low, high);
                return false;
            }
            i++;
            return true;
        };
        if (a == "-h" || a == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--model") {
            if (!number(1, 6))
                return 2;
            o.model = static_cast<int>(v);
        } else if (a == "--tty") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "tamrix-scanner: --tty needs a path\n");
                return 2;
            }
            o.tty = argv[++i];
        } else if (a == "--baud") {
            if (!number(4800, 19200) || (v != 4800 && v != 9600 && v != 19200)) {
                std::fprintf(stderr, "tamrix-scanner: --baud is 4800, 9600 or 19200\n");
                return 2;
            }
            o.baud = static_cast<unsigned>(v);
        } else if (a == "--format") {
            if (!number(1, 5) || (v != 1 && v != 5)) {
                std::fprintf(stderr, "tamrix-scanner: --format is 1 or 5\n");
                return 2;
            }
            o.format = static_cast<int>(v);
        } else if (a == "--busy-ms") {
            if (!number(0, 600000))
                return 2;
            o.busyMs = v;
        } else if (a == "--page") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "tamrix-scanner: --page needs a BMP file\n");
                return 2;
            }
            o.page = argv[++i];
        } else if (a == "--no-pacing") {
            o.pacing = false;
        } else if (a == "--silent") {
            o.faults.silent = true;
        } else if (a == "--enq-reply") {
            if (!number(0, 255))
                return 2;
            o.faults.enqReply = static_cast<int>(v);
        } else if (a == "--end-type") {
            if (!number(0, 255))
                return 2;
            o.faults.endType = static_cast<uint8_t>(v);
        } else if (a == "--line-delta") {
            if (!number(-1, 1))
                return 2;
            o.faults.lineDelta = static_cast<int>(v);
        } else if (a == "--bad-trailer") {
            o.faults.badTrailer = true;
        } else if (a == "--overflow-run") {
            if (!number(0, 100))
                return 2;
            o.faults.overflowRun = static_cast<int>(v);
        } else if (a == "--late-ms") {
            if (!number(0, 600000))
                return 2;
            o.faults.lateMs = static_cast<unsigned>(v);
        } else if (a == "--drain-frames") {
            if (!number(0, 1000))
                return 2;
            o.faults.drainFrames = static_cast<int>(v);
        } else if (a == "--flagged-lines") {
            if (!number(-1, 100000))
                return 2;
            o.faults.flaggedLines = static_cast<int>(v);
        } else {
            std::fprintf(stderr, "tamrix-scanner: unknown option %s (see --help)\n", a.c_str());
            return 2;
        }
    }
    return -1;
}

speed_t SpeedCode(unsigned baud)
{
    return baud == 4800 ? B4800 : baud == 19200 ? B19200 : B9600;
}

unsigned BaudOf(speed_t code)
{
    struct {
        speed_t code;
        unsigned baud;
    } const table[] = {{B300, 300},     {B1200, 1200},   {B2400, 2400},   {B4800, 4800},    {B9600, 9600},
                       {B19200, 19200}, {B38400, 38400}, {B57600, 57600}, {B115200, 115200}};
    for (auto &e : table)
        if (e.code == code)
            return e.baud;
    return 0;
}

void MakeRaw(termios &t)
{
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
}

// The line settings in the form printed on standard output.
std::string Describe(const termios &t)
{
    const int bits = (t.c_cflag & CSIZE) == CS5   ? 5
                     : (t.c_cflag & CSIZE) == CS6 ? 6
                     : (t.c_cflag & CSIZE) == CS7 ? 7
                                                  : 8;
    char parity = 'N';
    if (t.c_cflag & PARENB)
        parity = (t.c_cflag & CMSPAR) ? ((t.c_cflag & PARODD) ? 'M' : 'S') : ((t.c_cflag & PARODD) ? 'O' : 'E');
    const bool raw = !(t.c_lflag & (ICANON | ECHO | ISIG)) && !(t.c_oflag & OPOST) &&
                     !(t.c_iflag & (ICRNL | INLCR | IGNCR | ISTRIP | IXON));
    return "line: " + std::to_string(BaudOf(cfgetospeed(&t))) + " " + std::to_string(bits) + parity +
           ((t.c_cflag & CSTOPB) ? "2" : "1") + " rtscts=" + ((t.c_cflag & CRTSCTS) ? "on" : "off") +
           " raw=" + (raw ? "yes" : "no");
}

// Microseconds one character takes on the line.
long long CharacterMicros(const termios &t)
{
    unsigned baud = BaudOf(cfgetospeed(&t));
    if (!baud)
        baud = 9600;
    const int bits = 1 +
                     ((t.c_cflag & CSIZE) == CS5   ? 5
                      : (t.c_cflag & CSIZE) == CS6 ? 6
                      : (t.c_cflag & CSIZE) == CS7 ? 7
                                                   : 8) +
                     ((t.c_cflag & PARENB) ? 1 : 0) + ((t.c_cflag & CSTOPB) ? 2 : 1);
    return bits * 1000000LL / baud;
}

long long NowMicros()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

struct Line {
    int fd = -1;     // what the scanner reads and writes
    int holder = -1; // pty: the far end, held open so the line never hangs up
    std::string path;
    ~Line()
    {
        if (holder >= 0)
            ::close(holder);
        if (fd >= 0)
            ::close(fd);
    }
};

bool OpenLine(const Options &o, Line &line)
{
    termios t{};
    if (o.tty.empty()) {
        line.fd = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        if (line.fd < 0 || ::grantpt(line.fd) != 0 || ::unlockpt(line.fd) != 0) {
            std::fprintf(stderr, "tamrix-scanner: no pseudo-terminal: %s\n", std::strerror(errno));
            return false;
        }
        const char *name = ::ptsname(line.fd);
        line.path = name ? name : "";
        line.holder = ::open(line.path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        if (line.holder < 0 || ::tcgetattr(line.holder, &t) != 0) {
            std::fprintf(stderr, "tamrix-scanner: %s: %s\n", line.path.c_str(), std::strerror(errno));
            return false;
        }
        MakeRaw(t);
        cfsetspeed(&t, SpeedCode(o.baud));
        ::tcsetattr(line.holder, TCSANOW, &t);
        return true;
    }
    line.path = o.tty;
    line.fd = ::open(o.tty.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (line.fd < 0 || ::tcgetattr(line.fd, &t) != 0) {
        std::fprintf(stderr, "tamrix-scanner: %s: %s\n", o.tty.c_str(), std::strerror(errno));
        return false;
    }
    MakeRaw(t);
    cfsetspeed(&t, SpeedCode(o.baud));
    if (::tcsetattr(line.fd, TCSANOW, &t) != 0) {
        std::fprintf(stderr, "tamrix-scanner: %s: %s\n", o.tty.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

int Serve(const Options &o, Line &line, sim::BlockScanner &scanner)
{
    std::string lastSettings;
    std::vector<uint8_t> outbox; // taken from the scanner, not yet on the line
    long long lineFreeAt = 0;    // when the bytes written so far have left
    bool idle = true;            // nothing was waiting to go out
    uint8_t buffer[4096];
    while (!g_stop) {
        termios t{};
        if (::tcgetattr(line.holder >= 0 ? line.holder : line.fd, &t) == 0) {
            std::string now = Describe(t);
            if (now != lastSettings) {
                std::printf("%s\n", now.c_str());
                std::fflush(stdout);
                lastSettings = now;
            }
        }
        const long long charUs = CharacterMicros(t);

        // Bytes from the driver.
        pollfd p{line.fd, POLLIN, 0};
        const bool sending = !outbox.empty() || scanner.Pending() > 0;
        int timeoutMs = sending ? 1 : 10;
        if (::poll(&p, 1, timeoutMs) < 0 && errno != EINTR)
            break;
        if (p.revents & POLLIN) {
            ssize_t n = ::read(line.fd, buffer, sizeof buffer);
            if (n > 0)
                scanner.Receive(buffer, static_cast<size_t>(n));
            else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                std::fprintf(stderr, "tamrix-scanner: %s went away\n", line.path.c_str());
                return 1;
            }
        } else if (p.revents & (POLLHUP | POLLERR)) {
            // A tty whose far end is closed: wait for it to come back.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }

        // Bytes to the driver, at the line's pace: at most what the line can
        // have carried by now.
        const long long now = NowMicros();
        if (idle) // a line that stood idle sends its next byte at once
            lineFreeAt = std::max(lineFreeAt, now - charUs);
        size_t room = o.pacing ? static_cast<size_t>((now - lineFreeAt) / charUs) : sizeof buffer;
        room = std::min(room, sizeof buffer);
        if (outbox.size() < room) {
            size_t n = scanner.Transmit(buffer, room - outbox.size());
            outbox.insert(outbox.end(), buffer, buffer + n);
        }
        if (!outbox.empty() && room > 0) {
            ssize_t n = ::write(line.fd, outbox.data(), std::min(outbox.size(), room));
            if (n > 0) {
                outbox.erase(outbox.begin(), outbox.begin() + n);
                lineFreeAt += n * charUs;
            } else if (n < 0 && errno != EAGAIN && errno != EINTR && errno != EIO) {
                std::fprintf(stderr, "tamrix-scanner: %s: %s\n", line.path.c_str(), std::strerror(errno));
                return 1;
            }
        }
        idle = outbox.empty() && scanner.Pending() == 0;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (int rc = Parse(argc, argv, o); rc >= 0)
        return rc;

    struct sigaction sa {
    };
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    if (std::string error; !o.page.empty() && !sim::LayPictureOnGlass(o.page, &error)) {
        std::fprintf(stderr, "tamrix-scanner: --page: %s\n", error.c_str());
        return 2;
    }
    Line line;
    if (!OpenLine(o, line))
        return 1;
    auto scanner = std::make_shared<sim::BlockScanner>(o.model, o.format);
    scanner->SetBusyMs(static_cast<unsigned>(o.busyMs));
    scanner->SetFaults(o.faults);
    std::printf("%s\n", line.path.c_str());
    std::fflush(stdout);
    std::fprintf(stderr, "tamrix-scanner: virtual Korvane KS-6%d0 on %s\n", o.model, line.path.c_str());
    return Serve(o, line, *scanner);
}
