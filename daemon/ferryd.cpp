// ferryd: the program's entry point, start-up, daemonising behind a locked pid
// file, and the parent's main loop that reloads settings, fills the queue and
// starts one worker per free slot.
#include "daemon/ferryd.h"

#include "daemon/blockOut.h"
#include "daemon/common.h"
#include "daemon/replicationQueue.h"
#include "daemon/settings.h"
#include "daemon/utility.h"
#include "daemon/worker.h"
#include "foundation/environment.h"
#include "foundation/logger.h"
#include "foundation/sysroot.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* kOptions = "acdl:m:o:t:q:v:s:";
constexpr size_t kMaxVaultLength = 64;
constexpr int kContinue = -2;  // parseOptions: no exit status, go on

// Locals of main that the option parser fills.
struct StartOptions {
    int daemonise = 1;
    float loadLimit = 0.0f;
    int sValue = -1;  // "-s" is read and not used for anything
};

void onCleanupSignal(int)
{
    g_daemon.cleanupPending = 1;
}

void onChildSignal(int)
{
    g_daemon.childExited = 1;
}

// Start-up step 1: handlers only set the pending flags; the loop does the work.
void installSignalHandlers()
{
    log_printf(5, "%s:%d: Setting up signal handling", __FILE__, __LINE__);
    signal(SIGCHLD, onChildSignal);
    signal(SIGTERM, onCleanupSignal);
    signal(SIGINT, onCleanupSignal);
    signal(SIGQUIT, onCleanupSignal);
}

// "-a": the light initialisation, logging to stderr.
void initForStderr(const char* argv0)
{
    g_daemon.logToStderr = 1;
    const char* slash = strrchr(argv0, '/');
    const char* name = slash ? slash + 1 : argv0;
    app_name_from_argv(ghAppName, sizeof ghAppName, argv0);
    if (init_globals(name, "tq.ini", appliancePath("/usr/tq").c_str()) != 0)
        fprintf(stderr, "%s[%s,%d]: init_globals() failed\n", name, __FILE__, __LINE__);
    swap_log_stream(stderr);
}

// "-v": a vault name of 1 to 64 characters. The record holds 64 characters
// and the terminator, so a name of the full allowed length is kept whole.
bool setVaultOverride(const char* value)
{
    size_t len = strlen(value);
    if (len < 1 || len > kMaxVaultLength) {
        log_printf(0, "%s:%d: Invalid vault override\n", __FILE__, __LINE__);
        log_printf(0, "%s:%d: Must be smaller than %d\n", __FILE__, __LINE__, static_cast<int>(kMaxVaultLength));
        return false;
    }
    memcpy(g_settings.SyncTo, value, len + 1);
    setOverride(OVR_SYNCTO);
    return true;
}

// Start-up step 6. Returns kContinue, or the exit status of main.
int parseOptions(int argc, char** argv, StartOptions& opts)
{
    int c;
    while ((c = getopt(argc, argv, kOptions)) != -1) {
        switch (c) {
        case 'a':
            initForStderr(argv[0]);
            break;
        case 'c':
            g_settings.Cluster = 0;
            setOverride(OVR_CLUSTER);
            break;
        case 'd':
            opts.daemonise = 0;
            break;
        case 'l':
            sscanf(optarg, "%f", &opts.loadLimit);
            break;
        case 'm': {
            unsigned long long blocks = 0;
            sscanf(optarg, "%llu", &blocks);
            g_settings.MaxBlocks = static_cast<int64_t>(blocks);
            setOverride(OVR_MAXBLOCKS);
            break;
        }
        case 'o':
            sscanf(optarg, "%d", &g_settings.MaxConcurrent);
            setOverride(OVR_MAXCONCURRENT);
            break;
        case 't':
            sscanf(optarg, "%d", &g_settings.TimeDelay);
            setOverride(OVR_TIMEDELAY);
            break;
        case 'q':
            sscanf(optarg, "%d", &g_settings.QueueScheme);
            setOverride(OVR_QUEUESCHEME);
            break;
        case 'v':
            if (!setVaultOverride(optarg))
                return -1;
            break;
        case 's':
            sscanf(optarg, "%d", &opts.sValue);
            break;
        default:
            printf("Usage: \n");
            return 1;
        }
    }
    return kContinue;
}

// Pass step 6. True when the pass must stop here: the load is above a limit
// that is switched on. With no limit the load is never read.
bool loadTooHigh(float limit)
{
    if (limit <= 0.0f)
        return false;
    float load = getLoad();
    if (load <= limit)
        return false;
    log_printf(0, "%s:%d: Load is %.2f...too high. Waiting %d seconds.\n", __FILE__, __LINE__, load,
               g_settings.TimeDelay);
    return true;
}

// Pass steps 7 and 8. Returns the last result of startWorker.
int startFreeSlots()
{
    int freeSlots = g_settings.MaxConcurrent - static_cast<int>(g_daemon.workers.size());
    log_printf(4, "%s:%d: Starting %d workers\n", __FILE__, __LINE__, freeSlots);
    int last = 0;
    for (int slot = 0; slot < freeSlots; ++slot) {
        last = startWorker(0, g_settings.SyncTo, 1);
        if (last == WORKER_FINISHED)
            break;
    }
    return last;
}

// The main loop: one pass per TimeDelay until a stop signal, or until this
// process turns out to be a worker whose job is done.
void mainLoop(const StartOptions& opts)
{
    while (true) {
        if (g_daemon.cleanupPending == 1) {
            log_printf(4, "%s:%d: cleanup signal caught", __FILE__, __LINE__);
            cleanup();
            return;
        }
        if (g_daemon.childExited == 1) {
            log_printf(4, "%s:%d: sigchld caught", __FILE__, __LINE__);
            reapWorkers();
            // Reap first, clear after: a child that dies in between is reaped
            // at the next SIGCHLD or pass.
            g_daemon.childExited = 0;
        }
        log_printf(0, "%s:%d: Reading master.ini", __FILE__, __LINE__);
        readSettings();
        log_printf(0, "%s:%d: Updating replication_queue", __FILE__, __LINE__);
        updateQueue();
        log_printf(0, "%s:%d: Handling terminated operations", __FILE__, __LINE__);
        handleTerminatedOperations();
        if (loadTooHigh(opts.loadLimit)) {
            sleep(static_cast<unsigned>(g_settings.TimeDelay));
            continue;
        }
        if (startFreeSlots() == WORKER_FINISHED)
            return;
        fflush(stdout);
        fflush(stderr);
        sleep(static_cast<unsigned>(g_settings.TimeDelay));
    }
}

// Start-up step 7: the program's own log under its name from argv[0].
void openDaemonLog(const char* argv0)
{
    app_name_from_argv(ghAppName, sizeof ghAppName, argv0);
    init_state();
    open_program_log(ghAppName, 1);
}

// Start-up steps 9 and 10.
void prepareSharedState()
{
    if (createBandwidthTable() != 0)
        log_printf(0, "%s:%d: Can't create shared bandwidth table.\n  All processes will use default bandwidth\n",
                   __FILE__, __LINE__);
    g_daemon.bandwidthTableId = getBandwidthTableId();
    resetInProgress();
}

} // namespace

int ferrydMain(int argc, char** argv)
{
    installSignalHandlers();
    g_daemon.isWorker = 0;
    g_daemon.checkpointing = false;
    StartOptions opts;
    curl_global_init(CURL_GLOBAL_ALL);

    if (argc > 1 && (strcmp(argv[1], "utility") == 0 || strcmp(argv[1], "util") == 0))
        return utilityMain(argc, argv);

    g_daemon.overrideMask = 0;
    g_daemon.iniModTime = 0;
    g_daemon.totalBytesSent = 0;
    g_settings.debugLevel = 0;

    int status = parseOptions(argc, argv, opts);
    if (status != kContinue)
        return status;
    if (!g_daemon.logToStderr)
        openDaemonLog(argv[0]);

    if (opts.daemonise == 1) {
        log_printf(0, "%s:%d: Daemonize...", __FILE__, __LINE__);
        // A second daemon fails on the pid file lock and goes away quietly.
        if (daemonize() != 0)
            return 0;
    }
    prepareSharedState();
    mainLoop(opts);

    fclose(stderr);
    detachBandwidthTable();
    curl_global_cleanup();
    return 0;
}

namespace {

// daemonize step 5: the daemon keeps no terminal.
void redirectStandardStreams()
{
    if (!freopen("/dev/null", "r", stdin) || !freopen("/dev/null", "w", stdout) ||
        !freopen("/dev/null", "w", stderr))
        log_printf(0, "%s:%d: failed to reopen standard streams on /dev/null: %s", __FILE__, __LINE__,
                   strerror(errno));
}

// daemonize steps 6 to 10: the locked pid file is the single-instance guard.
// The descriptor stays open for the life of the process (and its workers),
// since the lock lasts as long as it does.
int writePidFile()
{
    char path[256];
    int need = snprintf(path, sizeof path, "/var/run/%s.pid", ghAppName);
    std::string resolved = appliancePath(path);
    if (need < 0 || static_cast<size_t>(need) >= sizeof path || resolved.size() >= sizeof g_daemon.pidFilePath) {
        log_printf(0, "%s:%d: failed to build /var/run/%s.pid, buffer size %zu, data size %d.", __FILE__, __LINE__,
                   ghAppName, sizeof path, need);
        return -1;
    }
    snprintf(g_daemon.pidFilePath, sizeof g_daemon.pidFilePath, "%s", resolved.c_str());
    int fd = open(g_daemon.pidFilePath, O_WRONLY | O_CREAT, 0644);
    if (fd < 0) {
        log_printf(0, "%s:%d: failed to open %s: %s.", __FILE__, __LINE__, g_daemon.pidFilePath, strerror(errno));
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        log_printf(0, "%s:%d: failed to lock /var/run/%s.pid: %s.", __FILE__, __LINE__, ghAppName, strerror(errno));
        close(fd);
        return -1;
    }
    char data[256];
    int len = snprintf(data, sizeof data, "%d", getpid());
    if (len < 0 || static_cast<size_t>(len) >= sizeof data) {
        log_printf(0, "%s:%d: failed to build pig data buffer size %zu, data size %d.", __FILE__, __LINE__,
                   sizeof data, len);
        close(fd);
        return -1;
    }
    if (write(fd, data, static_cast<size_t>(len)) != len) {
        log_printf(0, "%s:%d: failed to write /var/run/%s.pid: %s.", __FILE__, __LINE__, ghAppName, strerror(errno));
        close(fd);
        return -1;
    }
    if (ftruncate(fd, len) != 0) {
        log_printf(0, "%s:%d: Truncate /var/run/%s.pid failed: %s.", __FILE__, __LINE__, ghAppName, strerror(errno));
        close(fd);
        return -1;
    }
    return 0;
}

} // namespace

int daemonize()
{
    // Started by init: refuse rather than skip the fork (exit status 255).
    if (getppid() == 1)
        exit(-1);
    pid_t pid = fork();
    if (pid < 0)
        exit(-1);
    if (pid > 0)
        exit(0);
    umask(0);
    if (setsid() < 0)
        exit(-1);
    std::string rootDir = appliancePath("/");
    if (chdir(rootDir.c_str()) != 0) {
        log_printf(0, "%s:%d: failed to chdir to /: %s.", __FILE__, __LINE__, strerror(errno));
        return -1;
    }
    redirectStandardStreams();
    return writePidFile();
}

float getLoad()
{
    FILE* f = fopen("/proc/loadavg", "r");
    if (f == nullptr)
        return -1.0f;
    float load = -1.0f;
    // A failed read gives -1.0, which never exceeds a limit: an unreadable
    // load never blocks replication.
    if (fscanf(f, "%f", &load) != 1)
        load = -1.0f;
    fclose(f);
    return load;
}

void reapWorkers()
{
    pid_t pid;
    while ((pid = waitpid(-1, nullptr, WNOHANG)) >= 1) {
        // The exit status is ignored: the queue table holds the outcome.
        SigchldBlock guard;
        g_daemon.workers.remove_if([pid](const WorkerRecord& w) { return w.pid == pid; });
    }
}

void killWorkers()
{
    SigchldBlock guard;
    for (const WorkerRecord& w : g_daemon.workers) {
        log_printf(0, "%s:%d: killing: %d", __FILE__, __LINE__, w.pid);
        kill(w.pid, SIGTERM);
    }
}

void cleanup()
{
    log_printf(0, "%s:%d: Cleaning up", __FILE__, __LINE__);
    killWorkers();
    detachBandwidthTable();
    curl_global_cleanup();
    if (g_daemon.isWorker == 0) {
        log_printf(0, "%s:%d: Clear pid file", __FILE__, __LINE__);
        clearPidFile();
    }
}

void clearPidFile()
{
    // A daemon started with -d never wrote a pid file.
    if (g_daemon.pidFilePath[0] == '\0')
        return;
    SigchldBlock guard;
    if (unlink(g_daemon.pidFilePath) != 0) {
        log_printf(0, "%s:%d: Failed to remove pid file", __FILE__, __LINE__);
        log_printf(0, "%s:%d: errno:%s", __FILE__, __LINE__, strerror(errno));
    }
}
