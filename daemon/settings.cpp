// settings: reload of the daemon's settings record from master.ini by its
// time stamp, and the readers of the keys looked up when needed.
#include "daemon/settings.h"

#include "daemon/blockOut.h"
#include "daemon/common.h"
#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>

RestIdleSettings g_restIdle;

namespace {

constexpr const char* kReplication = "Replication";
constexpr const char* kTidewire = "tidewire";
constexpr const char* kDebugging = "debugging";
constexpr const char* kProgramKey = "ferryd";
constexpr const char* kConfigurationOptions = "Configuration Options";

// The byte that a BlockOutPeriods value of 4095 characters or more reaches:
// the value is refused when it is set after the read, no length is compared.
constexpr size_t kBlockOutSentinel = sizeof(ReplicationSettings::BlockOutPeriods) - 2;

const char* masterIni()
{
    return g_master_ini.c_str();
}

int readInt(const char* key, int dflt)
{
    return ini_get_int(kReplication, key, dflt, masterIni());
}

bool readBool(const char* section, const char* key, bool dflt)
{
    unsigned char value = dflt ? 1 : 0;
    ini_get_bool(section, key, value, &value, masterIni());
    return value != 0;
}

// True when master.ini's time stamp is strictly newer than the last reload's,
// which it then becomes. A file that cannot be stat'ed is not newer.
bool masterIniChanged()
{
    // Said once when master.ini stops being readable, not at every pass.
    static bool unreadableReported = false;
    struct stat st {};
    if (stat(masterIni(), &st) != 0 || !S_ISREG(st.st_mode)) {
        if (!unreadableReported)
            log_printf(0, "%s:%d: Cannot read %s (%s); settings stay as they are\n", __FILE__, __LINE__,
                       masterIni(), S_ISDIR(st.st_mode) ? "not a file" : strerror(errno));
        unreadableReported = true;
        return false;
    }
    unreadableReported = false;
    if (st.st_mtime <= g_daemon.iniModTime)
        return false;
    g_daemon.iniModTime = static_cast<int32_t>(st.st_mtime);
    return true;
}

// The command-line value of MaxConcurrent. The enable rule may leave 0 in
// the record, so the record alone would lose a "-o" value for good once
// replication was off for a pass; this keeps it for the passes after.
struct MaxConcurrentMemory {
    int32_t leftInRecord = INT32_MIN;  // what the last reload stored
    int32_t commandLine = 0;
};
MaxConcurrentMemory g_maxConcurrent;

int32_t configuredMaxConcurrent()
{
    if (!overridden(OVR_MAXCONCURRENT))
        return readInt("MaxConcurrent", 5);
    // Anything but our own last write was put there from outside (the
    // command line, or "util replicate").
    if (g_settings.MaxConcurrent != g_maxConcurrent.leftInRecord)
        g_maxConcurrent.commandLine = g_settings.MaxConcurrent;
    return g_maxConcurrent.commandLine;
}

// Keys with an override bit: a set bit keeps the command-line value.
void readOverridableKeys()
{
    if (!overridden(OVR_SYNCTO))
        ini_get_string(kReplication, "SyncTo", "vault", g_settings.SyncTo, sizeof g_settings.SyncTo, masterIni());
    if (!overridden(OVR_TIMEDELAY))
        g_settings.TimeDelay = readInt("TimeDelay", 60);
    if (!overridden(OVR_THROTTLE))
        g_settings.Throttle = readInt("Throttle", 1);
    if (!overridden(OVR_VERIFY)) {
        g_settings.verifyCount = 0;
        g_settings.verifyCount += readInt("VerifyOnGet", 0);
        g_settings.verifyCount += readInt("VerifyOnPut", 1);
    }
    if (!overridden(OVR_RECORDRETENTION))
        g_settings.RecordRetention = readInt("RecordRetention", 1);
    // Read as 32 bits and widened with sign.
    if (!overridden(OVR_MAXBLOCKS))
        g_settings.MaxBlocks = static_cast<int64_t>(readInt("MaxBlocks", 10485760));
    if (!overridden(OVR_METASIZE))
        g_settings.MetaSize = readInt("MetaSize", 1024);
    if (!overridden(OVR_CLUSTER))
        g_settings.Cluster = readInt("Cluster", 1);
    if (!overridden(OVR_QUEUESCHEME))
        g_settings.QueueScheme = readInt("QueueScheme", 0);
}

// The daemon works only while replication is on and the older tidewire
// feature is off; this comes after the command line, so "-o" does not beat it.
void applyEnableRule(int32_t configured)
{
    bool enabled = readBool(kReplication, "Enabled", false);
    bool autoSync = readBool(kTidewire, "AutoSyncEnabled", false);
    g_settings.MaxConcurrent = (enabled && !autoSync) ? configured : 0;
    g_maxConcurrent.leftInRecord = g_settings.MaxConcurrent;
}

void readBlockOutPeriods()
{
    char* text = g_settings.BlockOutPeriods;
    if (g_settings.MaxConcurrent != 0) {
        text[kBlockOutSentinel] = '\0';
        ini_get_string(kReplication, "BlockOutPeriods", "", text, sizeof g_settings.BlockOutPeriods, masterIni());
        if (text[kBlockOutSentinel] != '\0') {
            log_printf(0, "%s:%d: WARNING: The variable 'BlockOutPeriods' in file %s\n         is too long. Ignored.\n",
                       __FILE__, __LINE__, masterIni());
            memset(text, 0, sizeof g_settings.BlockOutPeriods);
        }
    }
    // On failure the parser has already left the table unlimited.
    if (parseBlockOutPeriods(text) < 0)
        log_printf(0, "%s:%d: WARNING: The variable 'BlockOutPeriods' in file %s\n         is invalid. Ignored.\n",
                   __FILE__, __LINE__, masterIni());
}

void reloadRecord()
{
    int32_t configured = configuredMaxConcurrent();
    readOverridableKeys();

    log_printf(3, "%s:%d: queue scheme: %d", __FILE__, __LINE__, g_settings.QueueScheme);
    g_settings.RetryCount = readInt("RetryCount", 3);
    g_settings.debugLevel = ini_get_int(kDebugging, kProgramKey, 0, masterIni());
    g_settings.Checkpoint = readBool(kReplication, "Checkpoint", false);
    if (g_settings.Checkpoint)
        log_printf(3, "%s:%d: Using checkpoint system", __FILE__, __LINE__);
    else
        log_printf(3, "%s:%d: Not using checkpoint system", __FILE__, __LINE__);

    applyEnableRule(configured);
    if (g_settings.SyncTo[0] == '\0')
        g_settings.QueueScheme = 0;  // no default target: nothing is queued by itself

    g_settings.LocalBlockElimination = readBool(kReplication, "LocalBlockElimination", true);
    g_settings.BlockEliminationType = readInt("BlockEliminationType", 2);
    g_settings.BlockEliminationCandidate = readInt("BlockEliminationCandidate", 2);

    readBlockOutPeriods();
}

// Read on every call, with the current values as defaults, so a change takes
// effect within one pass without a new time stamp.
void readRestIdle()
{
    g_restIdle.RESTidleTimeoutEnabled =
        readBool(kReplication, "RESTidleTimeoutEnabled", g_restIdle.RESTidleTimeoutEnabled);
    g_restIdle.RESTidleTimeout = readInt("RESTidleTimeout", g_restIdle.RESTidleTimeout);
    if (g_restIdle.RESTidleTimeoutEnabled && g_restIdle.RESTidleTimeout >= 1)
        log_printf(4, "%s:%d: rest idle timeout seconds %d", __FILE__, __LINE__, g_restIdle.RESTidleTimeout);
}

} // namespace

void readSettings()
{
    if (masterIniChanged())
        reloadRecord();
    readRestIdle();
}

int iniTimeDelay()
{
    return readInt("TimeDelay", 5);
}

int iniCheckInterval(int dflt)
{
    return readInt("CheckInterval", dflt);
}

int iniCheckTimeout()
{
    return readInt("CheckTimeout", 10000);
}

int iniInvalidUUIDcheckRetryCount()
{
    return readInt("invalidUUIDcheckRetryCount", 5);
}

int iniThreadedSendBlocks()
{
    return readInt("ThreadedSendBlocks", 1);
}

int iniReadThreadCount()
{
    int count = readInt("ReadThreadCount", 1);
    if (count != 1) {
        log_printf(0,
                   "%s:%d: ReadThreadCount set to unexpected value:%d, only 1 is supported at this time. Setting "
                   "internal ReadThreadCount=1",
                   __FILE__, __LINE__, count);
        count = 1;
    }
    return count;
}

int iniSendThreadCount()
{
    int count = readInt("SendThreadCount", 2);
    if (count < 1) {
        log_printf(0, "%s:%d: SendThreadCount set to unexpected value:%d, must be >=1. Setting internal SendThreadCount=1",
                   __FILE__, __LINE__, count);
        count = 1;
    }
    return count;
}

int iniThreadBufferCount(int readThreads, int sendThreads)
{
    int threads = readThreads + sendThreads;
    int count = readInt("ThreadBufferCount", -1);
    if (count == -1) {
        count = threads + 1;
        log_printf(0, "%s:%d: Using default ThreadBufferCount=%d", __FILE__, __LINE__, count);
    } else if (count < threads) {
        log_printf(0, "%s:%d: Unadvised buffer count:%d setting to: %d", __FILE__, __LINE__, count, threads);
        count = threads;
    }
    return count;
}

int iniMetaThreadTimeoutSeconds()
{
    return readInt("MetaThreadTimeoutSeconds", 60);
}

int iniSaveHarco()
{
    return readInt("SaveHarco", 0);
}

int iniRequireChecksum()
{
    return readInt("RequireChecksum", 0);
}

int iniFailCheckStatus()
{
    return readInt("failCheckStatus", 0);
}

int iniDefaultTapeDevice()
{
    return ini_get_int(kConfigurationOptions, "DefaultTapeDevice", 1, masterIni());
}
