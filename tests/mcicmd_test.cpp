// The mcicmd shell as a user runs it: the built program with a private
// Windows directory.
#include "support/platform_fixture.h"

#include "page.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace
{

struct Outcome {
    int status = -1;
    std::string out, err;
};

class McicmdTest : public PlatformTest
{
protected:
    std::string Command(const std::string &args)
    {
        return std::string(TAMRIX_BUILD_DIR) + "/bin/mcicmd --windir " + dir_.path() + " " + args;
    }
    Outcome Mcicmd(const std::string &args) { return Shell(Command(args)); }
    // A shell command line; its standard error is read from a file.
    Outcome Shell(const std::string &line)
    {
        std::string errFile = dir_ / "stderr";
        std::string cmd = "(" + line + ") 2>" + errFile;
        Outcome r;
        PlatBeginExternalWait();
        if (FILE *p = popen(cmd.c_str(), "r")) {
            char buf[512];
            size_t n;
            while ((n = fread(buf, 1, sizeof buf, p)) > 0)
                r.out.append(buf, n);
            int st = pclose(p);
            r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        }
        PlatEndExternalWait();
        std::ifstream e(errFile);
        r.err.assign(std::istreambuf_iterator<char>(e), std::istreambuf_iterator<char>());
        return r;
    }
    tamrix_test::TempDir dir_;
};

// The help lists the driver's commands as its command table has them: what
// the parser reaches (only "millimeter" of the time formats, both status
// items although their list has no end entry).
TEST_F(McicmdTest, HelpListsTheCommandsOfTheDriversTable)
{
    Outcome r = Mcicmd("--help");
    EXPECT_EQ(r.status, 0);
    for (const char *word :
         {"--file", "--keep-going", "--install", ".wait [#K|DEVICE]", ".snapshot", "\"wait\" or",
          "scanread DEVICE [rect X Y WIDTH HEIGHT] wait|notify", "time format: millimeter\n", "ITEM: ready, scanner\n",
          "maximum resolution,", "can halftone\n", "answers a rectangle", "e.g. \"save s page.bmp wait\""})
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
    EXPECT_NE(Mcicmd("--bogus").status, 0);

    // The same from input lines, which also take quit.
    std::ofstream(dir_ / "h.mci") << "help status\nquit\nfrobnicate x wait\n";
    r = Mcicmd("--no-scanner -f " + dir_ / "h.mci");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("status DEVICE [ITEM] wait|notify"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("scanread"), std::string::npos) << r.out;
}

// On a terminal, input lines can be edited and recalled: a word mended with
// the arrow keys, then the whole line again from the history.
TEST_F(McicmdTest, TerminalLinesCanBeEditedAndRecalled)
{
    std::string bin = std::string(TAMRIX_BUILD_DIR) + "/bin/mcicmd";
    int master = -1;
    PlatBeginExternalWait();
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execl(bin.c_str(), bin.c_str(), "--windir", dir_.path().c_str(), "--install", static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    std::string text;
    size_t prompts = 0;
    // Each line goes once mcicmd asks for it, as a user types.
    auto send = [&](const std::string &keys) {
        for (char buf[256];;) {
            size_t at = 0, seen = 0;
            while ((at = text.find("mci> ", at)) != std::string::npos)
                ++seen, at += 5;
            if (seen > prompts)
                break;
            pollfd p{master, POLLIN, 0};
            if (poll(&p, 1, 30000) <= 0)
                return false;
            ssize_t n = read(master, buf, sizeof buf);
            if (n <= 0)
                return false;
            text.append(buf, static_cast<size_t>(n));
        }
        ++prompts;
        // Keys typed before the line editor takes the terminal would meet
        // the terminal's own line editing instead.
        termios mode{};
        for (int i = 0; i < 10000 && tcgetattr(master, &mode) == 0 && (mode.c_lflag & ICANON); ++i)
            usleep(1000);
        return write(master, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
    };
    std::string mend = "info s prodct wait";
    for (int i = 0; i < 7; ++i)
        mend += "\x1b[D"; // left arrow, to just after "prod"
    bool sent = send("open scanner alias s wait\r") && send(mend + "u\r") && send("\x1b[A\r") && // up arrow
                send("close s wait\r") && send("\x04");
    for (char buf[256];;) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 30000) <= 0)
            break;
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    close(master);
    int st = 0;
    waitpid(pid, &st, 0);
    PlatEndExternalWait();
    EXPECT_TRUE(sent) << text;
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st << "\n" << text;
    EXPECT_EQ(text.find("error"), std::string::npos) << text;
    // The product's name, answered to the mended line and to its recall.
    const std::string product = "\xe3\x82\xa4\xe3\x83\xa1\xe3\x83\xbc\xe3\x82\xb8"; // "イメージ"
    size_t answers = 0;
    for (size_t at = 0; (at = text.find(product, at)) != std::string::npos; at += product.size())
        ++answers;
    EXPECT_EQ(answers, 2u) << text;
}

// What a user can get wrong is refused with a message that says what to do.
TEST_F(McicmdTest, MistakesAreRefusedWithWhatToDoInstead)
{
    for (const char *spec : {"3:scsi", "ks-610:gpib", "1:scsi"}) {
        Outcome r = Mcicmd(std::string("--scanner ") + spec + " \"open scanner alias s wait\"");
        EXPECT_EQ(r.status, 2) << spec;
        EXPECT_NE(r.err.find("interface. Each model's interfaces:\n  KS-610: rs232c\n"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("attach"), std::string::npos) << r.err;
    }
    // A new Windows directory has no driver entered: the message says --install.
    Outcome r = Mcicmd("\"open scanner alias s wait\"");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error 306"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("--install"), std::string::npos) << r.err;
    // A save without a name, or with one too long to keep, is an error with
    // its text, and nothing is written under a shortened name.
    const std::string longName = dir_ / (std::string(139 - dir_.path().size() - 1, 'n'));
    r = Mcicmd("-k --install \"open scanner alias s wait\" \"scanread s rect 0 0 40 40 wait\" \"save s wait\" "
               "\"save s " +
               longName + " wait\" \"close s wait\"");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error 304: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("error 268: "), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("error", r.err.find("error 268") + 1), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(longName.substr(0, 128)));
    // The modal scan-mode dialog nobody could answer is refused, not waited for.
    r = Mcicmd("--install \"open scanner alias s wait\" \"scanmode s resolution 200 dialog wait\"");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("--dialog-answer"), std::string::npos) << r.err;
    // Answered, it ends as the dialog's buttons end it.
    r = Mcicmd("--dialog-answer cancel \"open scanner alias s wait\" \"scanmode s resolution 200 dialog wait\"");
    EXPECT_NE(r.err.find("error 273"), std::string::npos) << r.err;
    r = Mcicmd("--dialog-answer ok \"open scanner alias s wait\" \"scanmode s resolution 200 dialog wait\" "
               "\"close s wait\"");
    EXPECT_EQ(r.status, 0) << r.err;
}

// Each notification names its command; .wait waits for commands, not for a
// number of notifications. A save superseded by a status command hears
// "superseded" first and its own end at the next tick: .wait #1 waits for it.
TEST_F(McicmdTest, WaitWaitsForTheEndOfTheCommandsItNames)
{
    const std::string bmp = dir_ / "w.bmp";
    Outcome r = Mcicmd("--install \"open scanner alias s wait\" \"scanread s rect 0 0 200 200 wait\" \"save s " + bmp +
                       " notify\" \"status s ready notify\" \".wait #1\" \"info s product wait\" \".wait #3\"");
    EXPECT_EQ(r.status, 1);
    size_t superseded = r.out.find("notify: superseded (device 1) #1 \"save s ");
    size_t status = r.out.find("notify: successful (device 1) #2 \"status s ready notify\"");
    size_t end = r.out.find_first_of("\n", r.out.find(") #1 \"save s ", superseded + 1));
    size_t product = r.out.find("イメージスキャナ");
    ASSERT_NE(superseded, std::string::npos) << r.out;
    ASSERT_NE(status, std::string::npos) << r.out;
    ASSERT_NE(end, std::string::npos) << "the save's own end never came:\n" << r.out;
    EXPECT_LT(end, product) << r.out;
    EXPECT_NE(r.err.find("error: .wait #3: there is no notify command #3 (2 so far)"), std::string::npos) << r.err;
}

// Ctrl-C stops a notified scan (MCI stop) instead of ending mcicmd, which
// goes on with the next command.
TEST_F(McicmdTest, InterruptStopsTheNotifiedScan)
{
    ASSERT_EQ(Mcicmd("--install --scanner ks-650:rs232c:1 .wait").status, 0);
    int in[2], out[2];
    ASSERT_EQ(pipe(in), 0);
    ASSERT_EQ(pipe(out), 0);
    std::string bin = std::string(TAMRIX_BUILD_DIR) + "/bin/mcicmd";
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        close(in[1]);
        close(out[0]);
        execl(bin.c_str(), bin.c_str(), "--windir", dir_.path().c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    PlatBeginExternalWait();
    // A whole page at the highest resolution: long enough to be running
    // when the interrupt comes; the answer to "info" tells that it runs.
    std::string script = "open scanner alias s wait\nscanmode s resolution 480 colorstep 256 wait\n"
                         "scanread s rect 0 0 4080 5611 notify\ninfo s product wait\n";
    ASSERT_EQ(write(in[1], script.data(), script.size()), static_cast<ssize_t>(script.size()));
    std::string text;
    char buf[256];
    while (std::count(text.begin(), text.end(), '\n') < 2) { // open's answer and the product name
        pollfd p{out[0], POLLIN, 0};
        if (poll(&p, 1, 60000) <= 0)
            break;
        ssize_t n = read(out[0], buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    kill(pid, SIGINT);
    script = ".wait\nclose s wait\n";
    EXPECT_EQ(write(in[1], script.data(), script.size()), static_cast<ssize_t>(script.size()));
    close(in[1]);
    for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    close(out[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    PlatEndExternalWait();
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st << "\n" << text;
    EXPECT_NE(text.find("notify: aborted (device 1) #1 \"scanread s rect 0 0 4080 5611 notify\""), std::string::npos)
        << text;
}

// A scan that takes a while shows its progress on a terminal, and only there.
TEST_F(McicmdTest, ProgressLineOnATerminalOnly)
{
    const std::string args = "--install --scanner ks-650:rs232c:1 \"open scanner alias s wait\" \"scanmode s "
                             "resolution 480 colorstep 256 wait\" \"scanread s rect 0 0 2000 3000 wait\" \"close s "
                             "wait\"";
    Outcome r = Mcicmd(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("lines"), std::string::npos) << r.err;
    // script(1) gives mcicmd a terminal.
    r = Shell("script -qec '" + Command(args) + "' /dev/null");
    EXPECT_NE(r.out.find(" of 3000 lines, "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("scan: 3000 of 3000 lines"), std::string::npos) << r.out;
}

// .snapshot shows what the display window shows: the scanned picture where
// put placed it, white around it.
TEST_F(McicmdTest, SnapshotShowsTheDisplayWindow)
{
    int st = system("/usr/bin/python3 -c 'import PIL' 2>/dev/null");
    if (st != 0)
        GTEST_SKIP() << "python3 with PIL is not installed: cannot read the file back";
    Outcome r = Mcicmd("--install --scanner ks-650:scsi \"open scanner alias s wait\" \"scanmode s resolution 200 "
                       "wait\" \"scanread s rect 100 100 40 40 wait\" \"window s state show wait\" \"put s "
                       "destination at 10 20 80 80 wait\" \".snapshot " +
                       dir_ / "d.png" + "\" \"close s wait\"");
    ASSERT_EQ(r.status, 0) << r.err;
    std::string cmd = "/usr/bin/python3 -c \"import sys; from PIL import Image; im = "
                      "Image.open(sys.argv[1]).convert('RGB'); print(*im.getpixel((5, 5)), *im.getpixel((50, 60)), "
                      "*im.getpixel((89, 99)), *im.getpixel((90, 100)))\" " +
                      dir_ / "d.png";
    std::string text;
    PlatBeginExternalWait();
    if (FILE *f = popen(cmd.c_str(), "r")) {
        char buf[256];
        while (fgets(buf, sizeof buf, f))
            text += buf;
        pclose(f);
    }
    PlatEndExternalWait();
    // Scan pixels (20, 20) and (39, 39) shown twice as large from (10, 20).
    auto px = [](int x, int y) {
        sim::Rgb v = sim::PageSample((100 + x) * 6, (100 + y) * 6);
        auto on = [](int c) { return std::to_string(c >= 128 ? 255 : 0); };
        return on(v.r) + " " + on(v.g) + " " + on(v.b) + " ";
    };
    EXPECT_EQ(text, "255 255 255 " + px(20, 20) + px(39, 39) + "255 255 255\n") << text;
}

TEST_F(McicmdTest, ScriptStopsAtTheFirstErrorUnlessKeepGoing)
{
    std::ofstream(dir_ / "s.mci") << "# a comment\n\nfrobnicate x wait\nstop nothing wait\n";
    Outcome r = Mcicmd("-f " + dir_ / "s.mci");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("error 263: The specified device is not open or is not recognized by MCI."), std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find("error", r.err.find("error 263") + 1), std::string::npos) << "ran past the error: " << r.err;

    r = Mcicmd("-k -f " + dir_ / "s.mci");
    EXPECT_EQ(r.status, 1);
    size_t first = r.err.find("error 263");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(r.err.find("error 263", first + 1), std::string::npos) << r.err;
}

TEST_F(McicmdTest, NotificationsArePrintedAsTheyArrive)
{
    std::ofstream(dir_ / "system.ini") << "[MCI32]\nEcho=ECHODRV.DLL\n";
    Outcome r = Mcicmd("\"open echo alias e wait\" \"status e ready notify\" .wait \"close e wait\"");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("notify: successful (device 1)"), std::string::npos) << r.out;

    // A notify command that fails is not notified: .wait has nothing to wait for.
    r = Mcicmd("\"open echo alias e wait\" \"status e bogus notify\" .wait \"close e wait\"");
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.out.find("notify:"), std::string::npos) << r.out;
}

// A page scanned from the virtual scanner on each interface, as the README's
// scan does it, and read back from the saved file by another program. The
// scan is 400 x 800 dots at 200 dpi from (100, 100): its pixels show the
// chart on the glass, thresholded (two levels, or eight colours).
TEST_F(McicmdTest, ScansAPageOnEachInterfaceIntoABitmapFile)
{
    int st = system("/usr/bin/python3 -c 'import PIL' 2>/dev/null");
    if (st != 0)
        GTEST_SKIP() << "python3 with PIL is not installed: cannot read the file back";
    struct Case {
        const char *scanner;
        bool colour;
    } cases[] = {{"ks-650:rs232c:2", true}, {"ks-620:gpib:5", false}, {"ks-640:scsi", true}};
    const int points[][2] = {{250, 50}, {0, 750}, {50, 750}, {399, 799}, {0, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.scanner);
        const std::string bmp = dir_ / "page.bmp";
        Outcome r = Mcicmd(std::string("--install --scanner ") + c.scanner +
                           " \"open scanner alias s wait\" \"scanmode s resolution 200 wait\""
                           " \"scanread s rect 100 100 400 800 wait\" \"save s " +
                           bmp + " wait\" \"close s wait\"");
        ASSERT_EQ(r.status, 0) << r.err;
        std::string pixels =
            "/usr/bin/python3 -c \"import sys; from PIL import Image; im = "
            "Image.open(sys.argv[1]).convert('RGB'); print(*im.size); "
            "[print(*im.getpixel((int(a), int(b)))) for a, b in zip(sys.argv[2::2], sys.argv[3::2])]\" " +
            bmp;
        for (const auto &p : points)
            pixels += " " + std::to_string(p[0]) + " " + std::to_string(p[1]);
        std::string text;
        PlatBeginExternalWait();
        if (FILE *f = popen(pixels.c_str(), "r")) {
            char buf[256];
            while (fgets(buf, sizeof buf, f))
                text += buf;
            pclose(f);
        }
        PlatEndExternalWait();
        std::string expected = "400 800\n";
        for (const auto &p : points) {
            sim::Rgb v = sim::PageSample((100 + p[0]) * 6, (100 + p[1]) * 6);
            auto on = [](int x) { return x >= 128 ? 255 : 0; };
            if (c.colour)
                expected += std::to_string(on(v.r)) + " " + std::to_string(on(v.g)) + " " + std::to_string(on(v.b));
            else
                expected += std::to_string(on(sim::Grey(v))) + " " + std::to_string(on(sim::Grey(v))) + " " +
                            std::to_string(on(sim::Grey(v)));
            expected += "\n";
        }
        EXPECT_EQ(text, expected);
        std::remove(bmp.c_str());
    }
}

} // namespace
