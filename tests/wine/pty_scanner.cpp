// Serves one virtual scanner of the block dialect on a new pseudo-terminal
// for the Wine tests: prints the terminal's path on the first line of its
// output and then moves bytes between the terminal and the scanner in real
// time until SIGINT or SIGTERM.
//
//   tamrix_pty_scanner [MODEL]        (1 to 6, default 5)
//
// The scanner is sim::BlockScanner, the same one the in-process virtual COM
// ports carry, and follows the rules its header states.
#include "block_scanner.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int)
{
    g_stop = 1;
}

} // namespace

int main(int argc, char **argv)
{
    int model = argc > 1 ? std::atoi(argv[1]) : 5;
    if (model < 1 || model > 6) {
        std::fprintf(stderr, "usage: tamrix_pty_scanner [MODEL 1-6]\n");
        return 2;
    }
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        std::perror("tamrix_pty_scanner: pty");
        return 1;
    }
    const char *path = ptsname(master);
    // Holding the terminal open keeps the master readable while no program
    // has the port open; raw mode so that nothing is echoed or translated.
    int slave = open(path, O_RDWR | O_NOCTTY);
    termios raw{};
    if (slave < 0 || tcgetattr(slave, &raw) != 0) {
        std::perror("tamrix_pty_scanner: terminal");
        return 1;
    }
    cfmakeraw(&raw);
    tcsetattr(slave, TCSANOW, &raw);
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::printf("%s\n", path);
    std::fflush(stdout);

    auto scanner = std::make_shared<sim::BlockScanner>(model, 5);
    uint8_t buffer[4096];
    while (!g_stop) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 5) > 0 && (p.revents & POLLIN)) {
            ssize_t n = read(master, buffer, sizeof buffer);
            if (n > 0)
                scanner->Receive(buffer, static_cast<size_t>(n));
        }
        while (scanner->Pending() > 0) {
            size_t n = scanner->Transmit(buffer, sizeof buffer);
            for (size_t done = 0; done < n;) {
                ssize_t w = write(master, buffer + done, n - done);
                if (w <= 0)
                    break;
                done += static_cast<size_t>(w);
            }
        }
    }
    close(slave);
    close(master);
    return 0;
}
