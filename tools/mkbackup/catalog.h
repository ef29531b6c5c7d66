// catalog: the database rows a finished backup job leaves behind, written
// through the DB layer: the backup and its fileset, and the node, tape and
// disk device rows when they are missing.
#pragma once

#include "tree_writer.h"

#include <cstdint>
#include <string>

struct CatalogOptions {
    std::string service = "localhost";  // libpq service of the appliance database
    int64_t backupNo = 0;               // 0: the next number of tq.backups_backup_no_seq
    int type = 1;                       // backups.type (1: full)
    int64_t instanceId = -1;            // backups.instance_id; -1 leaves it NULL
    int nodeNo = 1;                     // a missing node gets the name "node<no>"
    int64_t startTime = 0;              // 0: now
    int64_t elapsed = 1;
    int64_t jobNo = -1;                 // -1 leaves it NULL
    uint32_t properties = 0;
    uint32_t status = 0xC40;            // finished well, local job success
    int syncStatus = 0;
    std::string deviceName = "disk1";   // devices.dev_name, found or created
    std::string deviceDir;              // dev_rw_name of a new device; empty: <root>/backups
    int64_t tapeNo = 0;                 // tape of a new device; 0: the next free number
    bool fileList = false;              // also fill dirs and backup_files
};

// Where the file goes, learnt from (or made in) the database.
struct CatalogTarget {
    int64_t backupNo = 0;
    int64_t tapeNo = 0;
    std::string deviceName;
    std::string deviceDir;
};

// Opens the service, begins a transaction, makes sure the node, tape and
// device rows exist and settles the backup number. 0, or -1 with a message
// in *error (the transaction is rolled back).
int catalogPrepare(const CatalogOptions& options, CatalogTarget* target, std::string* error);

// Inserts the backups and filesets rows (and the file list when asked) for
// the written archive and commits. 0, or -1 with a message (rolled back).
int catalogCommit(const CatalogOptions& options, const CatalogTarget& target, const TreeWriteResult& written,
                  std::string* error);

// Rolls back what catalogPrepare began (after a failed write).
void catalogAbandon();
