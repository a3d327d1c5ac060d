// COM ports on real ttys: the Windows directory links COMn to a
// pseudo-terminal. The driver (tamrix.so through command strings) scans from
// tamrix-scanner running as a separate process on the other end, in real
// time at the line's speed; the comm API keeps Windows' meaning on a pty
// whose far end the test holds. Also the in-process virtual port's pacing
// under the real clock. These tests take real time: a few seconds in all.
#include "support/platform_fixture.h"

#include "block_scanner.h"
#include "page.h"
#include "serial_link.h"

#include <mmsystem.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace
{

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// tamrix-scanner as a child process; its standard output is read line by line.
class ScannerProcess
{
public:
    explicit ScannerProcess(std::vector<std::string> args)
    {
        const std::string program = std::string(TAMRIX_BUILD_DIR) + "/bin/tamrix-scanner";
        args.insert(args.begin(), program);
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        out_ = fds[0];
        path_ = NextLine(5000);
    }
    ~ScannerProcess()
    {
        Stop();
        if (out_ >= 0)
            ::close(out_);
    }
    const std::string &path() const { return path_; }
    // The next line printed, or "" when none came within `ms`.
    std::string NextLine(int ms)
    {
        const auto until = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            size_t eol = buffer_.find('\n');
            if (eol != std::string::npos) {
                std::string line = buffer_.substr(0, eol);
                buffer_.erase(0, eol + 1);
                return line;
            }
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
            pollfd p{out_, POLLIN, 0};
            if (left <= 0 || ::poll(&p, 1, left) <= 0)
                return "";
            char chunk[256];
            ssize_t n = ::read(out_, chunk, sizeof chunk);
            if (n <= 0)
                return "";
            buffer_.append(chunk, (size_t)n);
        }
    }
    // Waits up to `ms` for a line equal to `want`.
    bool Reports(const std::string &want, int ms)
    {
        const auto until = Clock::now() + std::chrono::milliseconds(ms);
        while (Clock::now() < until)
            if (NextLine(50) == want)
                return true;
        return false;
    }
    void Kill() { End(SIGKILL); }
    // SIGTERM; the exit status (-1 if it did not end by itself).
    int Stop() { return End(SIGTERM); }

private:
    int End(int sig)
    {
        if (pid_ <= 0)
            return -1;
        ::kill(pid_, sig);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t pid_ = -1;
    int out_ = -1;
    std::string path_;
    std::string buffer_;
};

void Link(const tamrix_test::TempDir &windir, unsigned port, const std::string &target)
{
    std::filesystem::create_directories(windir / "dosdevices");
    const std::string link = windir / ("dosdevices/com" + std::to_string(port));
    std::filesystem::remove(link);
    std::filesystem::create_symlink(target, link);
}

std::string ReadFileBytes(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// ---- The driver through command strings ----------------------------------

class TtyScanTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        WritePrivateProfileStringW(TEXT("MCI32"), TEXT("Scanner"), TEXT("TAMRIX.DLL"), TEXT("system.ini"));
        Configure(1);
        // Kept loaded between the closes and opens of a test: unloading the
        // driver while its display thread is still ending is another matter
        // than the line's, and is left to the tests of close.
        driver_ = LoadLibraryW(TEXT("TAMRIX.DLL"));
        ASSERT_NE(driver_, nullptr);
        threads_ = PlatLiveCount(PLAT_KIND_THREAD);
    }
    void TearDown() override
    {
        // The display thread of the last close may still be on its way out.
        for (int i = 0; i < 500 && PlatLiveCount(PLAT_KIND_THREAD) > threads_; i++)
            Sleep(10);
        FreeLibrary(driver_);
        PlatformTest::TearDown();
    }
    // A KS-620 on RS-232C, COMn, 19200 baud.
    static void Configure(unsigned port)
    {
        const char16_t id[2] = {char16_t(u'0' + port), 0};
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Scanner"), TEXT("2"));
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Interface"), TEXT("2"));
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("ID"), (LPCWSTR)id);
        WriteProfileStringW(TEXT("TAMRIX"), TEXT("Baudrate"), TEXT("3"));
    }
    static DWORD Send(const std::string &cmd)
    {
        std::u16string wide(cmd.begin(), cmd.end());
        WCHAR ret[64] = {};
        return mciSendStringW((LPCWSTR)wide.c_str(), ret, 64, nullptr);
    }
    tamrix_test::TempDir windir_{true};
    HMODULE driver_ = nullptr;
    long threads_ = 0;
};

// The page through a pty from the scanner program equals the page through an
// in-process virtual port, and takes at least the time its bytes need on a
// 19200-baud line.
TEST_F(TtyScanTest, ScannerProgramOnAPtyScansThePageAtTheLineSpeed)
{
    ScannerProcess scanner({"--model", "2", "--format", "1", "--busy-ms", "0"});
    ASSERT_EQ(scanner.path().rfind("/dev/pts/", 0), 0u) << "first line: " << scanner.path();
    Link(windir_, 1, scanner.path());
    UseVirtualClock(); // the driver's own 9-second wait passes at once; the line is real

    ASSERT_EQ(Send("open scanner alias s wait"), 0u);
    // The driver's line settings, as the scanner's side of the pty reads them.
    EXPECT_TRUE(scanner.Reports("line: 19200 8N1 rtscts=on raw=yes", 2000));
    const int lines = 60, lineBytes = 320 / 8;
    const auto start = Clock::now();
    ASSERT_EQ(Send("scanread s rect 64 0 320 " + std::to_string(lines) + " wait"), 0u);
    const double took = Seconds(start);
    ASSERT_EQ(Send("save s " + (windir_ / "pty.bmp") + " wait"), 0u);
    ASSERT_EQ(Send("close s wait"), 0u);
    EXPECT_EQ(scanner.Stop(), 0) << "SIGTERM ends the scanner cleanly";

    // Information block, one frame per line (header, type, line, trailer),
    // end frame; ten bits a byte.
    const double wire = (38.0 + lines * (lineBytes + 5) + 5) * 10 / 19200;
    std::printf("scan of %d lines through the pty: %.2f s; the bytes need %.2f s at 19200 baud\n", lines, took, wire);
    EXPECT_GE(took, wire);
    EXPECT_LT(took, wire + 5.0);

    auto reference = std::make_shared<sim::BlockScanner>(2, 1);
    sim::SerialLink link(2, reference);
    Configure(2);
    ASSERT_EQ(Send("open scanner alias s wait"), 0u);
    ASSERT_EQ(Send("scanread s rect 64 0 320 " + std::to_string(lines) + " wait"), 0u);
    ASSERT_EQ(Send("save s " + (windir_ / "virtual.bmp") + " wait"), 0u);
    ASSERT_EQ(Send("close s wait"), 0u);
    EXPECT_TRUE(reference->ProtocolErrors().empty());
    const std::string viaPty = ReadFileBytes(windir_ / "pty.bmp");
    EXPECT_GT(viaPty.size(), size_t(lines * lineBytes));
    EXPECT_TRUE(viaPty == ReadFileBytes(windir_ / "virtual.bmp")) << "the two scans differ";
}

// The scanner goes away in the middle of a scan: the scan fails with 513
// soon, and closing leaves nothing behind (the fixture checks the counts).
// A port whose tty is missing or taken does not open: 276.
TEST_F(TtyScanTest, LostMissingOrTakenLineFailsWithoutHanging)
{
    {
        ScannerProcess scanner({"--model", "2", "--format", "1", "--busy-ms", "0"});
        Link(windir_, 1, scanner.path());
        UseVirtualClock();
        ASSERT_EQ(Send("open scanner alias s wait"), 0u);
        std::thread killer([&scanner] {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            scanner.Kill();
        });
        const auto start = Clock::now();
        EXPECT_EQ(LOWORD(Send("scanread s rect 64 0 320 400 wait")), 513u) << "the driver's own error";
        killer.join();
        EXPECT_LT(Seconds(start), 5.0);
        EXPECT_EQ(Send("close s wait"), 0u);
    }

    Link(windir_, 1, "/dev/pts/tamrix-no-such-tty");
    auto start = Clock::now();
    EXPECT_EQ(Send("open scanner alias s wait"), DWORD(MCIERR_DEVICE_NOT_READY));
    WCHAR text[128] = {};
    EXPECT_TRUE(mciGetErrorStringW(MCIERR_DEVICE_NOT_READY, text, 128));
    EXPECT_GT(lstrlenW(text), 0);

    ScannerProcess holder({"--model", "2"});
    Link(windir_, 1, holder.path());
    HANDLE first = CreateFileW(TEXT("COM1"), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    SetLastError(0);
    EXPECT_EQ(CreateFileW(TEXT("\\\\.\\COM1"), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(Send("open scanner alias s wait"), DWORD(MCIERR_DEVICE_NOT_READY)) << "the port is taken";
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_LT(Seconds(start), 3.0);
}

// tamrix-scanner --page: a BMP picture lies on the glass at its own
// resolution, white beyond it; anything else is refused and changes nothing.
TEST(GlassTest, PictureFromABitmapLiesOnTheGlass)
{
    tamrix_test::TempDir dir;
    // 2 x 2 pixels, 24 bits, bottom-up, 3937 pixels a metre (100 dpi).
    std::string bmp = "BM";
    auto le = [&bmp](uint32_t v, int bytes) {
        for (int i = 0; i < bytes; i++)
            bmp.push_back(char(v >> (8 * i)));
    };
    le(54 + 16, 4), le(0, 4), le(54, 4), le(40, 4), le(2, 4), le(2, 4), le(1, 2), le(24, 2), le(0, 4), le(16, 4);
    le(3937, 4), le(3937, 4), le(0, 4), le(0, 4);
    bmp += std::string("\x00\x00\xff"
                       "\x00\xff\x00"
                       "\0\0",
                       8); // bottom row: red, green
    bmp += std::string("\xff\x00\x00"
                       "\x10\x20\x30"
                       "\0\0",
                       8); // top row: blue, (0x30, 0x20, 0x10)
    std::ofstream(dir / "page.bmp", std::ios::binary) << bmp;
    std::ofstream(dir / "text.bmp") << "not a picture";

    std::string error;
    EXPECT_FALSE(sim::LayPictureOnGlass(dir / "text.bmp", &error));
    EXPECT_FALSE(error.empty());
    const sim::Rgb chartCorner = sim::PageSample(0, 0);
    ASSERT_TRUE(sim::LayPictureOnGlass(dir / "page.bmp", &error)) << error;
    auto at = [](long x, long y) {
        sim::Rgb c = sim::PageSample(x * 12 + 6, y * 12 + 6); // pixel (x, y) at 100 dpi
        return std::vector<int>{c.r, c.g, c.b};
    };
    EXPECT_EQ(at(0, 0), (std::vector<int>{0, 0, 255}));
    EXPECT_EQ(at(1, 0), (std::vector<int>{0x30, 0x20, 0x10}));
    EXPECT_EQ(at(0, 1), (std::vector<int>{255, 0, 0}));
    EXPECT_EQ(at(1, 1), (std::vector<int>{0, 255, 0}));
    EXPECT_EQ(at(2, 0), (std::vector<int>{255, 255, 255})) << "the lid beyond the picture";
    ASSERT_TRUE(sim::LayPictureOnGlass("", &error));
    const sim::Rgb back = sim::PageSample(0, 0);
    EXPECT_EQ(std::vector<int>({back.r, back.g, back.b}),
              std::vector<int>({chartCorner.r, chartCorner.g, chartCorner.b}));
}

// ---- The comm API on a pty whose far end the test holds ------------------

class PtyPortTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(master_, 0);
        ASSERT_EQ(::grantpt(master_), 0);
        ASSERT_EQ(::unlockpt(master_), 0);
        Link(windir_, 3, ::ptsname(master_));
        port_ = CreateFileW(TEXT("COM3"), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(port_, INVALID_HANDLE_VALUE);
    }
    void TearDown() override
    {
        if (port_ != INVALID_HANDLE_VALUE)
            CloseHandle(port_);
        ::close(master_);
        PlatformTest::TearDown();
    }
    void SetTimeouts(DWORD interval, DWORD multiplier, DWORD constant)
    {
        COMMTIMEOUTS t{interval, multiplier, constant, 0, 0};
        ASSERT_TRUE(SetCommTimeouts(port_, &t));
    }
    // ReadFile of `size` bytes: what arrived, and the seconds it took.
    std::string Read(DWORD size, double *took)
    {
        std::string got(size, '\0');
        DWORD n = 0;
        const auto start = Clock::now();
        EXPECT_TRUE(ReadFile(port_, got.data(), size, &n, nullptr));
        *took = Seconds(start);
        got.resize(n);
        return got;
    }
    void FarEndSends(const std::string &bytes)
    {
        ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), (ssize_t)bytes.size());
        ::tcdrain(master_);
    }
    DWORD Queued()
    {
        COMSTAT stat{};
        DWORD errors = 99;
        EXPECT_TRUE(ClearCommError(port_, &errors, &stat));
        EXPECT_EQ(errors, 0u);
        return stat.cbInQue;
    }

    tamrix_test::TempDir windir_{true};
    int master_ = -1;
    HANDLE port_ = INVALID_HANDLE_VALUE;
};

TEST_F(PtyPortTest, LineSettingsBecomeTermiosAndImpossibleOnesChangeNothing)
{
    DCB dcb{};
    ASSERT_TRUE(GetCommState(port_, &dcb));
    dcb.BaudRate = CBR_4800;
    dcb.StopBits = TWOSTOPBITS; // a pty keeps 8 data bits and no parity whatever is asked

    dcb.fOutxCtsFlow = 1;
    dcb.fRtsControl = RTS_CONTROL_HANDSHAKE;
    ASSERT_TRUE(SetCommState(port_, &dcb));
    termios t{};
    ASSERT_EQ(::tcgetattr(master_, &t), 0);
    EXPECT_EQ(cfgetospeed(&t), speed_t(B4800));
    EXPECT_EQ(t.c_cflag & (CSIZE | CSTOPB | CRTSCTS | CLOCAL), tcflag_t(CS8 | CSTOPB | CRTSCTS | CLOCAL));
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u) << "raw";
    EXPECT_EQ(t.c_oflag & OPOST, 0u);

    DCB odd = dcb;
    odd.BaudRate = 12345;
    SetLastError(0);
    EXPECT_FALSE(SetCommState(port_, &odd));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    DCB now{};
    ASSERT_TRUE(GetCommState(port_, &now));
    EXPECT_EQ(now.BaudRate, DWORD(CBR_4800));
    EXPECT_EQ(now.StopBits, TWOSTOPBITS);
    ASSERT_EQ(::tcgetattr(master_, &t), 0);
    EXPECT_EQ(cfgetospeed(&t), speed_t(B4800));

    EXPECT_TRUE(EscapeCommFunction(port_, SETDTR)) << "a pty has no modem lines to drive";
}

TEST_F(PtyPortTest, ReadsKeepTheirTimeOutsAndAPurgeDropsStaleBytes)
{
    double took = 0;
    SetTimeouts(MAXDWORD, 0, 0); // return at once with what is there
    EXPECT_EQ(Read(4, &took), "");
    EXPECT_LT(took, 0.05);

    SetTimeouts(MAXDWORD, 56, 10); // the driver's: 56 ms a byte and 10
    EXPECT_EQ(Read(2, &took), "") << "a silent line";
    EXPECT_GE(took, 0.120);
    EXPECT_LT(took, 1.0);

    FarEndSends("stale");
    EXPECT_EQ(Queued(), 5u);
    ASSERT_TRUE(PurgeComm(port_, PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR));
    EXPECT_EQ(Queued(), 0u);
    FarEndSends("new");
    EXPECT_EQ(Read(3, &took), "new");

    SetTimeouts(MAXDWORD, MAXDWORD, 1000); // any byte ends the wait
    std::thread late([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        FarEndSends("ab");
    });
    EXPECT_EQ(Read(10, &took), "ab");
    late.join();
    EXPECT_GE(took, 0.09);
    EXPECT_LT(took, 0.9);

    SetTimeouts(30, 0, 0); // a pause of 30 ms between bytes ends the read
    FarEndSends("xyz");
    EXPECT_EQ(Read(10, &took), "xyz");
    EXPECT_LT(took, 0.5);

    DWORD written = 0;
    ASSERT_TRUE(WriteFile(port_, "hello", 5, &written, nullptr));
    EXPECT_EQ(written, 5u);
    char got[8] = {};
    EXPECT_EQ(::read(master_, got, sizeof got), 5);
    EXPECT_EQ(std::string(got), "hello");

    // The far end goes: reads fail at once instead of waiting out their time.
    ::close(master_);
    master_ = -1;
    SetTimeouts(MAXDWORD, 56, 10000);
    char byte;
    DWORD n = 0;
    const auto start = Clock::now();
    EXPECT_FALSE(ReadFile(port_, &byte, 1, &n, nullptr));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_BAD_COMMAND));
    EXPECT_LT(Seconds(start), 1.0);
}

// ---- The in-process virtual port under the real clock --------------------

// A far end with `size` bytes ready at once.
class Burst : public sim::ByteDevice
{
public:
    explicit Burst(size_t size) : left_(size) {}
    void Receive(const uint8_t *, size_t) override {}
    size_t Transmit(uint8_t *out, size_t max) override
    {
        size_t n = std::min(max, left_.load());
        std::fill(out, out + n, 0x55);
        left_ -= n;
        return n;
    }
    size_t Pending() const override { return left_; }

private:
    std::atomic<size_t> left_;
};

class PacedPortTest : public PlatformTest
{
};

TEST_F(PacedPortTest, VirtualPortCarriesBytesAtTheBaudRateUnderTheRealClock)
{
    for (bool virtualClock : {false, true}) {
        PlatUseVirtualClock(virtualClock ? TRUE : FALSE);
        sim::SerialLink link(4, std::make_shared<Burst>(240));
        HANDLE port = CreateFileW(TEXT("COM4"), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(port, INVALID_HANDLE_VALUE);
        DCB dcb{};
        ASSERT_TRUE(GetCommState(port, &dcb));
        dcb.BaudRate = CBR_19200; // 8N1: 0.52 ms a byte, 125 ms for 240
        ASSERT_TRUE(SetCommState(port, &dcb));
        COMMTIMEOUTS t{0, 0, 5000, 0, 0};
        ASSERT_TRUE(SetCommTimeouts(port, &t));
        std::vector<uint8_t> got(240);
        DWORD n = 0;
        const auto start = Clock::now();
        EXPECT_TRUE(ReadFile(port, got.data(), 240, &n, nullptr));
        const double took = Seconds(start);
        EXPECT_EQ(n, 240u);
        if (virtualClock)
            EXPECT_LT(took, 0.1) << "no pacing on the virtual clock";
        else
            EXPECT_GE(took, 0.120) << "paced at 19200 baud";
        EXPECT_LT(took, 2.0);
        CloseHandle(port);
    }
}

} // namespace
