// The bandwidth table: the BlockOutPeriods parser as the segment shows it,
// per-thread handles, and real processes sharing one segment by its id.
#include "daemon/blockOut.h"

#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Schedule = std::array<uint32_t, kBandwidthSlots>;
constexpr uint32_t kUnlimited = kNoBandwidthLimit;

// Points the log at a temporary file for the life of the object.
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

private:
    FILE* file_;
    FILE* old_;
    int savedLevel_;
};

// What the segment holds, read through a mapping of our own.
Schedule readSegment(int shmId)
{
    Schedule s{};
    void* addr = shmat(shmId, nullptr, SHM_RDONLY);
    if (addr == reinterpret_cast<void*>(-1)) {
        ADD_FAILURE() << "cannot map segment " << shmId << ": " << strerror(errno);
        return s;
    }
    memcpy(s.data(), addr, kBandwidthTableBytes);
    shmdt(addr);
    return s;
}

Schedule scheduleOf(const std::function<uint32_t(int day, int hour)>& limitAt)
{
    Schedule s{};
    for (int d = 0; d < 7; ++d)
        for (int h = 0; h < 24; ++h)
            s[d * 24 + h] = limitAt(d, h);
    return s;
}

testing::AssertionResult sameSchedule(const Schedule& want, const Schedule& got)
{
    std::ostringstream diff;
    int wrong = 0;
    for (int i = 0; i < kBandwidthSlots; ++i) {
        if (want[i] != got[i] && ++wrong <= 8)
            diff << "\n  day " << i / 24 << " hour " << i % 24 << ": want " << want[i] << " got " << got[i];
    }
    if (wrong == 0)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << wrong << " slots differ" << diff.str();
}

int attachCount(int shmId)
{
    struct shmid_ds ds {};
    if (shmctl(shmId, IPC_STAT, &ds) != 0)
        return -1;
    return static_cast<int>(ds.shm_nattch);
}

bool segmentExists(int shmId)
{
    struct shmid_ds ds {};
    return shmctl(shmId, IPC_STAT, &ds) == 0;
}

// What "ipcs -m -i <id>" says about a segment.
std::string ipcsSegment(int shmId)
{
    std::string cmd = "ipcs -m -i " + std::to_string(shmId) + " 2>&1";
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        pclose(p);
    }
    return out;
}

// A local time on a known weekday: 2024-01-07 was a Sunday.
time_t localTimeAt(int weekday, int hour)
{
    struct tm tm {};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 0;
    tm.tm_mday = 7 + weekday;
    tm.tm_hour = hour;
    tm.tm_min = 30;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

// A forked child that talks to the test through two pipes: the test sends
// numbers (or closes its end), the child answers with 32-bit numbers.
class ChildProcess {
public:
    using Body = std::function<void(ChildProcess&)>;

    explicit ChildProcess(const Body& body)
    {
        int down[2], up[2];
        if (pipe(down) != 0 || pipe(up) != 0)
            throw std::runtime_error("pipe");
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            // Our copies of other children's pipe ends would keep them from
            // ever seeing their end of file.
            for (int fd : testSideFds())
                close(fd);
            close(down[1]);
            close(up[0]);
            in_ = down[0];
            out_ = up[1];
            body(*this);
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        out_ = down[1];
        in_ = up[0];
        testSideFds().insert(out_);
        testSideFds().insert(in_);
    }
    ~ChildProcess() { finish(); }

    // Either side: send a number / wait for one (all ones at end of pipe).
    void send(uint32_t value) { (void)!write(out_, &value, sizeof value); }
    uint32_t receive()
    {
        uint32_t value = 0xFFFFFFFFu;
        size_t got = 0;
        while (got < sizeof value) {
            ssize_t n = read(in_, reinterpret_cast<char*>(&value) + got, sizeof value - got);
            if (n <= 0)
                return 0xFFFFFFFFu;
            got += static_cast<size_t>(n);
        }
        return value;
    }
    // Child side: block until the test closes its end.
    void waitForRelease()
    {
        char c;
        while (read(in_, &c, 1) > 0) {
        }
    }

    // Test side: let the child go and return its wait status.
    int finish()
    {
        for (int* fd : {&out_, &in_}) {
            if (*fd >= 0) {
                testSideFds().erase(*fd);
                close(*fd);
            }
            *fd = -1;
        }
        if (pid_ <= 0)
            return status_;
        waitpid(pid_, &status_, 0);
        pid_ = 0;
        return status_;
    }
    pid_t pid() const { return pid_; }

private:
    static std::set<int>& testSideFds()
    {
        static std::set<int> fds;
        return fds;
    }

    pid_t pid_ = 0;
    int in_ = -1;
    int out_ = -1;
    int status_ = -1;
};

// Body of a forked sender: drops the mapping inherited from the parent as a
// worker does, attaches read-only by id, reports the attach result, and on
// the test's word reports its bandwidth for now; stays attached until let go.
void senderBody(ChildProcess& self, int shmId)
{
    detachBandwidthTable();
    self.send(static_cast<uint32_t>(attachBandwidthTable(shmId)));
    self.receive();
    self.send(getThreadBandwidth(time(nullptr)));
    self.waitForRelease();
}

// Each test gets its own appliance root, so its ftok key is its own too.
class BandwidthTableTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(createBandwidthTable(), 0);
        id_ = getBandwidthTableId();
        ASSERT_GE(id_, 0);
    }
    void TearDown() override { detachBandwidthTable(); }

    Schedule table() { return readSegment(id_); }

    ferrytest::ApplianceRoot root_;
    int id_ = -1;
};

TEST_F(BandwidthTableTest, NewTableIsUnlimitedAndAlreadyMarkedForRemoval)
{
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return kUnlimited; }), table()));
    struct shmid_ds ds {};
    ASSERT_EQ(shmctl(id_, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, kBandwidthTableBytes);
    EXPECT_EQ(ds.shm_perm.mode & 0777, 0600u);
    EXPECT_NE(ds.shm_perm.mode & SHM_DEST, 0u) << "segment must be marked for removal at creation";
    EXPECT_EQ(ds.shm_nattch, 1u);
    bandwidthHandle* h = getBandwidthHandle();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->readOnly, 0);
    EXPECT_EQ(h->shmId, id_);
}

TEST_F(BandwidthTableTest, DocumentedExamples)
{
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return 1048576u; }), table()));

    ASSERT_EQ(parseBlockOutPeriods("9-17"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int h) { return h >= 9 && h <= 17 ? 4096u : kUnlimited; }),
                             table()));

    ASSERT_EQ(parseBlockOutPeriods("1-5:8-18=100k,6:=1g"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int d, int h) {
                                 if (d >= 1 && d <= 5 && h >= 8 && h <= 18)
                                     return 102400u;
                                 return d == 6 ? 1073741824u : kUnlimited;
                             }),
                             table()));
}

TEST_F(BandwidthTableTest, RangesWrapAroundMidnightAndTheWeekend)
{
    ASSERT_EQ(parseBlockOutPeriods("23-1"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int h) { return h == 23 || h <= 1 ? 4096u : kUnlimited; }),
                             table()));

    ASSERT_EQ(parseBlockOutPeriods("6-0:0-23=2m"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int d, int) { return d == 6 || d == 0 ? 2097152u : kUnlimited; }),
                             table()));

    ASSERT_EQ(parseBlockOutPeriods("5-1:22-6=64k"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int d, int h) {
                                 bool day = d == 5 || d == 6 || d == 0 || d == 1;
                                 bool night = h >= 22 || h <= 6;
                                 return day && night ? 65536u : kUnlimited;
                             }),
                             table()));

    ASSERT_EQ(parseBlockOutPeriods("5"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int h) { return h == 5 ? 4096u : kUnlimited; }), table()));
}

TEST_F(BandwidthTableTest, DefaultRunningLimitAndPerTokenLimit)
{
    // The leading "=" is the default for every other hour; a later bare
    // "=" only changes the limit of the tokens behind it.
    ASSERT_EQ(parseBlockOutPeriods("=64k,3,=8k,4-5 7=1m"), 0);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int h) {
                                 switch (h) {
                                 case 3: return 4096u;
                                 case 4:
                                 case 5: return 8192u;
                                 case 7: return 1048576u;
                                 default: return 65536u;
                                 }
                             }),
                             table()));
}

TEST_F(BandwidthTableTest, SizesTakeAnyBaseSuffixCaseAndTheFloor)
{
    struct Case {
        const char* text;
        uint32_t limit;
    };
    for (const Case& c : {Case{"=0", 4096u}, Case{"=4095", 4096u}, Case{"=4097", 4097u}, Case{"=0x10k", 16384u},
                          Case{"=010K", 8192u}, Case{"= 3M", 3145728u}, Case{"=1G", 1073741824u},
                          Case{"=5g", kUnlimited}}) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(parseBlockOutPeriods(c.text), 0);
        EXPECT_TRUE(sameSchedule(scheduleOf([&](int, int) { return c.limit; }), table()));
    }
    ASSERT_EQ(parseBlockOutPeriods(" 0x1 - 05 : 0x8 - 18 = 1k "), 0);
    EXPECT_TRUE(sameSchedule(
        scheduleOf([](int d, int h) { return d >= 1 && d <= 5 && h >= 8 && h <= 18 ? 4096u : kUnlimited; }),
        table()));
}

TEST_F(BandwidthTableTest, EmptyAndDefaultTextsClearAnEarlierSchedule)
{
    for (const char* text : {"", "   ", "default", "default,9-17=1m"}) {
        SCOPED_TRACE(text);
        ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
        EXPECT_EQ(parseBlockOutPeriods(text), 0);
        EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return kUnlimited; }), table()));
    }
}

TEST_F(BandwidthTableTest, BadTextsLeaveNoLimitAndSayWhy)
{
    struct Case {
        const char* text;
        const char* logged;
    };
    for (const Case& c : {Case{"7:1", "Weekdays '7' must be 0-6\n"},
                          Case{"1-5,0-24", "Hours '0-24' must be 0-23\n"},
                          Case{"1-9:3", "Weekdays '1-9' must be 0-6\n"},
                          Case{"nights", "Bad blockout token: 'nights'\n"},
                          Case{"9-", "Bad blockout token: '9-'\n"},
                          Case{"9-17x", "Bad blockout token: '9-17x'\n"},
                          Case{"08", "Bad blockout token: '08'\n"},
                          Case{"9-17=", "Bandwidth limit must follow '=': '='\n"},
                          Case{"=1m,=fast,3", "Bandwidth limit must follow '=': '=fast,3'\n"},
                          Case{"=lots", "Bad default bandwidth: '=lots'\n"}}) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
        LogCapture log;
        EXPECT_EQ(parseBlockOutPeriods(c.text), -1);
        EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return kUnlimited; }), table()));
        EXPECT_NE(log.text().find(c.logged), std::string::npos) << log.text();
    }
}

TEST_F(BandwidthTableTest, AnyFailedTokenVoidsTheValidOnes)
{
    // Both range faults are reported: the token is still read to its end.
    LogCapture log;
    EXPECT_EQ(parseBlockOutPeriods("1-5:8-18=100k,9:30,6:=1g"), -1);
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return kUnlimited; }), table()));
    EXPECT_NE(log.text().find("Weekdays '9' must be 0-6"), std::string::npos);
    EXPECT_NE(log.text().find("Hours '30' must be 0-23"), std::string::npos);
}

TEST_F(BandwidthTableTest, BandwidthFollowsLocalWeekdayAndHour)
{
    ASSERT_EQ(parseBlockOutPeriods("1-5:8-18=100k"), 0);
    EXPECT_EQ(getThreadBandwidth(localTimeAt(1, 8)), 102400u);   // Monday 08:30
    EXPECT_EQ(getThreadBandwidth(localTimeAt(5, 18)), 102400u);  // Friday 18:30
    EXPECT_EQ(getThreadBandwidth(localTimeAt(1, 19)), kUnlimited);
    EXPECT_EQ(getThreadBandwidth(localTimeAt(6, 10)), kUnlimited);  // Saturday
    EXPECT_EQ(getThreadBandwidth(localTimeAt(0, 10)), kUnlimited);  // Sunday
}

TEST_F(BandwidthTableTest, ThreadsHaveTheirOwnHandlesAndLetGoWhenTheyEnd)
{
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    int idBefore = 0, attachResult = -1, readOnly = 0, parseResult = 0, attachedWhileRunning = 0;
    std::thread sender([&] {
        idBefore = getBandwidthTableId();
        attachResult = parseBlockOutPeriods(("attach:" + std::to_string(id_)).c_str());
        readOnly = getBandwidthHandle()->readOnly;
        attachedWhileRunning = attachCount(id_);
        parseResult = parseBlockOutPeriods("=4k");
    });
    sender.join();
    EXPECT_EQ(idBefore, -1) << "a new thread starts on the built-in table";
    EXPECT_EQ(attachResult, 0);
    EXPECT_EQ(readOnly, 1);
    EXPECT_EQ(attachedWhileRunning, 2);
    EXPECT_EQ(parseResult, -1) << "a read-only handle must refuse a schedule";
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return 1048576u; }), table()));
    EXPECT_EQ(attachCount(id_), 1) << "an ended thread must have detached";
    EXPECT_EQ(getBandwidthTableId(), id_);
    EXPECT_EQ(getBandwidthHandle()->readOnly, 0);
}

TEST_F(BandwidthTableTest, AttachFormTakesAnyBaseAndRefusesGarbage)
{
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    std::thread worker([&] {
        char hex[32];
        snprintf(hex, sizeof hex, "  attach:0x%x", static_cast<unsigned>(id_));
        EXPECT_EQ(parseBlockOutPeriods(hex), 0);
        EXPECT_EQ(getBandwidthTableId(), id_);

        LogCapture log;
        EXPECT_EQ(parseBlockOutPeriods("attach:twelve"), -1);
        EXPECT_NE(log.text().find("Shared memory id (integer) must follow attach: 'twelve'"), std::string::npos);
        EXPECT_EQ(getBandwidthTableId(), -1) << "a bad id detaches";
        EXPECT_EQ(parseBlockOutPeriods(("attach:" + std::to_string(id_) + "x").c_str()), -1);
        EXPECT_EQ(getBandwidthTableId(), -1);
    });
    worker.join();
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return 1048576u; }), table()));
}

TEST_F(BandwidthTableTest, EachAttachedProcessTakesAnEqualShare)
{
    for (const auto& [text, limit] : {std::pair{"=1m", 1048576u}, std::pair{"=9000", 9000u}}) {
        ASSERT_EQ(parseBlockOutPeriods(text), 0);
        for (unsigned senders = 1; senders <= 3; ++senders) {
            SCOPED_TRACE(std::string(text) + " with " + std::to_string(senders) + " senders");
            std::vector<std::unique_ptr<ChildProcess>> children;
            for (unsigned i = 0; i < senders; ++i)
                children.push_back(std::make_unique<ChildProcess>([&](ChildProcess& self) { senderBody(self, id_); }));
            for (auto& c : children)
                ASSERT_EQ(c->receive(), 0u) << "child could not attach";
            // The parent (this process, read-write) plus every sender.
            EXPECT_EQ(attachCount(id_), static_cast<int>(senders) + 1);
            for (auto& c : children)
                c->send(1);
            uint32_t share = std::max(limit / senders, kMinBandwidth);
            for (auto& c : children)
                EXPECT_EQ(c->receive(), share);
            for (auto& c : children)
                EXPECT_EQ(c->finish(), 0);
            EXPECT_EQ(attachCount(id_), 1);
        }
    }
}

TEST_F(BandwidthTableTest, ReadOnlyMappingCannotBeWrittenEvenByHand)
{
    ASSERT_EQ(parseBlockOutPeriods("=2m"), 0);
    ChildProcess child([&](ChildProcess& self) {
        detachBandwidthTable();
        if (attachBandwidthTable(id_) != 0)
            _exit(3);
        self.send(static_cast<uint32_t>(parseBlockOutPeriods("=1k")));
        // A stray write through the read-only mapping must fault.
        static_cast<volatile uint32_t*>(getBandwidthHandle()->attachedAddress)[0] = 1;
        _exit(0);
    });
    EXPECT_EQ(child.receive(), static_cast<uint32_t>(-1));
    int status = child.finish();
    bool faulted = (WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) ||
                   (WIFEXITED(status) && WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 3);
    EXPECT_TRUE(faulted) << "status " << status;
    EXPECT_TRUE(sameSchedule(scheduleOf([](int, int) { return 2097152u; }), table()));
}

TEST_F(BandwidthTableTest, SegmentVanishesWithTheLastDetach)
{
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    ChildProcess reader([&](ChildProcess& self) { senderBody(self, id_); });
    ASSERT_EQ(reader.receive(), 0u);
    detachBandwidthTable();  // the creator lets go first
    EXPECT_TRUE(segmentExists(id_)) << "a reader is still attached";
    reader.send(1);
    EXPECT_EQ(reader.receive(), 1048576u) << "the reader keeps the schedule";
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_FALSE(segmentExists(id_));
}

// Every process that cannot attach runs without limit.
TEST(BandwidthWithoutTable, NoSegmentMeansNoLimit)
{
    ferrytest::ApplianceRoot root;
    ASSERT_EQ(createBandwidthTable(), 0);
    int gone = getBandwidthTableId();
    ASSERT_EQ(parseBlockOutPeriods("=4k"), 0);
    detachBandwidthTable();
    ASSERT_FALSE(segmentExists(gone));

    ChildProcess child([&](ChildProcess& self) {
        LogCapture log;
        self.send(static_cast<uint32_t>(attachBandwidthTable(gone)));
        self.send(log.text().find("Can't attach to shared memory " + std::to_string(gone)) != std::string::npos);
        self.send(static_cast<uint32_t>(getBandwidthTableId()));
        self.send(getThreadBandwidth(time(nullptr)));
        // Parsing on the built-in table reports but changes nothing.
        self.send(static_cast<uint32_t>(parseBlockOutPeriods("=4k")));
        self.send(getThreadBandwidth(time(nullptr)));
    });
    EXPECT_EQ(child.receive(), static_cast<uint32_t>(-1));
    EXPECT_EQ(child.receive(), 1u) << "attach failure must be logged";
    EXPECT_EQ(child.receive(), static_cast<uint32_t>(-1));
    EXPECT_EQ(child.receive(), kUnlimited);
    EXPECT_EQ(child.receive(), 0u);
    EXPECT_EQ(child.receive(), kUnlimited);
    EXPECT_EQ(child.finish(), 0);
}

TEST(BandwidthWithoutTable, MissingKeyFileFailsCreationUnderTheApplianceRoot)
{
    ferrytest::ApplianceRoot root;
    ASSERT_EQ(unlink(root.tqIni().c_str()), 0);
    LogCapture log;
    EXPECT_EQ(createBandwidthTable(), -1);
    EXPECT_EQ(getBandwidthTableId(), -1);
    EXPECT_EQ(getThreadBandwidth(time(nullptr)), kUnlimited);
    EXPECT_NE(log.text().find("Can't get shared memory key: " + root.tqIni() + ", "), std::string::npos)
        << log.text();
}

TEST(BandwidthWithoutTable, CreatorKilledWithSigkillLeavesNothingBehind)
{
    ferrytest::ApplianceRoot root;
    ChildProcess creator([](ChildProcess& self) {
        if (createBandwidthTable() != 0 || parseBlockOutPeriods("=3m") != 0)
            self.send(static_cast<uint32_t>(-1));
        else
            self.send(static_cast<uint32_t>(getBandwidthTableId()));
        self.waitForRelease();
    });
    int id = static_cast<int>(creator.receive());
    ASSERT_GE(id, 0);
    ChildProcess reader([id](ChildProcess& self) { senderBody(self, id); });
    ASSERT_EQ(reader.receive(), 0u);
    EXPECT_EQ(attachCount(id), 2);

    ASSERT_EQ(kill(creator.pid(), SIGKILL), 0);
    int status = creator.finish();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(attachCount(id), 1) << "the reader keeps the segment alive";
    reader.send(1);
    EXPECT_EQ(reader.receive(), 3145728u);

    EXPECT_EQ(reader.finish(), 0);
    EXPECT_FALSE(segmentExists(id));
    EXPECT_NE(ipcsSegment(id).find("not found"), std::string::npos) << ipcsSegment(id);
}

} // namespace
