// The mcicmd shell as a user runs it: the built program with a private
// Windows directory.
#include "support/platform_fixture.h"

#include "page.h"

#include <sys/wait.h>

#include <cstdio>
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
    Outcome Mcicmd(const std::string &args)
    {
        std::string errFile = dir_ / "stderr";
        std::string cmd =
            std::string(TAMRIX_BUILD_DIR) + "/bin/mcicmd --windir " + dir_.path() + " " + args + " 2>" + errFile;
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

TEST_F(McicmdTest, HelpDocumentsOptionsAndMetaCommands)
{
    Outcome r = Mcicmd("--help");
    EXPECT_EQ(r.status, 0);
    for (const char *word : {"--file", "--keep-going", "--windir", "--install", ".wait", ".sleep", "notify:"})
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
    EXPECT_NE(Mcicmd("--bogus").status, 0);
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
