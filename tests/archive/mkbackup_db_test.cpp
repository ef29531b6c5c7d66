// mkbackup with the appliance database: a backup written into the device
// directory leaves the rows of a finished job, chains can be made, a failed
// run leaves nothing, and the file is found again by number.
#include "archive/arco.h"
#include "archive/arco_walk.h"

#include "harness/appliance_root.h"
#include "harness/log_capture.h"
#include "harness/mkbackup.h"
#include "harness/pg_cluster.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

static auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

using ferrytest::countOf;
using ferrytest::pgQueryValue;
using ferrytest::runMkbackup;

namespace {

std::string rowOf(int64_t backupNo, const std::string& columns)
{
    return pgQueryValue("SELECT concat_ws('|', " + columns + ") FROM tq.backups WHERE backup_no = " +
                        std::to_string(backupNo));
}

class MkbackupDb : public ::testing::Test {
protected:
    void SetUp() override
    {
        ferrytest::makeDirs(root.path("/src/dir"));
        ferrytest::writeFile(root.path("/src/dir/file"), "payload of a backed up file\n");
        ferrytest::writeFile(root.path("/src/empty"), "");
    }
    // A device of this test alone (dev_name holds 32 characters).
    std::string device() const
    {
        return ("dev_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name())).substr(0, 32);
    }
    ferrytest::MkbackupResult run(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"--db", "--device", device()});
        args.push_back(root.path("/src"));
        return runMkbackup(args);
    }

    ferrytest::ApplianceRoot root;
};

} // namespace

TEST_F(MkbackupDb, LeavesTheRowsOfAFinishedJobAndIsFoundByNumber)
{
    auto made = run({"--start-time", "1700000000", "--node", "41"});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    const std::string n = std::to_string(made.backupNo);
    EXPECT_EQ(made.path, root.path("/backups/backup_" + n));
    EXPECT_EQ(rowOf(made.backupNo, "status, type, node_no, start_time, sync_status, properties"),
              "3136|1|41|1700000000|0|0");  // status 0xC40
    EXPECT_EQ(rowOf(made.backupNo, "instance_id IS NULL, all_filesets_present"), "t|t");
    EXPECT_EQ(pgQueryValue("SELECT concat_ws('|', f.btotal, f.tape_no = b.tape_no) FROM tq.filesets f JOIN "
                           "tq.backups b USING (fileset_no) WHERE f.backup_no = b.backup_no AND b.backup_no = " + n),
              std::to_string(made.bytes) + "|t");
    EXPECT_EQ(pgQueryValue("SELECT node_name FROM tq.nodes WHERE node_no = 41"), "node41");
    EXPECT_EQ(pgQueryValue("SELECT d.dev_rw_name FROM tq.devices d JOIN tq.tapes t USING (tape_no) "
                           "WHERE d.dev_name = '" + device() + "'"),
              root.path("/backups"));

    std::string path;
    uint32_t properties = 99;
    ASSERT_EQ(arco_find_backup(made.backupNo, &path, &properties), 0);
    EXPECT_EQ(path, made.path);
    EXPECT_EQ(properties, 0u);
    // The .gz name is tried first; its suffix proves nothing about the content.
    ASSERT_EQ(rename(made.path.c_str(), (made.path + ".gz").c_str()), 0);
    ASSERT_EQ(arco_find_backup(made.backupNo, &path, nullptr), 0);
    EXPECT_EQ(path, made.path + ".gz");

    unlink((made.path + ".gz").c_str());
    ferrytest::LogCapture log(0);
    errno = 0;
    EXPECT_EQ(arco_find_backup(made.backupNo, &path, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(countOf(log.text(), "Backup " + n + " not found on disk"), 1u);
    EXPECT_EQ(countOf(log.text(), "Tried " + made.path + "[.gz]"), 1u) << log.text();
    errno = 0;
    EXPECT_EQ(arco_find_backup(987654321, &path, nullptr), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(countOf(log.text(), "Failed to retrieve backup 987654321 path from database"), 1u);
}

TEST_F(MkbackupDb, ChainsOfBackupsWithTypeInstanceAndTime)
{
    auto full = run({"--type", "1", "--instance", "7", "--start-time", "1000", "-b", "5000"});
    ASSERT_EQ(full.exitStatus, 0) << full.err;
    EXPECT_EQ(full.backupNo, 5000);
    ferrytest::writeFile(root.path("/src/dir/changed"), "new in the incremental\n");
    auto incr = run({"--type", "3", "--instance", "7", "--start-time", "2000", "--properties", "0x2"});
    ASSERT_EQ(incr.exitStatus, 0) << incr.err;
    EXPECT_GT(incr.backupNo, 5000) << "the number sequence moved past a number given by hand";
    EXPECT_EQ(rowOf(5000, "type, instance_id, start_time"), "1|7|1000");
    EXPECT_EQ(rowOf(incr.backupNo, "type, instance_id, start_time, properties"), "3|7|2000|2");
    EXPECT_EQ(rowOf(5000, "tape_no"), rowOf(incr.backupNo, "tape_no")) << "same device, same medium";
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.devices WHERE dev_name = '" + device() + "'"), "1");
    EXPECT_EQ(incr.entries, full.entries + 1);
}

TEST_F(MkbackupDb, AFailedRunLeavesNeitherRowsNorFile)
{
    ASSERT_EQ(run({"-b", "6100"}).exitStatus, 0);
    const std::string before = pgQueryValue("SELECT count(*) FROM tq.backups");
    auto again = run({"-b", "6100"});
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("backup 6100 exists already"), std::string::npos) << again.err;
    auto missing = runMkbackup({"--db", "--device", device(), "-b", "6101", root.path("/no/such/tree")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_FALSE(ferrytest::fileExists(root.path("/backups/backup_6101")));
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.backups"), before);
}

TEST_F(MkbackupDb, FileListRowsPointAtTheHeaders)
{
    auto made = run({"--file-list"});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    std::string n = std::to_string(made.backupNo);
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.backup_files WHERE backup_no = " + n),
              std::to_string(made.entries));
    int fd = open(made.path.c_str(), O_RDONLY);
    auto check = [](const ArcoWalkEntry& w, void* backupNo) -> uint64_t {
        const std::string& name = w.entry.name;
        const size_t slash = name.rfind('/');
        EXPECT_EQ(pgQueryValue("SELECT concat_ws('|', f.blk_offset, f.blocks, f.type, f.size) FROM tq.backup_files f "
                               "JOIN tq.dirs d USING (dir_no) WHERE f.backup_no = " +
                               *static_cast<std::string*>(backupNo) + " AND d.dname = '" + name.substr(0, slash) +
                               "' AND f.fname = '" + name.substr(slash + 1) + "'"),
                  std::to_string(w.headerOffset / 512) + "|" + std::to_string(arco_entry_blocks(w.layout)) + "|" +
                      std::to_string(int{w.entry.linkflag}) + "|" + std::to_string(w.entry.realSize))
            << name;
        return 0;
    };
    EXPECT_EQ(arco_walk(fd, check, &n), static_cast<long>(made.entries));
    close(fd);
}
