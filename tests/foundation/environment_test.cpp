// Tests of process start-up under a temporary appliance root: where the
// install directory and master.ini are found, the process-wide paths, the
// TQ_* environment and table, the directories made, and the small helpers.
#include "foundation/environment.h"
#include "foundation/gerror.h"
#include "foundation/ini.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

using ferrytest::ApplianceRoot;
using ferrytest::fileExists;
using ferrytest::readFile;
using ferrytest::writeFile;

namespace {

// The TQ_* table in its printed order: variable, path, place under the install directory.
const struct EnvPath {
    const char* var;
    const std::string* value;
    const char* under;
} kTable[] = {{"TQ_MASTER_INI", &g_master_ini, "/tqinit/master.ini"},
              {"TQ_APPDIR", &g_appdir, ""},
              {"TQ_BINDIR", &g_bindir, "/bin"},
              {"TQ_LOGDIR", &g_logdir, "/logs.dir"},
              {"TQ_REPORTDIR", &g_reportdir, "/reports.dir"},
              {"TQ_INITDIR", &g_initdir, "/tqinit"},
              {"TQ_XRDIR", &g_xrdir, "/tqinit/xresources"},
              {"TQ_LISTDIR", &g_listdir, "/lists.dir"},
              {"TQ_PROFILEDIR", &g_profiledir, "/profiles.dir"},
              {"TQ_INFODIR", &g_infodir, "/info.dir"},
              {"TQ_UTILDIR", &g_utildir, "/util"},
              {"TQ_LIBDIR", &g_libdir, "/lib"},
              {"TQDIR", &g_appdir, ""},
              {"BKUPBIN", &g_bindir, "/bin"}};

std::string env(const char* name)
{
    const char* v = getenv(name);
    return v ? v : "<unset>";
}

// Every test starts without TQ_* variables (init_state exports TQDIR, which
// a later init_state would take) and gets its log and working directory back.
class EnvironmentTest : public ::testing::Test {
protected:
    static void unsetTable()
    {
        for (const EnvPath& e : kTable)
            unsetenv(e.var);
    }
    void SetUp() override
    {
        unsetTable();
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
    }
    void TearDown() override
    {
        close_log();
        log_level = 0;
        unsetTable();
        EXPECT_EQ(chdir(cwd_), 0);
    }

    ApplianceRoot root_;
    char cwd_[PATH_MAX] = "";
};

TEST_F(EnvironmentTest, InitGlobalsFindsTheInstallAndFallsBack)
{
    root_.writeMasterIni("[debugging]\nferryd=3\n");
    EXPECT_EQ(init_globals("/some/where/ferryd", "tq.ini", "/nowhere"), 0);
    EXPECT_EQ(g_initdir, root_.initdir());
    EXPECT_EQ(g_master_ini, root_.masterIni());
    EXPECT_EQ(g_logdir, root_.logdir());
    EXPECT_EQ(g_bindir, root_.appdir() + "/bin");
    EXPECT_EQ(log_level, 3);

    // Without master.ini the small file answers, with defaults.
    unlink(root_.masterIni().c_str());
    log_level = 2;
    EXPECT_EQ(init_globals("ferryd", "tq.ini", "/nowhere"), 0);
    EXPECT_EQ(g_master_ini, root_.tqIni());
    EXPECT_EQ(log_level, 2);

    writeFile(root_.path("/etc/default/other.ini"), "[Location Information]\nAPPDIR=/opt/other\n");
    EXPECT_EQ(init_globals("x", "other.ini", "/dflt"), 0);
    EXPECT_EQ(g_initdir, "/opt/other/config");
    EXPECT_EQ(init_globals("x", "missing.ini", "/dflt"), -1);
    EXPECT_EQ(g_initdir, "/dflt/config");
}

TEST_F(EnvironmentTest, InitStateSetsPathsEnvironmentTableAndDirectories)
{
    root_.writeMasterIni("[Configuration Options]\nOemName=Test Vault\nTitle=\"Main; site\"\nQueue=9\n"
                         "[Debugging]\nferryd-test=1\n");
    app_name_from_argv(ghAppName, sizeof ghAppName, "/usr/tq/bin/ferryd-test");
    ASSERT_EQ(init_state(), 0);

    const std::string dir = root_.appdir();
    std::string table, shellTable;
    for (const EnvPath& e : kTable) {
        EXPECT_EQ(*e.value, dir + e.under) << e.var;
        EXPECT_EQ(env(e.var), dir + e.under) << e.var;
        table += std::string(e.var) + "=" + dir + e.under + "\n";
        shellTable += std::string(": ${") + e.var + ":=" + dir + e.under + "}\n";
    }
    for (int shell = 0; shell <= 1; ++shell) {
        testing::internal::CaptureStdout();
        print_env_table(shell);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), shell ? shellTable : table);
    }
    for (const char* sub : {"/profiles.dir", "/lists.dir", "/info.dir", "/catalog.dir", "/logs.dir", "/reports.dir"})
        EXPECT_TRUE(fileExists(dir + sub)) << sub;
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    EXPECT_EQ(std::string(here), dir);
    EXPECT_STREQ(State.catalogDir, (dir + "/catalog.dir").c_str());
    EXPECT_STREQ(Profile.defaultProfile, (dir + "/profiles.dir/Default.spr").c_str());
    EXPECT_STREQ(g_appname, "Test Vault");
    EXPECT_STREQ(Profile.title, "Main");
    EXPECT_EQ(State.queueLength, 9);
    EXPECT_EQ(log_level, 1);

    // The first log of the process is the common one.
    log_printf(0, "%s:%d: environment test line", __FILE__, __LINE__);
    flush_log();
    EXPECT_NE(readFile(dir + "/logs.dir/tq.log").find("environment test line"), std::string::npos);
}

TEST_F(EnvironmentTest, MasterIniMovesLogsReportsAndProfileAndNamesErrors)
{
    const std::string elsewhere = root_.root() + "/elsewhere";
    root_.writeMasterIni("[Location Information]\nLogs-Dir=" + elsewhere + "/logs\nReports-Dir=" + elsewhere +
                         "/reports\nCatalogDir=N/A\nDefProfile=Weekly.spr\n");
    writeFile(root_.initdir() + "/gerror.ini", "[General]\n5=Tape is full\n");
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(env("TQ_LOGDIR"), elsewhere + "/logs");
    EXPECT_EQ(g_reportdir, elsewhere + "/reports");
    EXPECT_TRUE(fileExists(elsewhere + "/logs/tq.log"));
    EXPECT_TRUE(fileExists(elsewhere + "/reports"));
    EXPECT_STREQ(State.catalogDir, (root_.appdir() + "/catalog.dir").c_str());
    EXPECT_STREQ(Profile.defaultProfile, (root_.appdir() + "/profiles.dir/Weekly.spr").c_str());

    clear_all_gerrors();
    ASSERT_EQ(add_gerror(2, 5, "%s", "while writing"), 0);
    EXPECT_STREQ(last_gerror(2), "(TQ) Tape is full while writing");
    clear_all_gerrors();
}

TEST_F(EnvironmentTest, InstallDirectoryFromEnvironmentTqIniOrUsrTq)
{
    const std::string fresh = root_.root() + "/opt/fresh";
    setenv("TQDIR", fresh.c_str(), 1);  // used as written, not under the root
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_master_ini, fresh + "/tqinit/master.ini");
    EXPECT_TRUE(fileExists(fresh + "/logs.dir/tq.log"));

    unsetenv("TQDIR");
    writeFile(root_.tqIni(), "[Location Information]\nTQDIR=N/A\n");
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_appdir, root_.path("/usr/tq"));
    unsetenv("TQDIR");
    unlink(root_.tqIni().c_str());
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(g_appdir, root_.path("/usr/tq"));

    // A relative directory works but leaves error code 17.
    State.errorCode = 0;
    setenv("TQDIR", "relative-tq", 1);
    ASSERT_EQ(chdir(root_.root().c_str()), 0);
    ASSERT_EQ(init_state(), 0);
    EXPECT_EQ(State.errorCode, 17);
    EXPECT_TRUE(fileExists(root_.root() + "/relative-tq"));

    // Too long for the directory, or for master.ini behind it.
    for (int length : {260, 240}) {
        setenv("TQDIR", ("/" + std::string(length, 'd')).c_str(), 1);
        EXPECT_EQ(init_state(), -1) << length;
    }
}

TEST(EnvironmentHelpers, SetEnvVarAndAppNameFromArgv)
{
    EXPECT_EQ(set_env_var("%s=%s", "FERRY_TEST_VAR", "a=b"), 0);
    EXPECT_EQ(env("FERRY_TEST_VAR"), "a=b");  // split at the first '='
    EXPECT_EQ(set_env_var("no equals sign"), -1);
    EXPECT_EQ(set_env_var("=value"), -1);
    unsetenv("FERRY_TEST_VAR");

    struct Case {
        const char* path;
        int size;
        const char* expected;
    } cases[] = {{"/usr/tq/bin/ferryd", 32, "ferryd"},
                 {"ferryd-util", 32, "ferryd-util"},
                 {"/bin/nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn", 32, "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn"},
                 {"/x/abcdef", 4, "def"},
                 {nullptr, 32, ""}};
    for (const Case& c : cases) {
        char buf[32];
        app_name_from_argv(buf, c.size, c.path);
        EXPECT_STREQ(buf, c.expected) << (c.path ? c.path : "null");
    }
}

} // namespace
