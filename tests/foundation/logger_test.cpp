// The process log against real files in a temporary appliance: line format,
// instance choice, rotation, simple mode, the name stack and concurrent
// writers with signal handlers that log.
#include "foundation/environment.h"
#include "foundation/ini.h"
#include "foundation/logger.h"
#include "harness/appliance_root.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <regex>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/time.h>
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
    if (!std::regex_search(line, m, kPrefix))
        return "";
    return m.suffix();
}

bool hasLine(const std::string& path, const std::string& text)
{
    for (const std::string& line : readLines(path))
        if (line.find(text) != std::string::npos)
            return true;
    return false;
}

void setAge(const std::string& path, long secondsAgo)
{
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct timeval times[2] = {{now.tv_sec - secondsAgo, 0}, {now.tv_sec - secondsAgo, 0}};
    ASSERT_EQ(utimes(path.c_str(), times), 0) << path;
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

// Sends fd 2 to a file for the life of the object.
class StderrCapture {
public:
    explicit StderrCapture(std::string path) : path_(std::move(path))
    {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        close(fd);
    }
    std::string finish()
    {
        if (saved_ >= 0) {
            fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
        }
        return readFile(path_);
    }
    ~StderrCapture() { finish(); }

private:
    std::string path_;
    int saved_ = -1;
};

class LoggerTest : public ::testing::Test {
protected:
    ferrytest::ApplianceRoot root;

    void SetUp() override
    {
        close_log();
        unsetenv("LOG_LEVEL");
        unsetenv("TQLOGNAME");
        log_level = 0;
        log_simple = 0;
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

TEST_F(LoggerTest, LineFormatAddsOneNewlineAndPrefixUnlessStartLine)
{
    ASSERT_EQ(open_log("format.log"), 0);
    EXPECT_EQ(std::string(log_fname), logFile("format.log"));
    int n = log_printf(0, "%s:%d: Entering utility mode", "ferryd.cpp", 4025);
    log_printf(0, "ends in newline\n");
    EXPECT_EQ(log_printf(1, "above the level"), 0);
    log_printf(0, "program[1.0, pid = 1]: started on today  (Log level=%d)\n", 0);
    log_printf(0, "in the middle Log level= too");
    close_log();

    std::string text = readFile(logFile("format.log"));
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    std::vector<std::string> lines = readLines(logFile("format.log"));
    ASSERT_EQ(lines.size(), 5u) << text;
    EXPECT_EQ(body(lines[0]), "ferryd.cpp:4025: Entering utility mode");
    EXPECT_EQ(n, (int)lines[0].size() + 1);
    EXPECT_EQ(body(lines[1]), "ends in newline");
    EXPECT_EQ(lines[2], "program[1.0, pid = 1]: started on today  (Log level=0)");
    EXPECT_EQ(lines[3], "in the middle Log level= too");
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"([A-Z][a-z]{2} [0-9]{2} [0-9:]{8} : pid=)" +
                                                      std::to_string(getpid()) + " " +
                                                      std::to_string(getppid()) + " : Log Closed")))
        << lines[4];
    EXPECT_NE(text.find("[LOG0] ferryd.cpp"), std::string::npos);
}

TEST_F(LoggerTest, LevelsFilterAndScreenEchoIsBare)
{
    ASSERT_EQ(open_log("levels.log"), 0);
    log_level = 3;
    log_screen_level = 5;
    StderrCapture capture(root.path("/tmp/stderr.txt"));
    EXPECT_GT(log_printf(3, "three %d", 3), 0);
    EXPECT_EQ(log_printf(5, "five %d", 5), 0);  // only on the screen
    EXPECT_EQ(log_printf(6, "six"), 0);
    std::string screen = capture.finish();
    EXPECT_EQ(screen, "three 3\nfive 5\n");
    std::vector<std::string> lines = readLines(logFile("levels.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(body(lines[0]), "three 3");
    EXPECT_NE(lines[0].find("[LOG3]"), std::string::npos);
}

TEST_F(LoggerTest, LoggingOffCreatesNoFile)
{
    log_level = 200;
    EXPECT_EQ(open_program_log("quiet", 1), 0);
    EXPECT_EQ(log_printf(0, "never %d", 1), 0);
    EXPECT_EQ(log_raw_printf(0, "never"), 0);
    FILE* stream = swap_log_stream(nullptr);
    EXPECT_NE(stream, nullptr);  // "/dev/null" stands in
    close_log();
    EXPECT_FALSE(fileExists(logFile("quiet-0.log")));
    EXPECT_FALSE(fileExists(root.path("/tmp/program.log")));
}

TEST_F(LoggerTest, FirstLineWithoutLogOpensTmpProgramLog)
{
    log_printf(0, "%s:%d: early", "main.cpp", 1);
    flush_log();
    EXPECT_TRUE(hasLine(root.path("/tmp/program.log"), "main.cpp:1: early"));
}

TEST_F(LoggerTest, ErrnoRawAndIncludedLines)
{
    ASSERT_EQ(open_log("extras.log"), 0);
    errno = ENOENT;
    log_errno_printf(0, "%s:%d: open failed\n", "a.cpp", 3);
    errno = EACCES;
    log_errno_printf(0, "no newline");
    EXPECT_EQ(log_raw_printf(0, "raw %d|", 7), 6);
    EXPECT_EQ(log_raw_printf(1, "filtered"), 0);
    std::string included = root.path("/tmp/include.txt");
    writeFile(included, "first line\nsecond line\nlast without newline");
    EXPECT_EQ(log_include_file(0, included.c_str()), 0);
    EXPECT_EQ(log_include_file(0, root.path("/tmp/missing.txt").c_str()), -1);
    flush_log();

    std::vector<std::string> lines = readLines(logFile("extras.log"));
    ASSERT_EQ(lines.size(), 6u) << readFile(logFile("extras.log"));
    EXPECT_EQ(body(lines[0]), "a.cpp:3: open failed because...(2) No such file or directory ");
    EXPECT_EQ(body(lines[1]), "no newline because...(13) Permission denied ");
    EXPECT_EQ(lines[2].substr(0, 6), "raw 7|");
    EXPECT_EQ(body(lines[2].substr(6)), "first line");
    EXPECT_EQ(body(lines[3]), "second line");
    EXPECT_EQ(body(lines[4]), "last without newline");
    EXPECT_EQ(body(lines[5]), "logger: Cannot include contents of " + root.path("/tmp/missing.txt") +
                                  " (open failed - No such file or directory)");
}

TEST_F(LoggerTest, OpenedLogIsPrivateAndNewInstanceStartsEmpty)
{
    writeFile(logFile("fresh.log"), "old content\n");
    writeFile(logFile("fresh_1.log.gz"), "older\n");
    ASSERT_EQ(open_log("fresh.log"), 0);
    FILE* stream = swap_log_stream(nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    struct stat st {};
    ASSERT_EQ(stat(logFile("fresh.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_FALSE(fileExists(logFile("fresh_1.log.gz")));
}

TEST_F(LoggerTest, UnopenableLogFallsBackToDevNull)
{
    StderrCapture capture(root.path("/tmp/stderr.txt"));
    EXPECT_EQ(open_log(root.path("/no/such/dir/x.log").c_str()), -1);
    std::string screen = capture.finish();
    EXPECT_NE(screen.find("Fatal error opening logfile " + root.path("/no/such/dir/x.log") +
                          " because: No such file or directory"),
              std::string::npos)
        << screen;
    EXPECT_STREQ(log_fname, "/dev/null");
    EXPECT_GT(log_printf(0, "goes nowhere"), 0);
}

TEST_F(LoggerTest, SwappedStreamTakesLinesAndNeverRotates)
{
    ASSERT_EQ(open_log("swap-0.log"), 0);
    set_log_rotation("swap", 0, 1, 3, "start");
    FILE* other = tmpfile();
    ASSERT_NE(other, nullptr);
    FILE* original = swap_log_stream(other);
    std::string line(100, 'x');
    for (int i = 0; i < 30; ++i)
        log_printf(0, "%s", line.c_str());
    EXPECT_EQ(swap_log_stream(original), other);
    EXPECT_FALSE(fileExists(logFile("swap-0_1.log")));
    EXPECT_EQ(fileSize(logFile("swap-0.log")), 0);
    EXPECT_GT(ftell(other), 3000);
    fclose(other);
    // Back on the opened stream, rotation applies again.
    for (int i = 0; i < 15; ++i)
        log_printf(0, "%s", line.c_str());
    EXPECT_TRUE(fileExists(logFile("swap-0_1.log")));
}

TEST_F(LoggerTest, CloseLogLeavesStderrOpen)
{
    swap_log_stream(stderr);
    close_log();
    EXPECT_NE(fcntl(2, F_GETFD), -1);
    EXPECT_EQ(swap_log_stream(nullptr), nullptr);
}

// Writes numbered lines "rot line <n>" until a rotation has happened
// `rotations` times (the main file shrinks). Returns the next number.
int writeUntilRotations(const std::string& mainFile, int next, int rotations)
{
    std::string padding(80, '.');
    long lastSize = fileSize(mainFile);
    for (int guard = 0; rotations > 0 && guard < 1000; ++guard) {
        log_printf(0, "%s:%d: rot line %d %s", "rot.cpp", 1, next++, padding.c_str());
        long size = fileSize(mainFile);
        if (size < lastSize)
            --rotations;
        lastSize = size;
    }
    return next;
}

std::vector<int> lineNumbers(const std::string& path)
{
    std::vector<int> numbers;
    std::regex numbered(R"(rot line ([0-9]+) )");
    for (const std::string& line : readLines(path)) {
        std::smatch m;
        if (std::regex_search(line, m, numbered))
            numbers.push_back(std::stoi(m[1]));
    }
    return numbers;
}

TEST_F(LoggerTest, RotationRenamesFamilyDropsOldestAndKeepsGzExtension)
{
    root.writeMasterIni("[MaxLogKB]\ndefault=1\n[LogsPerInstance]\ndefault=3\n");
    ASSERT_EQ(open_program_log("rot", 1), 0);
    std::string base = logFile("rot-0");
    int next = writeUntilRotations(base + ".log", 0, 4);

    EXPECT_TRUE(fileExists(base + ".log"));
    EXPECT_TRUE(fileExists(base + "_1.log"));
    EXPECT_TRUE(fileExists(base + "_2.log"));
    EXPECT_FALSE(fileExists(base + "_3.log"));
    for (const char* older : {"_1.log", "_2.log"}) {
        EXPECT_LE(fileSize(base + older), 1024 + 300) << older;
        std::vector<std::string> lines = readLines(base + older);
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().find("Current log size = "), std::string::npos) << lines.back();
        EXPECT_NE(lines.back().find("; Moving log file...  "), std::string::npos);
    }
    std::vector<std::string> current = readLines(base + ".log");
    ASSERT_GE(current.size(), 3u);
    std::string header = std::string("rot[") + FERRY_VERSION + ", pid = " + std::to_string(getpid()) + "]: started on ";
    EXPECT_EQ(current[0].rfind(header, 0), 0u) << current[0];
    EXPECT_NE(current[0].find(" (Log level=0)"), std::string::npos);
    EXPECT_EQ(current[0].find("  (Log level"), std::string::npos);
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
    EXPECT_TRUE(fileExists(base + "_1.log"));
    writeUntilRotations(base + ".log", next, 1);
    EXPECT_FALSE(fileExists(base + "_2.log.gz"));
    EXPECT_FALSE(fileExists(base + "_3.log.gz"));
    EXPECT_TRUE(fileExists(base + "_2.log"));
}

TEST_F(LoggerTest, SizeTestCountsTheFormatNotTheMessage)
{
    ASSERT_EQ(open_log("long-0.log"), 0);
    set_log_rotation("long", 0, 1, 3, "start");
    std::string big(3000, 'b');
    log_printf(0, "%s", big.c_str());
    EXPECT_GT(fileSize(logFile("long-0.log")), 3000);
    EXPECT_FALSE(fileExists(logFile("long-0_1.log")));
    log_printf(0, "next");
    EXPECT_TRUE(hasLine(logFile("long-0_1.log"), big));
    EXPECT_TRUE(hasLine(logFile("long-0.log"), "next"));
    EXPECT_FALSE(hasLine(logFile("long-0.log"), big));
}

TEST_F(LoggerTest, RotationOffWithOneFileOrZeroSize)
{
    std::string line(100, 'z');
    ASSERT_EQ(open_log("norot-0.log"), 0);
    set_log_rotation("norot", 0, 0, 3, "start");  // MaxLogKB 0
    for (int i = 0; i < 30; ++i)
        log_printf(0, "%s", line.c_str());
    EXPECT_FALSE(fileExists(logFile("norot-0_1.log")));
    set_log_rotation("norot", 0, 1, 1, "start");  // LogsPerInstance 1
    for (int i = 0; i < 30; ++i)
        log_printf(0, "%s", line.c_str());
    EXPECT_FALSE(fileExists(logFile("norot-0_1.log")));
    EXPECT_GT(fileSize(logFile("norot-0.log")), 6000);
}

TEST_F(LoggerTest, InstanceSearchTakesFirstFreeNumberAndRecordsPaths)
{
    writeFile(logFile("inst-0.log"), "zero\n");
    writeFile(logFile("inst-2.log.gz"), "two\n");
    load_log_config("inst", 3);
    int instance = -1;
    ASSERT_EQ(OpenInstanceLog("inst", &instance), 0);
    EXPECT_EQ(instance, 1);  // the gap is filled first
    EXPECT_EQ(readFile(logFile("inst-0.log")), "zero\n");
    EXPECT_EQ(readFile(logFile("inst-2.log.gz")), "two\n");
    EXPECT_EQ(locationValue(root.tqIni(), "inst"), logFile("inst-1.log"));
    EXPECT_EQ(locationValue(root.tqIni(), "prev_inst"), "");

    ASSERT_EQ(OpenInstanceLog("inst", &instance), 0);
    EXPECT_EQ(instance, 3);
    char buf[1024];
    EXPECT_EQ(get_log_name("inst", buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), logFile("inst-3.log"));
    EXPECT_EQ(get_prev_log_name("inst", buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf), logFile("inst-1.log"));
    EXPECT_EQ(get_log_name("nobody", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "nobody.log");
    EXPECT_EQ(get_prev_log_name("nobody", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "nobody.log");
}

TEST_F(LoggerTest, InstanceSearchReusesOldestAndDeletesItsWholeFamily)
{
    // Instances 0 to 2 with retention 2: all taken, all younger than a day.
    writeFile(logFile("old-0.log"), "zero\n");
    writeFile(logFile("old-0_1.log"), "zero one\n");
    writeFile(logFile("old-1.log.gz"), "one\n");
    writeFile(logFile("old-1_1.log"), "one one\n");
    writeFile(logFile("old-1_2.log.gz"), "one two\n");
    writeFile(logFile("old-2.log"), "two\n");
    setAge(logFile("old-0.log"), 100);
    setAge(logFile("old-1.log.gz"), 300);
    setAge(logFile("old-2.log"), 200);
    root.writeMasterIni("[LogRetentionInstances]\nold=2\n");
    load_log_config("old", 7);
    EXPECT_EQ(g_log_config.retentionInstances, 2);
    int instance = -1;
    ASSERT_EQ(OpenInstanceLog("old", &instance), 0);
    EXPECT_EQ(instance, 1);
    EXPECT_FALSE(fileExists(logFile("old-1.log.gz")));
    EXPECT_FALSE(fileExists(logFile("old-1_1.log")));
    EXPECT_FALSE(fileExists(logFile("old-1_2.log.gz")));
    EXPECT_EQ(readFile(logFile("old-1.log")), "");
    EXPECT_TRUE(fileExists(logFile("old-0_1.log")));
    EXPECT_EQ(readFile(logFile("old-2.log")), "two\n");
}

TEST_F(LoggerTest, InstanceSearchReusesExpiredBeforeFreeNumber)
{
    writeFile(logFile("exp-0.log"), "zero\n");
    writeFile(logFile("exp-1.log"), "one\n");
    writeFile(logFile("exp-1_1.log"), "one one\n");
    setAge(logFile("exp-1.log"), 3 * 86400);
    root.writeMasterIni("[LogRetentionDays]\ndefault=0\n[LogRetentionInstances]\ndefault=5\n");
    load_log_config("exp", 1);
    EXPECT_EQ(g_log_config.retentionDays, 1);  // below 1 becomes 1
    int instance = -1;
    ASSERT_EQ(OpenInstanceLog("exp", &instance), 0);
    EXPECT_EQ(instance, 1);
    EXPECT_FALSE(fileExists(logFile("exp-1_1.log")));
    EXPECT_FALSE(fileExists(logFile("exp-2.log")));
}

TEST_F(LoggerTest, LoadLogConfigReadsDefaultThenProgramKeyWithLimits)
{
    root.writeMasterIni("[LogsPerInstance]\ndefault=6\nferryd=2\n[MaxLogKB]\ndefault=-5\n"
                        "[LogRetentionInstances]\ndefault=-3\n");
    load_log_config("ferryd", 9);
    EXPECT_EQ(g_log_config.logsPerInstance, 2);
    EXPECT_EQ(g_log_config.maxLogKB, 0);
    EXPECT_EQ(g_log_config.retentionInstances, 1);
    EXPECT_EQ(g_log_config.retentionDays, 1);
    load_log_config("other", 9);
    EXPECT_EQ(g_log_config.logsPerInstance, 6);
    root.writeMasterIni("[Replication]\n");
    load_log_config("other", 9);
    EXPECT_EQ(g_log_config.logsPerInstance, 4);
    EXPECT_EQ(g_log_config.maxLogKB, 3072);
    EXPECT_EQ(g_log_config.retentionInstances, 9);
}

TEST_F(LoggerTest, ProgramLogStartLineAndTqlognameOverride)
{
    log_level = 6;
    ASSERT_EQ(open_program_log("starter", 1), 0);
    flush_log();
    std::vector<std::string> lines = readLines(logFile("starter-0.log"));
    ASSERT_GE(lines.size(), 6u);
    std::regex start(std::string(R"(^starter\[)") + FERRY_VERSION +
                     R"(, pid = [0-9]+\]: started on .+  \(Log level=6\)$)");
    bool found = false;
    for (const std::string& line : lines)
        found = found || std::regex_match(line, start);
    EXPECT_TRUE(found) << readFile(logFile("starter-0.log"));
    EXPECT_TRUE(hasLine(logFile("starter-0.log"), "\tMaxLogSize:3072"));
    EXPECT_TRUE(hasLine(logFile("starter-0.log"), "\tLogsPerInstance:4"));

    log_level = 0;
    setenv("TQLOGNAME", logFile("fixed.log").c_str(), 1);
    ASSERT_EQ(open_program_log("fixedprog", 1), 0);
    flush_log();
    EXPECT_TRUE(hasLine(logFile("fixed.log"), "fixedprog["));
    EXPECT_FALSE(fileExists(logFile("fixedprog-0.log")));
}

TEST_F(LoggerTest, LogLevelEnvironmentIsReadFromTwelfthCharacter)
{
    log_level = 1;
    setenv("LOG_LEVEL", "4", 1);  // too short to reach the number
    ASSERT_EQ(open_log("lvl.log"), 0);
    EXPECT_EQ(log_level, 1);
    setenv("LOG_LEVEL", "LOGLEVELIS=5", 1);
    ASSERT_EQ(open_log("lvl.log"), 0);
    EXPECT_EQ(log_level, 5);
    setenv("LOG_LEVEL", "12345678901", 1);  // nothing behind the eleven
    ASSERT_EQ(open_log("lvl.log"), 0);
    EXPECT_EQ(log_level, 0);
}

TEST_F(LoggerTest, SimpleModeWritesOneFilePerProgramUpToTheDash)
{
    log_level = 103;
    setenv("LOG_LEVEL", "LOGLEVELIS=6", 1);  // full mode only
    ASSERT_EQ(open_program_log("ferryd-worker", 1), 0);
    EXPECT_EQ(log_simple, 1);
    EXPECT_EQ(log_level, 3);
    EXPECT_FALSE(fileExists(logFile("ferryd-worker-0.log")));
    EXPECT_FALSE(fileExists(logFile("ferryd-worker.log")));
    log_printf(3, "three");
    EXPECT_EQ(log_printf(4, "four"), 0);
    close_log();
    ASSERT_EQ(open_log("ferryd-util"), 0);  // appends to the same file
    std::string big(2000, 'y');
    log_printf(0, "%s", big.c_str());
    close_log();

    std::vector<std::string> lines = readLines(logFile("ferryd.log"));
    ASSERT_GE(lines.size(), 5u) << readFile(logFile("ferryd.log"));
    EXPECT_NE(body(lines[0]).find("ferryd-worker["), std::string::npos);  // prefixed in simple mode
    EXPECT_NE(body(lines[0]).find("(Log level=3)"), std::string::npos);
    EXPECT_TRUE(hasLine(logFile("ferryd.log"), "[LOG3] three"));
    EXPECT_FALSE(hasLine(logFile("ferryd.log"), "four"));
    size_t cut = 0;
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].rfind("Message below was truncated from ", 0) == 0)
            cut = i;
    ASSERT_GT(cut, 0u);
    int prefixLength = (int)lines[cut + 1].find(std::string(10, 'y'));
    EXPECT_EQ(lines[cut], "Message below was truncated from " + std::to_string(prefixLength + 2000) +
                              " to 1024 bytes");
    EXPECT_EQ(lines[cut + 1].size(), 1022u);  // 1023 bytes with the newline
    EXPECT_TRUE(lines[cut + 2].find("Log Closed") != std::string::npos);
}

TEST_F(LoggerTest, SimpleModeCutsAtADashInTheDirectoryAndSparesTqserver)
{
    std::string dashed = root.appdir() + "/log-dir";
    ferrytest::makeDirs(dashed);
    g_logdir = dashed;
    log_level = 100;
    ASSERT_EQ(open_log("plain.log"), 0);
    log_printf(0, "into the cut path");
    close_log();
    EXPECT_TRUE(hasLine(root.appdir() + "/log.log", "into the cut path"));

    log_simple = 0;
    log_level = 105;
    g_logdir = root.logdir();
    ASSERT_EQ(open_log("tqserver-x.log"), 0);
    EXPECT_EQ(log_simple, 0);
    EXPECT_EQ(log_level, 5);
    EXPECT_TRUE(fileExists(logFile("tqserver-x.log")));
}

TEST_F(LoggerTest, SwitchProgramLogCarriesTheFileToTheNewName)
{
    ASSERT_EQ(open_program_log("sw", 1), 0);
    log_printf(0, "before switch");
    ASSERT_EQ(switch_program_log("sw-new"), 0);
    log_printf(0, "after switch");
    flush_log();
    EXPECT_FALSE(fileExists(logFile("sw-0.log")));
    std::string text = readFile(logFile("sw-new-0.log"));
    size_t before = text.find("before switch");
    size_t closed = text.find("Log Closed");
    size_t after = text.find("after switch");
    ASSERT_NE(before, std::string::npos) << text;
    ASSERT_NE(closed, std::string::npos);
    ASSERT_NE(after, std::string::npos);
    EXPECT_LT(before, closed);
    EXPECT_LT(closed, after);
    EXPECT_EQ(locationValue(root.tqIni(), "sw-new"), logFile("sw-new-0.log"));
    // The next open starts afresh again.
    ASSERT_EQ(open_log("sw-new-0.log"), 0);
    EXPECT_EQ(fileSize(logFile("sw-new-0.log")), 0);
}

TEST_F(LoggerTest, PurgeKeepsWhatRetentionCovers)
{
    root.writeMasterIni("[LogRetentionInstances]\ndefault=2\nbusy=0\n[LogRetentionDays]\nkeep=10\n");
    writeFile(logFile("app-0.log"), "a");
    writeFile(logFile("app-2.log.gz"), "a");
    writeFile(logFile("app-3.log"), "a");       // beyond 2 instances
    writeFile(logFile("app-3_1.log"), "a");
    writeFile(logFile("stale-0.log"), "a");     // older than a day
    writeFile(logFile("stale-0_1.log.gz"), "a");
    writeFile(logFile("keep-0.log"), "a");      // older, but kept 10 days
    writeFile(logFile("busy-1.log"), "a");      // instances 0 counts as 1
    writeFile(logFile("notes.txt"), "a");
    writeFile(logFile("-4.log"), "a");          // no program name
    writeFile(logFile("orphan-7_1.log"), "a");  // no main file: nothing goes
    setAge(logFile("stale-0.log"), 2 * 86400);
    setAge(logFile("keep-0.log"), 3 * 86400);

    int retained = PurgeOldLogs();
    EXPECT_FALSE(fileExists(logFile("app-3.log")));
    EXPECT_FALSE(fileExists(logFile("app-3_1.log")));
    EXPECT_FALSE(fileExists(logFile("stale-0.log")));
    EXPECT_FALSE(fileExists(logFile("stale-0_1.log.gz")));
    for (const char* kept : {"app-0.log", "app-2.log.gz", "keep-0.log", "busy-1.log", "notes.txt",
                             "-4.log", "orphan-7_1.log"})
        EXPECT_TRUE(fileExists(logFile(kept))) << kept;
    EXPECT_EQ(retained, 7);

    g_logdir = root.path("/no/such/logs");
    EXPECT_EQ(PurgeOldLogs(), -1);
}

// The name stack is process-wide; a push past the top clears it.
void resetNameStack()
{
    int saved = log_level;
    log_level = 0;
    while (push_name("reset") == 0) {
    }
    log_level = saved;
}

TEST_F(LoggerTest, NameStackLimitsAndTrace)
{
    ASSERT_EQ(open_log("names.log"), 0);
    resetNameStack();
    EXPECT_STREQ(dbproc_name(), "Not set:");
    std::string longName(100, 'n');
    EXPECT_EQ(push_name(longName.c_str()), 0);
    EXPECT_EQ(std::string(dbproc_name()), longName.substr(0, 63));
    for (int i = 1; i < 50; ++i)
        ASSERT_EQ(push_name(("f" + std::to_string(i)).c_str()), 0) << i;
    EXPECT_STREQ(dbproc_name(), "f49");
    log_level = 1;
    EXPECT_EQ(push_name("one too many"), -1);
    EXPECT_STREQ(dbproc_name(), "Not set:");
    flush_log();
    EXPECT_TRUE(hasLine(logFile("names.log"), "WARNING: push_name() limit of 50 reached"));
    EXPECT_TRUE(hasLine(logFile("names.log"), "name_array[49] is \"f49\""));
    EXPECT_TRUE(hasLine(logFile("names.log"), "name_array[0] is \"" + longName.substr(0, 63) + "\""));

    log_level = 4;
    EXPECT_EQ(push_name(nullptr), 0);
    EXPECT_STREQ(dbproc_name(), "Not set:");
    EXPECT_EQ(push_name("%%s in it"), 0);
    EXPECT_STREQ(dbproc_name(), "Not set:");
    EXPECT_EQ(push_name("worker"), 0);
    EXPECT_EQ(pop_name(), 0);
    flush_log();
    EXPECT_TRUE(hasLine(logFile("names.log"), "Entering function: (null function name)"));
    EXPECT_TRUE(hasLine(logFile("names.log"), "Entering function: worker"));
    EXPECT_TRUE(hasLine(logFile("names.log"), "Leaving function: worker"));

    // Popping does not stop at the bottom: pushes first climb back.
    log_level = 0;
    EXPECT_EQ(pop_name(), 0);
    EXPECT_EQ(pop_name(), 0);
    EXPECT_EQ(pop_name(), 0);  // index -2
    EXPECT_EQ(push_name("lost"), 0);
    EXPECT_STREQ(dbproc_name(), "Not set:");
    EXPECT_EQ(push_name("bottom"), 0);  // index 0 again
    EXPECT_STREQ(dbproc_name(), "bottom");
    resetNameStack();
}

std::atomic<int> g_handled {0};

void loggingHandler(int)
{
    int n = ++g_handled;
    log_printf(0, "%s:%d: signal %d", "handler.cpp", 1, n);
}

TEST_F(LoggerTest, ConcurrentWritersAndLoggingHandlersKeepLinesWhole)
{
    ASSERT_EQ(open_log("mt-0.log"), 0);
    set_log_rotation("mt", 0, 16, 100, "start");
    struct sigaction sa {};
    sa.sa_handler = loggingHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    g_handled = 0;

    constexpr int kThreads = 4;
    constexpr int kLines = 400;
    std::atomic<int> finished {0};
    std::atomic<bool> release {false};
    static const char payload[] = "payload-payload-payload-payload-payload-payload";
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &finished, &release] {
            for (int i = 0; i < kLines; ++i)
                log_printf(0, "%s:%d: thread %d line %d %s", "mt.cpp", 2, t, i, payload);
            ++finished;
            while (!release)
                sched_yield();
        });
    int sent = 0;
    while (finished < kThreads) {
        pthread_kill(threads[sent % kThreads].native_handle(), SIGUSR1);
        ++sent;
        usleep(200);
    }
    release = true;
    for (std::thread& th : threads)
        th.join();
    sigaction(SIGUSR1, &old, nullptr);
    flush_log();

    std::vector<std::string> files;
    for (int i = 99; i >= 1; --i)
        if (fileExists(logFile("mt-0_" + std::to_string(i) + ".log")))
            files.push_back(logFile("mt-0_" + std::to_string(i) + ".log"));
    files.push_back(logFile("mt-0.log"));
    EXPECT_GT(files.size(), 3u);

    std::regex threadLine(std::string(R"(^mt\.cpp:2: thread ([0-9]) line ([0-9]+) )") + payload + "$");
    std::regex signalLine(R"(^handler\.cpp:1: signal [0-9]+$)");
    std::map<int, int> nextLine;
    int signalLines = 0;
    for (const std::string& file : files) {
        for (const std::string& line : readLines(file)) {
            if (line.find("Log level=") != std::string::npos)
                continue;  // header of a rotated file
            std::string text = body(line);
            std::smatch m;
            if (std::regex_match(text, m, threadLine)) {
                int t = std::stoi(m[1]);
                EXPECT_EQ(std::stoi(m[2]), nextLine[t]) << line;
                nextLine[t] = std::stoi(m[2]) + 1;
            } else if (std::regex_match(text, signalLine)) {
                ++signalLines;
            } else {
                EXPECT_TRUE(text.rfind("Current log size = ", 0) == 0 ||
                            text.rfind("Log size limit reached", 0) == 0)
                    << file << ": " << line;
            }
        }
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(nextLine[t], kLines) << t;
    EXPECT_EQ(signalLines, g_handled.load());
    EXPECT_GT(g_handled.load(), 0);
}

TEST_F(LoggerTest, ForkWhileOtherThreadsWriteLeavesTheChildAbleToLog)
{
    ASSERT_EQ(open_log("fork.log"), 0);
    std::atomic<bool> stop {false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t)
        writers.emplace_back([t, &stop] {
            for (int i = 0; !stop; ++i)
                log_printf(0, "%s:%d: writer %d line %d", "fork.cpp", 1, t, i);
        });
    constexpr int kChildren = 40;
    int ended = 0;
    for (int c = 0; c < kChildren; ++c) {
        pid_t pid = fork();
        if (pid < 0) {
            ADD_FAILURE() << "fork: " << strerror(errno);
            break;
        }
        if (pid == 0) {
            log_printf(0, "%s:%d: child %d", "fork.cpp", 2, c);
            _exit(0);
        }
        // A child that inherited a taken lock would never end; give it ample
        // time, then kill it and stop, so the test fails instead of hanging.
        int status = -1;
        pid_t done = 0;
        for (int tries = 0; tries < 10000 && (done = waitpid(pid, &status, WNOHANG)) == 0; ++tries)
            usleep(1000);
        if (done == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "child " << c << " hung in the logger";
            break;
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            ++ended;
    }
    stop = true;
    for (std::thread& th : writers)
        th.join();
    EXPECT_EQ(ended, kChildren);
    flush_log();
    int childLines = 0;
    std::regex line(R"(^fork\.cpp:(1: writer [01] line [0-9]+|2: child [0-9]+)$)");
    for (const std::string& l : readLines(logFile("fork.log"))) {
        EXPECT_TRUE(std::regex_match(body(l), line)) << l;
        childLines += l.find(": child ") != std::string::npos;
    }
    EXPECT_EQ(childLines, kChildren);
}

} // namespace
