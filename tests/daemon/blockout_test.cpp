// The bandwidth table: the BlockOutPeriods parser as the segment shows it,
// per-thread handles, and real processes sharing one segment by its id.
#include "daemon/blockOut.h"

#include "harness/appliance_root.h"
#include "harness/log_capture.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Schedule = std::array<uint32_t, kBandwidthSlots>;
using LimitAt = uint32_t (*)(int day, int hour);
constexpr uint32_t kUnlimited = kNoBandwidthLimit;
constexpr auto npos = std::string::npos;

Schedule scheduleOf(const std::function<uint32_t(int, int)>& limitAt)
{
    Schedule s{};
    for (int i = 0; i < kBandwidthSlots; ++i)
        s[i] = limitAt(i / 24, i % 24);
    return s;
}

Schedule uniform(uint32_t limit)
{
    return scheduleOf([limit](int, int) { return limit; });
}

int attachCount(int shmId)
{
    struct shmid_ds ds {};
    return shmctl(shmId, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.shm_nattch) : -1;
}

bool segmentExists(int shmId)
{
    return attachCount(shmId) >= 0;
}

// A forked process that talks to the test in 32-bit numbers over a socket
// pair; finish() lets it go with one more number and reaps it.
class Child {
public:
    explicit Child(const std::function<void(Child&)>& body)
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            fd_ = fds[1];
            body(*this);
            _exit(0);
        }
        close(fds[1]);
        fd_ = fds[0];
    }
    ~Child() { finish(); }

    void send(uint32_t value) { (void)!::send(fd_, &value, sizeof value, MSG_NOSIGNAL); }
    uint32_t receive()  // all ones once the other side is gone
    {
        uint32_t value = 0;
        return recv(fd_, &value, sizeof value, MSG_WAITALL) == sizeof value ? value : 0xFFFFFFFFu;
    }
    int finish()
    {
        if (pid_ > 0) {
            send(0);
            waitpid(pid_, &status_, 0);
            pid_ = 0;
        }
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
        return status_;
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = 0;
    int fd_ = -1;
    int status_ = -1;
};

// A forked sender as a worker runs it: drops the parent's mapping, attaches
// read-only by id, reports the result, on the test's word reports its
// bandwidth for now, and stays attached until let go.
void senderBody(Child& self, int shmId)
{
    detachBandwidthTable();
    self.send(attachBandwidthTable(shmId));
    self.receive();
    self.send(getThreadBandwidth(time(nullptr)));
    self.receive();
}

// Each test has its own appliance root, so its ftok key is its own too.
class BandwidthTableTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(createBandwidthTable(), 0);
        id_ = getBandwidthTableId();
        ASSERT_GE(id_, 0);
    }
    void TearDown() override { detachBandwidthTable(); }

    // What the segment holds, read through a mapping of our own.
    Schedule table()
    {
        Schedule s{};
        void* addr = shmat(id_, nullptr, SHM_RDONLY);
        if (addr == reinterpret_cast<void*>(-1)) {
            ADD_FAILURE() << "cannot map segment " << id_;
            return s;
        }
        memcpy(s.data(), addr, kBandwidthTableBytes);
        shmdt(addr);
        return s;
    }

    ferrytest::ApplianceRoot root_;
    int id_ = -1;
};

TEST_F(BandwidthTableTest, SchedulesAsTheSegmentShowsThem)
{
    struct Case {
        const char* text;
        int rc;
        LimitAt limit;
    };
    const Case cases[] = {
        {"=1m", 0, [](int, int) { return 1048576u; }},
        {"9-17", 0, [](int, int h) { return h >= 9 && h <= 17 ? 4096u : kUnlimited; }},
        {"1-5:8-18=100k,6:=1g", 0,
         [](int d, int h) { return d >= 1 && d <= 5 && h >= 8 && h <= 18 ? 102400u : d == 6 ? 1073741824u : kUnlimited; }},
        {"23-1", 0, [](int, int h) { return h == 23 || h <= 1 ? 4096u : kUnlimited; }},
        {"6-0:0-23=2m", 0, [](int d, int) { return d == 6 || d == 0 ? 2097152u : kUnlimited; }},
        {"5-1:22-6=64k", 0,
         [](int d, int h) { return (d >= 5 || d <= 1) && (h >= 22 || h <= 6) ? 65536u : kUnlimited; }},
        {"=0", 0, [](int, int) { return 4096u; }},
        {"=5g", 0, [](int, int) { return kUnlimited; }},
        {" 0x1 - 05 : 0x8 - 18 = 0X1K ", 0,  // any base, spaces, the floor
         [](int d, int h) { return d >= 1 && d <= 5 && h >= 8 && h <= 18 ? 4096u : kUnlimited; }},
        // The leading "=" is the default for every other hour; a later bare
        // "=" only changes the limit of the tokens behind it.
        {"=64k,3,=8k,4-5 7=1m", 0,
         [](int, int h) { return h == 3 ? 4096u : h == 4 || h == 5 ? 8192u : h == 7 ? 1048576u : 65536u; }},
        {"", 0, [](int, int) { return kUnlimited; }},
        {"default,9-17=1m", 0, [](int, int) { return kUnlimited; }},
        {"7:1", -1, [](int, int) { return kUnlimited; }},
    };
    EXPECT_EQ(table(), uniform(kUnlimited)) << "a new table has no limit";
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("'") + c.text + "'");
        ASSERT_EQ(parseBlockOutPeriods("=2m"), 0);  // each text replaces the whole week
        EXPECT_EQ(parseBlockOutPeriods(c.text), c.rc);
        EXPECT_EQ(table(), scheduleOf(c.limit));
    }
}

TEST_F(BandwidthTableTest, BadTextsLeaveNoLimitAndSayWhy)
{
    struct Case {
        const char* text;
        const char* logged;
    };
    const Case cases[] = {
        {"1-5,0-24", "Hours '0-24' must be 0-23\n"},
        {"1-9:3", "Weekdays '1-9' must be 0-6\n"},
        {"nights", "Bad blockout token: 'nights'\n"},
        {"9-17x", "Bad blockout token: '9-17x'\n"},
        {"08", "Bad blockout token: '08'\n"},
        {"9-17=", "Bandwidth limit must follow '=': '='\n"},
        {"=lots", "Bad default bandwidth: '=lots'\n"},
        // One bad token voids the good ones around it.
        {"1-5:8-18=100k,9:30,6:=1g", "Hours '30' must be 0-23\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
        ferrytest::LogCapture log(5);
        EXPECT_EQ(parseBlockOutPeriods(c.text), -1);
        EXPECT_EQ(table(), uniform(kUnlimited));
        EXPECT_NE(log.text().find(c.logged), npos) << log.text();
    }
}

TEST_F(BandwidthTableTest, BandwidthFollowsLocalWeekdayAndHour)
{
    ASSERT_EQ(parseBlockOutPeriods("1-5:8-18=100k"), 0);
    // Local time on 2024-01-07 + day, a Sunday + day.
    auto at = [](int day, int hour) {
        struct tm tm {};
        tm.tm_year = 124, tm.tm_mday = 7 + day, tm.tm_hour = hour, tm.tm_min = 30, tm.tm_isdst = -1;
        return getThreadBandwidth(mktime(&tm));
    };
    EXPECT_EQ(at(1, 8), 102400u);  // Monday 08:30
    EXPECT_EQ(at(5, 18), 102400u);  // Friday 18:30
    EXPECT_EQ(at(1, 19), kUnlimited);
    EXPECT_EQ(at(6, 10), kUnlimited);
    EXPECT_EQ(at(0, 10), kUnlimited);
}

TEST_F(BandwidthTableTest, ReadOnlyHandlesCannotChangeTheTable)
{
    ASSERT_EQ(parseBlockOutPeriods("=1m"), 0);
    std::thread sender([&] {
        EXPECT_EQ(getBandwidthTableId(), -1) << "a new thread starts on the built-in table";
        ferrytest::LogCapture log(5);
        EXPECT_EQ(parseBlockOutPeriods("attach:twelve"), -1);
        EXPECT_NE(log.text().find("Shared memory id (integer) must follow attach: 'twelve'"), npos);
        char attach[32];
        snprintf(attach, sizeof attach, "  attach:0x%x", static_cast<unsigned>(id_));
        ASSERT_EQ(parseBlockOutPeriods(attach), 0);
        EXPECT_EQ(attachCount(id_), 2);
        EXPECT_EQ(parseBlockOutPeriods("=4k"), -1);
    });
    sender.join();
    EXPECT_EQ(attachCount(id_), 1) << "an ended thread must have detached";

    // Not even a stray write through a worker's mapping gets through.
    Child worker([&](Child& self) {
        detachBandwidthTable();
        if (attachBandwidthTable(id_) != 0)
            _exit(3);
        self.send(parseBlockOutPeriods("=1k"));
        static_cast<volatile uint32_t*>(getBandwidthHandle()->attachedAddress)[0] = 1;
        _exit(0);
    });
    EXPECT_EQ(worker.receive(), static_cast<uint32_t>(-1));
    // The sanitizers catch the fault themselves and exit with an error.
    int status = worker.finish();
    EXPECT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) ||
                (WIFEXITED(status) && WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 3))
        << "status " << status;
    EXPECT_EQ(table(), uniform(1048576u));
}

TEST_F(BandwidthTableTest, EachAttachedProcessTakesAnEqualShare)
{
    for (auto [text, limit] : {std::pair{"=1m", 1048576u}, std::pair{"=9000", 9000u}}) {
        ASSERT_EQ(parseBlockOutPeriods(text), 0);
        for (unsigned senders = 1; senders <= 3; ++senders) {
            SCOPED_TRACE(std::string(text) + " with " + std::to_string(senders) + " senders");
            std::vector<std::unique_ptr<Child>> children;
            for (unsigned i = 0; i < senders; ++i)
                children.push_back(std::make_unique<Child>([&](Child& self) { senderBody(self, id_); }));
            for (auto& c : children)
                ASSERT_EQ(c->receive(), 0u) << "child could not attach";
            EXPECT_EQ(attachCount(id_), static_cast<int>(senders) + 1);  // and this read-write parent
            for (auto& c : children)
                c->send(1);
            for (auto& c : children)
                EXPECT_EQ(c->receive(), std::max(limit / senders, kMinBandwidth));
            for (auto& c : children)
                EXPECT_EQ(c->finish(), 0);
            EXPECT_EQ(attachCount(id_), 1);
        }
    }
}

// The segment lives as long as anyone is attached, whether its creator
// exits or is killed; a process that comes too late runs without limit.
TEST(BandwidthTableLifetime, SegmentGoesWithTheLastDetachEvenAfterSigkill)
{
    for (bool killed : {false, true}) {
        SCOPED_TRACE(killed ? "creator killed" : "creator exits");
        ferrytest::ApplianceRoot root;
        Child creator([](Child& self) {
            bool made = createBandwidthTable() == 0 && parseBlockOutPeriods("=3m") == 0;
            self.send(made ? getBandwidthTableId() : -1);
            self.receive();
        });
        int id = static_cast<int>(creator.receive());
        ASSERT_GE(id, 0);
        struct shmid_ds ds {};
        ASSERT_EQ(shmctl(id, IPC_STAT, &ds), 0);
        EXPECT_EQ(ds.shm_perm.mode & 0777, 0600u);
        EXPECT_EQ(ds.shm_segsz, kBandwidthTableBytes);

        Child reader([id](Child& self) { senderBody(self, id); });
        ASSERT_EQ(reader.receive(), 0u);
        if (killed) {
            ASSERT_EQ(kill(creator.pid(), SIGKILL), 0);
        }
        creator.finish();
        EXPECT_EQ(attachCount(id), 1) << "the reader keeps the segment alive";
        reader.send(1);
        EXPECT_EQ(reader.receive(), 3145728u);
        EXPECT_EQ(reader.finish(), 0);
        EXPECT_FALSE(segmentExists(id));

        Child late([id](Child& self) {
            ferrytest::LogCapture log(5);
            self.send(attachBandwidthTable(id));
            self.send(log.text().find("Can't attach to shared memory " + std::to_string(id)) != npos);
            self.send(parseBlockOutPeriods("=4k"));  // parsed, but there is nothing to write to
            self.send(getThreadBandwidth(time(nullptr)));
        });
        EXPECT_EQ(late.receive(), static_cast<uint32_t>(-1));
        EXPECT_EQ(late.receive(), 1u) << "the failed attach must be logged";
        EXPECT_EQ(late.receive(), 0u);
        EXPECT_EQ(late.receive(), kUnlimited);
    }
}

TEST(BandwidthWithoutTable, MissingKeyFileFailsCreationUnderTheApplianceRoot)
{
    ferrytest::ApplianceRoot root;
    ASSERT_EQ(unlink(root.tqIni().c_str()), 0);
    ferrytest::LogCapture log(5);
    EXPECT_EQ(createBandwidthTable(), -1);
    EXPECT_EQ(getThreadBandwidth(time(nullptr)), kUnlimited);
    EXPECT_NE(log.text().find("Can't get shared memory key: " + root.tqIni() + ", "), npos) << log.text();
}

} // namespace
