// catalog: rows of a finished backup job. Everything happens in one
// transaction that catalogPrepare opens and catalogCommit closes, so a
// failed write of the file leaves no rows behind.
#include "catalog.h"

#include "foundation/pgConnect.h"
#include "foundation/pghelper.h"
#include "foundation/sysroot.h"

#include <ctime>
#include <map>

namespace {

struct Result {
    pgResult* res;
    explicit Result(pgResult* r) : res(r) {}
    ~Result() { pgClear(res); }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    bool ok() const { return pgStatus(res) == 0; }
    bool hasRow() const { return ok() && pgTuples(res) > 0; }
    long long number(const char* column) const { return pgLLongVal(res, 0, column); }
};

bool fail(std::string* error, const std::string& message)
{
    *error = message;
    pgRollback();
    return false;
}

// Next value of a sequence of the schema, or one past the largest key when
// the sequence does not exist (older schemas).
bool nextNumber(const char* sequence, const char* maxQuery, long long* out)
{
    Result exists(pgQuery("SELECT to_regclass(%s) IS NOT NULL AS present", sequence));
    if (!exists.hasRow()) {
        return false;
    }
    if (pgBoolVal(exists.res, 0, "present") == 1) {
        Result next(pgQuery("SELECT nextval(%s) AS n", sequence));
        *out = next.hasRow() ? next.number("n") : 0;
        return next.hasRow();
    }
    Result max(pgExec(maxQuery));
    *out = max.hasRow() ? max.number("n") : 0;
    return max.hasRow();
}

bool ensureNode(int nodeNo, std::string* error)
{
    Result node(pgQuery("SELECT node_no FROM nodes WHERE node_no = %d", nodeNo));
    if (!node.ok()) {
        return fail(error, "cannot read the nodes table");
    }
    if (pgTuples(node.res) > 0) {
        return true;
    }
    std::string name = "node" + std::to_string(nodeNo);
    Result insert(pgQuery("INSERT INTO nodes (node_no, node_name, type, os, status, properties) "
                          "VALUES (%d, %s, %d, %d, %d, %d)",
                          nodeNo, name.c_str(), 0, 0, 0, 0));
    return insert.ok() || fail(error, "cannot insert node " + std::to_string(nodeNo));
}

bool ensureTape(long long tapeNo, const std::string& label, std::string* error)
{
    Result tape(pgQuery("SELECT tape_no FROM tapes WHERE tape_no = %lld", tapeNo));
    if (!tape.ok()) {
        return fail(error, "cannot read the tapes table");
    }
    if (pgTuples(tape.res) > 0) {
        return true;
    }
    Result insert(pgQuery("INSERT INTO tapes (tape_no, label, status, usages, no_label) VALUES (%lld, %s, %d, %d, %s)",
                          tapeNo, label.c_str(), 0, 1, "true"));
    return insert.ok() || fail(error, "cannot insert tape " + std::to_string(tapeNo));
}

// Finds the device by name, or creates it with its tape: a disk device is
// its own medium, and backups lead to it through tape_no.
bool ensureDevice(const CatalogOptions& o, CatalogTarget* t, std::string* error)
{
    Result device(pgQuery("SELECT tape_no, dev_rw_name FROM devices WHERE dev_name = %s", o.deviceName.c_str()));
    if (!device.ok()) {
        return fail(error, "cannot read the devices table");
    }
    t->deviceName = o.deviceName;
    if (pgTuples(device.res) > 0) {
        t->tapeNo = device.number("tape_no");
        const char* dir = pgSVal(device.res, 0, "dev_rw_name");
        t->deviceDir = dir != nullptr ? dir : "";
        if (t->deviceDir.empty()) {
            return fail(error, "device " + o.deviceName + " has no dev_rw_name");
        }
        return ensureTape(t->tapeNo, o.deviceName, error);
    }
    t->deviceDir = o.deviceDir.empty() ? appliancePath("/backups") : o.deviceDir;
    if (t->deviceDir.size() > 32) {
        return fail(error, "device directory " + t->deviceDir + " is longer than the 32 characters of dev_rw_name");
    }
    Result maxDevice(pgExec("SELECT COALESCE(MAX(device_no), 0) + 1 AS n FROM devices"));
    Result maxTape(pgExec("SELECT COALESCE(MAX(tape_no), 0) + 1 AS n FROM tapes"));
    if (!maxDevice.hasRow() || !maxTape.hasRow()) {
        return fail(error, "cannot number the new device");
    }
    t->tapeNo = o.tapeNo != 0 ? o.tapeNo : maxTape.number("n");
    if (!ensureTape(t->tapeNo, o.deviceName, error)) {
        return false;
    }
    Result insert(pgQuery("INSERT INTO devices (device_no, dev_name, device_type, status, dev_rw_name, tape_no, "
                          "is_online, properties) VALUES (%d, %s, %d, %d, %s, %lld, %s, %d)",
                          static_cast<int>(maxDevice.number("n")), o.deviceName.c_str(), 0, 0,
                          t->deviceDir.c_str(), static_cast<long long>(t->tapeNo), "true", 0));
    return insert.ok() || fail(error, "cannot insert device " + o.deviceName);
}

bool settleBackupNo(const CatalogOptions& o, CatalogTarget* t, std::string* error)
{
    if (o.backupNo == 0) {
        // Skip numbers that rows made by hand already use.
        for (;;) {
            long long n = 0;
            if (!nextNumber("tq.backups_backup_no_seq",
                            "SELECT COALESCE(MAX(backup_no), 0) + 1 AS n FROM backups", &n)) {
                return fail(error, "cannot draw a backup number");
            }
            Result used(pgQuery("SELECT 1 AS x FROM backups WHERE backup_no = %lld", n));
            if (!used.ok()) {
                return fail(error, "cannot read the backups table");
            }
            if (pgTuples(used.res) == 0) {
                t->backupNo = n;
                return true;
            }
        }
    }
    Result used(pgQuery("SELECT 1 AS x FROM backups WHERE backup_no = %lld", static_cast<long long>(o.backupNo)));
    if (!used.ok()) {
        return fail(error, "cannot read the backups table");
    }
    if (pgTuples(used.res) > 0) {
        return fail(error, "backup " + std::to_string(o.backupNo) + " exists already");
    }
    // Keep the sequence ahead of a number given by hand.
    Result exists(pgExec("SELECT to_regclass('tq.backups_backup_no_seq') IS NOT NULL AS present"));
    if (exists.hasRow() && pgBoolVal(exists.res, 0, "present") == 1) {
        Result bump(pgQuery("SELECT setval('tq.backups_backup_no_seq', GREATEST(%lld, "
                            "(SELECT last_value FROM tq.backups_backup_no_seq))) AS n",
                            static_cast<long long>(o.backupNo)));
        if (!bump.ok()) {
            return fail(error, "cannot move the backup number sequence");
        }
    }
    t->backupNo = o.backupNo;
    return true;
}

bool insertFileset(const CatalogOptions& o, const CatalogTarget& t, const TreeWriteResult& w, long long filesetNo,
                   long long startTime, std::string* error)
{
    const long long megs = static_cast<long long>(w.archiveBytes >> 20);
    Result insert(pgQuery("INSERT INTO filesets (fileset_no, ssn, vol_no, tape_no, start_time, elapsed_time, "
                          "total_megs, fileset_megs, total_netpaths, tape_drive_name, status, properties, btotal, "
                          "backup_no, job_no, is_multiplexed, is_encrypted, is_compressed) VALUES (%lld, %d, %d, "
                          "%lld, %lld, %lld, %lld, %lld, %lld, %s, %lld, %lld, %lld, %lld, %nlld, %s, %s, %s)",
                          filesetNo, 1, 1, static_cast<long long>(t.tapeNo), startTime,
                          static_cast<long long>(o.elapsed), megs, megs, static_cast<long long>(w.files),
                          t.deviceName.c_str(), static_cast<long long>(o.status),
                          static_cast<long long>(o.properties), static_cast<long long>(w.archiveBytes),
                          static_cast<long long>(t.backupNo), o.jobNo < 0 ? 1 : 0,
                          static_cast<long long>(o.jobNo), "false", (o.properties & 0x100) ? "true" : "false",
                          "false"));
    return insert.ok() || fail(error, "cannot insert the fileset");
}

bool insertBackup(const CatalogOptions& o, const CatalogTarget& t, const TreeWriteResult& w, long long filesetNo,
                  long long startTime, std::string* error)
{
    Result insert(pgQuery("INSERT INTO backups (backup_no, attempt_cnt, node_no, start_time, tape_no, job_no, "
                          "fileset_no, elapsed_time, properties, total_netpaths, total_megs, multivolume, "
                          "sync_status, status, incomplete, notbacked, type, total_kilo, blocksize, "
                          "all_filesets_present, instance_id) VALUES (%lld, %d, %d, %lld, %lld, %nlld, %lld, %lld, "
                          "%lld, %lld, %lld, %d, %d, %lld, %d, %d, %d, %lld, %d, %s, %nlld)",
                          static_cast<long long>(t.backupNo), 1, o.nodeNo, startTime,
                          static_cast<long long>(t.tapeNo), o.jobNo < 0 ? 1 : 0, static_cast<long long>(o.jobNo),
                          filesetNo, static_cast<long long>(o.elapsed), static_cast<long long>(o.properties),
                          static_cast<long long>(w.files), static_cast<long long>(w.payloadBytes >> 20), 0,
                          o.syncStatus, static_cast<long long>(o.status), 0, 0, o.type,
                          static_cast<long long>(w.payloadBytes >> 10), 512, "true", o.instanceId < 0 ? 1 : 0,
                          static_cast<long long>(o.instanceId)));
    return insert.ok() || fail(error, "cannot insert backup " + std::to_string(t.backupNo));
}

// The file list: one backup_files row per entry, directories named in dirs.
bool insertFileList(const CatalogTarget& t, const TreeWriteResult& w, std::string* error)
{
    std::map<std::string, long long> dirNumbers;
    for (const WrittenEntry& e : w.entries) {
        size_t slash = e.name.rfind('/');
        std::string dir = slash == std::string::npos ? "" : e.name.substr(0, slash);
        std::string base = slash == std::string::npos ? e.name : e.name.substr(slash + 1);
        auto found = dirNumbers.find(dir);
        if (found == dirNumbers.end()) {
            Result known(pgQuery("SELECT dir_no FROM dirs WHERE dname = %s", dir.c_str()));
            Result made(known.hasRow() ? nullptr : pgQuery("INSERT INTO dirs (dname) VALUES (%s) RETURNING dir_no",
                                                           dir.c_str()));
            const Result& source = known.hasRow() ? known : made;
            if (!source.hasRow()) {
                return fail(error, "cannot number directory " + dir);
            }
            found = dirNumbers.emplace(dir, source.number("dir_no")).first;
        }
        Result insert(pgQuery("INSERT INTO backup_files (backup_no, dir_no, fname, type, blocks, blk_offset, size) "
                              "VALUES (%lld, %lld, %s, %d, %lld, %lld, %lld)",
                              static_cast<long long>(t.backupNo), found->second, base.c_str(),
                              static_cast<int>(static_cast<unsigned char>(e.linkflag)),
                              static_cast<long long>(e.blocks), static_cast<long long>(e.headerOffset / 512),
                              static_cast<long long>(e.size)));
        if (!insert.ok()) {
            return fail(error, "cannot insert the file list entry of " + e.name);
        }
    }
    return true;
}

} // namespace

int catalogPrepare(const CatalogOptions& options, CatalogTarget* target, std::string* error)
{
    if (pgOpen(options.service.c_str(), 1) != 0) {
        *error = "cannot connect to database service " + options.service;
        return -1;
    }
    if (pgBegin() != 0) {
        *error = "cannot begin a transaction";
        return -1;
    }
    bool ok = ensureNode(options.nodeNo, error) && ensureDevice(options, target, error) &&
              settleBackupNo(options, target, error);
    return ok ? 0 : -1;
}

int catalogCommit(const CatalogOptions& options, const CatalogTarget& target, const TreeWriteResult& written,
                  std::string* error)
{
    const long long startTime = options.startTime != 0 ? options.startTime : static_cast<long long>(time(nullptr));
    long long filesetNo = 0;
    if (!nextNumber("tq.filesets_fileset_no_seq", "SELECT COALESCE(MAX(fileset_no), 0) + 1 AS n FROM filesets",
                    &filesetNo)) {
        fail(error, "cannot draw a fileset number");
        return -1;
    }
    bool ok = insertFileset(options, target, written, filesetNo, startTime, error) &&
              insertBackup(options, target, written, filesetNo, startTime, error) &&
              (!options.fileList || insertFileList(target, written, error));
    if (!ok) {
        return -1;
    }
    if (pgCommit() != 0) {
        *error = "cannot commit the backup's rows";
        return -1;
    }
    return 0;
}

void catalogAbandon()
{
    pgRollback();
}
