// appliance_fixture: an appliance's records in the private cluster, built
// over one libpq connection of the fixture's own.
#include "harness/appliance_fixture.h"

#include "harness/appliance_root.h"
#include "harness/pg_cluster.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <memory>
#include <unistd.h>

namespace ferrytest {

namespace {

struct ResultCloser {
    void operator()(PGresult* r) const { PQclear(r); }
};
using ResultPtr = std::unique_ptr<PGresult, ResultCloser>;

std::string sqlText(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += '\'';
        out += c;
    }
    return out + "'";
}

std::string orNull(const std::string& text)
{
    return text.empty() ? "NULL" : sqlText(text);
}

constexpr int64_t kHour = 3600;
constexpr size_t kDeviceNameSize = 32;  // devices.dev_rw_name

} // namespace

ApplianceDb::ApplianceDb(std::string backupsDir) : backupsDir_(std::move(backupsDir))
{
    PgClusterEnvironment* env = pgCluster();
    if (env == nullptr) {
        ADD_FAILURE() << "ApplianceDb needs a PgClusterEnvironment";
        return;
    }
    conn_ = PQconnectdb(env->connString().c_str());
    if (PQstatus(conn_) != CONNECTION_OK)
        ADD_FAILURE() << "fixture connect failed: " << PQerrorMessage(conn_);
    exec("SET client_min_messages TO warning");
    clear();
}

ApplianceDb::~ApplianceDb()
{
    PQfinish(conn_);
    for (const std::string& dir : shortcuts_)
        removeTree(dir);  // the links only, not the devices they point at
}

std::string ApplianceDb::deviceDirectory(const std::string& name)
{
    std::string dir = backupsDir_ + "/" + name;
    makeDirs(dir);
    if (dir.size() <= kDeviceNameSize)
        return dir;
    // devices.dev_rw_name holds 32 characters, fewer than a temporary
    // appliance root needs: the device is reached through a short link.
    char shortDir[] = "/tmp/fdXXXXXX";
    if (mkdtemp(shortDir) == nullptr) {
        ADD_FAILURE() << "mkdtemp for a device link failed";
        return dir;
    }
    shortcuts_.push_back(shortDir);
    std::string link = std::string(shortDir) + "/" + name;
    if (symlink(dir.c_str(), link.c_str()) != 0)
        ADD_FAILURE() << "symlink " << link << " failed";
    return link;
}

bool ApplianceDb::exec(const std::string& sql)
{
    ResultPtr res(PQexec(conn_, sql.c_str()));
    ExecStatusType st = PQresultStatus(res.get());
    if (st == PGRES_COMMAND_OK || st == PGRES_TUPLES_OK)
        return true;
    ADD_FAILURE() << "fixture SQL failed: " << PQerrorMessage(conn_) << "statement: " << sql;
    return false;
}

std::vector<std::string> ApplianceDb::column(const std::string& sql)
{
    std::vector<std::string> out;
    ResultPtr res(PQexec(conn_, sql.c_str()));
    if (PQresultStatus(res.get()) != PGRES_TUPLES_OK) {
        ADD_FAILURE() << "fixture query failed: " << PQerrorMessage(conn_) << "statement: " << sql;
        return out;
    }
    for (int row = 0; row < PQntuples(res.get()); ++row)
        out.emplace_back(PQgetisnull(res.get(), row, 0) ? "" : PQgetvalue(res.get(), row, 0));
    return out;
}

std::string ApplianceDb::value(const std::string& sql)
{
    std::vector<std::string> rows = column(sql);
    return rows.empty() ? "" : rows.front();
}

void ApplianceDb::clear()
{
    // RESTART IDENTITY puts the owned sequences back, so that the numbers of
    // a populated appliance are the same in every test.
    exec("TRUNCATE tq.replication_queue, tq.backups, tq.filesets, tq.sql_backups, tq.nodes, "
         "tq.application_instances, tq.devices, tq.tapes RESTART IDENTITY CASCADE");
    nextDevice_ = 1;
    firstTape_ = 0;
    lastStart_ = 1700000000;
}

int ApplianceDb::addNode(const std::string& name)
{
    std::string no = value("INSERT INTO tq.nodes (node_no, node_name, type, os, status, priority, properties) "
                           "VALUES (nextval('tq.nodes_node_no_seq'), " +
                           sqlText(name) + ", 1, 1, 0, 0, 0) RETURNING node_no");
    return no.empty() ? 0 : std::stoi(no);
}

int64_t ApplianceDb::addInstance(int node_no, int app_id, const std::string& key1, const std::string& key2,
                                 int priority)
{
    std::string id = value("INSERT INTO tq.application_instances (app_id, node_no, key1, key2, priority) VALUES (" +
                           std::to_string(app_id) + ", " + std::to_string(node_no) + ", " + orNull(key1) + ", " +
                           orNull(key2) + ", " + std::to_string(priority) + ") RETURNING instance_id");
    exec("INSERT INTO tq.node_applications (node_no, app_id) VALUES (" + std::to_string(node_no) + ", " +
         std::to_string(app_id) + ") ON CONFLICT DO NOTHING");
    return id.empty() ? 0 : std::stoll(id);
}

int64_t ApplianceDb::addDiskDevice(const std::string& name)
{
    int device = nextDevice_++;
    int64_t tape = 100 + device;
    std::string dir = deviceDirectory(name);
    exec("INSERT INTO tq.devices (device_no, dev_name, device_type, node_no, status, dev_rw_name, tape_no, "
         "is_online, dedup) VALUES (" +
         std::to_string(device) + ", " + sqlText(name) + ", 16, 0, 0, " + sqlText(dir) + ", " + std::to_string(tape) +
         ", TRUE, TRUE)");
    exec("INSERT INTO tq.tapes (tape_no, label, status, media_pool, usages, tape_class) VALUES (" +
         std::to_string(tape) + ", " + sqlText(name) + ", 0, 0, 0, 'disk')");
    if (firstTape_ == 0)
        firstTape_ = tape;
    return tape;
}

int64_t ApplianceDb::addBackup(const BackupRow& row)
{
    int64_t start = row.start_time ? row.start_time : lastStart_ + kHour;
    lastStart_ = std::max(lastStart_, start);
    int64_t tape = row.tape_no ? row.tape_no : firstTape_;
    std::string instance = row.instance_id ? std::to_string(row.instance_id) : "NULL";
    std::string no = value(
        "INSERT INTO tq.backups (backup_no, attempt_cnt, node_no, start_time, tape_no, job_no, fileset_no, "
        "elapsed_time, server_name, properties, total_megs, sync_status, status, type, exit_code, instance_id) "
        "SELECT n, 1, " +
        std::to_string(row.node_no) + ", " + std::to_string(start) + ", " + std::to_string(tape) + ", n, n, 600, " +
        "'appliance', " + std::to_string(row.properties) + ", 512, " + std::to_string(row.sync_status) + ", " +
        std::to_string(row.status) + ", " + std::to_string(row.type) + ", 0, " + instance + " FROM (SELECT nextval('tq.backups_backup_no_seq') AS n) s RETURNING backup_no");
    if (no.empty())
        return 0;
    exec("INSERT INTO tq.filesets (fileset_no, tape_no, start_time, elapsed_time, total_megs, server_name, "
         "tape_drive_name, status, properties, backup_no, data_format) SELECT " +
         no + ", " + std::to_string(tape) + ", " + std::to_string(start) +
         ", 600, 512, 'appliance', COALESCE((SELECT dev_name FROM tq.devices WHERE tape_no = " + std::to_string(tape) +
         "), 'D2D1'), " + std::to_string(row.status) + ", " + std::to_string(row.properties) + ", " + no +
         ", 'arco'");
    return std::stoll(no);
}

void ApplianceDb::setSyncStatus(const std::vector<int64_t>& backups, int syncStatus)
{
    for (int64_t b : backups)
        exec("UPDATE tq.backups SET sync_status = " + std::to_string(syncStatus) +
             " WHERE backup_no = " + std::to_string(b));
}

std::vector<std::string> ApplianceDb::queueRows()
{
    return column("SELECT backup_no || ':' || vault || ':' || status FROM tq.replication_queue ORDER BY position");
}

int ApplianceDb::queueStatus(int64_t backup, const std::string& vault)
{
    std::string s = value("SELECT status FROM tq.replication_queue WHERE backup_no = " + std::to_string(backup) +
                          " AND vault = " + sqlText(vault));
    return s.empty() ? -1 : std::stoi(s);
}

void ApplianceDb::addQueueRow(int64_t backup, const std::string& vault, int status)
{
    exec("INSERT INTO tq.replication_queue (backup_no, vault, status) VALUES (" + std::to_string(backup) + ", " +
         sqlText(vault) + ", " + std::to_string(status) + ")");
}

Appliance populateAppliance(ApplianceDb& db)
{
    Appliance a;
    db.addDiskDevice("D2D1");
    const int64_t d2d2 = db.addDiskDevice("D2D2");
    a.alpha = db.addNode("alpha");
    a.beta = db.addNode("beta");
    a.esx = db.addNode("esx01");
    a.hyperv = db.addNode("hv01");

    a.files.instance = db.addInstance(a.alpha, app::kFiles, "alpha", "", 5);
    a.betaInstance = db.addInstance(a.beta, app::kFiles, "beta", "", 1);
    a.vm.instance = db.addInstance(a.esx, app::kVMware, "esx01", "web01", 8);
    a.hv.instance = db.addInstance(a.hyperv, app::kHyperV, "hv01", "mail01", 3);
    a.sql.instance = db.addInstance(a.alpha, app::kSqlServer, "ALPHA\\SQLEXPRESS", "payroll", 7);
    a.exchange.instance = db.addInstance(a.alpha, app::kExchange, "First Storage Group", "", 2);
    a.metadataInstance = db.addInstance(a.alpha, app::kSystemMetadata, "", "", 0);

    const uint64_t synth = kPropDeduplicated | kPropSynthesisCapable;
    auto files = [&](int type, uint64_t status = kStatusGood, int64_t tape = 0) {
        BackupRow s;
        s.node_no = a.alpha;
        s.instance_id = a.files.instance;
        s.type = type;
        s.status = status;
        s.properties = synth;
        s.tape_no = tape;
        return db.addBackup(s);
    };
    auto other = [&](int node, int64_t instance, int type, uint64_t status = kStatusGood, int64_t tape = 0) {
        BackupRow s;
        s.node_no = node;
        s.instance_id = instance;
        s.type = type;
        s.status = status;
        s.tape_no = tape;
        return db.addBackup(s);
    };

    // Interleaved in time as the schedules of a real appliance run them.
    a.files.purgedMaster = files(btype::kMaster, kStatusGood, -1);
    a.vm.full = other(a.esx, a.vm.instance, btype::kVMwareFull);
    a.hv.full = other(a.hyperv, a.hv.instance, btype::kHyperVFull, kStatusGood, d2d2);
    a.files.master = files(btype::kMaster);
    a.betaMaster = other(a.beta, a.betaInstance, btype::kMaster);
    a.sql.full = other(a.alpha, a.sql.instance, btype::kSqlFull);
    a.exchange.full = other(a.alpha, a.exchange.instance, btype::kExchangeFull);
    a.files.diff1 = files(btype::kDifferential);
    a.vm.diff = other(a.esx, a.vm.instance, btype::kVMwareDiff);
    a.betaFailedDiff = other(a.beta, a.betaInstance, btype::kDifferential, kStatusFailed);
    a.files.incr1 = files(btype::kIncremental);
    a.hv.diff = other(a.hyperv, a.hv.instance, btype::kHyperVDiff, kStatusGood, d2d2);
    a.sql.diff = other(a.alpha, a.sql.instance, btype::kSqlDiff);
    a.exchange.diff = other(a.alpha, a.exchange.instance, btype::kExchangeDiff);
    a.files.incr2 = files(btype::kIncremental);
    a.vm.incr1 = other(a.esx, a.vm.instance, btype::kVMwareIncr);
    a.files.bareMetal = other(a.alpha, a.files.instance, btype::kBareMetal);
    a.hv.incr1 = other(a.hyperv, a.hv.instance, btype::kHyperVIncr, kStatusGood, d2d2);
    a.files.diff2 = files(btype::kDifferential);
    a.betaDiff = other(a.beta, a.betaInstance, btype::kDifferential);
    a.sql.incr1 = other(a.alpha, a.sql.instance, btype::kSqlLog);
    a.vm.incr2 = other(a.esx, a.vm.instance, btype::kVMwareIncr);
    a.failedVmDiff = other(a.esx, a.vm.instance, btype::kVMwareDiff, kStatusFailed);
    a.exchange.incr1 = other(a.alpha, a.exchange.instance, btype::kExchangeIncr);
    a.files.incr3 = files(btype::kIncremental);
    a.hv.incr2 = other(a.hyperv, a.hv.instance, btype::kHyperVIncr, kStatusGood, d2d2);
    a.sql.incr2 = other(a.alpha, a.sql.instance, btype::kSqlLog);
    a.exchange.incr2 = other(a.alpha, a.exchange.instance, btype::kExchangeIncr);
    a.systemMetadata = other(a.alpha, a.metadataInstance, btype::kSystemMetadata);
    a.betaRunning = other(a.beta, a.betaInstance, btype::kMaster, kStatusRunning);
    return a;
}

} // namespace ferrytest
