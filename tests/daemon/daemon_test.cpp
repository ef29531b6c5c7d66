// The daemon as a process: options, daemonising behind the pid file, passes
// of the main loop, the load check, and the stop on a signal.
#include "harness/appliance_root.h"
#include "harness/process.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>

using namespace ferrytest;
using namespace std::chrono_literals;

namespace {

int countOf(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// A daemon started under an appliance root. The test process is made a
// subreaper, so the daemonised grandchild is reparented to us and its exit
// status can be collected.
class DaemonTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

    void SetUp() override
    {
        root_.writeMasterIni("[Replication]\nTimeDelay=1\n\n[debugging]\nferryd=4\n");
    }

    void TearDown() override
    {
        if (daemonPid_ > 0 && processAlive(daemonPid_)) {
            kill(daemonPid_, SIGKILL);
            waitChild(daemonPid_, 5s);
        }
    }

    // Starts the daemon (without -d) and waits for its pid file.
    pid_t startDaemon(const std::vector<std::string>& args = {})
    {
        RunResult r = runFerryd(args);
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        EXPECT_TRUE(waitFor([&] { return readPidFile(root_.pidFile()) > 0; }));
        daemonPid_ = readPidFile(root_.pidFile());
        return daemonPid_;
    }

    std::string log() const { return readLogs(root_.logdir(), "ferryd"); }

    bool waitForPasses(int passes, std::chrono::milliseconds timeout = 10s)
    {
        return waitFor([&] { return countOf(log(), "Reading master.ini") >= passes; }, timeout);
    }

    ApplianceRoot root_;
    pid_t daemonPid_ = 0;
};

// Keeps one core busy so that the 1-minute load rises above a tiny limit.
class BusyLoad {
public:
    BusyLoad()
        : thread_([this] {
              volatile unsigned long spin = 0;
              while (!stop_)
                  spin = spin + 1;
          })
    {
    }
    ~BusyLoad()
    {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

float currentLoad()
{
    float load = 0;
    FILE* f = fopen("/proc/loadavg", "r");
    if (f) {
        if (fscanf(f, "%f", &load) != 1)
            load = 0;
        fclose(f);
    }
    return load;
}

} // namespace

TEST(DaemonOptions, UnknownOptionPrintsUsageAndExitsOne)
{
    ApplianceRoot root;
    RunResult r = runFerryd({"-?"});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_EQ(r.out, "Usage: \n");
}

TEST(DaemonOptions, VaultOverrideAcceptsUpTo64Characters)
{
    ApplianceRoot root;
    // "-?" after the vault shows whether parsing went past "-v".
    RunResult ok = runFerryd({"-v", std::string(64, 'v'), "-?"});
    EXPECT_EQ(ok.exitStatus, 1);
    EXPECT_EQ(ok.out, "Usage: \n");

    RunResult tooLong = runFerryd({"-v", std::string(65, 'v'), "-?"});
    EXPECT_EQ(tooLong.exitStatus, 255);
    EXPECT_EQ(tooLong.out, "");
    std::string early = readFile(root.path("/tmp/program.log"));
    EXPECT_NE(early.find("Invalid vault override"), std::string::npos) << early;
    EXPECT_NE(early.find("Must be smaller than 64"), std::string::npos) << early;
}

TEST(DaemonOptions, UtilityBranchRunsNoDaemon)
{
    ApplianceRoot root;
    RunResult r = runFerryd({"util"});
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_FALSE(fileExists(root.pidFile()));
}

TEST_F(DaemonTest, DaemonisesRunsPassesAndStopsOnSigterm)
{
    pid_t pid = startDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(processAlive(pid));
    ASSERT_TRUE(waitForPasses(2)) << log();
    std::string text = log();
    EXPECT_NE(text.find("ferryd["), std::string::npos);
    EXPECT_NE(text.find("(Log level=4)"), std::string::npos) << text;
    // The pass runs its steps in order.
    size_t read = text.find("Reading master.ini");
    size_t update = text.find("Updating replication_queue", read);
    size_t terminated = text.find("Handling terminated operations", update);
    size_t start = text.find("Starting ", terminated);
    EXPECT_LT(read, update);
    EXPECT_LT(update, terminated);
    EXPECT_LT(terminated, start);
    EXPECT_NE(start, std::string::npos);

    ASSERT_EQ(kill(pid, SIGTERM), 0);
    int status = waitChild(pid, 10s);
    ASSERT_NE(status, -1) << "daemon did not stop";
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    daemonPid_ = 0;
    text = log();
    EXPECT_NE(text.find("cleanup signal caught"), std::string::npos);
    EXPECT_NE(text.find("Clear pid file"), std::string::npos);
    EXPECT_FALSE(fileExists(root_.pidFile()));
}

TEST_F(DaemonTest, SecondDaemonGoesAwayAndLeavesTheFirstRunning)
{
    pid_t first = startDaemon();
    ASSERT_GT(first, 0);
    RunResult second = runFerryd({});
    EXPECT_EQ(second.exitStatus, 0);
    // The second daemon's forked child fails on the lock and exits 0 too.
    EXPECT_TRUE(waitFor([&] { return log().find("failed to lock /var/run/ferryd.pid") != std::string::npos; }))
        << log();
    EXPECT_TRUE(processAlive(first));
    EXPECT_EQ(readPidFile(root_.pidFile()), first);
}

TEST_F(DaemonTest, StopsOnSigintAndSigquitToo)
{
    for (int sig : {SIGINT, SIGQUIT}) {
        pid_t pid = startDaemon();
        ASSERT_TRUE(waitForPasses(1));
        kill(pid, sig);
        int status = waitChild(pid, 10s);
        ASSERT_NE(status, -1) << "signal " << sig;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "signal " << sig;
        EXPECT_FALSE(fileExists(root_.pidFile()));
        daemonPid_ = 0;
    }
}

TEST_F(DaemonTest, LoadLimitHoldsBackWorkersOnlyWhenSwitchedOn)
{
    BusyLoad busy;
    ASSERT_TRUE(waitFor([] { return currentLoad() > 0.02f; }, 30s)) << "machine load stays at " << currentLoad();

    // No "-l" and "-l 0": the load is never checked.
    for (std::vector<std::string> args : {std::vector<std::string>{"-d"}, std::vector<std::string>{"-d", "-l", "0"}}) {
        pid_t pid = spawnFerryd(args);
        daemonPid_ = pid;
        ASSERT_TRUE(waitForPasses(2)) << log();
        kill(pid, SIGTERM);
        ASSERT_NE(waitChild(pid, 10s), -1);
        EXPECT_EQ(log().find("too high"), std::string::npos);
        EXPECT_NE(log().find("Starting "), std::string::npos);
    }

    pid_t pid = spawnFerryd({"-d", "-l", "0.01"});
    daemonPid_ = pid;
    ASSERT_TRUE(waitFor([&] { return log().find("...too high. Waiting 1 seconds.") != std::string::npos; })) << log();
    kill(pid, SIGTERM);
    ASSERT_NE(waitChild(pid, 10s), -1);
}

TEST_F(DaemonTest, MissingOrUnreadableMasterIniGivesDefaultsAndOneLogLine)
{
    struct Case {
        const char* what;
        bool asDirectory;  // a directory cannot be read as a file at all
        const char* reason;
    };
    for (const Case& c : {Case{"missing", false, "No such file or directory"}, Case{"directory", true, "not a file"}}) {
        SCOPED_TRACE(c.what);
        removeTree(root_.logdir());
        removeTree(root_.masterIni());
        if (c.asDirectory)
            makeDirs(root_.masterIni());
        pid_t pid = spawnFerryd({"-d", "-t", "1"});
        daemonPid_ = pid;
        auto logs = [&] { return readLogs(root_.logdir(), ""); };
        ASSERT_TRUE(waitFor([&] { return countOf(logs(), "Reading master.ini") >= 3; })) << logs();
        EXPECT_TRUE(processAlive(pid));
        EXPECT_EQ(countOf(logs(), "Cannot read " + root_.masterIni() + " (" + c.reason + ")"), 1) << logs();
        kill(pid, SIGTERM);
        int status = waitChild(pid, 10s);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        daemonPid_ = 0;
    }
}

TEST_F(DaemonTest, ReloadsMasterIniOnlyWhenItsTimeStampGrows)
{
    const std::string before = "[Replication]\nTimeDelay=1\nQueueScheme=0\n\n[debugging]\nferryd=4\n";
    const std::string after = "[Replication]\nTimeDelay=1\nQueueScheme=2\n\n[debugging]\nferryd=4\n";
    root_.writeMasterIni(before);
    pid_t pid = spawnFerryd({"-d"});
    daemonPid_ = pid;
    ASSERT_TRUE(waitFor([&] { return log().find("queue scheme: 0") != std::string::npos; })) << log();

    // Rewritten, but with the old time stamp: the daemon keeps its settings.
    struct stat st {};
    ASSERT_EQ(stat(root_.masterIni().c_str(), &st), 0);
    root_.writeMasterIni(after, 0);
    struct timeval same[2] = {{st.st_mtime, 0}, {st.st_mtime, 0}};
    ASSERT_EQ(utimes(root_.masterIni().c_str(), same), 0);
    int passes = countOf(log(), "Reading master.ini");
    ASSERT_TRUE(waitForPasses(passes + 2));
    EXPECT_EQ(log().find("queue scheme: 2"), std::string::npos);

    // A newer time stamp is seen within one pass.
    root_.writeMasterIni(after, 1);
    passes = countOf(log(), "Reading master.ini");
    ASSERT_TRUE(waitForPasses(passes + 2));
    EXPECT_NE(log().find("queue scheme: 2"), std::string::npos) << log();
    kill(pid, SIGTERM);
    ASSERT_NE(waitChild(pid, 10s), -1);
}
