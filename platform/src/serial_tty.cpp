// COM ports backed by host ttys. As Wine does, "dosdevices/comN" in the
// Windows directory names the tty of COMn (usually a symbolic link such as
// com1 -> /dev/ttyUSB0). The comm API keeps Windows' meaning on it:
//  - SetCommState becomes termios: the baud rate, data bits, parity and stop
//    bits, RTS/CTS handshaking (CRTSCTS), XON/XOFF, always raw (no echo, no
//    line editing, no character translation) with the modem's carrier
//    ignored (CLOCAL), as a Windows port ignores it. Linux has no DSR flow
//    control: with fOutxDsrFlow a write waits for DSR itself, and with DTR
//    handshaking DTR is simply held raised.
//  - ReadFile waits with poll() as COMMTIMEOUTS ask; WriteFile returns once
//    the bytes have left the output queue or the write time-out has passed.
//  - PurgeComm flushes the tty's queues; ClearCommError reports the
//    kernel's counts of framing, overrun, parity and break errors and the
//    queue sizes; EscapeCommFunction drives the modem lines and the break.
//  - One handle at a time: the tty is locked (flock) and made exclusive
//    (TIOCEXCL) by the open, so a second open, from this process or
//    another, fails with ERROR_ACCESS_DENIED.
// Time on a tty is the host's own, also under the virtual clock: the far end
// is real. A tty whose far end has gone (an unplugged adapter, a
// pseudo-terminal whose master closed) fails reads and writes with
// ERROR_BAD_COMMAND, as Windows does for a removed port.
#include "serial.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <linux/serial.h>
#include <mutex>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace plat
{
namespace
{

constexpr DWORD kSetBreak = 8;
constexpr DWORD kClrBreak = 9;
constexpr uint64_t kModemPollMs = 5;

struct Speed {
    DWORD baud;
    speed_t code;
};
constexpr Speed kSpeeds[] = {{110, B110},       {300, B300},       {600, B600},       {1200, B1200},    {2400, B2400},
                             {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},  {57600, B57600},
                             {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600}};

bool SpeedCode(DWORD baud, speed_t *code)
{
    for (const Speed &s : kSpeeds)
        if (s.baud == baud) {
            *code = s.code;
            return true;
        }
    return false;
}

DWORD BaudOf(speed_t code)
{
    for (const Speed &s : kSpeeds)
        if (s.code == code)
            return s.baud;
    return CBR_9600;
}

uint64_t MonoMs()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// poll() on one descriptor, restarted after signals; the events seen.
short PollFor(int fd, short events, uint64_t waitMs)
{
    pollfd p{fd, events, 0};
    const uint64_t until = MonoMs() + waitMs;
    for (;;) {
        uint64_t now = MonoMs();
        int timeout = now >= until ? 0 : static_cast<int>(std::min<uint64_t>(until - now, INT_MAX));
        int r = ::poll(&p, 1, timeout);
        if (r >= 0)
            return r > 0 ? p.revents : 0;
        if (errno != EINTR)
            return POLLERR;
    }
}

// Errors of modem-line ioctls on a tty without modem lines (a pseudo-terminal).
bool NoModemLines(int err)
{
    return err == ENOTTY || err == EINVAL || err == EAGAIN || err == EOPNOTSUPP;
}

void MakeRaw(termios &t)
{
    t.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXANY | IMAXBEL |
                                        IGNPAR | IUCLC);
    t.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    t.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ECHOE | ECHOK | ICANON | ISIG | IEXTEN | NOFLSH | TOSTOP);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag &= ~static_cast<tcflag_t>(HUPCL);
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
}

// What GetCommState reports for a tty nobody has set up yet.
DCB DcbFromTermios(const termios &t)
{
    DCB dcb{};
    dcb.DCBlength = sizeof(DCB);
    dcb.BaudRate = BaudOf(cfgetospeed(&t));
    dcb.fBinary = 1;
    dcb.fParity = (t.c_iflag & INPCK) ? 1 : 0;
    const bool rtscts = (t.c_cflag & CRTSCTS) != 0;
    dcb.fOutxCtsFlow = rtscts ? 1 : 0;
    dcb.fRtsControl = rtscts ? RTS_CONTROL_HANDSHAKE : RTS_CONTROL_ENABLE;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fTXContinueOnXoff = 1;
    dcb.fOutX = (t.c_iflag & IXON) ? 1 : 0;
    dcb.fInX = (t.c_iflag & IXOFF) ? 1 : 0;
    dcb.XonLim = 2048;
    dcb.XoffLim = 512;
    switch (t.c_cflag & CSIZE) {
    case CS5:
        dcb.ByteSize = 5;
        break;
    case CS6:
        dcb.ByteSize = 6;
        break;
    case CS7:
        dcb.ByteSize = 7;
        break;
    default:
        dcb.ByteSize = 8;
    }
    if (!(t.c_cflag & PARENB))
        dcb.Parity = NOPARITY;
    else if (t.c_cflag & CMSPAR)
        dcb.Parity = (t.c_cflag & PARODD) ? 3 : 4; // mark, space
    else
        dcb.Parity = (t.c_cflag & PARODD) ? ODDPARITY : EVENPARITY;
    dcb.StopBits = (t.c_cflag & CSTOPB) ? TWOSTOPBITS : ONESTOPBIT;
    dcb.XonChar = static_cast<char>(t.c_cc[VSTART]);
    dcb.XoffChar = static_cast<char>(t.c_cc[VSTOP]);
    return dcb;
}

// Lays the DCB over `t`; false (ERROR_INVALID_PARAMETER) for what a tty
// cannot do.
bool ApplyDcb(const DCB &dcb, termios &t)
{
    speed_t speed;
    if (!SpeedCode(dcb.BaudRate, &speed))
        return false;
    if (dcb.StopBits == ONE5STOPBITS && dcb.ByteSize != 5)
        return false; // 1.5 stop bits exist only with 5 data bits, as on Windows
    MakeRaw(t);
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    t.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
    static constexpr tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
    t.c_cflag |= kSizes[dcb.ByteSize - 5];
    switch (dcb.Parity) {
    case ODDPARITY:
        t.c_cflag |= PARENB | PARODD;
        break;
    case EVENPARITY:
        t.c_cflag |= PARENB;
        break;
    case 3: // mark
        t.c_cflag |= PARENB | CMSPAR | PARODD;
        break;
    case 4: // space
        t.c_cflag |= PARENB | CMSPAR;
        break;
    default:
        break;
    }
    if (dcb.StopBits != ONESTOPBIT)
        t.c_cflag |= CSTOPB;
    if (dcb.fOutxCtsFlow || dcb.fRtsControl == RTS_CONTROL_HANDSHAKE)
        t.c_cflag |= CRTSCTS;
    t.c_iflag &= ~static_cast<tcflag_t>(INPCK | IXON | IXOFF);
    if (dcb.fParity && dcb.Parity != NOPARITY)
        t.c_iflag |= INPCK;
    if (dcb.fOutX)
        t.c_iflag |= IXON;
    if (dcb.fInX)
        t.c_iflag |= IXOFF;
    t.c_cc[VSTART] = static_cast<cc_t>(dcb.XonChar);
    t.c_cc[VSTOP] = static_cast<cc_t>(dcb.XoffChar);
    return true;
}

// The tty of COMn, or false when the Windows directory links none.
bool LinkedTty(const std::string &name, std::string *path)
{
    std::string n = name;
    const std::string prefix = "\\\\.\\";
    if (n.compare(0, prefix.size(), prefix) == 0)
        n = n.substr(prefix.size());
    if (n.size() < 4 || n.size() > 6 || (n[0] | 0x20) != 'c' || (n[1] | 0x20) != 'o' || (n[2] | 0x20) != 'm' ||
        n[3] == '0' || !std::all_of(n.begin() + 3, n.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    const unsigned port = static_cast<unsigned>(std::stoul(n.substr(3)));
    if (port == 0 || port > 255)
        return false;
    *path = WindowsDirectory() + "/dosdevices/com" + std::to_string(port);
    struct stat st {
    };
    return ::lstat(path->c_str(), &st) == 0;
}

class TtyPort : public CommPort
{
public:
    TtyPort(int fd, const termios &t) : fd_(fd), dcb_(DcbFromTermios(t))
    {
        serial_icounter_struct counts{};
        if (::ioctl(fd_, TIOCGICOUNT, &counts) == 0)
            counts_ = counts;
    }
    ~TtyPort() override
    {
        ::ioctl(fd_, TIOCNXCL);
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }

    bool Read(void *buffer, DWORD size, DWORD *done) override
    {
        COMMTIMEOUTS t;
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (AbortedLocked())
                return false;
            t = timeouts_;
        }
        const ReadPlan plan = PlanRead(t, size);
        const uint64_t start = MonoMs();
        uint64_t lastByte = start;
        auto *out = static_cast<uint8_t *>(buffer);
        while (*done < size) {
            ssize_t n = ::read(fd_, out + *done, size - *done);
            if (n > 0) {
                *done += static_cast<DWORD>(n);
                lastByte = MonoMs();
                if (plan.anyByte)
                    return true;
                continue;
            }
            if (n == 0 || (errno != EAGAIN && errno != EINTR))
                return Gone(n < 0 ? errno : EIO);
            if (errno == EINTR)
                continue;
            if (plan.immediate)
                return true;
            uint64_t now = MonoMs(), wait = UINT64_MAX;
            if (plan.bounded) {
                if (now >= start + plan.totalMs)
                    return true;
                wait = start + plan.totalMs - now;
            }
            if (plan.intervalMs && *done > 0) {
                if (now >= lastByte + plan.intervalMs)
                    return true;
                wait = std::min<uint64_t>(wait, lastByte + plan.intervalMs - now);
            }
            short ev = PollFor(fd_, POLLIN, wait);
            if ((ev & (POLLHUP | POLLERR | POLLNVAL)) && !(ev & POLLIN))
                return Gone(EIO);
        }
        return true;
    }

    bool Write(const void *buffer, DWORD size, DWORD *done) override
    {
        COMMTIMEOUTS t;
        bool dsrFlow;
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (AbortedLocked())
                return false;
            t = timeouts_;
            dsrFlow = dcb_.fOutxDsrFlow;
        }
        const uint64_t total = uint64_t(t.WriteTotalTimeoutMultiplier) * size + t.WriteTotalTimeoutConstant;
        const bool bounded = t.WriteTotalTimeoutMultiplier != 0 || t.WriteTotalTimeoutConstant != 0;
        const uint64_t deadline = bounded ? MonoMs() + total : UINT64_MAX;
        const auto *in = static_cast<const uint8_t *>(buffer);
        DWORD handed = 0;
        while (handed < size) {
            if (dsrFlow && !WaitForDsr(deadline))
                break;
            ssize_t n = ::write(fd_, in + handed, size - handed);
            if (n > 0) {
                handed += static_cast<DWORD>(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN)
                return Gone(errno);
            uint64_t now = MonoMs();
            if (now >= deadline)
                break;
            short ev = PollFor(fd_, POLLOUT, deadline - now);
            if ((ev & (POLLHUP | POLLERR | POLLNVAL)) && !(ev & POLLOUT))
                return Gone(EIO);
        }
        // As a Windows port does, the write completes when the bytes have
        // gone out on the line; what is still queued at the time-out counts
        // as not written and is dropped.
        int queued = 0;
        for (;;) {
            if (::ioctl(fd_, TIOCOUTQ, &queued) != 0 || queued <= 0) {
                queued = 0;
                break;
            }
            uint64_t now = MonoMs();
            if (now >= deadline) {
                ::tcflush(fd_, TCOFLUSH);
                break;
            }
            PollFor(-1, 0, std::min<uint64_t>(deadline - now, 1));
        }
        *done = handed - std::min<DWORD>(handed, static_cast<DWORD>(queued));
        return true;
    }

    bool GetState(DCB *dcb) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        *dcb = dcb_;
        return true;
    }

    bool SetState(const DCB &dcb) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        termios before{};
        if (::tcgetattr(fd_, &before) != 0)
            return Gone(errno);
        termios t = before;
        if (!ApplyDcb(dcb, t)) {
            SetError(ERROR_INVALID_PARAMETER);
            return false;
        }
        if (::tcsetattr(fd_, TCSANOW, &t) != 0)
            return Gone(errno);
        termios after{};
        if (::tcgetattr(fd_, &after) != 0 || cfgetospeed(&after) != cfgetospeed(&t) ||
            (after.c_cflag & CSIZE) != (t.c_cflag & CSIZE)) {
            ::tcsetattr(fd_, TCSANOW, &before); // the tty refused part of it
            SetError(ERROR_INVALID_PARAMETER);
            return false;
        }
        // The modem lines the DCB asks to be held (ignored on a tty without them).
        int raise = 0, drop = 0;
        (dcb.fDtrControl == DTR_CONTROL_DISABLE ? drop : raise) |= TIOCM_DTR;
        if (dcb.fRtsControl == RTS_CONTROL_ENABLE)
            raise |= TIOCM_RTS;
        else if (dcb.fRtsControl == RTS_CONTROL_DISABLE)
            drop |= TIOCM_RTS;
        ::ioctl(fd_, TIOCMBIS, &raise);
        if (drop)
            ::ioctl(fd_, TIOCMBIC, &drop);
        dcb_ = dcb;
        return true;
    }

    bool GetTimeouts(COMMTIMEOUTS *timeouts) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        *timeouts = timeouts_;
        return true;
    }

    bool SetTimeouts(const COMMTIMEOUTS &timeouts) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        timeouts_ = timeouts;
        return true;
    }

    bool Purge(DWORD flags) override
    {
        const bool rx = flags & (PURGE_RXABORT | PURGE_RXCLEAR), tx = flags & (PURGE_TXABORT | PURGE_TXCLEAR);
        if (!rx && !tx)
            return true;
        if (::tcflush(fd_, rx && tx ? TCIOFLUSH : rx ? TCIFLUSH : TCOFLUSH) != 0)
            return Gone(errno);
        return true;
    }

    bool ClearError(DWORD *errors, COMSTAT *stat) override
    {
        if (PollFor(fd_, 0, 0) & (POLLHUP | POLLERR | POLLNVAL))
            return Gone(EIO);
        DWORD found;
        bool ctsFlow, dsrFlow;
        {
            std::lock_guard<std::mutex> g(mutex_);
            CollectErrorsLocked();
            found = errors_;
            errors_ = 0;
            ctsFlow = dcb_.fOutxCtsFlow;
            dsrFlow = dcb_.fOutxDsrFlow;
        }
        if (errors)
            *errors = found;
        if (stat) {
            *stat = COMSTAT{};
            int in = 0, out = 0, lines = 0;
            if (::ioctl(fd_, FIONREAD, &in) == 0 && in > 0)
                stat->cbInQue = static_cast<DWORD>(in);
            if (::ioctl(fd_, TIOCOUTQ, &out) == 0 && out > 0)
                stat->cbOutQue = static_cast<DWORD>(out);
            if (::ioctl(fd_, TIOCMGET, &lines) == 0) {
                stat->fCtsHold = ctsFlow && !(lines & TIOCM_CTS);
                stat->fDsrHold = dsrFlow && !(lines & TIOCM_DSR);
            }
        }
        return true;
    }

    bool Escape(DWORD function) override
    {
        int r = 0;
        int line = function == SETRTS || function == CLRRTS ? TIOCM_RTS : TIOCM_DTR;
        switch (function) {
        case SETXOFF:
            r = ::tcflow(fd_, TCOOFF);
            break;
        case SETXON:
            r = ::tcflow(fd_, TCOON);
            break;
        case SETRTS:
        case SETDTR:
            r = ::ioctl(fd_, TIOCMBIS, &line);
            break;
        case CLRRTS:
        case CLRDTR:
            r = ::ioctl(fd_, TIOCMBIC, &line);
            break;
        case kSetBreak:
            r = ::ioctl(fd_, TIOCSBRK);
            break;
        case kClrBreak:
            r = ::ioctl(fd_, TIOCCBRK);
            break;
        default:
            break;
        }
        if (r != 0 && !NoModemLines(errno))
            return Gone(errno);
        return true;
    }

private:
    // Under mutex_: adds the errors the kernel counted since the last look.
    void CollectErrorsLocked()
    {
        serial_icounter_struct now{};
        if (::ioctl(fd_, TIOCGICOUNT, &now) != 0)
            return;
        if (now.frame != counts_.frame)
            errors_ |= CE_FRAME;
        if (now.overrun != counts_.overrun)
            errors_ |= CE_OVERRUN;
        if (now.parity != counts_.parity)
            errors_ |= CE_RXPARITY;
        if (now.brk != counts_.brk)
            errors_ |= CE_BREAK;
        if (now.buf_overrun != counts_.buf_overrun)
            errors_ |= CE_RXOVER;
        counts_ = now;
    }

    // Under mutex_: a pending line error stops transfers while the port
    // aborts on errors.
    bool AbortedLocked()
    {
        if (!dcb_.fAbortOnError)
            return false;
        CollectErrorsLocked();
        if (!errors_)
            return false;
        SetError(ERROR_OPERATION_ABORTED);
        return true;
    }

    // Waits until the far end raises DSR; false at the deadline. A tty
    // without modem lines never holds the writer.
    bool WaitForDsr(uint64_t deadline)
    {
        for (;;) {
            int lines = 0;
            if (::ioctl(fd_, TIOCMGET, &lines) != 0 || (lines & TIOCM_DSR))
                return true;
            uint64_t now = MonoMs();
            if (now >= deadline)
                return false;
            PollFor(-1, 0, std::min(deadline - now, kModemPollMs));
        }
    }

    bool Gone(int err)
    {
        SetError(err == EIO || err == ENXIO || err == ENODEV ? ERROR_BAD_COMMAND : ErrorFromErrno(err));
        return false;
    }

    const int fd_;
    std::mutex mutex_;
    DCB dcb_;
    COMMTIMEOUTS timeouts_{};
    DWORD errors_ = 0;
    serial_icounter_struct counts_{};
};

} // namespace

bool OpenLinkedComPort(const std::string &name, std::shared_ptr<Stream> *port)
{
    std::string path;
    if (!LinkedTty(name, &path))
        return false;
    port->reset();
    // Not blocking: a tty waiting for its carrier must not hold the open.
    int fd;
    do
        fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        // A tty another program holds exclusively answers EBUSY.
        SetError(errno == EBUSY                      ? ERROR_ACCESS_DENIED
                 : errno == ENXIO || errno == ENODEV ? ERROR_FILE_NOT_FOUND
                                                     : ErrorFromErrno(errno));
        return true;
    }
    termios t{};
    if (!::isatty(fd) || ::tcgetattr(fd, &t) != 0) {
        ::close(fd);
        SetError(ERROR_FILE_NOT_FOUND); // not a serial port
        return true;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        SetError(ERROR_ACCESS_DENIED);
        return true;
    }
    ::ioctl(fd, TIOCEXCL);
    MakeRaw(t);
    ::tcsetattr(fd, TCSANOW, &t);
    *port = std::make_shared<TtyPort>(fd, t);
    SetError(ERROR_SUCCESS);
    return true;
}

} // namespace plat
