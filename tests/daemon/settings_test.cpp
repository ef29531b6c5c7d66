// Settings reload: master.ini is read again only when its time stamp grows,
// command-line values survive, the enable rule and the BlockOutPeriods
// sentinel hold, and the keys read when needed give their defaults.
#include "daemon/settings.h"

#include "daemon/blockOut.h"
#include "daemon/common.h"
#include "foundation/environment.h"
#include "harness/appliance_root.h"
#include "harness/log_capture.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/shm.h>
#include <sys/time.h>

namespace {

constexpr time_t kBaseTime = 1700000000;
constexpr uint32_t k1m = 1048576u;

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

    // Writes master.ini with exactly the modification time `mtime` and reloads.
    void reload(const std::string& text, time_t mtime)
    {
        ferrytest::writeFile(root_.masterIni(), text);
        struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimes(root_.masterIni().c_str(), times), 0);
        readSettings();
    }

    // One hour's limit in the shared table (0 = Sunday 00:00).
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

const char* const kEverySetting =
    "[Replication]\nSyncTo=vault2.example\nTimeDelay=17\nThrottle=4\nVerifyOnGet=2\nVerifyOnPut=5\nEnabled=true\n"
    "MaxConcurrent=3\nRecordRetention=9\nMaxBlocks=-2\nMetaSize=256\nCluster=0\nQueueScheme=2\nRetryCount=7\n"
    "Checkpoint=yes\nLocalBlockElimination=false\nBlockEliminationType=4\nBlockEliminationCandidate=3\n"
    "BlockOutPeriods=9-17=1m\n[tidewire]\nAutoSyncEnabled=false\n[debugging]\nferryd=3\n";

// Every numeric key of the reloaded record: its value in kEverySetting, its
// default, and the command-line bit that keeps it (-1: none).
struct Key {
    const char* name;
    int64_t (*get)();
    int64_t inFile, byDefault;
    int bit;
};
const Key kKeys[] = {
    {"TimeDelay", []() -> int64_t { return g_settings.TimeDelay; }, 17, 60, OVR_TIMEDELAY},
    {"Throttle", []() -> int64_t { return g_settings.Throttle; }, 4, 1, OVR_THROTTLE},
    {"VerifyOnGet+VerifyOnPut", []() -> int64_t { return g_settings.verifyCount; }, 7, 1, OVR_VERIFY},
    {"MaxConcurrent", []() -> int64_t { return g_settings.MaxConcurrent; }, 3, 5, OVR_MAXCONCURRENT},
    {"RecordRetention", []() -> int64_t { return g_settings.RecordRetention; }, 9, 1, OVR_RECORDRETENTION},
    {"MaxBlocks", []() -> int64_t { return g_settings.MaxBlocks; }, -2, 10485760, OVR_MAXBLOCKS},  // sign widened
    {"MetaSize", []() -> int64_t { return g_settings.MetaSize; }, 256, 1024, OVR_METASIZE},
    {"Cluster", []() -> int64_t { return g_settings.Cluster; }, 0, 1, OVR_CLUSTER},
    {"QueueScheme", []() -> int64_t { return g_settings.QueueScheme; }, 2, 0, OVR_QUEUESCHEME},
    {"RetryCount", []() -> int64_t { return g_settings.RetryCount; }, 7, 3, -1},
    {"Checkpoint", []() -> int64_t { return g_settings.Checkpoint; }, 1, 0, -1},
    {"LocalBlockElimination", []() -> int64_t { return g_settings.LocalBlockElimination; }, 0, 1, -1},
    {"BlockEliminationType", []() -> int64_t { return g_settings.BlockEliminationType; }, 4, 2, -1},
    {"BlockEliminationCandidate", []() -> int64_t { return g_settings.BlockEliminationCandidate; }, 3, 2, -1},
    {"debugging/ferryd", []() -> int64_t { return g_settings.debugLevel; }, 3, 0, -1},
};

TEST_F(SettingsTest, EveryKeyFollowsTheFileAndFallsBackToItsDefault)
{
    reload(kEverySetting, kBaseTime);
    for (const Key& k : kKeys)
        EXPECT_EQ(k.get(), k.inFile) << k.name;
    EXPECT_STREQ(g_settings.SyncTo, "vault2.example");
    EXPECT_STREQ(g_settings.BlockOutPeriods, "9-17=1m");
    EXPECT_EQ(slot(10), k1m);
    EXPECT_EQ(slot(18), kNoBandwidthLimit);

    reload("[Replication]\nEnabled=1\n", kBaseTime + 1);
    for (const Key& k : kKeys)
        EXPECT_EQ(k.get(), k.byDefault) << k.name;
    EXPECT_STREQ(g_settings.SyncTo, "vault");
    EXPECT_EQ(slot(10), kNoBandwidthLimit);
}

TEST_F(SettingsTest, ReloadsOnlyWhenTheTimeStampGrows)
{
    reload("[Replication]\nTimeDelay=10\n", kBaseTime);
    ASSERT_EQ(g_settings.TimeDelay, 10);
    reload("[Replication]\nTimeDelay=20\n", kBaseTime);  // rewritten within the same second
    EXPECT_EQ(g_settings.TimeDelay, 10);
    reload("[Replication]\nTimeDelay=20\n", kBaseTime - 100);
    EXPECT_EQ(g_settings.TimeDelay, 10);
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime);
    reload("[Replication]\nTimeDelay=20\n", kBaseTime + 1);
    EXPECT_EQ(g_settings.TimeDelay, 20);
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime + 1);

    // A master.ini that cannot be read counts as unchanged.
    g_master_ini = root_.initdir() + "/missing.ini";
    readSettings();
    EXPECT_EQ(g_daemon.iniModTime, kBaseTime + 1);
    EXPECT_EQ(g_settings.TimeDelay, 20);
}

TEST_F(SettingsTest, CommandLineValuesSurviveEveryReload)
{
    // The file's values stand in for the command line's ("-t 17" ...): with
    // the bits set they must outlive reloads of a file without them.
    reload(kEverySetting, kBaseTime);
    g_settings.MaxConcurrent = 9;  // "-o 9"
    setOverride(OVR_SYNCTO);
    for (const Key& k : kKeys)
        if (k.bit >= 0)
            setOverride(static_cast<OverrideBit>(k.bit));
    for (time_t t : {kBaseTime + 1, kBaseTime + 2}) {
        reload("[Replication]\nEnabled=1\n", t);
        EXPECT_STREQ(g_settings.SyncTo, "vault2.example");
        for (const Key& k : kKeys)
            EXPECT_EQ(k.get(), k.bit == OVR_MAXCONCURRENT ? 9 : k.bit >= 0 ? k.inFile : k.byDefault) << k.name;
    }
}

TEST_F(SettingsTest, WorkOnlyWhileEnabledAndTidewireOffEvenWithTheCommandLine)
{
    // While no worker may run, BlockOutPeriods is not even read.
    struct Case {
        const char* text;
        int maxConcurrent;
    };
    time_t t = kBaseTime;
    for (const Case& c : {Case{"", 0}, Case{"Enabled=false\n", 0},
                          Case{"Enabled=true\n[tidewire]\nAutoSyncEnabled=true\n", 0},
                          Case{"Enabled=true\n[tidewire]\nAutoSyncEnabled=no\n", 4}}) {
        SCOPED_TRACE(c.text);
        reload(std::string("[Replication]\nMaxConcurrent=4\nBlockOutPeriods==1m\n") + c.text, t++);
        EXPECT_EQ(g_settings.MaxConcurrent, c.maxConcurrent);
        EXPECT_EQ(slot(0), c.maxConcurrent != 0 ? k1m : kNoBandwidthLimit);
    }

    // "-o 2": the rule still wins, and the value is back once tidewire is off.
    g_settings.MaxConcurrent = 2;
    setOverride(OVR_MAXCONCURRENT);
    reload("[Replication]\nEnabled=true\n[tidewire]\nAutoSyncEnabled=true\n", t++);
    EXPECT_EQ(g_settings.MaxConcurrent, 0);
    reload("[Replication]\nEnabled=true\nMaxConcurrent=7\n", t++);
    EXPECT_EQ(g_settings.MaxConcurrent, 2);
}

TEST_F(SettingsTest, EmptySyncToStopsAutomaticQueueing)
{
    reload("[Replication]\nSyncTo=\nQueueScheme=2\n", kBaseTime);
    EXPECT_EQ(g_settings.QueueScheme, 0);
    reload("[Replication]\nSyncTo=far\nQueueScheme=2\n", kBaseTime + 1);
    EXPECT_EQ(g_settings.QueueScheme, 2);
}

TEST_F(SettingsTest, LongOrInvalidBlockOutPeriodsIsIgnoredWithAWarning)
{
    const std::string warning = "WARNING: The variable 'BlockOutPeriods' in file " + root_.masterIni() + "\n         is ";
    const std::string fits = "=1m" + std::string(4091, ',');  // 4094 characters
    struct Case {
        std::string value;
        uint32_t limit;
        size_t kept;
        const char* warned;  // nullptr: no warning
    };
    time_t t = kBaseTime;
    for (const Case& c : {Case{fits, k1m, 4094, nullptr}, Case{fits + ",", kNoBandwidthLimit, 0, "too long. Ignored.\n"},
                          Case{"7:1", kNoBandwidthLimit, 3, "invalid. Ignored.\n"}}) {
        SCOPED_TRACE(c.value.size());
        reload("[Replication]\nEnabled=1\nBlockOutPeriods==2m\n", t++);
        ASSERT_EQ(slot(0), 2 * k1m);
        ferrytest::LogCapture log(5);
        reload("[Replication]\nEnabled=1\nBlockOutPeriods=" + c.value + "\n", t++);
        EXPECT_EQ(slot(0), c.limit);
        EXPECT_EQ(strlen(g_settings.BlockOutPeriods), c.kept);
        if (c.warned)
            EXPECT_NE(log.text().find(warning + c.warned), std::string::npos) << log.text();
        else
            EXPECT_EQ(log.text().find("WARNING"), std::string::npos) << log.text();
    }
}

TEST_F(SettingsTest, RestIdleIsReadOnEveryCall)
{
    // Same time stamp: the record stays, the watchdog settings follow; keys
    // removed again keep the current values.
    reload("[Replication]\nTimeDelay=10\n", kBaseTime);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 2700);
    reload("[Replication]\nTimeDelay=99\nRESTidleTimeoutEnabled=on\nRESTidleTimeout=30\n", kBaseTime);
    EXPECT_EQ(g_settings.TimeDelay, 10);
    EXPECT_TRUE(g_restIdle.RESTidleTimeoutEnabled);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 30);
    reload("[Replication]\n", kBaseTime);
    EXPECT_TRUE(g_restIdle.RESTidleTimeoutEnabled);
    EXPECT_EQ(g_restIdle.RESTidleTimeout, 30);
}

TEST_F(SettingsTest, KeysReadWhenNeededFollowTheFileAtOnceAndAreCorrected)
{
    struct Getter {
        int (*get)();
        int byDefault, inFile;
    };
    const Getter keys[] = {
        {iniTimeDelay, 5, 12},  // not the record's default of 60
        {iniDefaultTapeDevice, 1, 6},
        {iniReadThreadCount, 1, 1},  // 3 in the file: only one reader exists
        {iniSendThreadCount, 2, 1},  // 0 in the file: at least one sender
        {[] { return iniThreadBufferCount(1, 2); }, 4, 3},  // 2 in the file: one per thread at least
    };
    ferrytest::LogCapture log(5);
    ferrytest::writeFile(root_.masterIni(), "[Replication]\n");
    for (const Getter& k : keys)
        EXPECT_EQ(k.get(), k.byDefault) << &k - keys;
    ferrytest::writeFile(root_.masterIni(), "[Replication]\nTimeDelay=12\nReadThreadCount=3\nSendThreadCount=0\n"
                                            "ThreadBufferCount=2\n[Configuration Options]\nDefaultTapeDevice=6\n");
    for (const Getter& k : keys)
        EXPECT_EQ(k.get(), k.inFile) << &k - keys;
    EXPECT_EQ(g_daemon.iniModTime, 0) << "these reads are no reload";
}

} // namespace
