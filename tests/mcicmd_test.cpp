// The mcicmd shell as a user runs it: the built program with a private
// Windows directory.
#include "support/platform_fixture.h"

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

} // namespace
