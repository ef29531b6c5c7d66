// The process log against real files in a temporary appliance: line format,
// instance choice, rotation, simple mode, retention, the name stack, and
// writers in threads, signal handlers and forked children at once.
#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using ferrytest::fileExists;
using ferrytest::readFile;
using ferrytest::writeFile;

namespace {

const std::regex kPrefix(R"(^[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} : \[LOG([0-9])\] )");

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The line without its "<time> : [LOGn] " prefix; empty when it has none.
std::string body(const std::string& line)
{
    std::smatch m;
    return std::regex_search(line, m, kPrefix) ? std::string(m.suffix()) : "";
}

bool hasLine(const std::string& path, const std::string& text)
{
    return readFile(path).find(text) != std::string::npos;
}

void setAge(const std::string& path, long secondsAgo)
{
    struct timespec times[2] = {{time(nullptr) - secondsAgo, 0}, {time(nullptr) - secondsAgo, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

long fileSize(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? (long)st.st_size : -1;
}

std::string locationValue(const std::string& tqIni, const std::string& key)
{
    char buf[1024];
    ini_get_string("Location Information", key.c_str(), "<none>", buf, sizeof buf, tqIni.c_str());
    return buf;
}

class LoggerTest : public ::testing::Test {
protected:
    ferrytest::ApplianceRoot root;

    void SetUp() override
    {
        TearDown();
        log_screen_level = -1;
        g_logdir = root.logdir();
        g_master_ini = root.masterIni();
        g_log_config = LogConfig {};
        set_log_rename_flag(0);
        set_log_rotation("", 0, 0, 1, "");
    }
    void TearDown() override
    {
        log_level = 0;
        log_simple = 0;
        close_log();
        unsetenv("LOG_LEVEL");
        unsetenv("TQLOGNAME");
        g_logdir.clear();
        g_master_ini.clear();
    }
    std::string logFile(const std::string& name) const { return root.logdir() + "/" + name; }
};

TEST_F(LoggerTest, LineFormatLevelsAndScreenEcho)
{
    log_printf(0, "%s:%d: early", "main.cpp", 1);  // no log open yet
    flush_log();
    EXPECT_TRUE(hasLine(root.path("/tmp/program.log"), "main.cpp:1: early"));

    writeFile(logFile("format.log"), "old content\n");
    ASSERT_EQ(open_log("format.log"), 0);
    EXPECT_EQ(fcntl(fileno(swap_log_stream(nullptr)), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    struct stat st {};
    ASSERT_EQ(stat(logFile("format.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    EXPECT_EQ(st.st_size, 0);

    log_level = 3;
    log_screen_level = 5;
    testing::internal::CaptureStderr();
    int n = log_printf(0, "%s:%d: Entering utility mode", "ferryd.cpp", 4025);
    log_printf(3, "ends in newline\n");
    EXPECT_EQ(log_printf(5, "screen only %d", 5), 0);
    EXPECT_EQ(log_printf(6, "nowhere"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ferryd.cpp:4025: Entering utility mode\nends in newline\nscreen only 5\n");
    log_printf(0, "program[1.0, pid = 1]: started on today  (Log level=%d)\n", 0);
    log_printf(0, "in the middle Log level= too");
    errno = ENOENT;
    log_errno_printf(0, "%s:%d: open failed\n", "a.cpp", 3);
    EXPECT_EQ(log_raw_printf(0, "raw %d|", 7), 6);
    log_printf(0, "after raw");
    close_log();

    std::string text = readFile(logFile("format.log"));
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    std::vector<std::string> lines = readLines(logFile("format.log"));
    ASSERT_EQ(lines.size(), 7u) << text;
    EXPECT_EQ(body(lines[0]), "ferryd.cpp:4025: Entering utility mode");
    EXPECT_EQ(n, (int)lines[0].size() + 1);
    EXPECT_NE(lines[1].find("[LOG3] ends in newline"), std::string::npos);
    EXPECT_EQ(lines[2], "program[1.0, pid = 1]: started on today  (Log level=0)");
    EXPECT_EQ(lines[3], "in the middle Log level= too");
    EXPECT_EQ(body(lines[4]), "a.cpp:3: open failed because...(2) No such file or directory ");
    EXPECT_EQ(lines[5].substr(0, 6), "raw 7|");
    EXPECT_EQ(body(lines[5].substr(6)), "after raw");
    EXPECT_TRUE(std::regex_match(lines[6], std::regex(R"([A-Z][a-z]{2} [0-9]{2} [0-9:]{8} : pid=)" +
                                                      std::to_string(getpid()) + " " +
                                                      std::to_string(getppid()) + " : Log Closed")))
        << lines[6];
}

TEST_F(LoggerTest, LevelOffUnopenableLogAndStderr)
{
    log_level = 200;
    EXPECT_EQ(open_program_log("quiet", 1), 0);
    EXPECT_EQ(log_printf(0, "never %d", 1) + log_raw_printf(0, "never"), 0);
    EXPECT_NE(swap_log_stream(nullptr), nullptr);  // "/dev/null" stands in
    close_log();
    EXPECT_FALSE(fileExists(logFile("quiet-0.log")));
    EXPECT_FALSE(fileExists(root.path("/tmp/program.log")));

    log_level = 0;
    std::string bad = root.path("/no/such/dir/x.log");
    testing::internal::CaptureStderr();
    EXPECT_EQ(open_log(bad.c_str()), -1);
    std::string screen = testing::internal::GetCapturedStderr();
    EXPECT_NE(screen.find("Fatal error opening logfile " + bad + " because: No such file or directory"),
              std::string::npos)
        << screen;
    EXPECT_STREQ(log_fname, "/dev/null");
    EXPECT_GT(log_printf(0, "goes nowhere"), 0);

    // A log handed to stderr is forgotten, not closed, by close_log.
    swap_log_stream(stderr);
    close_log();
    EXPECT_NE(fcntl(2, F_GETFD), -1);
    EXPECT_EQ(swap_log_stream(nullptr), nullptr);
}

// Writes numbered lines "rot line <n>" until the main file has shrunk
// `rotations` times. Returns the next number.
int writeUntilRotations(const std::string& mainFile, int next, int rotations)
{
    std::string padding(80, '.');
    long lastSize = fileSize(mainFile);
    for (int guard = 0; rotations > 0 && guard < 1000; ++guard) {
        log_printf(0, "%s:%d: rot line %d %s", "rot.cpp", 1, next++, padding.c_str());
        long size = fileSize(mainFile);
        rotations -= size < lastSize;
        lastSize = size;
    }
    return next;
}

std::vector<int> lineNumbers(const std::string& path)
{
    std::vector<int> numbers;
    std::regex numbered(R"(rot line ([0-9]+) )");
    std::smatch m;
    for (const std::string& line : readLines(path))
        if (std::regex_search(line, m, numbered))
            numbers.push_back(std::stoi(m[1]));
    return numbers;
}

TEST_F(LoggerTest, RotationRenamesFamilyDropsOldestAndKeepsGzExtension)
{
    root.writeMasterIni("[MaxLogKB]\ndefault=1\n[LogsPerInstance]\ndefault=3\n");
    ASSERT_EQ(open_program_log("rot", 1), 0);
    std::string base = logFile("rot-0");
    int next = writeUntilRotations(base + ".log", 0, 4);
    EXPECT_FALSE(fileExists(base + "_3.log"));
    EXPECT_LE(fileSize(base + "_1.log"), 1024 + 300);
    std::vector<std::string> current = readLines(base + ".log");
    ASSERT_GE(current.size(), 3u);
    EXPECT_EQ(current[0].rfind(std::string("rot[") + FERRY_VERSION + ", pid = " + std::to_string(getpid()) +
                                   "]: started on ",
                               0),
              0u)
        << current[0];
    EXPECT_NE(current[0].find(" (Log level=0)"), std::string::npos);
    EXPECT_EQ(body(current[1]), "Log size limit reached, starting new log file. For prior logs, check rot-0*.log");

    // Oldest to newest, the kept files hold one unbroken run up to the last line.
    std::vector<int> numbers;
    for (const char* file : {"_2.log", "_1.log", ".log"})
        for (int n : lineNumbers(base + file))
            numbers.push_back(n);
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers.back(), next - 1);
    for (size_t i = 1; i < numbers.size(); ++i)
        EXPECT_EQ(numbers[i], numbers[i - 1] + 1);
    EXPECT_GT(numbers.front(), 0);  // the first file fell away

    // An outside tool compresses _1; the logger carries the extension along.
    std::string compressed = readFile(base + "_1.log");
    ASSERT_EQ(rename((base + "_1.log").c_str(), (base + "_1.log.gz").c_str()), 0);
    next = writeUntilRotations(base + ".log", next, 1);
    EXPECT_EQ(readFile(base + "_2.log.gz"), compressed);
    EXPECT_FALSE(fileExists(base + "_2.log"));
    writeUntilRotations(base + ".log", next, 1);
    EXPECT_FALSE(fileExists(base + "_2.log.gz"));
    EXPECT_FALSE(fileExists(base + "_3.log.gz"));
    EXPECT_TRUE(fileExists(base + "_2.log"));
}

TEST_F(LoggerTest, RotationNeedsBothLimitsAndIsCheckedBeforeTheWrite)
{
    struct Case {
        const char* masterIni;
        bool rotates;
    } cases[] = {{"[MaxLogKB]\ndefault=0\n[LogsPerInstance]\ndefault=3\n", false},
                 {"[MaxLogKB]\ndefault=1\n[LogsPerInstance]\ndefault=3\nthr=1\n", false},
                 {"[MaxLogKB]\ndefault=1\n[LogsPerInstance]\ndefault=1\nthr=3\n", true}};
    setenv("TQLOGNAME", logFile("thr-0.log").c_str(), 1);  // opening deletes the last case's family
    std::string big(3000, 'b');
    for (const Case& c : cases) {
        SCOPED_TRACE(c.masterIni);
        root.writeMasterIni(c.masterIni);
        ASSERT_EQ(open_program_log("thr", 1), 0);
        log_printf(0, "%s", big.c_str());
        EXPECT_FALSE(fileExists(logFile("thr-0_1.log")));  // the long line itself went whole
        log_printf(0, "next");
        EXPECT_EQ(fileExists(logFile("thr-0_1.log")), c.rotates);
        EXPECT_EQ(hasLine(logFile("thr-0.log"), big), !c.rotates);
    }
}

TEST_F(LoggerTest, InstanceSearchTakesFreeThenExpiredThenOldest)
{
    struct Case {
        const char* name;
        const char* masterIni;
        std::vector<std::pair<std::string, long>> files;  // name, age in seconds
        std::vector<std::string> gone, kept;
    } cases[] = {
        {"inst", "", {{"inst-0.log", 0}, {"inst-2.log.gz", 0}}, {}, {"inst-0.log", "inst-2.log.gz"}},
        {"exp",
         "[LogRetentionDays]\ndefault=0\n[LogRetentionInstances]\ndefault=5\n",  // days below 1 mean 1
         {{"exp-0.log", 0}, {"exp-1.log", 3 * 86400}, {"exp-1_1.log", 0}},
         {"exp-1_1.log"},
         {"exp-0.log"}},
        {"old",
         "[LogRetentionInstances]\nold=2\n",  // 0 to 2 taken and young: the oldest goes
         {{"old-0.log", 100}, {"old-0_1.log", 0}, {"old-1.log.gz", 300}, {"old-1_1.log", 0},
          {"old-1_2.log.gz", 0}, {"old-2.log", 200}},
         {"old-1.log.gz", "old-1_1.log", "old-1_2.log.gz"},
         {"old-0_1.log", "old-2.log"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root.writeMasterIni(c.masterIni);
        for (const auto& [file, age] : c.files) {
            writeFile(logFile(file), file + "\n");
            if (age > 0)
                setAge(logFile(file), age);
        }
        load_log_config(c.name, 3);
        int instance = -1;
        ASSERT_EQ(OpenInstanceLog(c.name, &instance), 0);
        EXPECT_EQ(instance, 1);
        EXPECT_EQ(readFile(logFile(std::string(c.name) + "-1.log")), "");
        for (const std::string& file : c.gone)
            EXPECT_FALSE(fileExists(logFile(file))) << file;
        for (const std::string& file : c.kept)
            EXPECT_EQ(readFile(logFile(file)), file + "\n");
        close_log();
    }

    // The chosen path is recorded in tq.ini, the one before as prev_<name>.
    EXPECT_EQ(locationValue(root.tqIni(), "inst"), logFile("inst-1.log"));
    EXPECT_EQ(locationValue(root.tqIni(), "prev_inst"), "");
    load_log_config("inst", 3);
    int instance = -1;
    ASSERT_EQ(OpenInstanceLog("inst", &instance), 0);
    EXPECT_EQ(instance, 3);
    EXPECT_EQ(locationValue(root.tqIni(), "inst"), logFile("inst-3.log"));
    EXPECT_EQ(locationValue(root.tqIni(), "prev_inst"), logFile("inst-1.log"));
}

TEST_F(LoggerTest, ProgramLogStartLineAndTqlogname)
{
    log_level = 6;
    ASSERT_EQ(open_program_log("starter", 1), 0);
    flush_log();
    std::regex start(std::string(R"(starter\[)") + FERRY_VERSION +
                     R"(, pid = [0-9]+\]: started on .+  \(Log level=6\)\n)");
    EXPECT_TRUE(std::regex_search(readFile(logFile("starter-0.log")), start)) << readFile(logFile("starter-0.log"));

    setenv("TQLOGNAME", logFile("fixed.log").c_str(), 1);
    ASSERT_EQ(open_program_log("fixedprog", 1), 0);
    flush_log();
    EXPECT_TRUE(hasLine(logFile("fixed.log"), "fixedprog["));
    EXPECT_FALSE(fileExists(logFile("fixedprog-0.log")));
}

TEST_F(LoggerTest, LogLevelEnvironmentIsReadFromTwelfthCharacter)
{
    struct Case {
        const char* env;
        int before, after;
    } cases[] = {{"4", 1, 1}, {"LOGLEVELIS=5", 1, 5}, {"12345678901", 1, 0}, {"LOGLEVELIS=6", 103, 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.env);
        log_level = c.before;
        log_simple = 0;
        setenv("LOG_LEVEL", c.env, 1);
        ASSERT_EQ(open_log("lvl-x.log"), 0);
        EXPECT_EQ(log_level, c.after);  // the variable is for full mode only
        close_log();
    }
}

TEST_F(LoggerTest, SimpleModeWritesOneFilePerProgramUpToTheLastDash)
{
    log_level = 103;
    ASSERT_EQ(open_program_log("ferryd-worker", 1), 0);
    EXPECT_EQ(log_simple, 1);
    EXPECT_EQ(log_level, 3);
    EXPECT_FALSE(fileExists(logFile("ferryd-worker-0.log")));
    log_printf(3, "three");
    EXPECT_EQ(log_printf(4, "four"), 0);
    close_log();
    ASSERT_EQ(open_log("ferryd-util"), 0);  // appends to the same file
    log_printf(0, "%s", std::string(2000, 'y').c_str());
    close_log();

    std::string text = readFile(logFile("ferryd.log"));
    std::vector<std::string> lines = readLines(logFile("ferryd.log"));
    ASSERT_EQ(lines.size(), 6u) << text;
    EXPECT_NE(body(lines[0]).find("ferryd-worker["), std::string::npos);  // prefixed in simple mode
    EXPECT_NE(body(lines[0]).find("(Log level=3)"), std::string::npos);
    EXPECT_EQ(body(lines[1]), "three");
    int prefixLength = (int)lines[4].find("yyyyyyyyyy");
    EXPECT_EQ(lines[3], "Message below was truncated from " + std::to_string(prefixLength + 2000) +
                            " to 1024 bytes");
    EXPECT_EQ(lines[4].size(), 1022u);  // 1023 bytes with the newline

    // The cut is at the last '-' of the whole path, even one in the directory;
    // tqserver logs are never simple.
    g_logdir = root.appdir() + "/log-dir";
    ferrytest::makeDirs(g_logdir);
    log_level = 100;
    ASSERT_EQ(open_log("plain.log"), 0);
    log_printf(0, "into the cut path");
    close_log();
    EXPECT_TRUE(hasLine(root.appdir() + "/log.log", "into the cut path"));
    log_simple = 0;
    log_level = 105;
    ASSERT_EQ(open_log("tqserver-x.log"), 0);
    EXPECT_EQ(log_simple, 0);
    EXPECT_EQ(log_level, 5);
    EXPECT_TRUE(fileExists(root.appdir() + "/log-dir/tqserver-x.log"));
}

TEST_F(LoggerTest, PurgeKeepsWhatRetentionCovers)
{
    root.writeMasterIni("[LogRetentionInstances]\ndefault=2\nbusy=0\n[LogRetentionDays]\nkeep=10\n");
    const char* gone[] = {"app-3.log", "app-3_1.log", "stale-0.log", "stale-0_1.log.gz"};
    const char* kept[] = {"app-0.log", "app-2.log.gz", "keep-0.log",
                          "busy-1.log",  // 0 instances count as 1
                          "notes.txt", "-4.log", "orphan-7_1.log"};
    for (const char* file : gone)
        writeFile(logFile(file), "a");
    for (const char* file : kept)
        writeFile(logFile(file), "a");
    setAge(logFile("stale-0.log"), 2 * 86400);
    setAge(logFile("keep-0.log"), 3 * 86400);
    EXPECT_EQ(PurgeOldLogs(), 7);
    for (const char* file : gone)
        EXPECT_FALSE(fileExists(logFile(file))) << file;
    for (const char* file : kept)
        EXPECT_TRUE(fileExists(logFile(file))) << file;
    g_logdir = root.path("/no/such/logs");
    EXPECT_EQ(PurgeOldLogs(), -1);
}

TEST_F(LoggerTest, NameStackLimits)
{
    ASSERT_EQ(open_log("names.log"), 0);
    while (push_name("reset") == 0) {
    }  // a push past the top clears the process-wide stack
    EXPECT_STREQ(dbproc_name(), "Not set:");
    std::string longName(100, 'n');
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(push_name(i == 0 ? longName.c_str() : ("f" + std::to_string(i)).c_str()), 0) << i;
    EXPECT_STREQ(dbproc_name(), "f49");
    log_level = 1;
    EXPECT_EQ(push_name("one too many"), -1);
    EXPECT_STREQ(dbproc_name(), "Not set:");
    flush_log();
    EXPECT_TRUE(hasLine(logFile("names.log"), "name_array[0] is \"" + longName.substr(0, 63) + "\""));
    EXPECT_TRUE(hasLine(logFile("names.log"), "name_array[49] is \"f49\""));
}

std::atomic<int> g_handled {0};

void loggingHandler(int)
{
    int n = ++g_handled;
    log_printf(0, "%s:%d: signal %d", "handler.cpp", 1, n);
}

// Waits for a forked child; a child that inherited a taken lock would never
// end, so after ten seconds it is killed and the wait reports failure.
bool childEndedCleanly(pid_t pid)
{
    int status = -1;
    pid_t done = 0;
    for (int tries = 0; tries < 10000 && (done = waitpid(pid, &status, WNOHANG)) == 0; ++tries)
        usleep(1000);
    if (done == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LoggerTest, ThreadsHandlersAndForkedChildrenKeepLinesWhole)
{
    ASSERT_EQ(open_log("mt-0.log"), 0);
    set_log_rotation("mt", 0, 32, 100, "start");
    g_handled = 0;
    sighandler_t oldHandler = signal(SIGUSR1, loggingHandler);

    // Writers run until the children are done, at most kMaxLines each so
    // that the 100 files of 32 KiB never drop a line.
    constexpr int kThreads = 4, kMaxLines = 5000, kChildren = 40;
    std::atomic<bool> stop {false};
    std::atomic<int> written[kThreads] {};
    static const char payload[] = "payload-payload-payload-payload-payload-payload";
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &stop, &written] {
            int i = 0;
            for (; i < kMaxLines && !stop; ++i)
                log_printf(0, "%s:%d: thread %d line %d %s", "mt.cpp", 2, t, i, payload);
            written[t] = i;
            while (!stop)
                sched_yield();
        });
    int children = 0;
    for (; children < kChildren; ++children) {
        for (std::thread& th : threads)
            pthread_kill(th.native_handle(), SIGUSR1);
        pid_t pid = fork();
        if (pid == 0) {
            // Only the parent rotates: two processes renaming one family race.
            set_log_rotation(nullptr, 0, 0, 1, nullptr);
            log_printf(0, "%s:%d: child %d", "fork.cpp", 3, children);
            _exit(0);
        }
        if (pid < 0 || !childEndedCleanly(pid)) {
            ADD_FAILURE() << "child " << children << " could not be forked, or hung in the logger";
            break;
        }
    }
    stop = true;
    for (std::thread& th : threads)
        th.join();
    signal(SIGUSR1, oldHandler);
    flush_log();

    EXPECT_TRUE(fileExists(logFile("mt-0_3.log")));
    std::regex whole(std::string(R"(^(?:mt\.cpp:2: thread ([0-9]) line ([0-9]+) )") + payload +
                     R"(|(handler)\.cpp:1: signal [0-9]+|(fork)\.cpp:3: child [0-9]+)"
                     R"(|Current log size = .*|Log size limit reached.*)$)");
    std::map<int, int> nextLine;
    int signalLines = 0, childLines = 0;
    for (int i = 100; i >= 0; --i) {
        std::string file = logFile(i > 0 ? "mt-0_" + std::to_string(i) + ".log" : "mt-0.log");
        for (const std::string& line : readLines(file)) {
            std::smatch m;
            if (line.find("Log level=") != std::string::npos)
                continue;  // header of a rotated file
            std::string text = body(line);
            EXPECT_TRUE(std::regex_match(text, m, whole)) << file << ": " << line;
            if (m[1].matched) {
                EXPECT_EQ(std::stoi(m[2]), nextLine[std::stoi(m[1])]++) << line;
            }
            signalLines += m[3].matched;
            childLines += m[4].matched;
        }
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(nextLine[t], written[t].load()) << t;
    EXPECT_GT(g_handled.load(), 0);
    EXPECT_EQ(signalLines, g_handled.load());
    EXPECT_EQ(childLines, children);
    EXPECT_EQ(children, kChildren);
}

} // namespace
