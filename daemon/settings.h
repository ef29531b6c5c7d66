// settings: the daemon's tuning from master.ini. readSettings refreshes the
// process-wide record (g_settings) when the file's time stamp grows; the ini*
// accessors read the keys that are looked up at the moment they are needed.
#pragma once

#include <cstdint>

// The request watchdog's settings, read on every readSettings call whether
// or not master.ini changed. The HTTP layer reads them from here.
struct RestIdleSettings {
    bool RESTidleTimeoutEnabled = false;
    int32_t RESTidleTimeout = 2700;  // seconds; the watchdog runs only at 1 or more
};
extern RestIdleSettings g_restIdle;

// Once per pass of the main loop, and once by "util replicate". When
// master.ini (g_master_ini) is strictly newer than g_daemon.iniModTime, takes
// its time and reloads every field of g_settings from section "Replication"
// (debugLevel from "debugging"/"ferryd"), leaving fields whose override bit
// is set at their command-line value. Then MaxConcurrent is forced to 0
// unless Enabled is true and AutoSyncEnabled ("tidewire") is false, an empty
// SyncTo forces QueueScheme 0, and BlockOutPeriods is read (only while
// MaxConcurrent is not 0) and published to this thread's bandwidth table.
// A master.ini that cannot be stat'ed counts as unchanged. Always refreshes
// g_restIdle. Logs "queue scheme: %d" (3), "Using checkpoint system" / "Not
// using checkpoint system" (3), the BlockOutPeriods warnings (0) and "rest
// idle timeout seconds %d" (4).
void readSettings();

// Keys read when needed. Each reads master.ini afresh (section "Replication"
// unless said otherwise) and returns the value, or its default when the key
// is missing. For one thread at a time, like all INI reading.

// TimeDelay as the worker re-reads it after a failed first check: default 5.
int iniTimeDelay();

// Pause of the polling loops: default kCheckIntervalHashLock while waiting
// for a hash lock, kCheckIntervalPoll in every other wait.
constexpr int kCheckIntervalHashLock = 10;
constexpr int kCheckIntervalPoll = 5;
int iniCheckInterval(int dflt);

// Seconds in "wait" before the progress record becomes "no_activity"; 10000.
int iniCheckTimeout();

// Polls in a row that may fail to confirm the backup on the target; 5.
int iniInvalidUUIDcheckRetryCount();

// 1 (default): threaded send; anything else: single-threaded send.
int iniThreadedSendBlocks();

// The send pipeline's thread and buffer counts, already corrected: a
// ReadThreadCount other than 1 logs "ReadThreadCount set to unexpected
// value:%d, only 1 is supported at this time. Setting internal
// ReadThreadCount=1" and gives 1; a SendThreadCount below 1 (default 2) logs
// "SendThreadCount set to unexpected value:%d, must be >=1. Setting internal
// SendThreadCount=1" and gives 1. ThreadBufferCount -1 (default) gives
// readThreads + sendThreads + 1, logged "Using default ThreadBufferCount=%d";
// fewer than readThreads + sendThreads logs "Unadvised buffer count:%d
// setting to: %d" and gives that sum. Messages at level 0.
int iniReadThreadCount();
int iniSendThreadCount();
int iniThreadBufferCount(int readThreads, int sendThreads);

// Time limit in seconds of the pipeline's timed waits; 60.
int iniMetaThreadTimeoutSeconds();

// Non-zero keeps the local harco file after the target has finished; 0.
int iniSaveHarco();

// 1: backup-check responses must carry a valid checksum; 0.
int iniRequireChecksum();

// Non-zero makes the local status lookup of "util check-ubi" fail; 0.
int iniFailCheckStatus();

// Device number for "util import-metadata", section "Configuration
// Options"; 1.
int iniDefaultTapeDevice();
