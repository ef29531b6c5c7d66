// The daemon keeps the queue by itself: started under an appliance root on
// the private database, it puts back rows a crashed predecessor left in
// progress, and its first pass queues what needs sending.
#include "harness/appliance_fixture.h"
#include "harness/appliance_root.h"
#include "harness/pg_cluster.h"
#include "harness/process.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <vector>

using namespace ferrytest;
using namespace std::chrono_literals;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

std::string row(int64_t backup, const std::string& vault, int status)
{
    return std::to_string(backup) + ":" + vault + ":" + std::to_string(status);
}

int countOf(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class QueueDaemonTest : public ::testing::Test {
protected:
    void SetUp() override { a_ = populateAppliance(db_); }

    void TearDown() override
    {
        if (pid_ > 0 && processAlive(pid_)) {
            kill(pid_, SIGKILL);
            waitChild(pid_, 5s);
        }
    }

    // The daemon in the foreground (-d). TimeDelay is long, so that
    // everything seen during a test happened in the first pass.
    void startDaemon(int scheme)
    {
        root_.writeMasterIni("[Replication]\nEnabled=true\nSyncTo=vault\nQueueScheme=" + std::to_string(scheme) +
                             "\nTimeDelay=60\nMaxConcurrent=0\n\n[debugging]\nferryd=5\n");
        pid_ = spawnFerryd({"-d"});
        ASSERT_GT(pid_, 0);
    }

    bool firstPassDone()
    {
        return countOf(log(), "Handling terminated operations") >= 1;
    }

    void stopDaemon()
    {
        ASSERT_EQ(kill(pid_, SIGTERM), 0);
        int status = waitChild(pid_, 10s);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
        pid_ = 0;
    }

    std::string log() const { return readLogs(root_.logdir(), "ferryd"); }

    ApplianceRoot root_;
    ApplianceDb db_{root_.path("/backups")};
    Appliance a_;
    pid_t pid_ = 0;
};

TEST_F(QueueDaemonTest, RetentionSchemeFillsTheQueueInOnePass)
{
    db_.setSyncStatus({a_.files.diff1, a_.hv.full}, 1);
    startDaemon(1);
    ASSERT_TRUE(waitFor([&] { return firstPassDone(); }, 20s)) << log();
    EXPECT_EQ(countOf(log(), "Reading master.ini"), 1);
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.hv.full, kVault, 1), row(a_.files.master, kVault, 1),
                                                        row(a_.files.diff1, kVault, 1)}));
    EXPECT_NE(log().find("Enqueue:" + std::to_string(a_.files.diff1)), std::string::npos);
    stopDaemon();
}

TEST_F(QueueDaemonTest, StartPutsRowsLeftInProgressBack)
{
    db_.addQueueRow(a_.vm.full, kVault, 16);
    db_.addQueueRow(a_.hv.full, kOffsiteVault, 16);
    db_.addQueueRow(a_.betaMaster, kVault, 128);
    startDaemon(0);
    ASSERT_TRUE(waitFor([&] { return firstPassDone(); }, 20s)) << log();
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 1),
                                                        row(a_.hv.full, kOffsiteVault, 1),
                                                        row(a_.betaMaster, kVault, 128)}));
    stopDaemon();
}

TEST_F(QueueDaemonTest, SchemeZeroAddsNothing)
{
    db_.setSyncStatus({a_.files.diff1, a_.hv.full}, 1);
    startDaemon(0);
    ASSERT_TRUE(waitFor([&] { return firstPassDone(); }, 20s)) << log();
    EXPECT_TRUE(db_.queueRows().empty());
    stopDaemon();
}

} // namespace
