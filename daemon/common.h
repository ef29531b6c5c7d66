// common: the daemon's process-wide records. One copy per process; a forked
// worker carries the parent's values as they stood at the fork.
#pragma once

#include <csignal>
#include <cstdint>
#include <list>

// Bits of DaemonState::overrideMask: a set bit means the command line fixed
// the setting and readSettings must not overwrite it.
enum OverrideBit : unsigned {
    OVR_SYNCTO = 0,
    OVR_TIMEDELAY = 1,
    OVR_THROTTLE = 2,
    OVR_VERIFY = 3,
    OVR_MAXCONCURRENT = 4,
    OVR_RECORDRETENTION = 5,
    OVR_MAXBLOCKS = 6,
    OVR_METASIZE = 7,
    OVR_CLUSTER = 8,
    OVR_QUEUESCHEME = 9,
};

// One live worker of the parent. The list is touched only with SIGCHLD blocked.
struct WorkerRecord {
    pid_t pid;
    uint32_t backup_no;
    char vault[64];
};

struct DaemonState {
    uint16_t overrideMask = 0;
    uint16_t logToStderr = 0;
    int32_t iniModTime = 0;  // 0 at start, so the first pass always reloads
    volatile sig_atomic_t cleanupPending = 0;
    volatile sig_atomic_t childExited = 0;
    int32_t isWorker = 0;
    char pidFilePath[256] = "";
    int bandwidthTableId = -1;
    std::list<WorkerRecord> workers;
    uint64_t totalBytesSent = 0;
    bool checkpointing = false;
};

// The settings of section "Replication" that the daemon keeps, refreshed by
// readSettings when master.ini's time stamp grows. Fields carry their
// built-in defaults until the first reload.
struct ReplicationSettings {
    // A vault name is at most 64 characters; one more byte holds the
    // terminator so that a name of the full length is kept whole.
    char SyncTo[65] = "vault";
    int32_t TimeDelay = 60;
    int32_t Throttle = 1;
    int32_t verifyCount = 1;  // VerifyOnGet + VerifyOnPut
    int32_t MaxConcurrent = 5;
    int32_t RecordRetention = 1;
    int64_t MaxBlocks = 10485760;
    int32_t MetaSize = 1024;
    int32_t Cluster = 1;
    int32_t QueueScheme = 0;
    int32_t RetryCount = 3;
    bool Checkpoint = false;
    bool LocalBlockElimination = true;
    int32_t BlockEliminationType = 2;
    int32_t BlockEliminationCandidate = 2;
    char BlockOutPeriods[4096] = "";
    int32_t debugLevel = 0;
};

extern DaemonState g_daemon;
extern ReplicationSettings g_settings;

inline bool overridden(OverrideBit bit)
{
    return (g_daemon.overrideMask >> bit) & 1u;
}
inline void setOverride(OverrideBit bit)
{
    g_daemon.overrideMask = static_cast<uint16_t>(g_daemon.overrideMask | (1u << bit));
}

// Blocks SIGCHLD for the life of the object and restores the previous mask.
// Failures log "can't block SIGCHLD" / "sigprocmask(SIG_SETMASK,,)\n" and the
// work goes on.
class SigchldBlock {
public:
    SigchldBlock();
    ~SigchldBlock();
    SigchldBlock(const SigchldBlock&) = delete;
    SigchldBlock& operator=(const SigchldBlock&) = delete;

private:
    sigset_t saved_;
    bool blocked_ = false;
};
