// Platform capabilities and process helpers: keyword tests over the
// capabilities file of an appliance root, probe programs by exit code, the
// bounded shell command, and stopping processes.
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
#include <unistd.h>

using ferrytest::countOf;
using ferrytest::LogCapture;

namespace {

class Platform : public ::testing::Test {
protected:
    void SetUp() override { g_bindir = root.appdir() + "/bin"; }
    void TearDown() override { g_bindir.clear(); }

    void writeCapabilities(const std::string& text)
    {
        ferrytest::writeFile(root.path("/var/opt/quillmont/platform_capabilities"), text);
    }
    void writeProgram(const std::string& name, const std::string& body)
    {
        std::string path = g_bindir + "/" + name;
        ferrytest::writeFile(path, "#!/bin/sh\n" + body + "\n");
        chmod(path.c_str(), 0755);
    }

    ferrytest::ApplianceRoot root;
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

// A child that ignores SIGTERM and SIGINT (when asked) and waits; returns
// once it is set up. SIGCHLD is ignored by the fixture, so it is reaped at
// its end and signal 0 then fails.
pid_t stubbornChild(bool ignoreSignals, bool ownGroup = false)
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        if (ownGroup)
            setpgid(0, 0);
        if (ignoreSignals) {
            signal(SIGTERM, SIG_IGN);
            signal(SIGINT, SIG_IGN);
        }
        (void)!write(ready[1], "x", 1);
        for (;;)
            pause();
    }
    char c;
    (void)!read(ready[0], &c, 1);
    close(ready[0]);
    close(ready[1]);
    return pid;
}

class ReapedChildren : public Platform {
protected:
    void SetUp() override
    {
        Platform::SetUp();
        saved_ = signal(SIGCHLD, SIG_IGN);
    }
    void TearDown() override
    {
        signal(SIGCHLD, saved_);
        Platform::TearDown();
    }
    void (*saved_)(int) = SIG_DFL;
};

int g_callbackCalls = 0;
std::string g_handlerCommand;
int g_otherHandlerCalls = 0;
void countCallback() { ++g_callbackCalls; }
void recordCommand(const char* command) { g_handlerCommand = command; }
void otherCode(const char*) { ++g_otherHandlerCalls; }
void markSigint(int) {}

} // namespace

TEST_F(Platform, KeywordsCountOnlyAtTheStartOfALine)
{
    writeCapabilities("inlineDedup extra words\n  dedupNT\nreplication\nvirtual_machine_kvm\n");
    EXPECT_EQ(platformSupportsInlineDedup(), 1);
    EXPECT_EQ(platformSupportsDedupNT(), 0) << "indented keyword";
    EXPECT_EQ(isNLUVirtual(), 1) << "a prefix is enough for the virtual machine test";

    writeCapabilities("dedupNTx\ninlineDedupe\n# dedupNT\n");
    EXPECT_EQ(platformSupportsDedupNT(), 0) << "whole words only";
    EXPECT_EQ(platformSupportsInlineDedup(), 0);
    EXPECT_EQ(isNLUVirtual(), 0);

    writeCapabilities("replication\ndedupNT\n");
    EXPECT_EQ(platformSupportsDedupNT(), 1);
}

TEST_F(Platform, MissingCapabilitiesFileMeansNoCapabilityAndNoErrorLines)
{
    LogCapture log(0);
    EXPECT_EQ(platformSupportsInlineDedup(), 0);
    EXPECT_EQ(platformSupportsDedupNT(), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(isNLUVirtual(), 0);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "isNLUVirtual: False"), 1u);
    EXPECT_EQ(countOf(text, "[LOG0]"), 1u) << text;
}

TEST_F(Platform, VirtualMachineAnswerIsLoggedAndCommandsAtLevel4)
{
    writeCapabilities("virtual_machine\n");
    LogCapture log(4);
    EXPECT_EQ(isNLUVirtual(), 1);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "isNLUVirtual: True"), 1u);
    EXPECT_EQ(countOf(text, "isNLUVirtual: command is: grep -qE '^virtual_machine' " +
                                root.path("/var/opt/quillmont/platform_capabilities") + " >&/dev/null"),
              1u)
        << text;
}

TEST_F(Platform, ProbeProgramsAnswerByExitCode)
{
    EXPECT_EQ(platformSupportsDedup(), 0) << "missing program";
    EXPECT_EQ(platformSupportsiSynth(), 127) << "the shell's exit code for a missing program";
    for (int code = 0; code <= 4; ++code) {
        writeProgram("platformSupportsDedup", "exit " + std::to_string(code));
        EXPECT_EQ(platformSupportsDedup(), code);
    }
    writeProgram("platformSupportsDedup", "exit 5");
    EXPECT_EQ(platformSupportsDedup(), 0);
    writeProgram("platformSupportsDedup", "echo noise >&2; exit 2");
    EXPECT_EQ(platformSupportsDedup(), 2);
    writeProgram("platformSupportsSynth", "exit 3");
    EXPECT_EQ(platformSupportsiSynth(), 3);
}

TEST_F(Platform, ProbeEndingOnASignalCountsAsNo)
{
    // The shell that ran the probe dies on SIGKILL (only if it is a shell:
    // never the test binary itself).
    writeProgram("platformSupportsDedup",
                 "case $(cat /proc/$PPID/comm) in bash|sh|dash) kill -KILL $PPID;; esac; sleep 1");
    LogCapture log(0);
    EXPECT_EQ(platformSupportsDedup(), 0);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "platformSupportsDedup: " + g_bindir + "/platformSupportsDedup 2>/dev/null was signaled with"),
              1u)
        << text;
}

TEST_F(Platform, SystemTMaxGivesTheWaitStatusAndRunsItsHandlers)
{
    g_callbackCalls = 0;
    g_handlerCommand.clear();
    g_otherHandlerCalls = 0;
    SystemTMaxCallback previous = setSystemTMaxCallback(countCallback);
    ASSERT_EQ(registerCodeHandler(kSystemTMaxWaitCode, recordCommand), 0);
    ASSERT_EQ(registerCodeHandler(7, otherCode), 0);
    signal(SIGINT, markSigint);

    const char* command = "sleep 1; exit 3";
    int status = SystemTMax(command, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_GE(g_callbackCalls, 1);
    EXPECT_EQ(g_handlerCommand, command);
    EXPECT_EQ(g_otherHandlerCalls, 0);
    EXPECT_EQ(signal(SIGINT, SIG_DFL), markSigint) << "dispositions are restored";

    EXPECT_EQ(unregisterCodeHandler(kSystemTMaxWaitCode, recordCommand), 0);
    EXPECT_EQ(unregisterCodeHandler(kSystemTMaxWaitCode, recordCommand), -1);
    EXPECT_EQ(unregisterCodeHandler(7, otherCode), 0);
    setSystemTMaxCallback(previous);
}

TEST_F(Platform, SystemTMaxKillsTheProcessGroupOfACommandThatOverstays)
{
    std::string pidFile = root.path("/tmp/sleeper.pid");
    std::string command = "sleep 60 & echo $! > " + pidFile + "; wait";
    LogCapture log(1);
    EXPECT_EQ(SystemTMax(command.c_str(), 1), -1);
    pid_t sleeper = ferrytest::readPidFile(pidFile);
    ASSERT_GT(sleeper, 0);
    EXPECT_TRUE(ferrytest::waitFor([&] { return !running(sleeper); }));
    EXPECT_EQ(countOf(log.text(), "SystemTMax: Timed out, now killing process group"), 1u);
}

TEST_F(Platform, CodeHandlerTableHoldsSixteen)
{
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(registerCodeHandler(1000 + i, otherCode), 0) << i;
    EXPECT_EQ(registerCodeHandler(2000, otherCode), -1);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(unregisterCodeHandler(1000 + i, otherCode), 0);
}

TEST_F(ReapedChildren, KillPidEscalatesToSigkillButKillPidSafeNeverDoes)
{
    pid_t safeVictim = stubbornChild(true);
    EXPECT_EQ(KillPidSafe(safeVictim, SIGTERM, 0, 2), -1);
    EXPECT_EQ(isPidAlive(safeVictim), 1);
    kill(safeVictim, SIGKILL);

    pid_t victim = stubbornChild(true);
    LogCapture log(0);
    EXPECT_EQ(KillPid(victim, SIGTERM, 0, 3), 0);
    EXPECT_EQ(isPidAlive(victim), 0);
    EXPECT_EQ(countOf(log.text(), "KillPid: PID:" + std::to_string(victim) + " Signal:15 Status:0)"), 1u);
}

TEST_F(ReapedChildren, KillPidRefusesSigkillAsTheFirstSignal)
{
    pid_t victim = stubbornChild(false);
    LogCapture log(0);
    EXPECT_EQ(KillPid(victim, SIGKILL, 5, 10), 0);
    EXPECT_EQ(isPidAlive(victim), 0);
    std::string text = log.text();
    EXPECT_EQ(countOf(text, "KillPid: SIGKILL is not allowed -- using SIGTERM."), 1u);
    EXPECT_EQ(countOf(text, "Signal:15"), 1u);

    pid_t other = stubbornChild(false);
    EXPECT_EQ(KillPidSafe(other, SIGKILL, 5, 10), 0);
    EXPECT_EQ(countOf(log.text(), "KillPidSafe: SIGKILL is not allowed -- using SIGTERM."), 1u);
}

TEST_F(ReapedChildren, SignalZeroGivesTheResultOfTheKill)
{
    pid_t child = stubbornChild(false);
    EXPECT_EQ(KillPid(child, 0, 1, 2), 0);
    kill(child, SIGKILL);
    ASSERT_TRUE(ferrytest::waitFor([&] { return isPidAlive(child) == 0; }));
    EXPECT_EQ(KillPid(child, 0, 1, 2), -1);
}

TEST_F(ReapedChildren, ANegativePidSignalsTheGroupAndReturnsWithoutWaiting)
{
    pid_t leader = stubbornChild(false, true);
    EXPECT_EQ(KillPid(-leader, SIGTERM, 6, 6), 0);
    EXPECT_TRUE(ferrytest::waitFor([&] { return isPidAlive(leader) == 0; }));
}

TEST_F(ReapedChildren, IsPidAliveForLivingGoneAndInvalidPids)
{
    EXPECT_EQ(isPidAlive(getpid()), 1);
    EXPECT_EQ(isPidAlive(1), 1) << "refused or not, pid 1 exists";
    EXPECT_EQ(isPidAlive(0), 0);
    EXPECT_EQ(isPidAlive(-5), 0);
    pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_TRUE(ferrytest::waitFor([&] { return isPidAlive(child) == 0; }));
}

TEST(Nodename, HostNameCutAtTheFirstDotAndAlwaysTerminated)
{
    char expected[256] = {};
    ASSERT_EQ(gethostname(expected, sizeof expected - 1), 0);
    if (char* dot = strchr(expected, '.'))
        *dot = '\0';
    char name[256];
    EXPECT_EQ(mynodename(name, sizeof name), 0);
    EXPECT_STREQ(name, expected);

    char tiny[3];
    memset(tiny, 'x', sizeof tiny);
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
    ASSERT_EQ(gerror_list(2, &records), 1);
    EXPECT_NE(strstr(records[0].text, "Client good returns pings on network"), nullptr) << records[0].text;
    EXPECT_EQ(records[0].number, 1);

    EXPECT_EQ(ping_client("good", 1), 0);
    EXPECT_EQ(gerror_list(2, &records), 1) << "same client: nothing new";

    EXPECT_EQ(ping_client("bad", 1), -7);
    ASSERT_EQ(gerror_list(2, &records), 2);
    EXPECT_NE(strstr(records[1].text, "Could not ping bad on network"), nullptr) << records[1].text;

    EXPECT_EQ(ping_client("good", 0), 0);
    EXPECT_EQ(gerror_list(2, &records), 2) << "no report asked for";

    LogCapture log(0);
    EXPECT_EQ(ping_client("", 1), -1);
    EXPECT_EQ(countOf(log.text(), "ping_client: called with emtpy name"), 1u);
    clear_all_gerrors();
}
