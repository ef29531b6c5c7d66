// `ferryd util` as the operator runs it: a process under an appliance root,
// on the private database, judged by stdout, exit status, queue rows and the
// "ferryd-util" log.
#include "harness/appliance_fixture.h"
#include "harness/appliance_root.h"
#include "harness/pg_cluster.h"
#include "harness/process.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ferrytest;

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new PgClusterEnvironment);

const char* const kUsage =
    "Usage:\n"
    "ferryd util <command> [args]\n"
    "\tferryd util createqueue\n"
    "\t\tCreate tq.replication_queue\n"
    "\tferryd util createtypes\n"
    "\t\tcreate types in tq.operation_names\n"
    "\tferryd util enqueue <backup_no> <vault>\n"
    "\t\tAdds backup (and all it depends on) to queue\n"
    "\tferryd util complete <backup_no> <vault>\n"
    "\t\tMark backup:vault entry as complete\n"
    "\tferryd util remove <backup_no> <vault>\n"
    "\t\tRemove backup:vault from queue\n"
    "\tferryd util peek <offset>\n"
    "\t\tDisplay backup at position offset\n"
    "\tferryd util swap <backup_no> <vault> <backup_no> <vault>\n"
    "\t\tSwap two entries in the queue\n"
    "\tferryd util cleanup <backup_no> <vault>\n"
    "\t\tMark backup:vault for termination and cleanup\n"
    "\tferryd util count <backup_no>\n"
    "\t\tList the number of distinct blocks followed by total blocks\n"
    "\tferryd util list <backup_no> <distinct value [0|1]>\n"
    "\t\tList the blocks in the backup (in 4tuple format).\n"
    "\t\tThe distinct flag determines if duplicate blocks are printed\n"
    "\tferryd util lbe <backup_no> <lbe type [0-4]>\n"
    "\t\tList the blocks in the backup (in 3tuple format).\n"
    "\t\tThe lbe type determines what type of lbe to perform\n"
    "\t\tNote: does not check any target for existance of backup\n"
    "\t\tLBE Types(only considers sync_done backups):\n"
    "\t\t\t0: none \n"
    "\t\t\t1: last master\n"
    "\t\t\t2: last group\n"
    "\t\t\t3: all in same instance\n"
    "\t\t\t4: all marked sync_done\n"
    "\tferryd util block <3tuple>\n"
    "\t\tReads and dumps the output of the block to stdout\n"
    "\tferryd util export-ubi <backup_no>\n"
    "\t\tDumps the Universal Backup Identifier (UBI) for backup_no\n"
    "\tferryd util check-ubi <UBI string> <target(optional)>\n"
    "\t\tChecks the target for the backup number and status of the backup\n"
    "\t\twhich matches the UBI string provided. Performs a local check if\n"
    "\t\tno target is provided\n"
    "\tferryd util export-metadata <backup_no>\n"
    "\t\tDumps the metadata (blob) for backup_no\n"
    "\tferryd util import-metadata <path to metadata file>\n"
    "\t\timports the metadata found in the file path to the current system\n"
    "\tferryd util replicate <backup_no> <target>\n"
    "\t\tReplicate single backup with settings from master.ini\n"
    "\tferryd util tuple-hash <3tuple> <offset> <output length>\n"
    "\t\tOutput the hash described by the 3tuple and offset\n"
    "\t\tThis hash is used for vaultServer locking when forking is enabled\n"
    "\tferryd util start-backup <vault> <backup_no>\n"
    "\t\tInitiates the first step of a replication\n"
    "\tferryd util fix-paused-instance <vault> <backup_no>\n"
    "\t\tFor an instance that is paused resolve the issue causing it to be paused.\n"
    "\t\tREPLICATION_OUT_OF_ORDER (128):\n"
    "\t\t Initiates the first step of a replication to resolve a failure from an out of order backup.\n"
    "\t\t WARNING: This will cause backups on target to be marked FAILED and deletes out of order\n"
    "\t\t  backups on the replication_queue.  The replication_queue status for <backup_no> will be\n"
    "\t\t  set to REPLICATION_NEEDED when complete.  Target must have \"allowCleanupOutOfOrderBackups\"\n"
    "\t\t  set to True in the \"Replication\" section of the master.ini file to allow cleanup.\n"
    "\t\tREPLICATION_NEED_ASSIST (64):\n"
    "\t\t TBD - not implemented.\n"
    "\tferryd util post-check-offset <vault> <target backup_no> <3tuple> <offset> <3tuple> <offset> ...\n"
    "\t\tAsks the target about a set of blocks. For each block, a reference is made on the target.\n"
    "\tferryd util put-block <vault> <target backup_no> <bufferSize> <3tuple> <offset> <3tuple> <offset> ...\n"
    "\t\tRead and send blocks to the target\n"
    "\tferryd util send-harco <vault> <local backup_no> <target backup_no>\n"
    "\t\tCreate and send a harco to the target\n"
    "\tferryd util cancel-backup <vault> <local backup_no>\n"
    "\t\tFail a backup on the target based on local backup_no\n"
    "\tferryd util cancel-ubi <vault> <UBI>\n"
    "\t\tFail a backup on the target from a given UBI.\n"
    "\tferryd util list-backup-status <vault>\n"
    "\t\tDisplay status of replicated backups on source and target to stdout\n"
    "\t\tCreate CSV output to /tmp/replicationResult.csv.\n"
    "\t\tNote that the csv file will be overwritten if it already exists.\n";

std::string row(int64_t backup, const std::string& vault, int status)
{
    return std::to_string(backup) + ":" + vault + ":" + std::to_string(status);
}

class UtilityTest : public ::testing::Test {
protected:
    void SetUp() override { a_ = populateAppliance(db_); }

    RunResult util(std::vector<std::string> args)
    {
        args.insert(args.begin(), "util");
        return runFerryd(args);
    }
    // Every run writes a log instance of its own; the appliance keeps the newest.
    bool logged(const std::string& line) const
    {
        return readLogs(root_.logdir(), "ferryd-util").find(line) != std::string::npos;
    }

    ApplianceRoot root_;
    ApplianceDb db_{root_.path("/backups")};
    Appliance a_;
};

TEST_F(UtilityTest, UsageTextForMissingOrMiscountedArgumentsSilenceForUnknownCommands)
{
    struct Case {
        std::vector<std::string> args;
        std::string out;
    };
    const Case cases[] = {
        {{"util"}, kUsage},
        {{"utility"}, kUsage},
        {{"util", "enqueue", "5"}, kUsage},
        {{"util", "peek"}, kUsage},
        {{"util", "swap", "1", "v", "2"}, kUsage},
        {{"util", "cancel-ubi", "a", "b"}, ""},
        {{"util", "nonsense"}, ""},
        {{"util", "Enqueue", "1", "vault"}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        RunResult r = runFerryd(c.args);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
    EXPECT_TRUE(db_.queueRows().empty());
    EXPECT_TRUE(logged("Entering utility mode"));
}

TEST_F(UtilityTest, PeekPrintsTheBackupWithoutLineEnd)
{
    RunResult empty = util({"peek", "0"});
    EXPECT_EQ(empty.exitStatus, 0);
    EXPECT_EQ(empty.out, "0");

    ASSERT_EQ(util({"enqueue", std::to_string(a_.vm.diff), kVault}).exitStatus, 0);
    RunResult second = util({"peek", "1"});
    EXPECT_EQ(second.out, std::to_string(a_.vm.diff));
    // The exit status is the low byte of the number printed.
    EXPECT_EQ(second.exitStatus, static_cast<int>(a_.vm.diff & 0xff));
    EXPECT_EQ(util({"peek", "2"}).out, "0");
}

TEST_F(UtilityTest, QueueCommandsChangeRows)
{
    std::string master = std::to_string(a_.files.master), diff = std::to_string(a_.files.diff1);
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"enqueue", diff, kVault}, {"swap", master, kVault, diff, kVault}, {"complete", master, kVault},
             {"cleanup", diff, kVault}, {"enqueue", std::to_string(a_.vm.full), kVault},
             {"remove", std::to_string(a_.vm.full), kVault}}) {
        RunResult r = util(args);
        EXPECT_EQ(r.exitStatus, 0) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
    EXPECT_EQ(db_.queueRows(),
              (std::vector<std::string>{row(a_.files.diff1, kVault, 32), row(a_.files.master, kVault, 2)}));
}

TEST_F(UtilityTest, CreateCommands)
{
    db_.exec("DELETE FROM tq.operation_names WHERE name_id BETWEEN 6 AND 9");
    EXPECT_EQ(util({"createtypes"}).exitStatus, 0);
    EXPECT_EQ(db_.value("SELECT string_agg(name_value, ',' ORDER BY name_id) FROM tq.operation_names WHERE name_id "
                        "BETWEEN 6 AND 9"),
              "prepare,replicate,wait,rebuild");
    // Run again, and the table already there: -1, which exits as 255.
    EXPECT_EQ(util({"createtypes"}).exitStatus, 255);
    db_.addQueueRow(a_.vm.full, kVault, 1);
    EXPECT_EQ(util({"createqueue"}).exitStatus, 255);
    EXPECT_TRUE(logged("create_replication_queue ret = -1"));
    EXPECT_EQ(db_.queueRows().size(), 1u);
}

TEST_F(UtilityTest, BadInputIsReportedAndHarmless)
{
    db_.addQueueRow(a_.vm.full, kVault, 1);
    struct Case {
        std::vector<std::string> args;
        std::string logLine;
    };
    const Case cases[] = {
        {{"enqueue", "abc", kVault}, "Invalid backup number 'abc'"},
        {{"remove", "-3", kVault}, "Invalid backup number '-3'"},
        {{"enqueue", "987654", kVault}, "Backup #987654 not found"},
        {{"complete", std::to_string(a_.vm.full), std::string(80, 'v')}, "Invalid vault name"},
        {{"peek", "one"}, "Invalid offset 'one'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.logLine);
        RunResult r = util(c.args);
        EXPECT_EQ(r.exitStatus, 255);
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(logged(c.logLine));
    }
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 1)}));

    // A vault name with quotes is just a name.
    std::string odd = "o'brien's \"vault\"";
    EXPECT_EQ(util({"enqueue", std::to_string(a_.vm.diff), odd}).exitStatus, 0);
    EXPECT_EQ(util({"complete", std::to_string(a_.vm.full), odd}).exitStatus, 0);
    EXPECT_FALSE(logged("Failed query"));
    EXPECT_EQ(db_.queueRows(), (std::vector<std::string>{row(a_.vm.full, kVault, 1), row(a_.vm.full, odd, 2),
                                                        row(a_.vm.diff, odd, 1)}));
}

} // namespace
