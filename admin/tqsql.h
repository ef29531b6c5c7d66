// tqsql: the backup group lookups of the appliance's administration library
// (which backups a restore of a backup needs, in restore order), the
// encrypted test, instance names, the column-exists test, the last-error
// text the management interface shows, and the family tests by type.
//
// Every refusal or failure returns -1 (outputs cleared), sets the last error
// to its text and logs "<file>:<line>: <function>: Error: <text>" at level 0.
#pragma once

#include <cstddef>
#include <cstdint>

// One member of a restore group. The array is allocated by
// tqGetRestoreGroupOptimized and freed by the caller with free().
struct restoreGroupEntry {
    uint32_t backup_no;
    uint32_t node_no;
    uint32_t status;       // job status code: 0, 1 (exit code 50) or 2 (failed / not a job success)
    uint32_t type;         // job type code: the member's type (its sql_type for a SQL file group)
    uint32_t start_time;
    uint32_t app_id;
    char app_name[48];
    uint32_t instance_id;
    char instance_name[128];
};

// The synthesis group of a backup of type 1-3, 12-14, 1031-1033 or
// 4098-4100: the newest full, the newest differential after it, and the
// incrementals behind that, up to the backup, ascending. The flags leave out
// synthetic (property 2048) differentials or masters. Outputs, each may be
// nullptr: `list` (malloc'ed, filled only when `count` is given too),
// `count`, and `text`, the numbers joined by "," (malloc'ed). The caller
// frees both. 0; -1 with outputs cleared for a refused or unknown backup or
// a failed query. With synthetic masters ignored an empty group is no
// failure.
int tqGetSynthesisGroup(uint64_t backup_no, int ignoreSyntheticDifferentials, int ignoreSyntheticMasters,
                        uint32_t** list, int* count, char** text);

// The restore group of any backup, in restore order (itself last). `list`
// (malloc'ed, the caller frees) and `count` are required. 0; -1 with outputs
// cleared for SDS, purged, active or (except types 1, 2, 4) failed backups,
// an unknown type, a missing backup or a failed query.
int tqGetRestoreGroupOptimized(uint64_t backup_no, restoreGroupEntry** list, size_t* count);

// *encrypted = 1 when the backup's properties have 0x100. 0 or -1.
int tq_is_backup_encrypted(uint64_t backup_no, unsigned char* encrypted);

// The display name of an application instance (by its application's type:
// key1, "key1|key2", or "System Metadata"), malloc'ed; nullptr when the
// instance has no name of its own (file level), a key is missing, or the
// lookup failed (logged).
char* tqGetInstanceName(uint64_t instance_id);

// Whether tq.<table> has <column>: 1, 0, or -1 when the catalog query
// failed. Answers are kept in the connection's column-exists cache.
int columnExists(const char* table, const char* column);

// The last error text, process-wide. tqSetLastError formats a new one (the
// text "(null)" for a null format); tqGetLastError returns it, owned by the
// library, "" before the first error.
void tqSetLastError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
const char* tqGetLastError();

// Full backup types, which stand alone in the queue.
constexpr bool tqIsFullType(int type)
{
    switch (type) {
    case 1: case 5: case 9: case 12: case 1024: case 1031: case 1034: case 1036: case 1038: case 1039: case 4098:
        return true;
    default:
        return false;
    }
}

// Families by type range: full, differential, incremental.
constexpr bool tqIsExchangeType(int type) { return type >= 5 && type <= 7; }
constexpr bool tqIsSqlServerType(int type) { return type >= 9 && type <= 11; }
constexpr bool tqIsVMwareType(int type) { return type >= 12 && type <= 14; }
constexpr bool tqIsHyperVType(int type) { return type >= 1031 && type <= 1033; }
constexpr bool tqIsNdmpType(int type) { return type >= 4098 && type <= 4100; }
// Two-member families and the UCS service profile family (1039, 4096, 4097).
constexpr bool tqIsOracleType(int type) { return type == 1034 || type == 1035; }
constexpr bool tqIsSharePointType(int type) { return type == 1036 || type == 1037; }
constexpr bool tqIsUcsType(int type) { return type == 1039 || type == 4096 || type == 4097; }
