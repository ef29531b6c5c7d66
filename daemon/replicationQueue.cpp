// replicationQueue: the queue table's row functions, the one statement that
// decides which backup goes next, enqueueing with restore groups, and the
// queue schemes run once per pass of the main loop.
#include "daemon/replicationQueue.h"

#include "admin/tqsql.h"
#include "daemon/common.h"
#include "daemon/queueSql.h"
#include "foundation/logger.h"
#include "foundation/pgConnect.h"
#include "foundation/pghelper.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

const char* const QUEUE_DATABASE = "tq.replication_queue";

// Formats a statement into the array `buf`; false (logged "Query too long
// for buffer" with the caller's line) when it does not fit. Nothing is sent.
#define QUERY_FITS(buf, ...) (pgFormatQuery(buf, sizeof(buf), __FILE__, __LINE__, __VA_ARGS__) == 0)

namespace {

using namespace queuesql;

// Statement buffers: short status statements, the others, and the long
// dequeue, swap, scheme and cleanup statements.
constexpr size_t kShortQuery = 128;
constexpr size_t kQuery = 512;
constexpr size_t kLongQuery = 4096;

// The queue schemes' tests on tq.backups.
constexpr int kSyntheticProperty = 2048;  // the property bit the schemes test
constexpr int kRunningStatus = 512;
constexpr int kNotGoodStatus = 80;
constexpr int kBareMetalType = 1024;

using Result = pgResultHolder;

// Runs a finished statement. nullptr (logged "Failed query\n") on failure.
Result runQuery(const char* sql)
{
    Result res(pgExec(sql));
    if (pgStatus(res.get()) != 0) {
        log_printf(0, "%s:%d: Failed query\n", __FILE__, __LINE__);
        return nullptr;
    }
    return res;
}

// Runs a statement whose result is not read; 0/-1.
int runCommand(const char* sql)
{
    return runQuery(sql) ? 0 : -1;
}

// The number in `column` of the first row; 0 when there is no row, -1 when
// the statement fails.
int64_t firstNumber(const char* sql, const char* column)
{
    Result res = runQuery(sql);
    if (!res)
        return -1;
    if (pgTuples(res.get()) == 0)
        return 0;
    return pgLLongVal(res.get(), 0, column);
}

// A text from outside (vault names) as it may stand between quotes.
std::string escapeText(const char* text)
{
    // How to escape depends on the server's settings: have the connection
    // first, so the escaping follows it rather than libpq's defaults.
    pgConnection();
    std::string out(2 * strlen(text) + 1, '\0');
    pgEscape(out.data(), text);
    out.resize(strlen(out.c_str()));
    return out;
}

unsigned long ul(uint64_t v)
{
    return static_cast<unsigned long>(v);
}

// The first column of every row, as backup numbers.
std::vector<uint64_t> backupColumn(pgResult* res, const char* column)
{
    std::vector<uint64_t> out;
    int rows = pgTuples(res);
    for (int row = 0; row < rows; ++row)
        out.push_back(pgULongVal(res, row, column));
    return out;
}

// tq.backups.type of a backup; -1 (logged) when it cannot be read or the
// backup does not exist.
int readBackupType(uint64_t backup_no, int* type)
{
    char q[kQuery];
    if (!QUERY_FITS(q, kBackupType, ul(backup_no)))
        return -1;
    Result res = runQuery(q);
    if (!res)
        return -1;
    if (pgTuples(res.get()) != 1) {
        log_printf(0, "%s:%d: Backup #%lu not found in tq.backups\n", __FILE__, __LINE__, ul(backup_no));
        return -1;
    }
    *type = static_cast<int>(pgLongVal(res.get(), 0, "type"));
    return 0;
}

// Statements of the form (table, status, backup, vault).
int setRowStatus(const char* fmt, uint64_t backup_no, const char* vault, int status)
{
    char q[kQuery];
    std::string v = escapeText(vault);
    if (!QUERY_FITS(q, fmt, QUEUE_DATABASE, status, ul(backup_no), v.c_str()))
        return -1;
    return runCommand(q);
}

// ---- enqueue ----

// The backups that `backup_no` needs to be restored, itself included, in
// restore order. Empty (logged) when the lookup refuses.
std::vector<uint64_t> dependencyGroup(uint64_t backup_no, int type)
{
    std::vector<uint64_t> group;
    if (type == 3) {
        log_printf(2, "%s:%d: tqGetSynthesisGroup", __FILE__, __LINE__);
        uint32_t* list = nullptr;
        int count = 0;
        if (tqGetSynthesisGroup(backup_no, 0, 0, &list, &count, nullptr) != 0)
            log_printf(0, "%s:%d: ERROR:Could not determine synthesis group; Skipping backup %lu", __FILE__, __LINE__,
                ul(backup_no));
        for (int i = 0; i < count && list != nullptr; ++i)
            group.push_back(list[i]);
        free(list);
    } else {
        log_printf(2, "%s:%d: tqGetRestoreGroupOptimized", __FILE__, __LINE__);
        restoreGroupEntry* entries = nullptr;
        size_t count = 0;
        if (tqGetRestoreGroupOptimized(backup_no, &entries, &count) != 0)
            log_printf(0, "%s:%d: ERROR:Could not determine restore group; Skipping backup %lu", __FILE__, __LINE__,
                ul(backup_no));
        for (size_t i = 0; i < count && entries != nullptr; ++i)
            group.push_back(entries[i].backup_no);
        free(entries);
    }
    log_printf(2, "%s:%d: Enqueue Results: count:%d", __FILE__, __LINE__, static_cast<int>(group.size()));
    return group;
}

// One member of a group: a new row, or a waiting-again row unless it is
// complete, in progress or paused.
int queueMember(uint64_t backup_no, const char* vault)
{
    int status = getQueueStatus(backup_no, vault);
    if (status < 0)
        return -1;
    if (status == 0)
        return insertRow(backup_no, vault);
    if (status != REPLICATION_COMPLETE && (status & REPLICATION_BUSY_MASK) == 0)
        return setQueueStatus(backup_no, vault, REPLICATION_NEEDED);
    return 0;
}

// ---- schemes ----

// A backup of the same instance with a larger number already queued for
// `vault`: 1 yes, 0 no, -1 failure.
int newerBackupQueued(uint64_t backup_no, const char* vault)
{
    char q[kQuery];
    std::string v = escapeText(vault);
    long b = static_cast<long>(backup_no);
    if (!QUERY_FITS(q, kFifoNewerQueued, b, v.c_str(), b))
        return -1;
    Result res = runQuery(q);
    if (!res)
        return -1;
    return pgTuples(res.get()) > 0 ? 1 : 0;
}

void fifoCandidate(uint64_t backup_no, const char* vault)
{
    long b = static_cast<long>(backup_no);
    log_printf(2, "%s:%d: Attempting to queue backup:%ld", __FILE__, __LINE__, b);
    int status = getQueueStatus(backup_no, vault);
    if (status == 0) {
        log_printf(2, "%s:%d: Backup:%ld not in queue", __FILE__, __LINE__, b);
        int newer = newerBackupQueued(backup_no, vault);
        if (newer == 1) {
            log_printf(0, "%s:%d: fifoEnqueue: Attempt was made to add backup %ld to the queue out of order.\n",
                __FILE__, __LINE__, b);
            clearSyncNeeded(backup_no);
        } else if (newer == 0) {
            log_printf(2, "%s:%d: Enqueue:%ld", __FILE__, __LINE__, b);
            enqueue(backup_no, vault);
        }
    } else if (status == REPLICATION_COMPLETE) {
        clearSyncNeeded(backup_no);
        setSyncDone(backup_no);
    }
}

// Whether a statement of the lifo tests returns a row: 1, 0, or -1.
int hasRow(const char* sql)
{
    Result res = runQuery(sql);
    if (!res)
        return -1;
    return pgTuples(res.get()) > 0 ? 1 : 0;
}

// The newest backup of the instance older than its newest running one, if
// it needs sending. 0 when there is none (or on failure, logged).
uint64_t lifoCandidate(unsigned long long instance)
{
    char q[kLongQuery];
    if (!QUERY_FITS(q, kLifoNewest, instance, kRunningStatus, kRunningStatus, instance, kRunningStatus, kRunningStatus,
            kRunningStatus, instance))
        return 0;
    Result res = runQuery(q);
    if (!res || pgTuples(res.get()) == 0)
        return 0;
    if (pgLongVal(res.get(), 0, "sync_status") != ST_SYNC_NEEDED)
        return 0;
    return pgULongVal(res.get(), 0, "backup_no");
}

// Step 3 of lifoEnqueue: either no synthetic-capable good backup of the
// instance up to this one waits, or the candidate is such a full itself.
bool lifoShouldEnqueue(uint64_t backup_no)
{
    char q[kLongQuery];
    long b = static_cast<long>(backup_no);
    if (!QUERY_FITS(q, kLifoSyntheticWaiting, b, kSyntheticProperty, kSyntheticProperty, kNotGoodStatus, ST_SYNC_NEEDED,
            ST_SYNC_NEEDED, b))
        return false;
    if (hasRow(q) == 0)
        return true;
    if (!QUERY_FITS(q, kLifoSyntheticFull, b, kSyntheticProperty, kSyntheticProperty, kRunningStatus, 1u, 12u, 1031u,
            ST_SYNC_NEEDED, ST_SYNC_NEEDED))
        return false;
    return hasRow(q) == 1;
}

// The restore group of a backup for pruning, with a refusal logged.
bool pruneGroup(uint64_t backup_no, int type, std::vector<uint64_t>* group)
{
    if (tqIsFullType(type)) {
        group->push_back(backup_no);
        return true;
    }
    if (type == 3) {
        uint32_t* list = nullptr;
        int count = 0;
        if (tqGetSynthesisGroup(backup_no, 0, 0, &list, &count, nullptr) != 0) {
            log_printf(0, "%s:%d: Could not determine synthesis group", __FILE__, __LINE__);
            return false;
        }
        group->assign(list, list + count);
        free(list);
        return true;
    }
    restoreGroupEntry* entries = nullptr;
    size_t count = 0;
    if (tqGetRestoreGroupOptimized(backup_no, &entries, &count) != 0) {
        log_printf(0, "%s:%d: Could not determine restore group; Must be master.", __FILE__, __LINE__);
        return false;
    }
    for (size_t i = 0; i < count; ++i)
        group->push_back(entries[i].backup_no);
    free(entries);
    return true;
}

// Runs one of pruneSuperseded's statements with its logging.
int runPruneStatement(const char* sql)
{
    log_printf(0, "%s:%d: Query:%s", __FILE__, __LINE__, sql);
    Result res(pgExec(sql));
    if (pgStatus(res.get()) != 0) {
        log_printf(0, "%s:%d: Error: failed database Query\n", __FILE__, __LINE__);
        log_printf(0, "%s:%d: %s", __FILE__, __LINE__, sql);
        return -1;
    }
    return 0;
}

int setSyncBits(const char* fmt, int bit, uint64_t backup_no)
{
    char q[kShortQuery];
    if (!QUERY_FITS(q, fmt, bit, static_cast<int>(backup_no)) || runCommand(q) != 0) {
        log_printf(0, "%s:%d: Failed to clear sync\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

// ---- repairOutOfOrder ----

// Deletes every queue row of the instance that started after `startTime`.
int deleteLaterRows(unsigned long instance, unsigned long startTime, unsigned long long backup_no)
{
    char q[kQuery];
    if (!QUERY_FITS(q, kRepairLaterRows, instance, startTime))
        return -1;
    Result res = runQuery(q);
    if (!res)
        return -1;
    std::vector<uint64_t> later = backupColumn(res.get(), "backup_no");
    if (later.empty()) {
        log_printf(0, "%s:%d: There are no out of order backups on the replication_queue with %llu.\n", __FILE__,
            __LINE__, backup_no);
        return -1;
    }
    log_printf(0, "%s:%d: Delete %d backups from the replication_queue that are out of order with %llu.\n", __FILE__,
        __LINE__, static_cast<int>(later.size()), backup_no);
    for (uint64_t b : later) {
        unsigned long long ub = b;
        log_printf(0, "%s:%d: Delete backup %llu from the replication_queue.\n", __FILE__, __LINE__, ub);
        if (!QUERY_FITS(q, kRepairDelete, ub) || runCommand(q) != 0) {
            log_printf(0, "%s:%d: Query to delete backup %llu failed.\n", __FILE__, __LINE__, ub);
            return -1;
        }
    }
    return 0;
}

}  // namespace

int create_replication_queue()
{
    return runCommand(kCreateTable);
}

int insertRow(uint64_t backup_no, const char* vault)
{
    char q[kQuery];
    int result = 0;
    if (!QUERY_FITS(q, kMarkSyncNeeded, ST_SYNC_NEEDED, ul(backup_no), ST_SYNC_NEEDED) || runCommand(q) != 0) {
        log_printf(0, "%s:%d: Failed to update sync status of backup #%lu", __FILE__, __LINE__, ul(backup_no));
        result = -1;
    }
    std::string v = escapeText(vault);
    if (!QUERY_FITS(q, kInsertRow, QUEUE_DATABASE, ul(backup_no), v.c_str(), REPLICATION_NEEDED) || runCommand(q) != 0)
        result = -1;
    return result;
}

int enqueue(uint64_t backup_no, const char* vault)
{
    int type = 0;
    if (readBackupType(backup_no, &type) != 0)
        return -1;
    if (tqIsFullType(type)) {
        int status = getQueueStatus(backup_no, vault);
        if (status < 0)
            return -1;
        return status == 0 ? insertRow(backup_no, vault) : 0;
    }
    int result = 0;
    for (uint64_t member : dependencyGroup(backup_no, type))
        if (queueMember(member, vault) != 0)
            result = -1;
    return result;
}

int getQueueStatus(uint64_t backup_no, const char* vault)
{
    char q[kQuery];
    std::string v = escapeText(vault);
    if (!QUERY_FITS(q, kGetStatus, QUEUE_DATABASE, ul(backup_no), v.c_str()))
        return -1;
    return static_cast<int>(firstNumber(q, "status"));
}

int setQueueStatus(uint64_t backup_no, const char* vault, unsigned status)
{
    char q[kQuery];
    std::string v = escapeText(vault);
    if (!QUERY_FITS(q, kSetStatus, QUEUE_DATABASE, status, ul(backup_no), v.c_str()))
        return -1;
    return runCommand(q);
}

int completeEntry(uint64_t backup_no, const char* vault)
{
    return setRowStatus(kSetStatusTrailing, backup_no, vault, REPLICATION_COMPLETE);
}

int markForCleanup(uint64_t backup_no, const char* vault)
{
    return setRowStatus(kSetStatusTrailing, backup_no, vault, REPLICATION_TERMINATE);
}

int removeEntry(uint64_t backup_no, const char* vault)
{
    char q[kQuery];
    std::string v = escapeText(vault);
    if (!QUERY_FITS(q, kRemoveEntry, QUEUE_DATABASE, ul(backup_no), v.c_str()))
        return -1;
    return runCommand(q);
}

int swap_rq(uint64_t a, const char* vaultA, uint64_t b, const char* vaultB)
{
    char q[kLongQuery];
    std::string va = escapeText(vaultA), vb = escapeText(vaultB);
    bool built;
    if (a == b)
        built = QUERY_FITS(q, kSwapVaults, QUEUE_DATABASE, va.c_str(), QUEUE_DATABASE, ul(a), vb.c_str(), vb.c_str(),
            QUEUE_DATABASE, ul(a), va.c_str(), ul(a), va.c_str(), vb.c_str());
    else
        built = QUERY_FITS(q, kSwap, QUEUE_DATABASE, ul(a), va.c_str(), QUEUE_DATABASE, ul(b), vb.c_str(), ul(b),
            vb.c_str(), QUEUE_DATABASE, ul(a), va.c_str(), ul(a), ul(b));
    if (!built)
        return -1;
    return runCommand(q);
}

int resetInProgress()
{
    char q[kShortQuery];
    if (!QUERY_FITS(q, kResetInProgress, QUEUE_DATABASE, REPLICATION_NEEDED, REPLICATION_IN_PROGRESS))
        return -1;
    return runCommand(q);
}

int64_t peek(int offset)
{
    char q[kShortQuery];
    if (!QUERY_FITS(q, kPeek, QUEUE_DATABASE, REPLICATION_NEEDED, offset))
        return -1;
    return firstNumber(q, "backup_no");
}

int listTerminated(uint64_t* backups, char (*vaults)[QUEUE_VAULT_SIZE], unsigned limit)
{
    char q[kShortQuery];
    if (!QUERY_FITS(q, kListTerminated, QUEUE_DATABASE, REPLICATION_TERMINATE, limit))
        return -1;
    Result res = runQuery(q);
    if (!res)
        return -1;
    int rows = pgTuples(res.get());
    for (int row = 0; row < rows; ++row) {
        backups[row] = pgULongVal(res.get(), row, "backup_no");
        const char* vault = pgSVal(res.get(), row, "vault");
        snprintf(vaults[row], QUEUE_VAULT_SIZE, "%s", vault ? vault : "");
    }
    return rows;
}

int64_t dequeue(char* vaultOut, size_t vaultSize)
{
    char q[kLongQuery];
    if (!QUERY_FITS(q, kDequeueSelect, REPLICATION_NEEDED, -1, REPLICATION_BUSY_MASK))
        return -1;
    Result res(pgExec(q));
    if (pgStatus(res.get()) != 0) {
        log_printf(0, "%s:%d: Failed query:%s\n", __FILE__, __LINE__, q);
        return -1;
    }
    if (pgTuples(res.get()) == 0)
        return 0;
    uint64_t backup_no = pgULongVal(res.get(), 0, "backup_no");
    const char* rowVault = pgSVal(res.get(), 0, "vault");
    std::string vault = rowVault ? rowVault : "";
    // In the daemon vaultOut is SyncTo itself: the row's vault decides this
    // worker's target and stands in the setting until the next reload.
    snprintf(vaultOut, vaultSize, "%s", vault.c_str());
    std::string v = escapeText(vault.c_str());
    unsigned long long now = static_cast<unsigned long long>(time(nullptr));
    if (!QUERY_FITS(
            q, kDequeueUpdate, QUEUE_DATABASE, REPLICATION_IN_PROGRESS, now, static_cast<long>(backup_no), v.c_str()) ||
        runCommand(q) != 0)
        return -1;  // not marked: handing it out would start it twice
    return static_cast<int64_t>(backup_no);
}

int getReplicationStatus(uint64_t backup_no)
{
    char q[kShortQuery];
    unsigned long long b = backup_no;
    if (!QUERY_FITS(q, kGetReplicationStatus, b))
        return 0;
    Result res = runQuery(q);
    if (!res || pgTuples(res.get()) != 1) {
        log_printf(0, "%s:%d: Failed to get backup status for %llu.\n", __FILE__, __LINE__, b);
        return 0;
    }
    return static_cast<int>(pgLongVal(res.get(), 0, "status"));
}

int repairOutOfOrder(uint64_t backup_no)
{
    char q[kQuery];
    unsigned long long b = backup_no;
    Result info;
    if (QUERY_FITS(q, kRepairBackupInfo, b))
        info = runQuery(q);
    if (!info || pgTuples(info.get()) != 1) {
        log_printf(0, "%s:%d: Failed to get backup information for %llu.\n", __FILE__, __LINE__, b);
        return -1;
    }
    unsigned long startTime = pgULongVal(info.get(), 0, "start_time");
    unsigned long instance = pgULongVal(info.get(), 0, "instance_id");
    log_printf(0,
        "%s:%d: Look for backups with start_time > %lu for instance_id %lu that have replicated "
        "successfully.",
        __FILE__, __LINE__, startTime, instance);
    if (!QUERY_FITS(q, kRepairLaterComplete, instance, startTime, REPLICATION_COMPLETE))
        return -1;
    int laterComplete = hasRow(q);
    if (laterComplete < 0)
        return -1;
    if (laterComplete == 1) {
        if (deleteLaterRows(instance, startTime, b) != 0)
            return -1;
    } else {
        log_printf(0, "%s:%d: There are no backups on the replication_queue that are out of order with %llu.\n",
            __FILE__, __LINE__, b);
    }
    Result done;
    if (QUERY_FITS(q, kRepairReset, REPLICATION_NEEDED, b))
        done.reset(pgExec(q));
    if (pgStatus(done.get()) != 0 || pgCmdTuples(done.get()) < 1) {
        log_printf(
            0, "%s:%d: The status for backup %llu was NOT updated in the replication_queue.\n", __FILE__, __LINE__, b);
        return -1;
    }
    log_printf(0, "%s:%d: The status for backup %llu was updated in the replication_queue.\n", __FILE__, __LINE__, b);
    return 0;
}

int clearSyncNeeded(uint64_t backup_no)
{
    log_printf(2, "%s:%d: Clearing sync needed bit", __FILE__, __LINE__);
    return setSyncBits(kClearSyncNeeded, ST_SYNC_NEEDED, backup_no);
}

int setSyncDone(uint64_t backup_no)
{
    log_printf(2, "%s:%d: Setting sync done bit", __FILE__, __LINE__);
    return setSyncBits(kSetSyncDone, ST_SYNC_DONE, backup_no);
}

int fifoEnqueue()
{
    const char* vault = g_settings.SyncTo;
    if (vault[0] == '\0')
        return 0;
    char q[kLongQuery];
    if (!QUERY_FITS(q, kFifoCandidates, ST_SYNC_NEEDED, kSyntheticProperty, kSyntheticProperty, kNotGoodStatus,
            kSyntheticProperty, kSyntheticProperty, kRunningStatus, 1u, 12u, 1031u))
        return -1;
    Result res(pgExec(q));
    if (pgStatus(res.get()) != 0) {
        log_printf(0, "%s:%d: Error: failed database Query, backup not hashed?\n", __FILE__, __LINE__);
        return -1;
    }
    std::vector<uint64_t> candidates = backupColumn(res.get(), "backup_no");
    res.reset();
    for (uint64_t backup_no : candidates)
        fifoCandidate(backup_no, vault);
    return static_cast<int>(candidates.size());
}

int lifoEnqueue()
{
    const char* vault = g_settings.SyncTo;
    if (vault[0] == '\0')
        return 0;
    Result res = runQuery(kLifoInstances);
    if (!res)
        return -1;
    std::vector<uint64_t> instances = backupColumn(res.get(), "instance_id");
    res.reset();
    int result = 0;
    for (uint64_t instance : instances) {
        uint64_t candidate = lifoCandidate(instance);
        if (candidate == 0)
            continue;
        if (getQueueStatus(candidate, vault) == 0 && lifoShouldEnqueue(candidate)) {
            log_printf(
                2, "%s:%d: lifo enqueue: %llu\n", __FILE__, __LINE__, static_cast<unsigned long long>(candidate));
            if (enqueue(candidate, vault) != 0)
                result = -1;
        }
        if (pruneSuperseded(candidate, vault) != 0)
            result = -1;
    }
    return result;
}

int pruneSuperseded(uint64_t backup_no, const char* vault)
{
    log_printf(2, "%s:%d: tqGetRestoreGroupOptimized", __FILE__, __LINE__);
    int type = 0;
    if (readBackupType(backup_no, &type) != 0)
        return -1;
    std::vector<uint64_t> group;
    if (!pruneGroup(backup_no, type, &group))
        return -1;
    uint64_t master = 0;
    for (uint64_t member : group) {
        int memberType = 0;
        if (readBackupType(member, &memberType) == 0 && tqIsFullType(memberType)) {
            master = member;
            break;
        }
    }
    if (master == 0)
        return 0;
    char q[kLongQuery];
    std::string v = escapeText(vault);
    int m = static_cast<int>(master);
    if (!QUERY_FITS(q, kPruneClearSync, ST_SYNC_NEEDED, m, m, REPLICATION_NEEDED, v.c_str(), kBareMetalType, m, m,
            kBareMetalType) ||
        runPruneStatement(q) != 0)
        return -1;
    if (!QUERY_FITS(q, kPruneDelete, m, m, REPLICATION_NEEDED, v.c_str(), ST_SYNC_NEEDED) || runPruneStatement(q) != 0)
        return -1;
    return 0;
}

void updateQueue()
{
    log_printf(5, "%s:%d: Updating queue", __FILE__, __LINE__);
    switch (g_settings.QueueScheme) {
    case QUEUE_SCHEME_RETENTION:
        fifoEnqueue();
        break;
    case QUEUE_SCHEME_RECENCY:
        fifoEnqueue();
        lifoEnqueue();
        break;
    default:
        break;  // 0 and unknown schemes add nothing
    }
}
