// Settings reload: master.ini is read again only when its time stamp grows,
// command-line values survive, the enable rule and the BlockOutPeriods
// sentinel hold, and the keys read when needed give their defaults.
#include "daemon/settings.h"

#include "daemon/blockOut.h"
#include "daemon/common.h"
#include "foundation/environment.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/shm.h>
#include <sys/time.h>

namespace {

constexpr time_t kBaseTime = 1700000000;

class LogCapture {
public:
    LogCapture() : file_(tmpfile()), old_(swap_log_stream(file_)), savedLevel_(log_level) { log_level = 6; }
    ~LogCapture()
    {
        // With no log open before, later lines go to stderr.
        swap_log_stream(old_ != nullptr ? old_ : stderr);
        fclose(file_);
        log_level = savedLevel_;
    }
    std::string text()
    {
        fflush(file_);
        std::string out;
        rewind(file_);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, file_)) > 0)
            out.append(buf, n);
        return out;
    }
    bool has(const std::string& line) { return text().find(line) != std::string::npos; }

private:
    FILE* file_;
    FILE* old_;
    int savedLevel_;
};

// Every test starts as a freshly started daemon would: built-in defaults, no
// override, no reload yet, and a bandwidth table of its own.
class SettingsTest : public testing::Test {
protected:
    void SetUp() override
    {
        g_settings = ReplicationSettings{};
        g_daemon.overrideMask = 0;
        g_daemon.iniModTime = 0;
        g_restIdle = RestIdleSettings{};
        g_master_ini = root_.masterIni();
        ASSERT_EQ(createBandwidthTable(), 0);
    }
    void TearDown() override
    {
        detachBandwidthTable();
        g_master_ini.clear();
    }

    // Writes master.ini and gives it exactly the modification time `mtime`.
    void writeIni(const std::string& text, time_t mtime)
    {
        ferrytest::writeFile(root_.masterIni(), text);
        struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimes(root_.masterIni().c_str(), times), 0);
    }

    uint32_t slot(int index)
    {
        void* addr = shmat(getBandwidthTableId(), nullptr, SHM_RDONLY);
        if (addr == reinterpret_cast<void*>(-1))
            return 0;
        uint32_t value = static_cast<const uint32_t*>(addr)[index];
        shmdt(addr);
        return value;
    }

    ferrytest::ApplianceRoot root_;
};

const char* kEverySetting =
    "[Replication]\n"
    "SyncTo=vault2.example\n"
    "TimeDelay=17\n"
    "Throttle=4\n"
    "VerifyOnGet=2\n"
    "VerifyOnPut=5\n"
    "Enabled=true\n"
    "MaxConcurrent=3\n"
    "RecordRetention=9\n"
    "MaxBlocks=-2\n"
    "MetaSize=256\n"
    "Cluster=0\n"
    "QueueScheme=2\n"
    "RetryCount=7\n"
    "Checkpoint=yes\n"
    "LocalBlockElimination=false\n"
    "BlockEliminationType=4\n"
    "BlockEliminationCandidate=3\n"
    "BlockOutPeriods=9-17=1m\n"
    "[tidewire]\n"
    "AutoSyncEnabled=false\n"
    "[debugging]\n"
    "ferryd=3\n";

TEST_F(SettingsTest, FirstReloadReadsEveryKey)
{
    writeIni(kEverySetting, kBaseTime);
    LogCapture log;
    readSettings();
    EXPECT_STREQ(g_settings.SyncTo, "vault2.example");
    EXPECT_EQ(g_settings.TimeDelay, 17);
    EXPECT_EQ(g_settings.Throttle, 4);
    EXPECT_EQ(g_settings.verifyCount, 7);
    EXPECT_EQ(g_settings.MaxConcurrent, 3);
    EXPECT_EQ(g_settings.RecordRetention, 9);
    EXPECT_EQ(g_settings.MaxBlocks, -2) << "read as 32 bits and widened with sign";
    EXPECT_EQ(g_settings.MetaSize, 256);
    EXPECT_EQ(g_settings.Cluster, 0);
    EXPECT_EQ(g_settings.QueueScheme, 2);
    EXPECT_EQ(g_settings.RetryCount, 7);
    EXPECT_TRUE(g_settings.Checkpoint);
    EXPECT_FALSE(g_settings.LocalBlockElimination);
    EXPECT_EQ(g_settings.BlockEliminationType, 4);
    EXPECT_EQ(g_settings.BlockEliminationCandidate, 3);
    EXPECT_STREQ(g_settings.BlockOutPeriods, "9-17=1m");
    EXPECT_EQ(g_settings.debugLevel, 3);
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime);
    // The schedule reached the shared table: Sunday 10:00 limited, 18:00 not.
    EXPECT_EQ(slot(10), 1048576u);
    EXPECT_EQ(slot(18), kNoBandwidthLimit);
    EXPECT_TRUE(log.has("queue scheme: 2"));
    EXPECT_TRUE(log.has("Using checkpoint system"));
}

TEST_F(SettingsTest, MissingKeysTakeTheirDefaults)
{
    writeIni("[Replication]\nEnabled=1\n", kBaseTime);
    g_settings.MaxBlocks = 1;  // anything the reload must put back
    g_settings.RetryCount = 0;
    LogCapture log;
    readSettings();
    EXPECT_STREQ(g_settings.SyncTo, "vault");
    EXPECT_EQ(g_settings.TimeDelay, 60);
    EXPECT_EQ(g_settings.Throttle, 1);
    EXPECT_EQ(g_settings.verifyCount, 1);
    EXPECT_EQ(g_settings.MaxConcurrent, 5);
    EXPECT_EQ(g_settings.MaxBlocks, 10485760);
    EXPECT_EQ(g_settings.MetaSize, 1024);
    EXPECT_EQ(g_settings.Cluster, 1);
    EXPECT_EQ(g_settings.QueueScheme, 0);
    EXPECT_EQ(g_settings.RetryCount, 3);
    EXPECT_FALSE(g_settings.Checkpoint);
    EXPECT_TRUE(g_settings.LocalBlockElimination);
    EXPECT_EQ(g_settings.BlockEliminationType, 2);
    EXPECT_EQ(g_settings.BlockEliminationCandidate, 2);
    EXPECT_EQ(g_settings.debugLevel, 0);
    EXPECT_TRUE(log.has("Not using checkpoint system"));
}

TEST_F(SettingsTest, ReloadsOnlyWhenTheTimeStampGrows)
{
    writeIni("[Replication]\nTimeDelay=10\n", kBaseTime);
    readSettings();
    ASSERT_EQ(g_settings.TimeDelay, 10);

    // Rewritten within the same second: not seen.
    writeIni("[Replication]\nTimeDelay=20\n", kBaseTime);
    readSettings();
    EXPECT_EQ(g_settings.TimeDelay, 10);

    // An older time stamp is not newer either.
    writeIni("[Replication]\nTimeDelay=20\n", kBaseTime - 100);
    readSettings();
    EXPECT_EQ(g_settings.TimeDelay, 10);
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime);

    writeIni("[Replication]\nTimeDelay=20\n", kBaseTime + 1);
    readSettings();
    EXPECT_EQ(g_settings.TimeDelay, 20);
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime + 1);
}

TEST_F(SettingsTest, UnreadableMasterIniCountsAsUnchanged)
{
    g_master_ini = root_.initdir() + "/missing.ini";
    g_settings.TimeDelay = 42;
    readSettings();
    EXPECT_EQ(g_daemon.iniModTime, 0);
    EXPECT_EQ(g_settings.TimeDelay, 42);
    EXPECT_EQ(g_settings.MaxConcurrent, 5) << "nothing was reloaded, so nothing was forced";
}

TEST_F(SettingsTest, CommandLineValuesSurviveEveryReload)
{
    strcpy(g_settings.SyncTo, "cli-vault");
    g_settings.TimeDelay = 2;
    g_settings.Throttle = 8;
    g_settings.verifyCount = 0;
    g_settings.MaxConcurrent = 9;
    g_settings.RecordRetention = 6;
    g_settings.MaxBlocks = 1LL << 33;
    g_settings.MetaSize = 64;
    g_settings.Cluster = 0;
    g_settings.QueueScheme = 1;
    for (OverrideBit bit : {OVR_SYNCTO, OVR_TIMEDELAY, OVR_THROTTLE, OVR_VERIFY, OVR_MAXCONCURRENT,
                            OVR_RECORDRETENTION, OVR_MAXBLOCKS, OVR_METASIZE, OVR_CLUSTER, OVR_QUEUESCHEME})
        setOverride(bit);

    for (time_t t : {kBaseTime, kBaseTime + 1}) {
        writeIni(kEverySetting, t);
        readSettings();
        EXPECT_STREQ(g_settings.SyncTo, "cli-vault");
        EXPECT_EQ(g_settings.TimeDelay, 2);
        EXPECT_EQ(g_settings.Throttle, 8);
        EXPECT_EQ(g_settings.verifyCount, 0);
        EXPECT_EQ(g_settings.MaxConcurrent, 9);
        EXPECT_EQ(g_settings.RecordRetention, 6);
        EXPECT_EQ(g_settings.MaxBlocks, 1LL << 33);
        EXPECT_EQ(g_settings.MetaSize, 64);
        EXPECT_EQ(g_settings.Cluster, 0);
        EXPECT_EQ(g_settings.QueueScheme, 1);
        // Keys without a bit follow the file.
        EXPECT_EQ(g_settings.RetryCount, 7);
        EXPECT_EQ(g_settings.BlockEliminationType, 4);
    }
}

TEST_F(SettingsTest, WorkOnlyWhileEnabledAndTidewireOff)
{
    struct Case {
        const char* text;
        int maxConcurrent;
    };
    time_t t = kBaseTime;
    for (const Case& c : {Case{"[Replication]\nMaxConcurrent=4\n", 0},
                          Case{"[Replication]\nMaxConcurrent=4\nEnabled=false\n", 0},
                          Case{"[Replication]\nMaxConcurrent=4\nEnabled=true\n[tidewire]\nAutoSyncEnabled=true\n", 0},
                          Case{"[Replication]\nMaxConcurrent=4\nEnabled=true\n[tidewire]\nAutoSyncEnabled=no\n", 4}}) {
        SCOPED_TRACE(c.text);
        writeIni(c.text, t++);
        readSettings();
        EXPECT_EQ(g_settings.MaxConcurrent, c.maxConcurrent);
    }
}

TEST_F(SettingsTest, EnableRuleBeatsTheCommandLineButKeepsItsValue)
{
    g_settings.MaxConcurrent = 2;
    setOverride(OVR_MAXCONCURRENT);
    writeIni("[Replication]\nEnabled=true\n[tidewire]\nAutoSyncEnabled=true\n", kBaseTime);
    readSettings();
    EXPECT_EQ(g_settings.MaxConcurrent, 0) << "\"-o\" does not beat the rule";

    // Once tidewire is off the command-line value is back.
    writeIni("[Replication]\nEnabled=true\nMaxConcurrent=7\n", kBaseTime + 1);
    readSettings();
    EXPECT_EQ(g_settings.MaxConcurrent, 2);
}

TEST_F(SettingsTest, EmptySyncToStopsAutomaticQueueing)
{
    writeIni("[Replication]\nSyncTo=\nQueueScheme=2\n", kBaseTime);
    readSettings();
    EXPECT_STREQ(g_settings.SyncTo, "");
    EXPECT_EQ(g_settings.QueueScheme, 0);

    writeIni("[Replication]\nSyncTo=far\nQueueScheme=2\n", kBaseTime + 1);
    readSettings();
    EXPECT_EQ(g_settings.QueueScheme, 2);
}

TEST_F(SettingsTest, BlockOutPeriodsOf4094CharactersIsTheLongestKept)
{
    // A valid schedule padded with separators to exactly 4094 characters.
    std::string fits = "=1m" + std::string(4091, ',');
    writeIni("[Replication]\nEnabled=1\nBlockOutPeriods=" + fits + "\n", kBaseTime);
    LogCapture log;
    readSettings();
    EXPECT_EQ(strlen(g_settings.BlockOutPeriods), 4094u);
    EXPECT_EQ(slot(0), 1048576u);
    EXPECT_FALSE(log.has("is too long"));

    writeIni("[Replication]\nEnabled=1\nBlockOutPeriods=" + fits + ",\n", kBaseTime + 1);
    readSettings();
    EXPECT_TRUE(log.has("WARNING: The variable 'BlockOutPeriods' in file " + root_.masterIni() +
                        "\n         is too long. Ignored.\n"))
        << log.text();
    EXPECT_EQ(g_settings.BlockOutPeriods[0], '\0');
    EXPECT_EQ(g_settings.BlockOutPeriods[4094], '\0');
    EXPECT_EQ(slot(0), kNoBandwidthLimit) << "an ignored value leaves no limit";
    EXPECT_FALSE(log.has("is invalid"));
}

TEST_F(SettingsTest, InvalidScheduleIsReportedAndLeavesNoLimit)
{
    writeIni("[Replication]\nEnabled=1\nBlockOutPeriods==1m\n", kBaseTime);
    readSettings();
    ASSERT_EQ(slot(0), 1048576u);

    writeIni("[Replication]\nEnabled=1\nBlockOutPeriods=7:1\n", kBaseTime + 1);
    LogCapture log;
    readSettings();
    EXPECT_TRUE(log.has("WARNING: The variable 'BlockOutPeriods' in file " + root_.masterIni() +
                        "\n         is invalid. Ignored.\n"))
        << log.text();
    EXPECT_TRUE(log.has("Weekdays '7' must be 0-6"));
    EXPECT_EQ(slot(0), kNoBandwidthLimit);
}

TEST_F(SettingsTest, BlockOutPeriodsIsNotReadWhileNoWorkerMayRun)
{
    writeIni("[Replication]\nEnabled=0\nBlockOutPeriods==1m\n", kBaseTime);
    readSettings();
    EXPECT_EQ(g_settings.MaxConcurrent, 0);
    EXPECT_STREQ(g_settings.BlockOutPeriods, "");
    EXPECT_EQ(slot(0), kNoBandwidthLimit);
}

TEST_F(SettingsTest, RestIdleIsReadOnEveryCall)
{
    writeIni("[Replication]\nTimeDelay=10\n", kBaseTime);
    readSettings();
    EXPECT_FALSE(g_restIdle.RESTidleTimeoutEnabled);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 2700);

    // Same time stamp: the record stays, the watchdog settings follow.
    writeIni("[Replication]\nTimeDelay=99\nRESTidleTimeoutEnabled=on\nRESTidleTimeout=30\n", kBaseTime);
    LogCapture log;
    readSettings();
    EXPECT_EQ(g_settings.TimeDelay, 10);
    EXPECT_TRUE(g_restIdle.RESTidleTimeoutEnabled);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 30);
    EXPECT_TRUE(log.has("rest idle timeout seconds 30"));

    // Keys removed again: the current values are the defaults now.
    writeIni("[Replication]\n", kBaseTime);
    readSettings();
    EXPECT_TRUE(g_restIdle.RESTidleTimeoutEnabled);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 30);

    writeIni("[Replication]\nRESTidleTimeout=0\n", kBaseTime);
    LogCapture quiet;
    readSettings();
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 0);
    EXPECT_FALSE(quiet.has("rest idle timeout seconds"));
}

TEST_F(SettingsTest, KeysReadWhenNeededGiveTheirDefaults)
{
    g_settings.TimeDelay = 60;
    writeIni("[Replication]\n", kBaseTime);
    EXPECT_EQ(iniTimeDelay(), 5);
    EXPECT_EQ(iniCheckInterval(kCheckIntervalHashLock), 10);
    EXPECT_EQ(iniCheckInterval(kCheckIntervalPoll), 5);
    EXPECT_EQ(iniCheckTimeout(), 10000);
    EXPECT_EQ(iniInvalidUUIDcheckRetryCount(), 5);
    EXPECT_EQ(iniThreadedSendBlocks(), 1);
    EXPECT_EQ(iniMetaThreadTimeoutSeconds(), 60);
    EXPECT_EQ(iniSaveHarco(), 0);
    EXPECT_EQ(iniRequireChecksum(), 0);
    EXPECT_EQ(iniFailCheckStatus(), 0);
    EXPECT_EQ(iniDefaultTapeDevice(), 1);
    LogCapture log;
    EXPECT_EQ(iniReadThreadCount(), 1);
    EXPECT_EQ(iniSendThreadCount(), 2);
    EXPECT_EQ(iniThreadBufferCount(1, 2), 4);
    EXPECT_TRUE(log.has("Using default ThreadBufferCount=4"));
}

TEST_F(SettingsTest, KeysReadWhenNeededFollowTheFileAtOnce)
{
    writeIni("[Replication]\n"
             "TimeDelay=12\nCheckInterval=3\nCheckTimeout=600\ninvalidUUIDcheckRetryCount=2\n"
             "ThreadedSendBlocks=0\nMetaThreadTimeoutSeconds=9\nSaveHarco=1\nRequireChecksum=1\n"
             "failCheckStatus=4\n"
             "[Configuration Options]\nDefaultTapeDevice=6\n",
             kBaseTime);
    EXPECT_EQ(iniTimeDelay(), 12);
    EXPECT_EQ(iniCheckInterval(kCheckIntervalHashLock), 3);
    EXPECT_EQ(iniCheckTimeout(), 600);
    EXPECT_EQ(iniInvalidUUIDcheckRetryCount(), 2);
    EXPECT_EQ(iniThreadedSendBlocks(), 0);
    EXPECT_EQ(iniMetaThreadTimeoutSeconds(), 9);
    EXPECT_EQ(iniSaveHarco(), 1);
    EXPECT_EQ(iniRequireChecksum(), 1);
    EXPECT_EQ(iniFailCheckStatus(), 4);
    EXPECT_EQ(iniDefaultTapeDevice(), 6);
    EXPECT_EQ(g_daemon.iniModTime, 0) << "these reads are no reload";
}

TEST_F(SettingsTest, PipelineCountsAreCorrected)
{
    writeIni("[Replication]\nReadThreadCount=3\nSendThreadCount=0\nThreadBufferCount=2\n", kBaseTime);
    LogCapture log;
    EXPECT_EQ(iniReadThreadCount(), 1);
    EXPECT_TRUE(log.has("ReadThreadCount set to unexpected value:3, only 1 is supported at this time. Setting "
                        "internal ReadThreadCount=1"));
    EXPECT_EQ(iniSendThreadCount(), 1);
    EXPECT_TRUE(log.has("SendThreadCount set to unexpected value:0, must be >=1. Setting internal SendThreadCount=1"));
    EXPECT_EQ(iniThreadBufferCount(1, 2), 3);
    EXPECT_TRUE(log.has("Unadvised buffer count:2 setting to: 3"));

    writeIni("[Replication]\nSendThreadCount=4\nThreadBufferCount=9\n", kBaseTime);
    EXPECT_EQ(iniSendThreadCount(), 4);
    EXPECT_EQ(iniThreadBufferCount(1, 4), 9);
}

} // namespace
