// KERNEL32 serial ports for POSIX hosts: virtual COM ports whose far end is a
// peer object attached by a virtual device or a test. The comm API
// (GetCommState, SetCommState, Get/SetCommTimeouts, PurgeComm,
// ClearCommError, SetupComm, EscapeCommFunction) works on their handles;
// ReadFile honours COMMTIMEOUTS and waits on the platform's clock.
//
// Bytes the peer offers are pulled into the port's input queue by the reader
// (never under the world lock, since a peer may call the platform); a peer
// that gets bytes on its own calls SerialPortReady(), which bumps the line's
// signal count that waiting readers watch.
//
// Under the real clock the line has the speed the DCB sets: a byte the peer
// offers reaches the reader one character time after the one before it, and
// a write is handed to the peer when its bytes would have gone out. Under
// the virtual clock bytes move at once.
#include "serial.h"

#include <tamrix/serial_port.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <map>
#include <mutex>

namespace plat
{
namespace
{

constexpr unsigned kMaxPort = 255;
constexpr size_t kPullChunk = 512;

// One COM port. Every field is guarded by the world lock.
struct Line {
    std::shared_ptr<tamrix::SerialPeer> peer;
    bool open = false;
    DCB dcb{};
    COMMTIMEOUTS timeouts{};
    DWORD errors = 0;
    std::deque<uint8_t> input;
    uint64_t signal = 0; // bumped whenever waiting readers must look again
    DWORD writeLimit = MAXDWORD;
    // Real clock only: when the last byte of `input` reaches the reader and
    // when the line is free for the next write, in microseconds of platform
    // time. Bytes not yet arrived are always the tail of `input`.
    uint64_t rxDoneUs = 0;
    uint64_t txFreeUs = 0;

    Line()
    {
        // What a freshly installed port reports.
        dcb.DCBlength = sizeof(DCB);
        dcb.BaudRate = CBR_9600;
        dcb.fBinary = 1;
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        dcb.fTXContinueOnXoff = 1;
        dcb.XonLim = 2048;
        dcb.XoffLim = 512;
        dcb.ByteSize = 8;
        dcb.Parity = NOPARITY;
        dcb.StopBits = ONESTOPBIT;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
    }
};

std::map<unsigned, std::shared_ptr<Line>> &Lines()
{
    static std::map<unsigned, std::shared_ptr<Line>> lines;
    return lines;
}

// Under the world lock.
std::shared_ptr<Line> LineOf(unsigned port)
{
    auto it = Lines().find(port);
    return it == Lines().end() ? nullptr : it->second;
}

void Signal(Line &line)
{
    ++line.signal;
    WakeAll();
}

bool Paced()
{
    return !PlatIsVirtualClock();
}

// Under the world lock: bytes at the front of the input queue that have
// reached the reader by `nowUs`.
size_t ArrivedLocked(const Line &line, uint64_t nowUs)
{
    if (line.rxDoneUs <= nowUs)
        return line.input.size();
    const uint64_t charUs = CharacterMicros(line.dcb);
    const uint64_t missing = (line.rxDoneUs - nowUs + charUs - 1) / charUs;
    return line.input.size() - std::min<size_t>(line.input.size(), missing);
}

class ComPort : public CommPort
{
public:
    explicit ComPort(std::shared_ptr<Line> line) : line_(std::move(line)) {}

    Line &line() { return *line_; }

    bool OnClose() override
    {
        Lock lock = LockWorld();
        line_->open = false;
        line_->input.clear();
        Signal(*line_);
        return true;
    }

    bool Read(void *buffer, DWORD size, DWORD *done) override
    {
        auto *out = static_cast<uint8_t *>(buffer);
        COMMTIMEOUTS t;
        {
            Lock lock = LockWorld();
            if (Aborted())
                return false;
            t = line_->timeouts;
        }
        // Interval time-outs between bytes are not modelled.
        const ReadPlan plan = PlanRead(t, size);
        const uint64_t deadline = plan.bounded ? Now64() + plan.totalMs : std::numeric_limits<uint64_t>::max();
        const bool paced = Paced();

        for (;;) {
            uint64_t seen;
            {
                Lock lock = LockWorld();
                seen = line_->signal;
            }
            Pull(size - *done);
            Lock lock = LockWorld();
            uint64_t now = Now64();
            size_t ready = paced ? ArrivedLocked(*line_, now * 1000) : line_->input.size();
            DWORD n = static_cast<DWORD>(std::min<size_t>(ready, size - *done));
            std::copy_n(line_->input.begin(), n, out + *done);
            line_->input.erase(line_->input.begin(), line_->input.begin() + n);
            *done += n;
            if (*done == size || plan.immediate || (plan.anyByte && *done > 0))
                return true;
            if (Aborted())
                return false;
            if (now >= deadline)
                return true;
            uint64_t wait = plan.bounded ? deadline - now : INFINITE;
            if (paced && !line_->input.empty()) // the next byte is on its way
                wait = std::min<uint64_t>(wait, CharacterMicros(line_->dcb) / 1000 + 1);
            Wait(lock, static_cast<DWORD>(std::min<uint64_t>(wait, INFINITE)), [&] { return line_->signal != seen; });
        }
    }

    bool Write(const void *buffer, DWORD size, DWORD *done) override
    {
        std::shared_ptr<tamrix::SerialPeer> peer;
        DWORD limit;
        COMMTIMEOUTS t;
        {
            Lock lock = LockWorld();
            if (Aborted())
                return false;
            peer = line_->peer;
            limit = line_->writeLimit;
            t = line_->timeouts;
        }
        if (!peer) {
            SetError(ERROR_GEN_FAILURE);
            return false;
        }
        DWORD n = std::min(size, limit);
        if (n && Paced()) {
            // The bytes reach the peer when they have gone out on the line.
            Lock lock = LockWorld();
            const uint64_t nowUs = Now64() * 1000;
            line_->txFreeUs = std::max(line_->txFreeUs, nowUs) + n * CharacterMicros(line_->dcb);
            const uint64_t until = line_->txFreeUs / 1000;
            Wait(lock, static_cast<DWORD>(std::min<uint64_t>(until - std::min(until, Now64()), INFINITE - 1)),
                 [] { return false; });
        }
        if (n)
            peer->Receive(static_cast<const uint8_t *>(buffer), n);
        *done = n;
        if (n < size) {
            // The rest did not go out within the write time-out.
            uint64_t ms = uint64_t(t.WriteTotalTimeoutMultiplier) * size + t.WriteTotalTimeoutConstant;
            Lock lock = LockWorld();
            Wait(lock, static_cast<DWORD>(std::min<uint64_t>(ms, INFINITE - 1)), [] { return false; });
        }
        return true;
    }

    // Moves up to `max` bytes the peer has ready into the input queue.
    void Pull(size_t max)
    {
        std::shared_ptr<tamrix::SerialPeer> peer;
        {
            Lock lock = LockWorld();
            peer = line_->peer;
            max = max > line_->input.size() ? max - line_->input.size() : 0;
        }
        uint8_t chunk[kPullChunk];
        while (peer && max > 0) {
            size_t n = peer->Transmit(chunk, std::min(max, sizeof chunk));
            if (n == 0)
                break;
            Lock lock = LockWorld();
            line_->input.insert(line_->input.end(), chunk, chunk + n);
            if (Paced())
                line_->rxDoneUs = std::max(line_->rxDoneUs, Now64() * 1000) + n * CharacterMicros(line_->dcb);
            max -= n;
        }
    }

    // Under the world lock: a pending line error stops transfers while the
    // port aborts on errors.
    bool Aborted()
    {
        if (line_->errors && line_->dcb.fAbortOnError) {
            SetError(ERROR_OPERATION_ABORTED);
            return true;
        }
        return false;
    }

    bool GetState(DCB *dcb) override
    {
        Lock lock = LockWorld();
        *dcb = line_->dcb;
        return true;
    }

    bool SetState(const DCB &dcb) override
    {
        Lock lock = LockWorld();
        line_->dcb = dcb;
        return true;
    }

    bool GetTimeouts(COMMTIMEOUTS *timeouts) override
    {
        Lock lock = LockWorld();
        *timeouts = line_->timeouts;
        return true;
    }

    bool SetTimeouts(const COMMTIMEOUTS &timeouts) override
    {
        Lock lock = LockWorld();
        line_->timeouts = timeouts;
        return true;
    }

    bool Purge(DWORD flags) override
    {
        std::shared_ptr<tamrix::SerialPeer> peer;
        {
            Lock lock = LockWorld();
            if (flags & (PURGE_RXABORT | PURGE_RXCLEAR)) {
                line_->input.clear();
                line_->rxDoneUs = 0;
            }
            peer = line_->peer;
            Signal(*line_);
        }
        // Nothing waits in the output queue: writes reach the peer whole.
        if (peer && flags)
            peer->Purged(flags);
        return true;
    }

    bool ClearError(DWORD *errors, COMSTAT *stat) override
    {
        DWORD found;
        size_t queued;
        std::shared_ptr<tamrix::SerialPeer> peer;
        const bool paced = Paced();
        {
            Lock lock = LockWorld();
            found = line_->errors;
            line_->errors = 0;
            queued = paced ? ArrivedLocked(*line_, Now64() * 1000) : line_->input.size();
            peer = line_->peer;
        }
        // Unpaced, what the peer has ready is as good as received.
        if (peer && !paced)
            queued += peer->Pending();
        if (errors)
            *errors = found;
        if (stat) {
            *stat = COMSTAT{};
            stat->cbInQue = static_cast<DWORD>(std::min<size_t>(queued, MAXDWORD));
            stat->cbOutQue = 0;
        }
        return true;
    }

    bool Escape(DWORD) override
    {
        // The modem lines and the break state are not carried to the peer.
        return true;
    }

private:
    std::shared_ptr<Line> line_;
};

std::shared_ptr<Stream> OpenPort(unsigned port)
{
    std::shared_ptr<Line> line;
    {
        Lock lock = LockWorld();
        line = LineOf(port);
        if (!line || !line->peer) {
            SetError(ERROR_FILE_NOT_FOUND);
            return nullptr;
        }
        if (line->open) {
            SetError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        line->open = true;
        line->errors = 0;
        line->input.clear();
    }
    return std::make_shared<ComPort>(line);
}

} // namespace
} // namespace plat

namespace tamrix
{

using namespace plat;

bool AttachSerialPeer(unsigned port, std::shared_ptr<SerialPeer> peer)
{
    if (port == 0 || port > kMaxPort || !peer)
        return false;
    {
        Lock lock = LockWorld();
        std::shared_ptr<Line> &line = Lines()[port];
        if (!line)
            line = std::make_shared<Line>();
        if (line->peer)
            return false;
        line->peer = std::move(peer);
        Signal(*line);
    }
    RegisterDevice("COM" + std::to_string(port), [port](DWORD, DWORD) { return OpenPort(port); });
    return true;
}

void DetachSerialPeer(unsigned port)
{
    std::shared_ptr<SerialPeer> old;
    Lock lock = LockWorld();
    if (auto line = LineOf(port)) {
        old = std::move(line->peer);
        line->peer.reset();
        Signal(*line);
    }
    lock.unlock(); // the peer may go here; it must not do so under the lock
}

void SerialPortReady(unsigned port)
{
    Lock lock = LockWorld();
    if (auto line = LineOf(port))
        Signal(*line);
}

void RaiseSerialLineErrors(unsigned port, DWORD errors)
{
    Lock lock = LockWorld();
    if (auto line = LineOf(port)) {
        line->errors |= errors;
        Signal(*line);
    }
}

void LimitSerialWrites(unsigned port, DWORD bytes)
{
    Lock lock = LockWorld();
    if (auto line = LineOf(port))
        line->writeLimit = bytes;
}

bool GetSerialPortSettings(unsigned port, DCB *dcb, COMMTIMEOUTS *timeouts)
{
    Lock lock = LockWorld();
    auto line = LineOf(port);
    if (!line)
        return false;
    if (dcb)
        *dcb = line->dcb;
    if (timeouts)
        *timeouts = line->timeouts;
    return true;
}

bool IsSerialPortOpen(unsigned port)
{
    Lock lock = LockWorld();
    auto line = LineOf(port);
    return line && line->open;
}

} // namespace tamrix

using namespace plat;

PLAT_INJECTABLE(GetCommState);
PLAT_INJECTABLE(SetCommState);
PLAT_INJECTABLE(GetCommTimeouts);
PLAT_INJECTABLE(SetCommTimeouts);
PLAT_INJECTABLE(SetupComm);
PLAT_INJECTABLE(PurgeComm);
PLAT_INJECTABLE(ClearCommError);
PLAT_INJECTABLE(EscapeCommFunction);

namespace
{

constexpr DWORD kPurgeFlags = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;
constexpr DWORD kSetBreak = 8;
constexpr DWORD kClrBreak = 9;

bool Missing(const void *p)
{
    if (p)
        return false;
    SetError(ERROR_INVALID_PARAMETER);
    return true;
}

std::shared_ptr<CommPort> FindPort(HANDLE handle)
{
    auto port = Find<CommPort>(handle);
    if (!port)
        SetError(ERROR_INVALID_HANDLE);
    return port;
}

} // namespace

namespace plat
{

ReadPlan PlanRead(const COMMTIMEOUTS &t, DWORD size)
{
    ReadPlan plan;
    plan.immediate =
        t.ReadIntervalTimeout == MAXDWORD && t.ReadTotalTimeoutMultiplier == 0 && t.ReadTotalTimeoutConstant == 0;
    plan.anyByte = t.ReadIntervalTimeout == MAXDWORD && t.ReadTotalTimeoutMultiplier == MAXDWORD &&
                   t.ReadTotalTimeoutConstant != 0 && t.ReadTotalTimeoutConstant != MAXDWORD;
    plan.totalMs = plan.anyByte ? t.ReadTotalTimeoutConstant
                                : uint64_t(t.ReadTotalTimeoutMultiplier) * size + t.ReadTotalTimeoutConstant;
    plan.bounded = plan.anyByte || t.ReadTotalTimeoutMultiplier != 0 || t.ReadTotalTimeoutConstant != 0;
    plan.intervalMs = t.ReadIntervalTimeout == MAXDWORD ? 0 : t.ReadIntervalTimeout;
    return plan;
}

uint64_t CharacterMicros(const DCB &dcb)
{
    const uint64_t bits = 1 + dcb.ByteSize + (dcb.Parity != NOPARITY ? 1 : 0) + (dcb.StopBits == ONESTOPBIT ? 1 : 2);
    return dcb.BaudRate ? std::max<uint64_t>(1, bits * 1000000 / dcb.BaudRate) : 1;
}

} // namespace plat

extern "C" {

BOOL WINAPI GetCommState(HANDLE file, LPDCB dcb)
{
    if (PLAT_FAIL(GetCommState, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port || Missing(dcb))
        return FALSE;
    return port->GetState(dcb) ? TRUE : FALSE;
}

BOOL WINAPI SetCommState(HANDLE file, LPDCB dcb)
{
    if (PLAT_FAIL(SetCommState, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port || Missing(dcb))
        return FALSE;
    if (dcb->BaudRate == 0 || dcb->ByteSize < 5 || dcb->ByteSize > 8 || dcb->Parity > 4 || dcb->StopBits > 2) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return port->SetState(*dcb) ? TRUE : FALSE;
}

BOOL WINAPI GetCommTimeouts(HANDLE file, LPCOMMTIMEOUTS timeouts)
{
    if (PLAT_FAIL(GetCommTimeouts, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port || Missing(timeouts))
        return FALSE;
    return port->GetTimeouts(timeouts) ? TRUE : FALSE;
}

BOOL WINAPI SetCommTimeouts(HANDLE file, LPCOMMTIMEOUTS timeouts)
{
    if (PLAT_FAIL(SetCommTimeouts, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port || Missing(timeouts))
        return FALSE;
    return port->SetTimeouts(*timeouts) ? TRUE : FALSE;
}

BOOL WINAPI SetupComm(HANDLE file, DWORD inQueue, DWORD outQueue)
{
    if (PLAT_FAIL(SetupComm, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port)
        return FALSE;
    // The queues grow as needed; the sizes are only a recommendation.
    (void)inQueue, (void)outQueue;
    return TRUE;
}

BOOL WINAPI PurgeComm(HANDLE file, DWORD flags)
{
    if (PLAT_FAIL(PurgeComm, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port)
        return FALSE;
    if (flags & ~kPurgeFlags) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return port->Purge(flags) ? TRUE : FALSE;
}

BOOL WINAPI ClearCommError(HANDLE file, LPDWORD errors, LPCOMSTAT stat)
{
    if (PLAT_FAIL(ClearCommError, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port)
        return FALSE;
    return port->ClearError(errors, stat) ? TRUE : FALSE;
}

BOOL WINAPI EscapeCommFunction(HANDLE file, DWORD function)
{
    if (PLAT_FAIL(EscapeCommFunction, ERROR_GEN_FAILURE))
        return FALSE;
    auto port = FindPort(file);
    if (!port)
        return FALSE;
    if ((function < SETXOFF || function > CLRDTR) && function != kSetBreak && function != kClrBreak) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return port->Escape(function) ? TRUE : FALSE;
}

} // extern "C"
