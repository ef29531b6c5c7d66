// tqsql: backup group lookups over the database. The queue sends a backup
// together with everything a restore of it needs, in restore order; these
// functions answer that question for the family a backup belongs to.
#include "admin/tqsql.h"

#include "admin/tqsqlQueries.h"
#include "foundation/logger.h"
#include "foundation/pghelper.h"
#include "foundation/smartbuffer.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace adminsql;

constexpr unsigned long kSyntheticProperty = 2048;
constexpr unsigned long kSynthesisCapable = 0x1000;
constexpr unsigned long kSdsProperty = 1;
constexpr unsigned long kClientNameProperty = 32;  // the client's name is gcname
constexpr unsigned long kSqlFileGroupProperty = 128;
constexpr unsigned long kEncryptedProperty = 0x100;
constexpr unsigned long kFinishedStatus = 64;
constexpr unsigned long kFailedStatus = 0x9018;
constexpr unsigned long kJobSuccessStatus = 0x800;
constexpr unsigned kAllOnes32 = 0xFFFFFFFFu;
// The SQL Server full and differential, as sql_backups.sql_type has them.
constexpr unsigned kSqlFull = 9;
constexpr unsigned kSqlDifferential = 10;

constexpr size_t kFilterSize = 256;
constexpr size_t kQuerySize = 4096;

using Result = pgResultHolder;

// A refusal or failure: the last error and the log line. Returns -1.
__attribute__((format(printf, 3, 4))) int fail(const char* function, int line, const char* fmt, ...)
{
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    tqSetLastError("%s", text);
    log_printf(0, "%s:%d: %s: Error: %s", __FILE__, line, function, text);
    return -1;
}

// A logically deleted backup: tape_no all ones, stored as -1 by some
// writers and as the unsigned 32-bit value by others.
bool isPurged(long long tapeNo)
{
    return tapeNo == -1 || tapeNo == static_cast<long long>(kAllOnes32);
}

// ---- synthesis group ----

// The full type of a synthesis-capable family, or 0 for other types.
int synthesisFamily(int type)
{
    if (type >= 1 && type <= 3)
        return 1;
    if (tqIsVMwareType(type))
        return 12;
    if (tqIsHyperVType(type))
        return 1031;
    if (tqIsNdmpType(type))
        return 4098;
    return 0;
}

struct BackupAttributes {
    unsigned long node_no = 0;
    unsigned long instance_id = 0;
    unsigned long status = 0;
    long long tape_no = 0;
    unsigned long properties = 0;
    int type = 0;
    unsigned long start_time = 0;
};

// The refusals of step 3, in order; 0 when the backup may be synthesised.
int checkSynthesisInput(const char* fn, const BackupAttributes& b)
{
    if (b.status & kFailedStatus)
        return fail(fn, __LINE__, "Input backup was not successful.");
    if ((b.status & kFinishedStatus) == 0)
        return fail(fn, __LINE__, "Input backup is not complete.");
    if (isPurged(b.tape_no))
        return fail(fn, __LINE__, "Input backup has been logically deleted.");
    if ((b.properties & kSynthesisCapable) == 0)
        return fail(fn, __LINE__, "Input backup is not synthesis-capable.");
    if (b.properties & kSdsProperty)
        return fail(fn, __LINE__, "Cannot restore SDS backups.");
    return 0;
}

// The group statement for the backup's family.
bool buildSynthesisQuery(char* q, size_t size, uint64_t backup_no, const BackupAttributes& b, int ignoreDiffs,
    int ignoreMasters, const char* typeSet)
{
    int full = synthesisFamily(b.type);
    int diff = full + 1;
    unsigned long bn = static_cast<unsigned long>(backup_no);
    return pgFormatQuery(q, size, __FILE__, __LINE__, kSynthGroup, typeSet, b.node_no, b.instance_id, bn, ignoreDiffs,
               diff, kSyntheticProperty, ignoreMasters, full, kSyntheticProperty, full, diff, b.node_no, b.instance_id,
               bn, ignoreDiffs, diff, kSyntheticProperty, ignoreMasters, full, kSyntheticProperty, full, b.node_no,
               b.instance_id, bn) == 0;
}

// Step 7: the array and the text of the group.
int fillSynthesisOutputs(const char* fn, pgResult* res, uint32_t** list, int* count, char** text)
{
    int rows = pgTuples(res);
    if (list != nullptr && count != nullptr && rows > 0) {
        *list = static_cast<uint32_t*>(calloc(static_cast<size_t>(rows), sizeof(uint32_t)));
        if (*list == nullptr)
            return fail(fn, __LINE__, "Could not allocate memory for request");
        for (int row = 0; row < rows; ++row)
            (*list)[row] = static_cast<uint32_t>(pgULongVal(res, row, "backup_no"));
    }
    if (count != nullptr)
        *count = rows;
    smartbuffer joined;
    for (int row = 0; row < rows; ++row)
        joined.appendf("%s%s", row ? "," : "", pgSVal(res, row, "backup_no"));
    if (joined.failed())
        return fail(fn, __LINE__, "Error generating group identifier string.");
    log_printf(3, "%s:%d: %s: group= %s\n", __FILE__, __LINE__, fn, joined.c_str());
    if (text != nullptr) {
        *text = rows > 0 ? joined.release() : strdup("");
        if (*text == nullptr)
            return fail(fn, __LINE__, "Error generating group identifier string.");
    }
    return 0;
}

int synthesisGroup(
    const char* fn, uint64_t backup_no, int ignoreDiffs, int ignoreMasters, uint32_t** list, int* count, char** text)
{
    unsigned long bn = static_cast<unsigned long>(backup_no);
    Result res(pgQuery(kSynthBackupAttributes, bn));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Failed running query to verify backup attributes.");
    if (pgTuples(res.get()) != 1)
        return fail(fn, __LINE__, "Invalid backup id: %lu.", bn);
    BackupAttributes b;
    b.node_no = pgULongVal(res.get(), 0, "node_no");
    b.instance_id = pgULongVal(res.get(), 0, "instance_id");
    b.status = pgULongVal(res.get(), 0, "status");
    b.tape_no = pgLLongVal(res.get(), 0, "tape_no");
    b.properties = pgULongVal(res.get(), 0, "properties");
    b.type = static_cast<int>(pgLongVal(res.get(), 0, "type"));
    res.reset();

    int full = synthesisFamily(b.type);
    if (full == 0)
        return fail(fn, __LINE__, "Input backup must be a supported type.");
    char typeSet[64];
    int need = snprintf(typeSet, sizeof typeSet, "%u,%u,%u", full, full + 1, full + 2);
    if (need < 0 || static_cast<size_t>(need) >= sizeof typeSet)
        return fail(fn, __LINE__, "Failure storing backup type set.  Attempted to write %d bytes to %zu-byte buffer.",
            need, sizeof typeSet);
    if (checkSynthesisInput(fn, b) != 0)
        return -1;
    if (ignoreDiffs == 1)
        log_printf(4, "%s:%d: Ignoring synthetic differential backups", __FILE__, __LINE__);
    if (ignoreMasters == 1)
        log_printf(4, "%s:%d: Ignoring synthetic master backups", __FILE__, __LINE__);

    char q[kQuerySize];
    if (!buildSynthesisQuery(q, sizeof q, backup_no, b, ignoreDiffs, ignoreMasters, typeSet))
        return fail(fn, __LINE__, "Query to retrieve synthesis group failed.");
    res.reset(pgExec(q));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Query to retrieve synthesis group failed.");
    int rows = pgTuples(res.get());
    if (rows == 0 && ignoreMasters != 1)
        return fail(fn, __LINE__, "No backups found for synthesis group.");
    log_printf(3, "%s:%d: %s: %d backups in synthesis group.\n", __FILE__, __LINE__, fn, rows);
    return fillSynthesisOutputs(fn, res.get(), list, count, text);
}

// ---- restore group ----

// Step 3: the refusals, in order.
int checkRestoreInput(const char* fn, const BackupAttributes& b)
{
    if (b.properties & kSdsProperty)
        return fail(fn, __LINE__, "SDS backups cannot be restored");
    if (isPurged(b.tape_no))
        return fail(fn, __LINE__, "Purged backups cannot be restored");
    if ((b.status & kFinishedStatus) == 0)
        return fail(fn, __LINE__, "Active backups cannot be restored");
    // A failed file-level master, differential or selective backup may still
    // be restored as far as it got.
    if ((b.status & kFailedStatus) && b.type != 1 && b.type != 2 && b.type != 4)
        return fail(fn, __LINE__, "Failed backups of this type cannot be restored");
    return 0;
}

struct RestoreFilters {
    char loose[kFilterSize];
    char strict[kFilterSize];
};

bool buildFilters(const BackupAttributes& b, RestoreFilters* f)
{
    return pgFormatQuery(f->loose, sizeof f->loose, __FILE__, __LINE__, kLooseFilter,
               static_cast<unsigned>(kClientNameProperty), b.properties & kClientNameProperty,
               static_cast<unsigned>(kSdsProperty), kAllOnes32, static_cast<unsigned>(kFinishedStatus)) == 0 &&
        pgFormatQuery(f->strict, sizeof f->strict, __FILE__, __LINE__, kStrictFilter, f->loose,
            static_cast<unsigned>(kFailedStatus)) == 0;
}

// Step 6: the statement that fits the backup's type. -1 (logged) for an
// unknown type or a statement too long.
int buildRestoreQuery(const char* fn, uint64_t backup_no, const BackupAttributes& b, const RestoreFilters& f, char* q,
    size_t size, bool* sqlFileGroup)
{
    unsigned long bn = static_cast<unsigned long>(backup_no);
    int t = b.type;
    *sqlFileGroup = false;
    const char* family = nullptr;
    int built = -1;
    if (t != 4 && (b.properties & kSqlFileGroupProperty)) {
        family = "a SQL Server file group backup";
        *sqlFileGroup = true;
        built = pgFormatQuery(q, size, __FILE__, __LINE__, kSqlFileGroup, kRestoreFields, bn, kSqlFull, kSqlFull,
            kSqlDifferential, f.strict);
    } else if (tqIsExchangeType(t) || tqIsSqlServerType(t) || tqIsVMwareType(t) || tqIsHyperVType(t) ||
        tqIsNdmpType(t) || tqIsUcsType(t)) {
        int full = tqIsUcsType(t)  ? 1039
            : tqIsExchangeType(t)  ? 5
            : tqIsSqlServerType(t) ? 9
            : tqIsVMwareType(t)    ? 12
            : tqIsHyperVType(t)    ? 1031
                                   : 4098;
        int second = full == 1039 ? 4096 : full + 1;
        int third = full == 1039 ? 4097 : full + 2;
        family = "in a three-member family";
        built = pgFormatQuery(
            q, size, __FILE__, __LINE__, kRestoreGroup3, bn, full, second, third, tqIsUcsType(t) ? f.loose : f.strict);
    } else if (tqIsOracleType(t) || tqIsSharePointType(t)) {
        int full = tqIsOracleType(t) ? 1034 : 1036;
        family = "in a two-member family";
        built = pgFormatQuery(q, size, __FILE__, __LINE__, kRestoreGroup2, bn, full, full + 1, f.strict);
    } else if (t == 1 || t == 4 || t == 1024 || t == 1038 || t == 2) {
        family = "a file-level, selective, bare metal or system metadata backup";
        built = pgFormatQuery(q, size, __FILE__, __LINE__, kRestoreGroup1, bn, static_cast<unsigned long>(t), f.loose);
    } else {
        log_printf(0, "%s:%d: %s: backup #%lu type was %lu", __FILE__, __LINE__, fn, bn, static_cast<unsigned long>(t));
        return fail(fn, __LINE__, "Backup %lu has an unknown or unsupported backup type (%lu).", bn,
            static_cast<unsigned long>(t));
    }
    log_printf(3, "%s:%d: %s: Backup #%lu is %s\n", __FILE__, __LINE__, fn, bn, family);
    return built == 0 ? 0 : fail(fn, __LINE__, "Failed querying for dependent backups.");
}

// Job status code of a member from its exit code and status.
uint32_t jobStatusCode(unsigned long status, long exitCode)
{
    if ((status & kFailedStatus) || (status & kJobSuccessStatus) == 0)
        return 2;
    if (exitCode == 50)
        return 1;
    return static_cast<uint32_t>((status >> 14) & 1);
}

// The application of a backup, shared by all entries of its group.
struct ApplicationInfo {
    uint32_t instance_id = 0;
    uint32_t app_id = 0;
    char app_name[48] = "";
    char instance_name[128] = "";
};

int lookupInstanceName(uint64_t instance_id, char** name);

int readApplicationInfo(const char* fn, uint64_t backup_no, ApplicationInfo* info)
{
    unsigned long bn = static_cast<unsigned long>(backup_no);
    Result res(pgQuery(kApplicationInfo, bn));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Failed to retrieve application information for backup %lu", bn);
    if (pgTuples(res.get()) == 0)
        return 0;  // a backup of no instance: nothing to add
    unsigned long instance = pgULongVal(res.get(), 0, "instance_id");
    info->instance_id = static_cast<uint32_t>(instance);
    info->app_id = static_cast<uint32_t>(pgULongVal(res.get(), 0, "app_id"));
    const char* appName = pgSVal(res.get(), 0, "name");
    snprintf(info->app_name, sizeof info->app_name, "%s", appName ? appName : "");
    char* name = nullptr;
    if (lookupInstanceName(instance, &name) != 0) {
        log_printf(0, "%s:%d: Instance id was %lu\n", __FILE__, __LINE__, instance);
        return fail(fn, __LINE__, "Failed to get instance name for backup %lu", bn);
    }
    snprintf(info->instance_name, sizeof info->instance_name, "%s", name ? name : "");
    free(name);
    return 0;
}

int fillRestoreEntries(const char* fn, pgResult* res, bool sqlFileGroup, const BackupAttributes& b,
    const ApplicationInfo& app, restoreGroupEntry** list, size_t* count)
{
    size_t rows = static_cast<size_t>(pgTuples(res));
    auto* entries = static_cast<restoreGroupEntry*>(calloc(rows, sizeof(restoreGroupEntry)));
    if (entries == nullptr)
        return fail(fn, __LINE__, "Memory allocation failed.");
    for (size_t i = 0; i < rows; ++i) {
        int row = static_cast<int>(i);
        restoreGroupEntry& e = entries[i];
        e.backup_no = static_cast<uint32_t>(pgULongVal(res, row, "t_backup_no"));
        e.node_no = static_cast<uint32_t>(b.node_no);
        e.status = jobStatusCode(pgULongVal(res, row, "t_status"), pgLongVal(res, row, "t_exit_code"));
        e.type = static_cast<uint32_t>(pgLongVal(res, row, sqlFileGroup ? "sql_type" : "t_type"));
        e.start_time = static_cast<uint32_t>(pgULongVal(res, row, "t_start_time"));
        e.app_id = app.app_id;
        memcpy(e.app_name, app.app_name, sizeof e.app_name);
        e.instance_id = app.instance_id;
        memcpy(e.instance_name, app.instance_name, sizeof e.instance_name);
        log_printf(4, "%s:%d: %s: %zd: backup_id=%d status=%d type=%d start_time=%lu\n", __FILE__, __LINE__, fn,
            static_cast<ssize_t>(i), static_cast<int>(e.backup_no), static_cast<int>(e.status),
            static_cast<int>(e.type), static_cast<unsigned long>(e.start_time));
    }
    *list = entries;
    *count = rows;
    return 0;
}

int restoreGroup(const char* fn, uint64_t backup_no, restoreGroupEntry** list, size_t* count)
{
    unsigned long bn = static_cast<unsigned long>(backup_no);
    log_printf(3, "%s:%d: %s: Retrieving restore group for backup #%lu\n", __FILE__, __LINE__, fn, bn);
    Result res(pgQuery(kRestoreBackupAttributes, bn));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Failed running query to determine backup type.");
    if (pgTuples(res.get()) != 1)
        return fail(fn, __LINE__, "Backup #%lu not found in database.", bn);
    BackupAttributes b;
    b.status = pgULongVal(res.get(), 0, "status");
    b.type = static_cast<int>(pgLongVal(res.get(), 0, "type"));
    b.properties = pgULongVal(res.get(), 0, "properties");
    b.start_time = pgULongVal(res.get(), 0, "start_time");
    b.node_no = pgULongVal(res.get(), 0, "node_no");
    b.tape_no = pgLLongVal(res.get(), 0, "tape_no");
    res.reset();
    if (checkRestoreInput(fn, b) != 0)
        return -1;

    int hasApplications = columnExists("backups", "instance_id");
    if (hasApplications < 0)
        return fail(fn, __LINE__, "Failed to determine if backups table has application info.");
    RestoreFilters filters;
    if (!buildFilters(b, &filters))
        return fail(fn, __LINE__, "Failed to build filter string");

    char q[kQuerySize];
    bool sqlFileGroup = false;
    if (buildRestoreQuery(fn, backup_no, b, filters, q, sizeof q, &sqlFileGroup) != 0)
        return -1;
    res.reset(pgExec(q));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Failed querying for dependent backups.");
    size_t rows = static_cast<size_t>(pgTuples(res.get()));
    if (rows == 0)
        return fail(fn, __LINE__, "Backup %lu not returned from query", bn);
    log_printf(3, "%s:%d: %s: %zu dependent backups found for backup_id %lu.\n", __FILE__, __LINE__, fn, rows, bn);

    ApplicationInfo app;
    if (hasApplications == 1 && readApplicationInfo(fn, backup_no, &app) != 0)
        return -1;
    return fillRestoreEntries(fn, res.get(), sqlFileGroup, b, app, list, count);
}

// ---- instance names ----

// The name by the application's type; nullptr for none. `k1`, `k2` are
// nullptr when the key is missing.
char* instanceNameFor(const char* appType, const char* k1, const char* k2)
{
    static const char* const kKey1Types[] = { "Exchange", "Oracle", "SharePoint", "UCS Service Profile",
        "NDMP Device" };
    static const char* const kPairTypes[] = { "SQL Server", "VMware", "Hyper-V" };
    for (const char* t : kKey1Types)
        if (strcmp(appType, t) == 0)
            return k1 ? strdup(k1) : nullptr;
    for (const char* t : kPairTypes) {
        if (strcmp(appType, t) == 0 && k1 && k2) {
            char* name = nullptr;
            return asprintf(&name, "%s|%s", k1, k2) < 0 ? nullptr : name;
        }
    }
    if (strcmp(appType, "System Metadata") == 0)
        return strdup(appType);
    return nullptr;  // "file-level" and unknown types have no name of their own
}

// 0 with *name (nullptr when the instance has no name), -1 when the lookup
// failed (logged).
int lookupInstanceName(uint64_t instance_id, char** name)
{
    const char* fn = "tqGetInstanceName";
    unsigned long id = static_cast<unsigned long>(instance_id);
    *name = nullptr;
    Result res(pgQuery(kInstanceName, id));
    if (pgStatus(res.get()) != 0) {
        log_printf(0, "%s:%d: %s: Could not retrieve name of instance_id %lu\n", __FILE__, __LINE__, fn, id);
        return -1;
    }
    if (pgTuples(res.get()) == 1) {
        auto key = [&](const char* column) -> const char* {
            const char* v = pgSVal(res.get(), 0, column);
            return v && *v && pgIsNull(res.get(), 0, column) == 0 ? v : nullptr;
        };
        const char* appType = pgSVal(res.get(), 0, "type");
        *name = instanceNameFor(appType ? appType : "", key("key1"), key("key2"));
    }
    log_printf(
        3, "%s:%d: %s: returning %s for instance_id %lu.\n", __FILE__, __LINE__, fn, *name ? *name : "(null)", id);
    return 0;
}

}  // namespace

int tqGetSynthesisGroup(uint64_t backup_no, int ignoreSyntheticDifferentials, int ignoreSyntheticMasters,
    uint32_t** list, int* count, char** text)
{
    const char* fn = "tqGetSynthesisGroup";
    NameStackScope scope(fn);
    if (list)
        *list = nullptr;
    if (count)
        *count = 0;
    if (text)
        *text = nullptr;
    int rc = synthesisGroup(fn, backup_no, ignoreSyntheticDifferentials, ignoreSyntheticMasters, list, count, text);
    if (rc != 0) {
        if (list) {
            free(*list);
            *list = nullptr;
        }
        if (count)
            *count = 0;
        if (text) {
            free(*text);
            *text = nullptr;
        }
    }
    return rc;
}

int tqGetRestoreGroupOptimized(uint64_t backup_no, restoreGroupEntry** list, size_t* count)
{
    const char* fn = "tqGetRestoreGroupOptimized";
    NameStackScope scope(fn);
    if (list == nullptr || count == nullptr)
        return fail(fn, __LINE__, "List and count parameters cannot be null.");
    *list = nullptr;
    *count = 0;
    return restoreGroup(fn, backup_no, list, count);
}

int tq_is_backup_encrypted(uint64_t backup_no, unsigned char* encrypted)
{
    const char* fn = "tq_is_backup_encrypted";
    if (encrypted == nullptr)
        return fail(fn, __LINE__, "Invalid input to function");
    int bn = static_cast<int>(backup_no);
    Result res(pgQuery(kIsEncrypted, kEncryptedProperty, bn));
    if (pgStatus(res.get()) != 0)
        return fail(fn, __LINE__, "Failed executing encrypted status query\n");
    if (pgTuples(res.get()) != 1)
        return fail(fn, __LINE__, "Backup number %d not found\n", bn);
    *encrypted = static_cast<unsigned char>(pgBoolVal(res.get(), 0, "encrypted"));
    return 0;
}

char* tqGetInstanceName(uint64_t instance_id)
{
    char* name = nullptr;
    lookupInstanceName(instance_id, &name);
    return name;
}

int columnExists(const char* table, const char* column)
{
    const char* fn = "columnExists";
    int known = pgCECget(table, column);
    if (known >= 0)
        return known;
    Result res(pgQuery(kColumnExists, table, column));
    if (pgStatus(res.get()) != 0 || pgTuples(res.get()) != 1) {
        log_printf(0, "%s:%d: Failed to determine if the %s table has column %s.", __FILE__, __LINE__, table, column);
        return -1;
    }
    int exists = pgLongVal(res.get(), 0, "count") > 0 ? 1 : 0;
    log_printf(5, "%s:%d: %s: The %s table %s the %s column.\n", __FILE__, __LINE__, fn, table,
        exists ? "has" : "does not have", column);
    pgCECset(table, column, exists);
    return exists;
}
