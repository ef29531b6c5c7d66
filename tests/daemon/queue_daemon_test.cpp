// The daemon keeps the queue by itself: started under an appliance root on
// the private database, it puts back rows a crashed predecessor left in
// progress, and its first pass queues what needs sending.
#include "harness/appliance_fixture.h"
#include "harness/appliance_root.h"
#include "harness/log_capture.h"
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

TEST(QueueDaemon, ResetsRowsLeftInProgressAndFillsTheQueueInOnePass)
{
    ApplianceRoot root;
    ApplianceDb db{root.path("/backups")};
    Appliance a = populateAppliance(db);
    db.addQueueRow(a.vm.full, kVault, 16);
    db.addQueueRow(a.hv.full, kOffsiteVault, 16);
    db.addQueueRow(a.betaMaster, kVault, 128);
    db.setSyncStatus({a.files.diff1}, 1);
    db.setSyncStatus({a.hv.full}, 1);   // queued for another vault already: left out
    db.setSyncStatus({a.sql.full}, 3);  // not exactly "needs sync": left out

    // TimeDelay is long, so everything seen here happened in the first pass.
    root.writeMasterIni("[Replication]\nEnabled=true\nSyncTo=vault\nQueueScheme=1\nTimeDelay=60\nMaxConcurrent=0\n"
                        "\n[debugging]\nferryd=5\n");
    pid_t pid = spawnFerryd({"-d"});
    ASSERT_GT(pid, 0);
    auto log = [&] { return readLogs(root.logdir(), "ferryd"); };
    bool passed = waitFor([&] { return log().find("Handling terminated operations") != std::string::npos; }, 20s);
    std::vector<std::string> rows = db.queueRows();
    ASSERT_EQ(kill(pid, passed ? SIGTERM : SIGKILL), 0);
    int status = waitChild(pid, 10s);
    ASSERT_TRUE(passed) << log();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    EXPECT_EQ(countOf(log(), "Reading master.ini"), 1u);
    EXPECT_EQ(rows, (std::vector<std::string>{row(a.vm.full, kVault, 1), row(a.hv.full, kOffsiteVault, 1),
                                              row(a.betaMaster, kVault, 128), row(a.files.master, kVault, 1),
                                              row(a.files.diff1, kVault, 1)}));
}

} // namespace
