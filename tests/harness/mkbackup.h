// Backup fixtures: runs the mkbackup tool (tools/mkbackup) to write real
// plain backup files, and reads them back entry by entry.
//
//   ferrytest::ApplianceRoot root;
//   auto made = ferrytest::runMkbackup({"--dir", root.path("/backups"), "-b", "7", treeDir});
//   ASSERT_EQ(made.exitStatus, 0) << made.err;
//   // made.path == <root>/backups/backup_7
//
// With "--db" (and the PG cluster fixture of pg_cluster.h) the tool also
// inserts the rows of a finished backup job; see `mkbackup --help`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ferrytest {

struct MkbackupResult {
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string out;
    std::string err;
    // Parsed from the success line "backup_no=... path=... entries=... bytes=...".
    int64_t backupNo = 0;
    std::string path;
    uint64_t entries = 0;
    uint64_t bytes = 0;
};

// Path of the built tool.
std::string mkbackupPath();

// Runs mkbackup with `args` in the current environment (FERRY_SYSROOT,
// PGSERVICEFILE and so on are inherited) and waits for it.
MkbackupResult runMkbackup(const std::vector<std::string>& args);

} // namespace ferrytest
