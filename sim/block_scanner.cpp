// The block-dialect scanner of models 1 to 6.
#include "block_scanner.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

namespace sim
{
namespace
{

constexpr uint8_t kStx = 0x02, kEtx = 0x03, kEnq = 0x05, kAck = 0x06, kDc2 = 0x12, kDc4 = 0x14, kEtb = 0x17,
                  kEsc = 0x1B;

bool IsDigit(uint8_t c)
{
    return c >= '0' && c <= '9';
}

// Letters followed by one digit, and the digits each accepts.
const char *DigitsOf(char letter)
{
    switch (letter) {
    case '@':
        return "3";
    case 'J':
        return "1";
    case 'T':
        return "3";
    case 'M':
        return "1";
    case 'K':
        return "23";
    case 'f':
        return "3";
    case 'e':
        return "3";
    case 'C':
        return "15";
    case 'O':
        return "12";
    case 'U':
        return "12";
    case 'c':
        return "12";
    case 'B':
        return "123";
    case 'h':
    case 'S':
    case 'g':
    case 's':
        return "0123456789";
    case 'H':
    case 'P':
        return "12345678";
    case 'm':
        return "12345";
    case 'D':
        return "123456789";
    default:
        return nullptr;
    }
}

std::string Printable(const std::string &cmd)
{
    std::string text;
    for (unsigned char c : cmd) {
        if (c == kEsc)
            text += "ESC ";
        else if (c >= 0x20 && c < 0x7F)
            text += static_cast<char>(c);
        else
            text.append(1, '<').append(std::to_string(c)).append(1, '>');
    }
    return text;
}

} // namespace

BlockScanner::BlockScanner(int model, int transferFormat) : model_(model), transferFormat_(transferFormat) {}

long BlockScanner::BaseOf(int model, long r)
{
    if (model == 3)
        return 200;
    if (model == 5 || model == 6)
        return r;
    return 320;
}

void BlockScanner::SetFaults(const Faults &faults)
{
    std::lock_guard<std::mutex> lock(mutex_);
    faults_ = faults;
}

void BlockScanner::SetBusyMs(unsigned ms)
{
    std::lock_guard<std::mutex> lock(mutex_);
    busyMs_ = ms;
}

unsigned BlockScanner::BusyMs() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return busyMs_;
}

std::vector<std::string> BlockScanner::Commands() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

std::vector<std::string> BlockScanner::ProtocolErrors() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

int BlockScanner::EnqCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return enqCount_;
}

int BlockScanner::Dc4Count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return dc4Count_;
}

bool BlockScanner::FinalAckSeen() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return finalAck_;
}

bool BlockScanner::HasWindow() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return hasWindow_;
}

BlockScanner::Window BlockScanner::LastWindow() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return window_;
}

std::vector<uint8_t> BlockScanner::Line(long index) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return LineLocked(index);
}

std::vector<uint8_t> BlockScanner::LineLocked(long index) const
{
    long lines = std::max(window_.lines, 1L);
    return PackLine(window_.format, window_.top + index % lines, static_cast<int>(index / lines));
}

void BlockScanner::FrameProgress(long *sent, long *total) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    *total = hasWindow_ ? FramesLocked() : 0;
    *sent = std::min(next_, *total);
}

long BlockScanner::FramesLocked() const
{
    return window_.lines * Passes(window_.format);
}

// ---- Bytes in --------------------------------------------------------------

void BlockScanner::Receive(const uint8_t *data, size_t size)
{
    std::vector<std::string> errors;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        in_.insert(in_.end(), data, data + size);
        Handle(errors);
        errors_.insert(errors_.end(), errors.begin(), errors.end());
    }
}

void BlockScanner::Handle(std::vector<std::string> &errors)
{
    while (!in_.empty()) {
        uint8_t c = in_.front();
        size_t used = 1;
        if (c == kEsc) {
            if (!ParseCommand(&used, errors))
                return; // incomplete: wait for more bytes
        } else if (c == kEnq) {
            enqCount_++;
            unsigned long now = GetTickCount();
            if (!faults_.silent && !(busySet_ && now < busyUntil_))
                Queue({faults_.enqReply >= 0 ? static_cast<uint8_t>(faults_.enqReply) : kAck});
        } else if (c == kDc2) {
            StartScan(errors);
        } else if (c == kAck) {
            NextFrame(errors);
        } else if (c == kDc4) {
            dc4Count_++;
            state_ = State::Idle;
            aborting_ = true;
            drainLeft_ = faults_.drainFrames;
        } else {
            errors.push_back("stray byte " + std::to_string(c));
        }
        in_.erase(in_.begin(), in_.begin() + static_cast<long>(used));
    }
}

// Parses the command at the front of in_; false when it is not complete yet.
bool BlockScanner::ParseCommand(size_t *used, std::vector<std::string> &errors)
{
    if (in_.size() < 2)
        return false;
    char letter = static_cast<char>(in_[1]);
    size_t argBytes = 0;
    bool digits = true;
    switch (letter) {
    case 'I':
    case 'L':
        argBytes = 0;
        break;
    case 'r':
        argBytes = 8;
        break;
    case 'F':
        argBytes = 4;
        break;
    case 'X':
    case 'Y':
        argBytes = 4;
        digits = false;
        break;
    default:
        if (!DigitsOf(letter)) {
            errors.push_back("unknown command " + Printable(std::string(in_.begin(), in_.begin() + 2)));
            *used = 2;
            return true;
        }
        argBytes = 1;
    }
    if (in_.size() < 2 + argBytes)
        return false;
    *used = 2 + argBytes;
    std::string cmd(in_.begin(), in_.begin() + static_cast<long>(*used));
    commands_.push_back(cmd);
    if (digits && !std::all_of(cmd.begin() + 2, cmd.end(), [](char c) { return IsDigit(static_cast<uint8_t>(c)); })) {
        errors.push_back("bad argument in " + Printable(cmd));
        return true;
    }
    Command(cmd, errors);
    return true;
}

void BlockScanner::Command(const std::string &cmd, std::vector<std::string> &errors)
{
    char letter = cmd[1];
    if (const char *accepted = DigitsOf(letter)) {
        if (!std::strchr(accepted, cmd[2]))
            errors.push_back("value out of range in " + Printable(cmd));
    }
    switch (letter) {
    case 'I':
        busySet_ = true;
        busyUntil_ = GetTickCount() + busyMs_;
        state_ = State::Idle;
        aborting_ = false;
        across_ = down_ = false;
        break;
    case 'D':
        if (cmd[2] == '1') {
            levelsSet_ = true;
        } else {
            levelsSet_ = false;
            colorStep_ = 16;
        }
        break;
    case 'H':
        colorStep_ = cmd[2] - '0';
        break;
    case 'B':
        colorMode_ = cmd[2] == '1' ? 0 : cmd[2] == '3' ? 16 : 17;
        break;
    case 'r':
        resolution_ = std::stol(cmd.substr(2, 4));
        if (cmd.substr(2, 4) != cmd.substr(6, 4) || resolution_ <= 0)
            errors.push_back("bad resolution " + Printable(cmd));
        break;
    case 'F':
        if (model_ != 5 && model_ != 6)
            errors.push_back("F on model " + std::to_string(model_));
        else if (std::stol(cmd.substr(2, 4)) != resolution_)
            errors.push_back("F differs from r: " + Printable(cmd));
        break;
    case 'X':
    case 'Y': {
        auto word = [&](int at) {
            return (static_cast<long>(static_cast<uint8_t>(cmd[at])) << 8) | static_cast<uint8_t>(cmd[at + 1]);
        };
        long start = word(2), size = word(4);
        if (resolution_ <= 0 || !CheckWindow(letter, start, size)) {
            errors.push_back("window out of range: " + Printable(cmd));
            break;
        }
        if (letter == 'X') {
            window_.acrossStart = start;
            window_.acrossSize = size;
            across_ = true;
        } else {
            window_.downStart = start;
            window_.downSize = size;
            down_ = true;
        }
        break;
    }
    default:
        break;
    }
}

bool BlockScanner::CheckWindow(char axis, long start, long size)
{
    long r = resolution_;
    long startMin = 0, startMax, end;
    if (axis == 'X') {
        if (model_ == 3) {
            end = 840;
            startMax = 839;
        } else if (model_ == 5 || model_ == 6) {
            end = (r * 85 + 9) / 10;
            startMax = end - 1;
        } else {
            startMin = 32;
            end = startMax = 2560;
        }
    } else {
        end = model_ == 3 ? 1280 : (model_ == 5 || model_ == 6) ? (r * 1169 + 99) / 100 : 3740;
        startMax = end - 1;
    }
    return start >= startMin && start <= startMax && start + size >= 1 && start + size <= end;
}

void BlockScanner::StartScan(std::vector<std::string> &errors)
{
    if (!across_ || !down_) {
        errors.push_back("DC2 without a window");
        return;
    }
    long r = resolution_, base = BaseOf(model_, r);
    window_.format.model = model_;
    window_.format.resolution = static_cast<int>(r);
    window_.format.colorStep = levelsSet_ ? colorStep_ : 16;
    window_.format.colorMode = colorMode_;
    window_.format.left = (window_.acrossStart * r + base - 1) / base;
    window_.format.width = (window_.acrossSize * r + base - 1) / base;
    window_.top = (window_.downStart * r + base - 1) / base;
    window_.lines = model_ == 4 ? window_.downSize * r / base : (window_.downSize * r + base - 1) / base;
    hasWindow_ = true;

    long lineBytes = LineBytes(window_.format);
    std::vector<uint8_t> info(38, 0);
    info[12] = static_cast<uint8_t>(transferFormat_);
    info[13] = static_cast<uint8_t>(lineBytes >> 8);
    info[14] = static_cast<uint8_t>(lineBytes & 0xFF);
    info[37] = kEtb;
    Queue(info);
    state_ = State::Scanning;
    next_ = 0;
    aborting_ = false;
    finalAck_ = false;
    previous_.assign(static_cast<size_t>(lineBytes), 0);
}

void BlockScanner::NextFrame(std::vector<std::string> &errors)
{
    if (state_ == State::Ending) {
        state_ = State::Idle;
        finalAck_ = true;
        return;
    }
    if (aborting_) {
        if (drainLeft_ > 0) {
            drainLeft_--;
            QueueFrame(0x40, std::vector<uint8_t>(previous_.size() + 1, 0), kEtb);
            return;
        }
        aborting_ = false;
        QueueFrame(0x80, {}, kEtx);
        state_ = State::Ending;
        return;
    }
    if (state_ != State::Scanning) {
        errors.push_back("ACK without a scan");
        return;
    }
    long frames = FramesLocked() + faults_.lineDelta;
    if (next_ >= frames) {
        QueueFrame(faults_.endType, {}, kEtx);
        state_ = State::Ending;
        return;
    }
    long lines = window_.lines;
    long row = next_ % lines;
    long flagged = faults_.flaggedLines;
    if (flagged < 0) {
        long base = BaseOf(model_, resolution_);
        flagged = (model_ != 4 && (window_.downSize * resolution_) % base != 0) ? 1 : 0;
    }
    uint8_t type = 0x40;
    if (row >= lines - flagged && next_ < FramesLocked())
        type |= 0x10;
    std::vector<uint8_t> line = LineLocked(next_);
    next_++;
    QueueFrame(type, transferFormat_ == 5 ? Encode(line) : line, faults_.badTrailer ? kEtx : kEtb);
}

// Run-length code of the line XOR-ed with the line before: repeats for runs
// of three or more, literals otherwise; the last byte is a repeat of its own
// (longer by the overflow fault, followed then by a surplus pair).
std::vector<uint8_t> BlockScanner::Encode(const std::vector<uint8_t> &line)
{
    std::vector<uint8_t> x(line.size());
    for (size_t i = 0; i < line.size(); i++) {
        x[i] = line[i] ^ previous_[i];
        previous_[i] = line[i];
    }
    std::vector<uint8_t> out;
    if (x.empty())
        return out;
    size_t last = x.size() - 1, i = 0;
    std::vector<uint8_t> literal;
    auto flush = [&] {
        if (literal.empty())
            return;
        out.push_back(static_cast<uint8_t>(0x80 | literal.size()));
        out.insert(out.end(), literal.begin(), literal.end());
        literal.clear();
    };
    while (i < last) {
        size_t run = 1;
        while (i + run < last && x[i + run] == x[i] && run < 127)
            run++;
        if (run >= 3) {
            flush();
            out.push_back(static_cast<uint8_t>(run));
            out.push_back(x[i]);
            i += run;
        } else {
            literal.push_back(x[i++]);
            if (literal.size() == 127)
                flush();
        }
    }
    flush();
    out.push_back(static_cast<uint8_t>(1 + faults_.overflowRun));
    out.push_back(x[last]);
    if (faults_.overflowRun > 0) {
        out.push_back(0x05);
        out.push_back(0xAA);
    }
    return out;
}

// ---- Bytes out -------------------------------------------------------------

void BlockScanner::Queue(const std::vector<uint8_t> &bytes)
{
    if (faults_.silent)
        return;
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    readyAt_ = GetTickCount() + faults_.lateMs;
}

void BlockScanner::QueueFrame(uint8_t type, const std::vector<uint8_t> &payload, uint8_t trailer)
{
    size_t length = payload.size() + 1;
    std::vector<uint8_t> frame;
    frame.reserve(payload.size() + 5);
    frame.push_back(kStx);
    frame.push_back(static_cast<uint8_t>(length >> 8));
    frame.push_back(static_cast<uint8_t>(length & 0xFF));
    frame.push_back(type);
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back(trailer);
    Queue(frame);
}

size_t BlockScanner::Pending() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (faults_.lateMs && GetTickCount() < readyAt_)
        return 0;
    return out_.size();
}

size_t BlockScanner::Transmit(uint8_t *out, size_t max)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (faults_.lateMs && GetTickCount() < readyAt_)
        return 0;
    size_t n = std::min(max, out_.size());
    std::copy(out_.begin(), out_.begin() + static_cast<long>(n), out);
    out_.erase(out_.begin(), out_.begin() + static_cast<long>(n));
    return n;
}

void BlockScanner::Clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    out_.clear();
    in_.clear();
    if (state_ != State::Idle)
        state_ = State::Idle;
    aborting_ = false;
}

} // namespace sim
