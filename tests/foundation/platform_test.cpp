// Platform capabilities and process helpers: keyword tests over the
// capabilities file of an appliance root, probe programs by exit code, the
// bounded shell command, stopping processes, and the client ping.
#include "foundation/platform_capabilites.h"

#include "foundation/environment.h"
#include "foundation/gerror.h"
#include "harness/appliance_root.h"
#include "harness/log_capture.h"
#include "harness/process.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using ferrytest::countOf;
using ferrytest::LogCapture;

namespace {

// An appliance root whose bin directory holds the probe programs.
class Platform : public ::testing::Test {
protected:
    void SetUp() override { g_bindir = root.appdir() + "/bin"; }
    void TearDown() override { g_bindir.clear(); }
    void writeProgram(const std::string& name, const std::string& body)
    {
        ferrytest::writeFile(g_bindir + "/" + name, "#!/bin/sh\n" + body + "\n");
        chmod((g_bindir + "/" + name).c_str(), 0755);
    }

    ferrytest::ApplianceRoot root;
};

// Children reaped by the kernel (SIGCHLD ignored), so a stopped child is gone
// rather than a zombie that still answers signal 0.
class ReapedChildren : public ::testing::Test {
protected:
    void SetUp() override { savedChld_ = signal(SIGCHLD, SIG_IGN); }
    void TearDown() override { signal(SIGCHLD, savedChld_); }
    void (*savedChld_)(int) = SIG_DFL;
};

// Alive and not a zombie: a killed grandchild may wait for a reaper.
bool running(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text))
        return false;
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] != 'Z';
}

// A child that never acts on SIGTERM or SIGINT: it is born with them blocked.
pid_t stubbornChild()
{
    sigset_t block, saved;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigprocmask(SIG_BLOCK, &block, &saved);
    pid_t pid = fork();
    if (pid == 0)
        for (;;)
            pause();
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    return pid;
}

int g_callbackCalls = 0;
std::string g_handlerCommand;
void countCallback() { ++g_callbackCalls; }
void recordCommand(const char* command) { g_handlerCommand = command; }
void otherCode(const char*) { ADD_FAILURE() << "a handler of another code ran"; }
void markSigint(int) {}

} // namespace

TEST_F(Platform, KeywordsAreReadFromTheFileUnderTheApplianceRootAtTheStartOfALine)
{
    const struct { const char* file; int inlineDedup, dedupNT, virtualMachine; } cases[] = {
        {nullptr, 0, 0, 0},  // no file: no capability
        {"inlineDedup extra words\n  dedupNT\nreplication\nvirtual_machine_kvm\n", 1, 0, 1},  // a prefix will do
        {"dedupNTx\ninlineDedupe\n# dedupNT\n", 0, 0, 0},                                   // whole words only
        {"replication\ndedupNT\n", 0, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file ? c.file : "no file");
        if (c.file)
            ferrytest::writeFile(root.path("/var/opt/quillmont/platform_capabilities"), c.file);
        LogCapture log(0);
        EXPECT_EQ(platformSupportsInlineDedup(), c.inlineDedup);
        EXPECT_EQ(platformSupportsDedupNT(), c.dedupNT);
        EXPECT_EQ(isNLUVirtual(), c.virtualMachine);
        EXPECT_EQ(countOf(log.text(), c.virtualMachine ? "isNLUVirtual: True\n" : "isNLUVirtual: False\n"), 1u);
        EXPECT_EQ(countOf(log.text(), "\n"), 1u) << "nothing else logged: " << log.text();
    }
}

TEST_F(Platform, ProbeProgramsAnswerByExitCode)
{
    EXPECT_EQ(platformSupportsDedup(), 0) << "missing program";
    EXPECT_EQ(platformSupportsiSynth(), 127) << "the shell's exit code for a missing program";
    const struct { const char* body; int dedup; } cases[] = {
        {"exit 0", 0}, {"exit 1", 1}, {"exit 4", 4}, {"exit 5", 0}, {"echo noise >&2; exit 2", 2},
        // The shell that ran the probe dies on SIGKILL (only a shell: never the test binary).
        {"case $(cat /proc/$PPID/comm) in bash|sh|dash) kill -KILL $PPID;; esac; sleep 1", 0}};
    LogCapture log(0);
    for (const auto& c : cases) {
        writeProgram("platformSupportsDedup", c.body);
        EXPECT_EQ(platformSupportsDedup(), c.dedup) << c.body;
    }
    EXPECT_EQ(countOf(log.text(), "platformSupportsDedup: " + g_bindir + "/platformSupportsDedup 2>/dev/null"
                                  " was signaled with"), 1u) << log.text();
    writeProgram("platformSupportsSynth", "exit 3");
    EXPECT_EQ(platformSupportsiSynth(), 3);
}

TEST_F(Platform, SystemTMaxGivesTheWaitStatusOrKillsTheGroupOfACommandThatOverstays)
{
    signal(SIGINT, markSigint);
    int status = SystemTMax("exit 3", 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(signal(SIGINT, SIG_DFL), markSigint) << "dispositions are restored";

    g_callbackCalls = 0;
    SystemTMaxCallback previous = setSystemTMaxCallback(countCallback);
    ASSERT_EQ(registerCodeHandler(kSystemTMaxWaitCode, recordCommand), 0);
    ASSERT_EQ(registerCodeHandler(7, otherCode), 0);
    const std::string pidFile = root.path("/tmp/sleeper.pid");
    const std::string command = "sleep 60 & echo $! > " + pidFile + "; wait";
    LogCapture log(1);
    EXPECT_EQ(SystemTMax(command.c_str(), 1), -1);
    EXPECT_GE(g_callbackCalls, 2) << "once a second while it runs";
    EXPECT_EQ(g_handlerCommand, command);
    EXPECT_EQ(countOf(log.text(), "SystemTMax: Timed out, now killing process group"), 1u);
    const pid_t sleeper = ferrytest::readPidFile(pidFile);
    ASSERT_GT(sleeper, 0);
    EXPECT_TRUE(ferrytest::waitFor([&] { return !running(sleeper); })) << "the grandchild went with its group";
    setSystemTMaxCallback(previous);

    // The handler table holds sixteen; a handler is found again by code and function.
    for (int i = 0; i < 14; ++i)
        ASSERT_EQ(registerCodeHandler(1000 + i, otherCode), 0) << i;
    EXPECT_EQ(registerCodeHandler(2000, otherCode), -1);
    for (int i = 0; i < 14; ++i)
        EXPECT_EQ(unregisterCodeHandler(1000 + i, otherCode), 0);
    EXPECT_EQ(unregisterCodeHandler(kSystemTMaxWaitCode, recordCommand), 0);
    EXPECT_EQ(unregisterCodeHandler(kSystemTMaxWaitCode, recordCommand), -1);
    EXPECT_EQ(unregisterCodeHandler(7, recordCommand), -1);
    EXPECT_EQ(unregisterCodeHandler(7, otherCode), 0);
}

// Both escalations run side by side: each counts real seconds.
TEST_F(ReapedChildren, KillPidEscalatesToSigkillButKillPidSafeNeverDoes)
{
    const pid_t victim = stubbornChild(), safeVictim = stubbornChild();
    LogCapture log(0);
    int result = 1, safeResult = 1;
    // SIGKILL as the first signal is refused; SIGTERM and SIGINT are ignored.
    std::thread killer([&] { result = KillPid(victim, SIGKILL, 0, 3); });
    safeResult = KillPidSafe(safeVictim, SIGKILL, 0, 2);
    killer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(isPidAlive(victim), 0);
    EXPECT_EQ(safeResult, -1);
    EXPECT_EQ(isPidAlive(safeVictim), 1);
    kill(safeVictim, SIGKILL);
    const std::string text = log.text();
    EXPECT_EQ(countOf(text, "KillPid: SIGKILL is not allowed -- using SIGTERM."), 1u);
    EXPECT_EQ(countOf(text, "KillPidSafe: SIGKILL is not allowed -- using SIGTERM."), 1u);
    EXPECT_EQ(countOf(text, "KillPid: PID:" + std::to_string(victim) + " Signal:15 Status:0)"), 1u) << text;
}

TEST_F(ReapedChildren, SignalZeroAndIsPidAliveForLivingGoneAndInvalidPids)
{
    EXPECT_EQ(isPidAlive(getpid()), 1);
    EXPECT_EQ(isPidAlive(1), 1) << "refused or not, pid 1 exists";
    EXPECT_EQ(isPidAlive(0), 0);
    EXPECT_EQ(isPidAlive(-5), 0);
    const pid_t child = stubbornChild();
    LogCapture quiet(0);
    EXPECT_EQ(KillPid(child, 0, 1, 2), 0);
    kill(child, SIGKILL);
    ASSERT_TRUE(ferrytest::waitFor([&] { return isPidAlive(child) == 0; }));
    EXPECT_EQ(KillPid(child, 0, 1, 2), -1);
}

TEST(Nodename, HostNameCutAtTheFirstDotAndAlwaysTerminated)
{
    char expected[256] = {}, name[256], tiny[3] = {'x', 'x', 'x'};
    ASSERT_EQ(gethostname(expected, sizeof expected - 1), 0);
    if (char* dot = strchr(expected, '.'))
        *dot = '\0';
    EXPECT_EQ(mynodename(name, sizeof name), 0);
    EXPECT_STREQ(name, expected);
    mynodename(tiny, sizeof tiny);
    EXPECT_LT(strlen(tiny), sizeof tiny);
    EXPECT_EQ(mynodename(nullptr, 10), -1);
}

TEST_F(Platform, PingClientAnswersAndRecordsOnlyAChangeOfClient)
{
    writeProgram("ping_check", "[ \"$1\" = good ] && exit 0; exit 1");
    clear_all_gerrors();
    const GerrorRecord* records = nullptr;
    EXPECT_EQ(ping_client("good", 1), 0);
    EXPECT_EQ(ping_client("good", 1), 0);  // the same client: nothing new
    EXPECT_EQ(ping_client("bad", 1), -7);
    ASSERT_EQ(gerror_list(2, &records), 2);
    EXPECT_STREQ(records[0].text, "Client good returns pings on network");
    EXPECT_STREQ(records[1].text, "Could not ping bad on network");
    EXPECT_EQ(records[1].number, 1);

    LogCapture log(0);
    EXPECT_EQ(ping_client("", 1), -1);
    EXPECT_EQ(countOf(log.text(), "ping_client: called with emtpy name"), 1u);
    clear_all_gerrors();
}
