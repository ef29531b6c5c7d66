// platform_capabilites: capability tests over the platform capabilities file
// and the probe programs, and the helpers that run, watch and stop outside
// commands (SystemTMax, KillPid, ping_client).
#include "foundation/platform_capabilites.h"

#include "foundation/environment.h"
#include "foundation/gerror.h"
#include "foundation/logger.h"
#include "foundation/sysroot.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

SystemTMaxCallback g_systemTMaxCallback = nullptr;

struct CodeHandlerSlot {
    int code;
    CodeHandler handler;
};
std::array<CodeHandlerSlot, 16> g_codeHandlers{};

// The capability commands are written for the appliance's /bin/sh, which is
// bash: "isNLUVirtual" redirects with ">&", which other shells refuse as a
// syntax error. Where /bin/bash exists it runs them, so the test still means
// what it says.
const char* capabilityShell()
{
    return access("/bin/bash", X_OK) == 0 ? "/bin/bash" : "/bin/sh";
}

// system(3) with a chosen shell: SIGCHLD blocked and SIGINT/SIGQUIT ignored
// while the child runs. Returns the wait status, or -1 when fork or wait fails.
int runShell(const char* shell, const char* command)
{
    struct sigaction ignore {}, savedInt {}, savedQuit {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGINT, &ignore, &savedInt);
    sigaction(SIGQUIT, &ignore, &savedQuit);
    sigset_t chld, savedMask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, &savedMask);

    int status = -1;
    pid_t pid = fork();
    if (pid == 0) {
        sigaction(SIGINT, &savedInt, nullptr);
        sigaction(SIGQUIT, &savedQuit, nullptr);
        sigprocmask(SIG_SETMASK, &savedMask, nullptr);
        execl(shell, "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid > 0) {
        while (waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) {
                status = -1;
                break;
            }
        }
    }
    sigaction(SIGINT, &savedInt, nullptr);
    sigaction(SIGQUIT, &savedQuit, nullptr);
    sigprocmask(SIG_SETMASK, &savedMask, nullptr);
    return status;
}

// Runs a capability command and gives its exit code; 0 for a failed shell
// call or a child that ended on a signal.
int capabilityExitCode(const char* logName, const std::string& command)
{
    log_printf(4, "%s:%d: %s: command is: %s\n", __FILE__, __LINE__, logName, command.c_str());
    int status = runShell(capabilityShell(), command.c_str());
    if (status < 0) {
        return 0;
    }
    if (WIFSIGNALED(status)) {
        const char* text = strsignal(WTERMSIG(status));
        if (text != nullptr) {
            log_printf(0, "%s:%d: %s: %s was signaled with %s\n", __FILE__, __LINE__, logName,
                       command.c_str(), text);
        } else {
            log_printf(0, "%s:%d: %s: %s abnormally exited\n", __FILE__, __LINE__, logName, command.c_str());
        }
        return 0;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

std::string capabilitiesFile()
{
    return appliancePath(kPlatformCapabilitiesFile);
}

int keywordTest(const char* logName, const char* format)
{
    char command[4096];
    int n = snprintf(command, sizeof command, format, capabilitiesFile().c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof command) {
        return 0;
    }
    return capabilityExitCode(logName, command) == 0 ? 1 : 0;
}

std::string probeCommand(const char* program)
{
    return g_bindir + "/" + program + " 2>/dev/null";
}

void runWaitHandlers(const char* command)
{
    if (g_systemTMaxCallback != nullptr) {
        g_systemTMaxCallback();
    }
    for (const CodeHandlerSlot& slot : g_codeHandlers) {
        if (slot.handler != nullptr && slot.code == kSystemTMaxWaitCode) {
            slot.handler(command);
        }
    }
}

// Sets the three dispositions SystemTMax needs for its wait, saving the old.
struct WaitSignals {
    struct sigaction intr {}, quit {}, chld {};

    WaitSignals()
    {
        struct sigaction action {};
        sigemptyset(&action.sa_mask);
        action.sa_handler = SIG_IGN;
        sigaction(SIGINT, &action, &intr);
        sigaction(SIGQUIT, &action, &quit);
        action.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &action, &chld);
    }
    ~WaitSignals()
    {
        sigaction(SIGINT, &intr, nullptr);
        sigaction(SIGQUIT, &quit, nullptr);
        sigaction(SIGCHLD, &chld, nullptr);
    }
    WaitSignals(const WaitSignals&) = delete;
    WaitSignals& operator=(const WaitSignals&) = delete;
};

struct KillWords {
    const char* refused;
    const char* status;
    int parts;       // the escalation span is (limit - termAfter) / parts
    bool mayKill;    // SIGKILL at termAfter + 2 * span
};

const KillWords kKillPid = {"KillPid: SIGKILL is not allowed -- using SIGTERM.\n",
                            "KillPid: PID:%d Signal:%d Status:%d)\n", 3, true};
const KillWords kKillPidSafe = {"KillPidSafe: SIGKILL is not allowed -- using SIGTERM.\n",
                                "KillPidSafe: PID:%d Signal:%d Status:%d)\n", 2, false};

int killAndWatch(const KillWords& words, pid_t pid, int sig, int termAfter, int limit)
{
    if (sig == SIGKILL) {
        log_printf(0, "%s", words.refused);
        sig = SIGTERM;
    }
    int status = kill(pid, sig);
    log_printf(0, words.status, static_cast<int>(pid), sig, status);
    if (sig == 0) {
        return status;
    }
    const int span = (limit - termAfter) / words.parts;
    sleep(1);
    // A pid below 1 names a process group or everything: nothing to watch,
    // so the caller cannot learn from the result whether the group ended.
    if (pid < 1) {
        return 0;
    }
    for (int n = 1; isPidAlive(pid); ++n) {
        if (n > limit) {
            return -1;
        }
        if (n - 1 == termAfter) {
            kill(pid, SIGTERM);
        }
        if (n == termAfter + span) {
            kill(pid, SIGINT);
        }
        if (words.mayKill && n == termAfter + 2 * span) {
            kill(pid, SIGKILL);
        }
        sleep(1);
    }
    return 0;
}

} // namespace

int isNLUVirtual()
{
    int yes = keywordTest("isNLUVirtual", "grep -qE '^virtual_machine' %s >&/dev/null");
    if (yes) {
        log_printf(0, "%s:%d: isNLUVirtual: True\n", __FILE__, __LINE__);
    } else {
        log_printf(0, "%s:%d: isNLUVirtual: False\n", __FILE__, __LINE__);
    }
    return yes;
}

int platformSupportsInlineDedup()
{
    return keywordTest("platformSupportsInlineDedup", "grep -w '^inlineDedup' %s >/dev/null 2>&1");
}

int platformSupportsDedupNT()
{
    return keywordTest("platformSupportsDedupNT", "grep -w '^dedupNT' %s >/dev/null 2>&1");
}

int platformSupportsDedup()
{
    int code = capabilityExitCode("platformSupportsDedup", probeCommand("platformSupportsDedup"));
    return code >= 5 ? 0 : code;
}

int platformSupportsiSynth()
{
    return capabilityExitCode("platformSupportsiSynth", probeCommand("platformSupportsSynth"));
}

SystemTMaxCallback setSystemTMaxCallback(SystemTMaxCallback callback)
{
    SystemTMaxCallback previous = g_systemTMaxCallback;
    g_systemTMaxCallback = callback;
    return previous;
}

int registerCodeHandler(int code, CodeHandler handler)
{
    for (CodeHandlerSlot& slot : g_codeHandlers) {
        if (slot.handler == nullptr) {
            slot = {code, handler};
            return 0;
        }
    }
    return -1;
}

int unregisterCodeHandler(int code, CodeHandler handler)
{
    for (CodeHandlerSlot& slot : g_codeHandlers) {
        if (slot.handler == handler && slot.code == code) {
            slot = {0, nullptr};
            return 0;
        }
    }
    return -1;
}

int SystemTMax(const char* command, unsigned long maxSeconds)
{
    static const char* const kName = "SystemTMax";
    WaitSignals signals;
    pid_t pid = fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        setsid();
        execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    const time_t start = time(nullptr);
    for (;;) {
        int status = 0;
        pid_t wpid = waitpid(pid, &status, WNOHANG);
        if (wpid == pid) {
            return status;
        }
        if (wpid < 0 && errno != EINTR) {
            log_printf(4, "%s: wpid is %d, errno=%d\n", kName, static_cast<int>(wpid), errno);
            return -1;
        }
        runWaitHandlers(command);
        unsigned long elapsed = static_cast<unsigned long>(time(nullptr) - start);
        if (maxSeconds != 0 && elapsed > maxSeconds) {
            log_printf(4, "%s: %lu > %lu \n", kName, elapsed, maxSeconds);
            log_printf(1, "%s: Timed out, now killing process group %ld\n", kName, static_cast<long>(pid));
            KillPid(-pid, SIGTERM, 6, 6);
            kill(pid, SIGTERM);
            waitpid(pid, &status, WNOHANG);
            return -1;
        }
        log_printf(4, "%s: wpid = %d, Sleeping 1 second\n", kName, static_cast<int>(wpid));
        sleep(1);
    }
}

int KillPid(pid_t pid, int sig, int termAfter, int limit)
{
    return killAndWatch(kKillPid, pid, sig, termAfter, limit);
}

int KillPidSafe(pid_t pid, int sig, int termAfter, int limit)
{
    return killAndWatch(kKillPidSafe, pid, sig, termAfter, limit);
}

int isPidAlive(pid_t pid)
{
    if (pid < 1) {
        return 0;
    }
    return kill(pid, 0) == 0 || errno == EPERM ? 1 : 0;
}

int mynodename(char* buffer, size_t size)
{
    static const char* const kName = "mynodename";
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    if (gethostname(buffer, size) != 0) {
        log_printf(2, "%s: gethostname failed [errno=%d]\n", kName, errno);
        log_printf(2, "%s: using uname() instead\n", kName);
        struct utsname names {};
        if (uname(&names) != 0) {
            buffer[0] = '\0';
            return -1;
        }
        snprintf(buffer, size, "%s", names.nodename);
    }
    buffer[size - 1] = '\0';
    char* dot = strchr(buffer, '.');
    if (dot != nullptr) {
        *dot = '\0';
    }
    return 0;
}

int ping_client(const char* name, int report)
{
    static std::string lastName;
    if (name == nullptr || name[0] == '\0') {
        log_printf(0, "ping_client: called with emtpy name\n");
        return -1;
    }
    std::string command = g_bindir + "/ping_check " + name + " > /dev/null 2>&1";
    log_printf(1, "ping_client: Running %s\n", command.c_str());
    int status = SystemTMax(command.c_str(), 10);
    int result = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -7;
    // Only a change of client is worth a record: repeated pings of the same
    // name would otherwise fill the class with one message.
    if (report && lastName != name) {
        if (result == 0) {
            add_gerror(2, 1, "Client %s returns pings on network", name);
        } else {
            add_gerror(2, 1, "Could not ping %s on network", name);
        }
    }
    lastName = name;
    return result;
}
