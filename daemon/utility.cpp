// utility: the dispatcher of `ferryd util` commands, its usage text, and the
// commands that act on the replication queue.
//
// A command is one row of kCommands: its word, how many arguments it takes,
// and its handler. A handler gets the command's own arguments (argv[3] on)
// and returns the program's exit status.
#include "daemon/utility.h"

#include "daemon/replicationQueue.h"
#include "foundation/environment.h"
#include "foundation/logger.h"
#include "foundation/pghelper.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Each line of the usage text, printed with one line end. The two lines with
// a "%d" are formats for the status value they name (kUsageValues).
constexpr const char* kUsageLines[] = {
    "Usage:",
    "ferryd util <command> [args]",
    "\tferryd util createqueue",
    "\t\tCreate tq.replication_queue",
    "\tferryd util createtypes",
    "\t\tcreate types in tq.operation_names",
    "\tferryd util enqueue <backup_no> <vault>",
    "\t\tAdds backup (and all it depends on) to queue",
    "\tferryd util complete <backup_no> <vault>",
    "\t\tMark backup:vault entry as complete",
    "\tferryd util remove <backup_no> <vault>",
    "\t\tRemove backup:vault from queue",
    "\tferryd util peek <offset>",
    "\t\tDisplay backup at position offset",
    "\tferryd util swap <backup_no> <vault> <backup_no> <vault>",
    "\t\tSwap two entries in the queue",
    "\tferryd util cleanup <backup_no> <vault>",
    "\t\tMark backup:vault for termination and cleanup",
    "\tferryd util count <backup_no>",
    "\t\tList the number of distinct blocks followed by total blocks",
    "\tferryd util list <backup_no> <distinct value [0|1]>",
    "\t\tList the blocks in the backup (in 4tuple format).",
    "\t\tThe distinct flag determines if duplicate blocks are printed",
    "\tferryd util lbe <backup_no> <lbe type [0-4]>",
    "\t\tList the blocks in the backup (in 3tuple format).",
    "\t\tThe lbe type determines what type of lbe to perform",
    "\t\tNote: does not check any target for existance of backup",
    "\t\tLBE Types(only considers sync_done backups):",
    "\t\t\t0: none ",
    "\t\t\t1: last master",
    "\t\t\t2: last group",
    "\t\t\t3: all in same instance",
    "\t\t\t4: all marked sync_done",
    "\tferryd util block <3tuple>",
    "\t\tReads and dumps the output of the block to stdout",
    "\tferryd util export-ubi <backup_no>",
    "\t\tDumps the Universal Backup Identifier (UBI) for backup_no",
    "\tferryd util check-ubi <UBI string> <target(optional)>",
    "\t\tChecks the target for the backup number and status of the backup",
    "\t\twhich matches the UBI string provided. Performs a local check if",
    "\t\tno target is provided",
    "\tferryd util export-metadata <backup_no>",
    "\t\tDumps the metadata (blob) for backup_no",
    "\tferryd util import-metadata <path to metadata file>",
    "\t\timports the metadata found in the file path to the current system",
    "\tferryd util replicate <backup_no> <target>",
    "\t\tReplicate single backup with settings from master.ini",
    "\tferryd util tuple-hash <3tuple> <offset> <output length>",
    "\t\tOutput the hash described by the 3tuple and offset",
    "\t\tThis hash is used for vaultServer locking when forking is enabled",
    "\tferryd util start-backup <vault> <backup_no>",
    "\t\tInitiates the first step of a replication",
    "\tferryd util fix-paused-instance <vault> <backup_no>",
    "\t\tFor an instance that is paused resolve the issue causing it to be paused.",
    "\t\tREPLICATION_OUT_OF_ORDER (%d):",
    "\t\t Initiates the first step of a replication to resolve a failure from an out of order backup.",
    "\t\t WARNING: This will cause backups on target to be marked FAILED and deletes out of order",
    "\t\t  backups on the replication_queue.  The replication_queue status for <backup_no> will be",
    "\t\t  set to REPLICATION_NEEDED when complete.  Target must have \"allowCleanupOutOfOrderBackups\"",
    "\t\t  set to True in the \"Replication\" section of the master.ini file to allow cleanup.",
    "\t\tREPLICATION_NEED_ASSIST (%d):",
    "\t\t TBD - not implemented.",
    "\tferryd util post-check-offset <vault> <target backup_no> <3tuple> <offset> <3tuple> <offset> ...",
    "\t\tAsks the target about a set of blocks. For each block, a reference is made on the target.",
    "\tferryd util put-block <vault> <target backup_no> <bufferSize> <3tuple> <offset> <3tuple> <offset> ...",
    "\t\tRead and send blocks to the target",
    "\tferryd util send-harco <vault> <local backup_no> <target backup_no>",
    "\t\tCreate and send a harco to the target",
    "\tferryd util cancel-backup <vault> <local backup_no>",
    "\t\tFail a backup on the target based on local backup_no",
    "\tferryd util cancel-ubi <vault> <UBI>",
    "\t\tFail a backup on the target from a given UBI.",
    "\tferryd util list-backup-status <vault>",
    "\t\tDisplay status of replicated backups on source and target to stdout",
    "\t\tCreate CSV output to /tmp/replicationResult.csv.",
    "\t\tNote that the csv file will be overwritten if it already exists.",
};

struct UsageValue {
    const char* line;
    int value;
};
constexpr UsageValue kUsageValues[] = {
    { "\t\tREPLICATION_OUT_OF_ORDER (%d):", REPLICATION_OUT_OF_ORDER },
    { "\t\tREPLICATION_NEED_ASSIST (%d):", REPLICATION_NEED_ASSIST },
};

constexpr const char* kUtilLogName = "ferryd-util";
// The queue's buffers hold a vault name of 63 characters and its terminator.
constexpr size_t kMaxVaultName = 63;

// The operation names a worker reports progress under (tq.operation_names).
constexpr const char* kInsertOperationNameSql = "INSERT INTO tq.operation_names VALUES (%d,'%s');";
struct OperationName {
    int id;
    const char* name;
};
constexpr OperationName kOperationNames[] = { { 6, "prepare" }, { 7, "replicate" }, { 8, "wait" }, { 9, "rebuild" } };

// ---- argument checks: a clear log line and no action on bad input ----

bool parseBackupNumber(const char* text, uint64_t* out)
{
    char* end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || value == 0) {
        log_printf(0, "%s:%d: Invalid backup number '%s'; nothing done\n", __FILE__, __LINE__, text);
        return false;
    }
    *out = value;
    return true;
}

bool checkVault(const char* vault)
{
    size_t len = strlen(vault);
    if (len == 0 || len > kMaxVaultName) {
        log_printf(0, "%s:%d: Invalid vault name '%s': it must have 1 to %zu characters; nothing done\n", __FILE__,
            __LINE__, vault, kMaxVaultName);
        return false;
    }
    return true;
}

// A backup number and a vault, as most queue commands take them.
bool parseEntry(char* const* args, uint64_t* backup)
{
    return parseBackupNumber(args[0], backup) && checkVault(args[1]);
}

int addOperationNames()
{
    for (const OperationName& op : kOperationNames) {
        pgResult* res = pgVExec(kInsertOperationNameSql, op.id, op.name);
        int status = pgStatus(res);
        pgClear(res);
        if (status != 0) {
            log_printf(0, "%s:%d: Failed", __FILE__, __LINE__);
            return -1;
        }
    }
    log_printf(6, "%s:%d: SUCCESS!\n", __FILE__, __LINE__);
    return 0;
}

// ---- queue commands ----

int cmdCreateQueue(int, char* const*)
{
    log_printf(0, "%s:%d: Creating tq.replication_queue", __FILE__, __LINE__);
    int ret = create_replication_queue();
    log_printf(0, "%s:%d: create_replication_queue ret = %d", __FILE__, __LINE__, ret);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdCreateTypes(int, char* const*)
{
    log_printf(0, "%s:%d: adding types to tq.operation_names", __FILE__, __LINE__);
    int ret = addOperationNames();
    log_printf(0, "%s:%d: add_operation_names ret = %d", __FILE__, __LINE__, ret);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdEnqueue(int, char* const* args)
{
    log_printf(0, "%s:%d: Enqueue backup: %s to: %s\n", __FILE__, __LINE__, args[0], args[1]);
    uint64_t backup = 0;
    if (!parseEntry(args, &backup))
        return -1;
    int ret = enqueue(backup, args[1]);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdComplete(int, char* const* args)
{
    log_printf(0, "%s:%d: Mark %s:%s complete in queue", __FILE__, __LINE__, args[0], args[1]);
    uint64_t backup = 0;
    if (!parseEntry(args, &backup))
        return -1;
    int ret = completeEntry(backup, args[1]);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdRemove(int, char* const* args)
{
    log_printf(0, "%s:%d: Remove %s:%s from queue", __FILE__, __LINE__, args[0], args[1]);
    uint64_t backup = 0;
    if (!parseEntry(args, &backup))
        return -1;
    int ret = removeEntry(backup, args[1]);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdPeek(int, char* const* args)
{
    log_printf(0, "%s:%d: Peek at offset %s", __FILE__, __LINE__, args[0]);
    char* end = nullptr;
    errno = 0;
    long offset = strtol(args[0], &end, 10);
    if (args[0][0] == '\0' || *end != '\0' || errno != 0 || offset < 0 || offset > INT32_MAX) {
        log_printf(0, "%s:%d: Invalid offset '%s'; nothing done\n", __FILE__, __LINE__, args[0]);
        return -1;
    }
    // The number is printed and returned as an int: the exit status keeps
    // only its low byte, stdout has it whole for backups below 2^31.
    int backup = static_cast<int>(peek(static_cast<int>(offset)));
    log_printf(0, "%s:%d: backup_no:%d", __FILE__, __LINE__, backup);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    printf("%d", backup);
    return backup;
}

int cmdSwap(int, char* const* args)
{
    log_printf(0, "%s:%d: Swap %s %s with %s %s", __FILE__, __LINE__, args[0], args[1], args[2], args[3]);
    uint64_t first = 0, second = 0;
    if (!parseEntry(args, &first) || !parseEntry(args + 2, &second))
        return -1;
    int ret = swap_rq(first, args[1], second, args[3]);
    log_printf(0, "%s:%d: swap_rq ret = %d", __FILE__, __LINE__, ret);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

int cmdCleanup(int, char* const* args)
{
    log_printf(0, "%s:%d: Cleanup %s:%s from queue", __FILE__, __LINE__, args[0], args[1]);
    uint64_t backup = 0;
    if (!parseEntry(args, &backup))
        return -1;
    int ret = markForCleanup(backup, args[1]);
    log_printf(0, "%s:%d: Done\n", __FILE__, __LINE__);
    return ret;
}

// ---- the table ----

using UtilityHandler = int (*)(int argc, char* const* args);
constexpr int kNoLimit = -1;

// minArgs/maxArgs bound the command's own arguments; {0, kNoLimit} is a
// command whose arguments are not checked.
struct UtilityCommand {
    const char* name;
    int minArgs;
    int maxArgs;
    UtilityHandler run;
};

constexpr UtilityCommand kCommands[] = {
    { "createqueue", 0, kNoLimit, cmdCreateQueue },
    { "createtypes", 0, kNoLimit, cmdCreateTypes },
    { "enqueue", 2, 2, cmdEnqueue },
    { "complete", 2, 2, cmdComplete },
    { "remove", 2, 2, cmdRemove },
    { "peek", 1, 1, cmdPeek },
    { "swap", 4, 4, cmdSwap },
    { "cleanup", 2, 2, cmdCleanup },
};

const UtilityCommand* findCommand(const char* word)
{
    for (const UtilityCommand& cmd : kCommands)
        if (strcmp(cmd.name, word) == 0)
            return &cmd;
    return nullptr;
}

bool argumentCountFits(const UtilityCommand& cmd, int count)
{
    return count >= cmd.minArgs && (cmd.maxArgs == kNoLimit || count <= cmd.maxArgs);
}

// The daemon's own start, under the utility's log name.
void openUtilityLog(const char* argv0)
{
    app_name_from_argv(ghAppName, sizeof ghAppName, argv0);
    init_state();
    open_program_log(kUtilLogName, 1);
    log_printf(0, "%s:%d: Entering utility mode\n", __FILE__, __LINE__);
}

}  // namespace

void printUtilityUsage()
{
    for (const char* line : kUsageLines) {
        const UsageValue* format = nullptr;
        for (const UsageValue& v : kUsageValues)
            if (strcmp(v.line, line) == 0)
                format = &v;
        if (format != nullptr)
            printf(format->line, format->value);
        else
            fputs(line, stdout);
        fputc('\n', stdout);
    }
    fflush(stdout);
}

int utilityMain(int argc, char** argv)
{
    openUtilityLog(argv[0]);
    if (argc < 3) {
        printUtilityUsage();
        return 0;
    }
    const UtilityCommand* cmd = findCommand(argv[2]);
    if (cmd == nullptr)
        return 0;  // unknown commands are silent by design: scripts probe with them
    int count = argc - 3;
    if (!argumentCountFits(*cmd, count)) {
        printUtilityUsage();
        return 0;
    }
    int ret = cmd->run(count, argv + 3);
    fflush(stdout);
    return ret;
}
