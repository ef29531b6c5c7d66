// Tests of process start-up under a temporary appliance root: where the
// install directory and master.ini are found, the process-wide paths, the
// TQ_* environment, the directories made, and the small helpers.
#include "foundation/environment.h"
#include "foundation/gerror.h"
#include "foundation/ini.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <netdb.h>
#include <string>
#include <unistd.h>

using ferrytest::ApplianceRoot;
using ferrytest::fileExists;
using ferrytest::readFile;
using ferrytest::writeFile;

namespace {

const char* const kEnvNames[] = {"TQ_MASTER_INI", "TQ_APPDIR",  "TQ_BINDIR",  "TQ_LOGDIR",     "TQ_REPORTDIR",
                                 "TQ_INITDIR",    "TQ_XRDIR",   "TQ_LISTDIR", "TQ_PROFILEDIR", "TQ_INFODIR",
                                 "TQ_UTILDIR",    "TQ_LIBDIR",  "TQDIR",      "BKUPBIN"};

std::string env(const char* name)
{
    const char* v = getenv(name);
    return v ? v : "<unset>";
}

// Every test starts from a clean process state: no TQ_* variables (init_state
// exports TQDIR, which a later init_state would take), the log closed and the
// working directory restored before the root goes away.
class EnvironmentTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* name : kEnvNames)
            unsetenv(name);
        savedLevel_ = log_level;
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
    }
    void TearDown() override
    {
        close_log();
        log_level = savedLevel_;
        for (const char* name : kEnvNames)
            unsetenv(name);
        EXPECT_EQ(chdir(cwd_), 0);
    }

    ApplianceRoot root_;
    int savedLevel_ = 0;
    char cwd_[PATH_MAX] = "";
};

TEST_F(EnvironmentTest, InitGlobalsFindsTheInstallFromTqIni)
{
    root_.writeMasterIni("[debugging]\nferryd=3\n");
    EXPECT_EQ(init_globals("/some/where/ferryd", "tq.ini", "/nowhere"), 0);
    EXPECT_EQ(g_appdir, root_.appdir());
    EXPECT_EQ(g_initdir, root_.initdir());
    EXPECT_EQ(g_master_ini, root_.masterIni());
    EXPECT_EQ(g_logdir, root_.logdir());
    EXPECT_EQ(g_bindir, root_.appdir() + "/bin");
    EXPECT_EQ(log_level, 3);
}

TEST_F(EnvironmentTest, InitGlobalsWithoutMasterIniLooksInTheSmallFile)
{
    unlink(root_.masterIni().c_str());
    log_level = 2;
    EXPECT_EQ(init_globals("ferryd", "tq.ini", "/nowhere"), 0);
    EXPECT_EQ(g_master_ini, root_.tqIni());
    // The lookups there give their defaults.
    EXPECT_EQ(log_level, 2);
    EXPECT_EQ(ini_get_int("Replication", "TimeDelay", 60, g_master_ini.c_str()), 60);
}

TEST_F(EnvironmentTest, InitGlobalsFallsBackToAppdirAndDefault)
{
    writeFile(root_.path("/etc/default/other.ini"), "[Location Information]\nAPPDIR=/opt/other\n");
    EXPECT_EQ(init_globals("x", "other.ini", "/dflt"), 0);
    EXPECT_EQ(g_appdir, "/opt/other");
    EXPECT_EQ(g_initdir, "/opt/other/config");
    EXPECT_EQ(g_master_ini, root_.path("/etc/default/other.ini"));

    EXPECT_EQ(init_globals("x", "missing.ini", "/dflt"), -1);
    EXPECT_EQ(g_appdir, "/dflt");
    EXPECT_EQ(g_initdir, "/dflt/config");
}

TEST_F(EnvironmentTest, InitStateSetsPathsEnvironmentAndDirectories)
{
    root_.writeMasterIni("[Configuration Options]\nOemName=Test Vault\nTitle=\"Main; site\"\nQueue=9\n"
                         "AlwaysSkip=no\n[Debugging]\nferryd-test=1\n");
    app_name_from_argv(ghAppName, sizeof ghAppName, "/usr/tq/bin/ferryd-test");
    ASSERT_EQ(init_state(), 0);

    const std::string dir = root_.appdir();
    EXPECT_EQ(g_appdir, dir);
    EXPECT_EQ(g_master_ini, root_.masterIni());
    EXPECT_EQ(g_bindir, dir + "/bin");
    EXPECT_EQ(g_logdir, dir + "/logs.dir");
    EXPECT_EQ(g_reportdir, dir + "/reports.dir");
    EXPECT_EQ(g_initdir, dir + "/tqinit");
    EXPECT_EQ(g_xrdir, dir + "/tqinit/xresources");
    EXPECT_EQ(g_listdir, dir + "/lists.dir");
    EXPECT_EQ(g_profiledir, dir + "/profiles.dir");
    EXPECT_EQ(g_infodir, dir + "/info.dir");
    EXPECT_EQ(g_utildir, dir + "/util");
    EXPECT_EQ(g_libdir, dir + "/lib");
    EXPECT_STREQ(State.tqdir, dir.c_str());
    EXPECT_STREQ(State.catalogDir, (dir + "/catalog.dir").c_str());

    EXPECT_EQ(env("TQ_MASTER_INI"), root_.masterIni());
    EXPECT_EQ(env("TQ_APPDIR"), dir);
    EXPECT_EQ(env("TQDIR"), dir);
    EXPECT_EQ(env("BKUPBIN"), dir + "/bin");
    EXPECT_EQ(env("TQ_XRDIR"), dir + "/tqinit/xresources");
    EXPECT_EQ(env("TQ_LIBDIR"), dir + "/lib");

    for (const char* sub : {"/profiles.dir", "/lists.dir", "/info.dir", "/catalog.dir", "/logs.dir", "/reports.dir"})
        EXPECT_TRUE(fileExists(dir + sub)) << sub;
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    EXPECT_EQ(std::string(here), dir);

    EXPECT_STREQ(g_appname, "Test Vault");
    EXPECT_STREQ(Profile.title, "Main");
    EXPECT_EQ(log_level, 1);
    EXPECT_EQ(State.queueLength, 9);
    EXPECT_EQ(State.dataPort, 1744);
    EXPECT_EQ(State.netPacket, 768);
    EXPECT_EQ(State.optNetPacket, 4);
    EXPECT_EQ(Profile.testTries, -1);
    EXPECT_EQ(Profile.catalogLines, 66);
    EXPECT_EQ(Profile.rewindDelay, 30);
    EXPECT_EQ(Profile.alwaysSkip, 0);
    EXPECT_EQ(Profile.skipNoFiles, 0);
    EXPECT_EQ(State.enableStackLevel, 9);
    EXPECT_STREQ(Profile.defaultProfile, (dir + "/profiles.dir/Default.spr").c_str());
    EXPECT_STREQ(State.logPath, (dir + "/logs.dir/tq.log").c_str());
    struct servent* se = getservbyname("tqd", "tcp");
    EXPECT_EQ(State.servicePort, se ? ntohs(static_cast<uint16_t>(se->s_port)) : 1743);

    // The first log of the process is the common one.
    log_printf(0, "%s:%d: environment test line", __FILE__, __LINE__);
    flush_log();
    EXPECT_NE(readFile(dir + "/logs.dir/tq.log").find("environment test line"), std::string::npos);
}

TEST_F(EnvironmentTest, MasterIniMovesLogsReportsAndProfile)
{
    const std::string elsewhere = root_.root() + "/elsewhere";
    root_.writeMasterIni("[Location Information]\nLogs-Dir=" + elsewhere + "/logs\nReports-Dir=" + elsewhere +
                         "/reports\nCatalogDir=N/A\nDefProfile=Weekly.spr\n");
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_logdir, elsewhere + "/logs");
    EXPECT_EQ(g_reportdir, elsewhere + "/reports");
    EXPECT_EQ(env("TQ_LOGDIR"), elsewhere + "/logs");
    EXPECT_TRUE(fileExists(elsewhere + "/logs/tq.log"));
    EXPECT_TRUE(fileExists(elsewhere + "/reports"));
    EXPECT_STREQ(State.catalogDir, (root_.appdir() + "/catalog.dir").c_str());
    EXPECT_STREQ(Profile.defaultProfile, (root_.appdir() + "/profiles.dir/Weekly.spr").c_str());
}

TEST_F(EnvironmentTest, ErrorStoreNamesNumbersFromGerrorIni)
{
    writeFile(root_.initdir() + "/gerror.ini", "[General]\n5=Tape is full\n");
    ASSERT_EQ(init_state(), 0);
    clear_all_gerrors();
    ASSERT_EQ(add_gerror(2, 5, "%s", "while writing"), 0);
    ASSERT_NE(last_gerror(2), nullptr);
    EXPECT_NE(std::string(last_gerror(2)).find("Tape is full"), std::string::npos) << last_gerror(2);
    clear_all_gerrors();
}

TEST_F(EnvironmentTest, InstallDirectoryFallsBackToUsrTqUnderTheRoot)
{
    writeFile(root_.tqIni(), "[Location Information]\nTQDIR=N/A\n");
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_appdir, root_.path("/usr/tq"));

    unsetenv("TQDIR");
    unlink(root_.tqIni().c_str());
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_appdir, root_.path("/usr/tq"));
}

TEST_F(EnvironmentTest, TqdirFromTheEnvironmentIsUsedAsWritten)
{
    const std::string fresh = root_.root() + "/opt/fresh";
    setenv("TQDIR", fresh.c_str(), 1);
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_appdir, fresh);
    EXPECT_EQ(g_master_ini, fresh + "/tqinit/master.ini");
    EXPECT_TRUE(fileExists(fresh + "/logs.dir/tq.log"));
    EXPECT_TRUE(fileExists(fresh + "/profiles.dir"));
}

TEST_F(EnvironmentTest, OverlongInstallDirectoryIsRefused)
{
    setenv("TQDIR", ("/" + std::string(260, 'd')).c_str(), 1);
    EXPECT_EQ(init_state(), -1);
    // Room for the directory but not for master.ini behind it.
    setenv("TQDIR", ("/" + std::string(240, 'd')).c_str(), 1);
    EXPECT_EQ(init_state(), -1);
}

TEST_F(EnvironmentTest, RelativeInstallDirectoryLeavesErrorCode17)
{
    State.errorCode = 0;
    setenv("TQDIR", "relative-tq", 1);
    ASSERT_EQ(chdir(root_.root().c_str()), 0);
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(State.errorCode, 17);
    EXPECT_TRUE(fileExists(root_.root() + "/relative-tq"));
}

TEST_F(EnvironmentTest, PrintEnvTableListsFourteenRowsInOrder)
{
    ASSERT_EQ(init_state(), 0);
    std::string out = root_.root() + "/table.txt";
    for (int shell = 0; shell <= 1; ++shell) {
        fflush(stdout);
        int saved = dup(1);
        FILE* f = fopen(out.c_str(), "w");
        ASSERT_NE(f, nullptr);
        dup2(fileno(f), 1);
        print_env_table(shell);
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        fclose(f);

        const std::string* values[] = {&g_master_ini, &g_appdir,   &g_bindir,   &g_logdir,     &g_reportdir,
                                       &g_initdir,    &g_xrdir,    &g_listdir,  &g_profiledir, &g_infodir,
                                       &g_utildir,    &g_libdir,   &g_appdir,   &g_bindir};
        std::string expected;
        for (size_t i = 0; i < 14; ++i) {
            char line[1200];
            snprintf(line, sizeof line, shell ? ": ${%s:=%s}\n" : "%s=%s\n", kEnvNames[i], values[i]->c_str());
            expected += line;
        }
        EXPECT_EQ(readFile(out), expected) << "shell form " << shell;
    }
}

TEST_F(EnvironmentTest, SetEnvVarSplitsAtTheFirstEquals)
{
    EXPECT_EQ(set_env_var("%s=%s", "FERRY_TEST_VAR", "a=b"), 0);
    EXPECT_EQ(env("FERRY_TEST_VAR"), "a=b");
    EXPECT_EQ(set_env_var("FERRY_TEST_VAR=%d", 7), 0);
    EXPECT_EQ(env("FERRY_TEST_VAR"), "7");
    EXPECT_EQ(set_env_var("no equals sign"), -1);
    EXPECT_EQ(set_env_var("=value"), -1);
    unsetenv("FERRY_TEST_VAR");
}

TEST(AppNameFromArgv, KeepsTheNameBehindTheLastSlashOfTheLast31Characters)
{
    char buf[32];
    app_name_from_argv(buf, sizeof buf, "/usr/tq/bin/ferryd");
    EXPECT_STREQ(buf, "ferryd");
    app_name_from_argv(buf, sizeof buf, "ferryd-util");
    EXPECT_STREQ(buf, "ferryd-util");
    std::string longName(40, 'n');
    app_name_from_argv(buf, sizeof buf, ("/bin/" + longName).c_str());
    EXPECT_EQ(std::string(buf), std::string(31, 'n'));
    char small[4];
    app_name_from_argv(small, sizeof small, "/x/abcdef");
    EXPECT_STREQ(small, "def");
    app_name_from_argv(buf, sizeof buf, nullptr);
    EXPECT_STREQ(buf, "");
}

} // namespace
