// appliance_fixture: fills the private PostgreSQL cluster (pg_cluster.h) with
// an appliance's worth of records: clients, application instances, disk
// devices with their media, and backup chains of every family the queue and
// the group lookups tell apart, with the odd ones a real appliance has
// (failed, purged, running, bare metal).
//
//   static auto* const pgEnv =
//       ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);
//
//   TEST(Queue, Something) {
//       ferrytest::ApplianceDb db;            // empties the appliance tables
//       ferrytest::Appliance a = ferrytest::populateAppliance(db);
//       ... a.files.diff1, a.vm.incr1 ... are backup numbers ...
//   }
//
// Backup numbers grow with start time within the whole appliance, as on a
// real one. Every backup starts with sync_status 0; tests mark what they
// need (setSyncStatus). Nothing is queued.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pg_conn;

namespace ferrytest {

// Backup types as the appliance numbers them.
namespace btype {
constexpr int kMaster = 1, kDifferential = 2, kIncremental = 3;
constexpr int kExchangeFull = 5, kExchangeDiff = 6, kExchangeIncr = 7;
constexpr int kSqlFull = 9, kSqlDiff = 10, kSqlLog = 11;
constexpr int kVMwareFull = 12, kVMwareDiff = 13, kVMwareIncr = 14;
constexpr int kBareMetal = 1024, kSystemMetadata = 1038;
constexpr int kHyperVFull = 1031, kHyperVDiff = 1032, kHyperVIncr = 1033;
} // namespace btype

// tq.backups.status values.
constexpr uint64_t kStatusGood = 0x40 | 0x400 | 0x800;  // finished, job success
constexpr uint64_t kStatusFailed = 0x40 | 0x1000;       // finished, failed
constexpr uint64_t kStatusRunning = 0x200;              // in progress
// tq.backups.properties values.
constexpr uint64_t kPropDeduplicated = 0x400;
constexpr uint64_t kPropSynthesisCapable = 0x1000;
// application_lookup.app_id of the schema.
namespace app {
constexpr int kFiles = 1, kExchange = 2, kSqlServer = 3, kVMware = 4, kHyperV = 5, kSystemMetadata = 10;
} // namespace app

// Vault names used throughout the tests.
inline const char* const kVault = "vault";
inline const char* const kOffsiteVault = "offsite";

// One backup to insert. Defaults make a good, deduplicated backup on the
// first device; start_time 0 means "one hour after the previous backup".
struct BackupRow {
    int node_no = 0;
    int64_t instance_id = 0;
    int type = btype::kMaster;
    uint64_t status = kStatusGood;
    uint64_t properties = kPropDeduplicated;
    int64_t tape_no = 0;  // 0: the medium of the first device; -1 purged
    int64_t start_time = 0;
    int sync_status = 0;
};

// A connection to tqdb in the private cluster and builders for records.
// Creating one empties the appliance tables (backups, their queue rows by
// cascade, nodes, instances, devices, media, filesets); a test starts from a
// clean appliance. Failures are test failures (ADD_FAILURE).
class ApplianceDb {
public:
    // `backupsDir`: the directory under which disk devices keep their
    // backups (the appliance's "/backups" under a test's appliance root).
    explicit ApplianceDb(std::string backupsDir = "/backups");
    ~ApplianceDb();
    ApplianceDb(const ApplianceDb&) = delete;
    ApplianceDb& operator=(const ApplianceDb&) = delete;

    // Runs SQL text; true on success (a failure is a test failure).
    bool exec(const std::string& sql);
    // First column of the first row; "" for none or NULL.
    std::string value(const std::string& sql);
    // First column of every row.
    std::vector<std::string> column(const std::string& sql);

    // A client; returns its node_no.
    int addNode(const std::string& name);
    // An application instance of a client; returns its instance_id.
    int64_t addInstance(int node_no, int app_id, const std::string& key1, const std::string& key2 = "",
                        int priority = 0);
    // A disk device with its directory <backupsDir>/<name> and its medium;
    // returns the medium's tape_no. dev_rw_name holds 32 characters: a
    // longer directory is entered through a short link in /tmp that lives
    // as long as this object.
    int64_t addDiskDevice(const std::string& name);
    // A backup with its fileset row; returns its backup_no.
    int64_t addBackup(const BackupRow& row);

    void setSyncStatus(const std::vector<int64_t>& backups, int syncStatus);

    // Queue rows as "backup:vault:status" in queue order, for assertions.
    std::vector<std::string> queueRows();
    // The status of one row; -1 when there is none.
    int queueStatus(int64_t backup, const std::string& vault);
    // Inserts a queue row directly (positions follow insertion order).
    void addQueueRow(int64_t backup, const std::string& vault, int status);

private:
    void clear();
    std::string deviceDirectory(const std::string& name);

    pg_conn* conn_ = nullptr;
    std::vector<std::string> shortcuts_;
    std::string backupsDir_;
    int nextDevice_ = 1;
    int64_t firstTape_ = 0;
    int64_t lastStart_ = 1700000000;
};

// A file-level chain with synthesis: master, differential, incrementals.
struct FileChain {
    int64_t instance = 0;
    int64_t purgedMaster = 0;  // an older master, logically deleted (tape_no -1)
    int64_t master = 0, diff1 = 0, incr1 = 0, incr2 = 0, diff2 = 0, incr3 = 0;
    int64_t bareMetal = 0;     // type 1024 of the same client
};

// Full, differential, incremental of one application family.
struct FamilyChain {
    int64_t instance = 0;
    int64_t full = 0, diff = 0, incr1 = 0, incr2 = 0;
};

// Two disk devices (D2D1, D2D2: the Hyper-V chain is on the second) and:
struct Appliance {
    int alpha = 0, beta = 0, esx = 0, hyperv = 0;  // node numbers
    FileChain files;         // alpha, file level, synthesis-capable
    FamilyChain vm;          // VMware virtual machine on esx
    FamilyChain hv;          // Hyper-V virtual machine on hyperv
    FamilyChain sql;         // SQL Server database on alpha (full, diff, log, log)
    FamilyChain exchange;    // Exchange store on alpha
    int64_t betaInstance = 0;
    int64_t betaMaster = 0, betaFailedDiff = 0, betaDiff = 0, betaRunning = 0;  // beta, file level
    int64_t failedVmDiff = 0;  // a failed VMware differential after vm.incr2
    int64_t metadataInstance = 0, systemMetadata = 0;  // type 1038 of the appliance itself
};

// Fills an empty appliance; returns the numbers of what it made.
Appliance populateAppliance(ApplianceDb& db);

} // namespace ferrytest
