// mkbackup with the appliance database: a backup written into the device
// directory leaves the rows of a finished job, chains can be made, and the
// file is found again by number through the database.
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
    // A device of this test alone, so tests do not share a directory.
    std::string device() const
    {
        std::string name = std::string("dev_") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        return name.substr(0, 32);  // dev_name holds 32 characters
    }
    std::vector<std::string> args(std::vector<std::string> extra) const
    {
        std::vector<std::string> all{"--db", "--device", device()};
        all.insert(all.end(), extra.begin(), extra.end());
        all.push_back(root.path("/src"));
        return all;
    }

    ferrytest::ApplianceRoot root;
};

} // namespace

TEST_F(MkbackupDb, WritesIntoTheDeviceDirectoryAndLeavesTheRowsOfAFinishedJob)
{
    auto made = runMkbackup(args({"--start-time", "1700000000", "--node", "41"}));
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    ASSERT_GT(made.backupNo, 0);
    EXPECT_EQ(made.path, root.path("/backups/backup_" + std::to_string(made.backupNo)));
    ASSERT_TRUE(ferrytest::fileExists(made.path));

    const std::string n = std::to_string(made.backupNo);
    EXPECT_EQ(rowOf(made.backupNo, "status, type, node_no, start_time, sync_status, properties"),
              "3136|1|41|1700000000|0|0");
    EXPECT_EQ(rowOf(made.backupNo, "instance_id IS NULL, all_filesets_present"), "t|t");
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.filesets f JOIN tq.backups b USING (fileset_no) "
                           "WHERE b.backup_no = " + n + " AND f.backup_no = b.backup_no AND f.tape_no = b.tape_no"),
              "1");
    EXPECT_EQ(pgQueryValue("SELECT btotal FROM tq.filesets WHERE backup_no = " + n), std::to_string(made.bytes));
    EXPECT_EQ(pgQueryValue("SELECT node_name FROM tq.nodes WHERE node_no = 41"), "node41");
    EXPECT_EQ(pgQueryValue("SELECT d.dev_rw_name FROM tq.devices d JOIN tq.tapes t USING (tape_no) "
                           "WHERE d.dev_name = '" + device() + "'"),
              root.path("/backups"));

    // The archive layer finds it by number, through the database.
    std::string path;
    uint32_t properties = 99;
    ASSERT_EQ(arco_find_backup(made.backupNo, &path, &properties), 0);
    EXPECT_EQ(path, made.path);
    EXPECT_EQ(properties, 0u);
}

TEST_F(MkbackupDb, ChainsOfBackupsWithTypeInstanceAndTime)
{
    auto full = runMkbackup(args({"--type", "1", "--instance", "7", "--start-time", "1000", "-b", "5000"}));
    ASSERT_EQ(full.exitStatus, 0) << full.err;
    EXPECT_EQ(full.backupNo, 5000);
    ferrytest::writeFile(root.path("/src/dir/changed"), "new in the incremental\n");
    auto incr = runMkbackup(args({"--type", "3", "--instance", "7", "--start-time", "2000", "--properties", "0x2"}));
    ASSERT_EQ(incr.exitStatus, 0) << incr.err;
    EXPECT_GT(incr.backupNo, 5000) << "the number sequence moved past a number given by hand";

    EXPECT_EQ(rowOf(5000, "type, instance_id, start_time"), "1|7|1000");
    EXPECT_EQ(rowOf(incr.backupNo, "type, instance_id, start_time, properties"), "3|7|2000|2");
    EXPECT_EQ(rowOf(5000, "tape_no") , rowOf(incr.backupNo, "tape_no")) << "same device, same medium";
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.devices WHERE dev_name = '" + device() + "'"), "1");
    EXPECT_GT(incr.entries, full.entries);
}

TEST_F(MkbackupDb, FindingTriesTheGzNameFirstAndReportsWhatItTried)
{
    auto made = runMkbackup(args({}));
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    // The suffix proves nothing: plain content under the .gz name is found.
    ASSERT_EQ(rename(made.path.c_str(), (made.path + ".gz").c_str()), 0);
    std::string path;
    ASSERT_EQ(arco_find_backup(made.backupNo, &path, nullptr), 0);
    EXPECT_EQ(path, made.path + ".gz");

    unlink((made.path + ".gz").c_str());
    ferrytest::LogCapture log(0);
    errno = 0;
    EXPECT_EQ(arco_find_backup(made.backupNo, &path, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    std::string text = log.text();
    EXPECT_EQ(ferrytest::countOf(text, "Backup " + std::to_string(made.backupNo) + " not found on disk"), 1u);
    EXPECT_EQ(ferrytest::countOf(text, "Tried " + made.path + "[.gz]"), 1u) << text;

    errno = 0;
    EXPECT_EQ(arco_find_backup(987654321, &path, nullptr), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(ferrytest::countOf(log.text(), "Failed to retrieve backup 987654321 path from database"), 1u);
}

TEST_F(MkbackupDb, AFailedRunLeavesNeitherRowsNorFile)
{
    auto first = runMkbackup(args({"-b", "6100"}));
    ASSERT_EQ(first.exitStatus, 0) << first.err;
    const std::string before = pgQueryValue("SELECT count(*) FROM tq.backups");

    auto again = runMkbackup(args({"-b", "6100"}));
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("backup 6100 exists already"), std::string::npos) << again.err;

    auto missing = runMkbackup({"--db", "--device", device(), "-b", "6101", root.path("/no/such/tree")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_FALSE(ferrytest::fileExists(root.path("/backups/backup_6101")));
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.backups"), before);
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.backups WHERE backup_no = 6101"), "0");
}

TEST_F(MkbackupDb, FileListRowsPointAtTheHeaders)
{
    auto made = runMkbackup(args({"--file-list"}));
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    const std::string n = std::to_string(made.backupNo);
    EXPECT_EQ(pgQueryValue("SELECT count(*) FROM tq.backup_files WHERE backup_no = " + n),
              std::to_string(made.entries));
    int fd = open(made.path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    std::vector<ArcoWalkEntry> entries;
    ASSERT_EQ(arco_walk(
                  fd,
                  [](const ArcoWalkEntry& w, void* c) -> uint64_t {
                      static_cast<std::vector<ArcoWalkEntry>*>(c)->push_back(w);
                      return 0;
                  },
                  &entries),
              static_cast<long>(made.entries));
    close(fd);
    for (const ArcoWalkEntry& w : entries) {
        const std::string& name = w.entry.name;
        size_t slash = name.rfind('/');
        std::string row = pgQueryValue(
            "SELECT concat_ws('|', f.blk_offset, f.blocks, f.type, f.size) FROM tq.backup_files f JOIN tq.dirs d "
            "USING (dir_no) WHERE f.backup_no = " + n + " AND d.dname = '" + name.substr(0, slash) +
            "' AND f.fname = '" + name.substr(slash + 1) + "'");
        EXPECT_EQ(row, std::to_string(w.headerOffset / 512) + "|" + std::to_string(arco_entry_blocks(w.layout)) + "|" +
                           std::to_string(static_cast<int>(w.entry.linkflag)) + "|" +
                           std::to_string(w.entry.realSize))
            << name;
    }
}
