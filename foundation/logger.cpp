// logger: the writers of the process log, the opening and closing of its file,
// and size rotation of the file family <name>-<instance>[_<n>].log.
// Instance choice and retention live in programlog.cpp and logpurge.cpp.
#include "foundation/logger.h"

#include "foundation/environment.h"
#include "foundation/logger_internal.h"
#include "foundation/sysroot.h"

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <unistd.h>

int log_level = 0;
int log_simple = 0;
int log_screen_level = -1;
char log_fname[1024];
char g_base_fname[1024];
int g_logs_per_instance = 1;
const char* const g_extns[2] = {".log", ".log.gz"};
int (*g_errmsg_proc)(const char* msg) = nullptr;
int g_shell_mode = 0;

namespace {

constexpr int kLogOff = 200;
constexpr int kSimpleOffset = 100;
constexpr char kDefaultLog[] = "/tmp/program.log";
constexpr char kDefaultLogDir[] = "/tmp";
constexpr char kLineTimeFormat[] = "%b %d %T";
constexpr char kStartLineMark[] = "Log level=";
constexpr int kSimpleLine = 1024;
constexpr int kSimplePath = 128;

// What the full writer needs besides the public globals. Touched only under
// logLock (the simple writer and the open functions in simple mode aside).
struct WriterState {
    FILE* stream = nullptr;  // where lines go now
    FILE* opened = nullptr;  // what OpenLog opened last; only that one rotates
    long sizeLimit = -1;     // bytes; -1 never rotate
    int rotations = 0;       // highest index of the family so far
    int renameFlag = 0;
    char headerName[256] = "";
    int instance = 0;
    char startTime[128] = "";
};

WriterState w;
pthread_mutex_t logLock = PTHREAD_MUTEX_INITIALIZER;
// Set while this thread holds logLock: a line that arrives from inside the
// logger (an error sink that logs) must not wait for a lock it already holds.
thread_local bool t_holdsLogLock = false;

// Blocks every signal of the calling thread, then takes the log lock, so that
// a handler that logs can never interrupt the holder on its own thread.
class LogLock {
public:
    LogLock()
    {
        sigset_t all;
        sigfillset(&all);
        if (pthread_sigmask(SIG_SETMASK, &all, &saved_) != 0)
            error_printf("can't block signals");
        else
            masked_ = true;
        int rc = pthread_mutex_lock(&logLock);
        if (rc != 0) {
            error_printf("Error getting mutex lock:%d\n", rc);
            return;
        }
        locked_ = true;
        t_holdsLogLock = true;
    }
    ~LogLock()
    {
        if (locked_) {
            t_holdsLogLock = false;
            int rc = pthread_mutex_unlock(&logLock);
            if (rc != 0)
                error_printf("Error releasing mutex lock:%d\n", rc);
        }
        if (masked_ && pthread_sigmask(SIG_SETMASK, &saved_, nullptr) != 0)
            error_printf("sigprocmask(SIG_SETMASK,,)\n");
    }
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;

private:
    sigset_t saved_;
    bool masked_ = false;
    bool locked_ = false;
};

// A fork while another thread writes would leave the child with a lock that
// nobody releases; holding the lock across fork keeps the child's copy free.
thread_local sigset_t forkSavedMask;
thread_local bool forkTookLock = false;

void forkPrepare()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &forkSavedMask);
    forkTookLock = !t_holdsLogLock && pthread_mutex_lock(&logLock) == 0;
}

void forkParent()
{
    if (forkTookLock)
        pthread_mutex_unlock(&logLock);
    pthread_sigmask(SIG_SETMASK, &forkSavedMask, nullptr);
}

void forkChild()
{
    if (forkTookLock)
        pthread_mutex_unlock(&logLock);
    pthread_sigmask(SIG_SETMASK, &forkSavedMask, nullptr);
}

[[maybe_unused]] const int forkHandlersRegistered = pthread_atfork(forkPrepare, forkParent, forkChild);

bool endsInNewline(const char* fmt)
{
    size_t len = strlen(fmt);
    return len > 0 && fmt[len - 1] == '\n';
}

void formatNow(char* buf, size_t size, const char* format)
{
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    if (strftime(buf, size, format, &tm) == 0)
        buf[0] = '\0';
}

void copyText(char* dst, size_t size, const char* src)
{
    snprintf(dst, size, "%s", src ? src : "");
}

// The path with a trailing ".log" removed.
void stripLogExtension(const char* path, char* out, size_t size)
{
    copyText(out, size, path);
    size_t len = strlen(out);
    if (len >= 4 && strcmp(out + len - 4, ".log") == 0)
        out[len - 4] = '\0';
}

// <base> for index 0, <base>_<index> otherwise.
void familyMember(const char* base, int index, char* out, size_t size)
{
    if (index > 0)
        snprintf(out, size, "%s_%d", base, index);
    else
        copyText(out, size, base);
}

// A relative name goes under g_logdir ("/tmp" when unset), one "/" between.
void resolveLogPath(const char* name, char* out, size_t size)
{
    if (name[0] == '/') {
        copyText(out, size, name);
        return;
    }
    std::string dir = log_directory();
    const char* sep = (!dir.empty() && dir.back() == '/') ? "" : "/";
    snprintf(out, size, "%s%s%s", dir.c_str(), sep, name);
}

// LOG_LEVEL in the environment overrides the level of a full-mode log.
void applyLogLevelEnvironment()
{
    const char* value = getenv("LOG_LEVEL");
    // The number starts at the twelfth character: the first eleven are
    // skipped whatever they hold, which is how the appliance has always read it.
    if (value != nullptr && strlen(value) >= 11)
        log_level = atoi(value + 11);
}

int writePrefix(FILE* f, int level)
{
    char now[64];
    formatNow(now, sizeof now, kLineTimeFormat);
    int n = fprintf(f, "%s : [LOG%d] ", now, level);
    return n > 0 ? n : 0;
}

// One line of the full writer: prefix unless it is a start line, message,
// newline when the format has none, flush. Caller holds logLock.
int writeLineLocked(int level, const char* fmt, va_list ap)
{
    FILE* f = w.stream;
    if (f == nullptr)
        return 0;
    int n = 0;
    if (strstr(fmt, kStartLineMark) == nullptr)
        n += writePrefix(f, level);
    int m = vfprintf(f, fmt, ap);
    if (m > 0)
        n += m;
    if (!endsInNewline(fmt)) {
        fputc('\n', f);
        ++n;
    }
    fflush(f);
    return n;
}

int writeLineLockedf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int writeLineLockedf(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = writeLineLocked(level, fmt, ap);
    va_end(ap);
    return n;
}

// The bare message on stderr: no time, no level; newline added when missing.
void echoOnStderr(const char* fmt, va_list ap, bool addNewline)
{
    vfprintf(stderr, fmt, ap);
    if (addNewline && !endsInNewline(fmt))
        fputc('\n', stderr);
    fflush(stderr);
}

int openDevNullLocked()
{
    w.stream = fopen("/dev/null", "w");
    if (w.stream == nullptr)
        exit(1);
    return 0;
}

// Closes the current stream without a closing line (stderr stays open).
void dropStreamLocked()
{
    if (w.stream != nullptr && w.stream != stderr) {
        fclose(w.stream);
        if (w.opened == w.stream)
            w.opened = nullptr;
    }
    w.stream = nullptr;
}

void closeLogLocked()
{
    if (w.stream != nullptr && w.stream != stderr && log_level != kLogOff) {
        char now[64];
        formatNow(now, sizeof now, kLineTimeFormat);
        fprintf(w.stream, "%s : pid=%d %d : Log Closed\n", now, (int)getpid(), (int)getppid());
    }
    dropStreamLocked();
}

int openLogLocked(const char* pathIn)
{
    char path[sizeof log_fname];
    copyText(path, sizeof path, pathIn);
    closeLogLocked();
    if (log_level == kLogOff)
        return openDevNullLocked();
    struct stat st {};
    if (!w.renameFlag && stat(path, &st) == 0 && S_ISREG(st.st_mode))
        unlink(path);  // a new instance starts empty
    int rc = 0;
    FILE* f = fopen(path, "a+");
    if (f != nullptr) {
        w.stream = w.opened = f;
        fcntl(fileno(f), F_SETFD, FD_CLOEXEC);
        fchmod(fileno(f), 0664);
        fseek(f, 0, SEEK_END);  // "a+" starts reading at 0; the size test wants the end
    } else {
        error_printf("Fatal error opening logfile %s because: %s\n", path, strerror(errno));
        copyText(log_fname, sizeof log_fname, "/dev/null");
        openDevNullLocked();
        rc = -1;
    }
    if (log_simple)
        log_printf(2, "OpenLog(%s) status = %d", path, rc);
    return rc;
}

// Moves the family of g_base_fname to `newPath`'s base name. With bump set
// every index grows by one (a rotation); without it the indexes stay (a
// rename). A file whose index reaches g_logs_per_instance is deleted. The
// extension each file was found under (".log" or ".log.gz") is kept.
void RenameLogs(const char* newPath, int bump)
{
    char oldBase[sizeof g_base_fname];
    char newBase[sizeof g_base_fname];
    stripLogExtension(g_base_fname, oldBase, sizeof oldBase);
    stripLogExtension(newPath, newBase, sizeof newBase);
    dropStreamLocked();
    if (oldBase[0] == '\0')
        return;
    for (int i = w.rotations; i >= 0; --i) {
        char source[sizeof g_base_fname + 16];
        familyMember(oldBase, i, source, sizeof source);
        int ext = LogfileExists(source, nullptr);
        if (ext < 0)
            continue;
        char sourceFile[sizeof source + 8];
        snprintf(sourceFile, sizeof sourceFile, "%s%s", source, g_extns[ext]);
        int target = bump ? i + 1 : i;
        if (target < g_logs_per_instance) {
            char dest[sizeof g_base_fname + 16];
            familyMember(newBase, target, dest, sizeof dest);
            char destFile[sizeof dest + 8];
            snprintf(destFile, sizeof destFile, "%s%s", dest, g_extns[ext]);
            if (rename(sourceFile, destFile) != 0)
                error_printf("Renaming file %s to %s failed because: %s\n", sourceFile, destFile,
                             strerror(errno));
        } else if (unlink(sourceFile) != 0) {
            error_printf("Unlinking %s failed because %s \n", sourceFile, strerror(errno));
        }
    }
}

int GetNewLogFile()
{
    assert(g_logs_per_instance > 1);
    char base[sizeof g_base_fname];
    copyText(base, sizeof base, g_base_fname);
    RenameLogs(base, 1);
    ++w.rotations;
    return openLogLocked(base);
}

// The current file has reached its limit: move the family up by one and
// start a new file with the header lines. Caller holds logLock.
void rotateLocked(int level, long position)
{
    writeLineLockedf(level, "Current log size = %ld; Moving log file...  \n", position);
    if (GetNewLogFile() < 0) {
        writeLineLockedf(level, "WARNING: Attempt to rotate logs failed, turning off log rotation!\n ");
        w.sizeLimit = -1;
        return;
    }
    writeLineLockedf(level, "%s[%s, pid = %d]: started on %s (Log level=%d)\n", w.headerName,
                     FERRY_VERSION, (int)getpid(), w.startTime, log_level);
    writeLineLockedf(level,
                     "Log size limit reached, starting new log file. For prior logs, check %s-%d*.log\n",
                     w.headerName, w.instance);
}

void rotateIfFullLocked(int level, const char* fmt)
{
    if (w.stream == nullptr || w.stream != w.opened || g_logs_per_instance < 2 || w.sizeLimit == -1)
        return;
    long position = ftell(w.stream);
    if (position == -1) {
        error_printf("Error checking logfile size %s because: %s\n", g_base_fname, strerror(errno));
        return;
    }
    // The test counts the format, not the message: one long message may
    // overshoot the limit, and the next line rotates.
    if (position + (long)strlen(fmt) > w.sizeLimit)
        rotateLocked(level, position);
}

void setBaseName(const char* path)
{
    copyText(g_base_fname, sizeof g_base_fname, path);
}

int openFullLocked(const char* name)
{
    applyLogLevelEnvironment();
    char path[sizeof log_fname];
    resolveLogPath(name, path, sizeof path);
    copyText(log_fname, sizeof log_fname, path);
    CleanupOldLogs(path);
    int rc;
    if (w.renameFlag) {
        RenameLogs(path, 0);
        rc = openLogLocked(path);
        w.renameFlag = 0;
    } else {
        rc = openLogLocked(path);
    }
    setBaseName(path);
    return rc;
}

int openSimpleLocked(const char* name)
{
    char path[kSimplePath];
    resolveLogPath(name, path, sizeof path);
    // Every "-" ends the program name: ferryd-worker writes into ferryd.log.
    // The last "-" may stand in a directory name, and the path is cut there.
    if (char* dash = strrchr(path, '-'))
        snprintf(dash, sizeof path - (dash - path), ".log");
    copyText(log_fname, sizeof log_fname, path);
    closeLogLocked();
    FILE* f = fopen(path, "a");
    if (f == nullptr) {
        fprintf(stderr, "Error opening logfile %s because: %s\n", path, strerror(errno));
        return -1;
    }
    fcntl(fileno(f), F_SETFD, FD_CLOEXEC);
    w.stream = w.opened = f;
    setBaseName(path);
    return 0;
}

int openLogByNameLocked(const char* name)
{
    std::string fallback;
    if (name == nullptr || *name == '\0') {
        fallback = appliancePath(kDefaultLog);
        name = fallback.c_str();
    }
    if (log_level == kLogOff) {
        closeLogLocked();
        return openDevNullLocked();
    }
    fold_simple_log_level(name);
    return log_simple ? openSimpleLocked(name) : openFullLocked(name);
}

int fullWriter(int level, const char* fmt, va_list ap)
{
    if (level > log_level && level > log_screen_level)
        return 0;
    if (t_holdsLogLock) {  // an error sink logging from inside the logger
        echoOnStderr(fmt, ap, true);
        return 0;
    }
    if (level <= log_screen_level) {
        va_list copy;
        va_copy(copy, ap);
        echoOnStderr(fmt, copy, true);
        va_end(copy);
        if (level > log_level)
            return 0;
    }
    LogLock lock;
    if (w.stream == nullptr)
        openLogByNameLocked(nullptr);
    rotateIfFullLocked(level, fmt);
    return writeLineLocked(level, fmt, ap);
}

int simpleWriter(int level, const char* fmt, va_list ap)
{
    if (level > log_level)
        return 0;
    if (w.stream == nullptr && !t_holdsLogLock)
        open_log(nullptr);
    FILE* f = w.stream;
    if (f == nullptr)
        return 0;
    char line[kSimpleLine];
    char now[64];
    formatNow(now, sizeof now, kLineTimeFormat);
    int prefix = snprintf(line, sizeof line, "%s : [LOG%d] ", now, level);
    int message = vsnprintf(line + prefix, sizeof line - prefix, fmt, ap);
    int length = prefix + (message > 0 ? message : 0);
    int written = 0;
    if (length > kSimpleLine - 1) {
        int n = fprintf(f, "Message below was truncated from %d to %d bytes\n", length, kSimpleLine);
        written += n > 0 ? n : 0;
        line[kSimpleLine - 2] = '\n';  // the cut line ends in a newline in any case
        fputs(line, f);
        written += kSimpleLine - 1;
    } else {
        fputs(line, f);
        written += length;
        if (!endsInNewline(fmt)) {
            fputc('\n', f);
            ++written;
        }
    }
    if (f != stderr)
        fflush(f);
    return written;
}

int vlog(int level, const char* fmt, va_list ap)
{
    if (log_level == kLogOff)
        return 0;
    if (log_level > 99) {
        log_level -= kSimpleOffset;
        log_simple = 1;
    }
    return log_simple ? simpleWriter(level, fmt, ap) : fullWriter(level, fmt, ap);
}

} // namespace

void fold_simple_log_level(const char* name)
{
    if (log_level == kLogOff || log_level <= 99)
        return;
    log_level -= kSimpleOffset;
    log_simple = 1;
    // tqserver always keeps the full writer, whatever its level says.
    if (name != nullptr && strstr(name, "tqserver") != nullptr)
        log_simple = 0;
}

std::string log_directory()
{
    return g_logdir.empty() ? appliancePath(kDefaultLogDir) : g_logdir;
}

int log_printf(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vlog(level, fmt, ap);
    va_end(ap);
    return n;
}

void log_errno_printf(int level, const char* fmt, ...)
{
    int savedErrno = errno;
    char message[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(message, sizeof message, fmt, ap);
    va_end(ap);
    size_t len = strlen(message);
    bool hadNewline = len > 0 && message[len - 1] == '\n';
    if (hadNewline)
        message[len - 1] = '\0';
    log_printf(level, hadNewline ? "%s because...(%ld) %s \n" : "%s because...(%ld) %s ", message,
               (long)savedErrno, strerror(savedErrno));
}

int log_raw_printf(int level, const char* fmt, ...)
{
    if (log_level == kLogOff)
        return 0;
    if (log_level > 99) {
        log_level -= kSimpleOffset;
        log_simple = 1;
    }
    va_list ap;
    va_start(ap, fmt);
    int n = 0;
    if (log_simple) {
        n = simpleWriter(level, fmt, ap);
    } else if (level <= log_level || level <= log_screen_level) {
        if (level <= log_screen_level) {
            va_list copy;
            va_copy(copy, ap);
            echoOnStderr(fmt, copy, false);
            va_end(copy);
        }
        if (level <= log_level && !t_holdsLogLock) {
            LogLock lock;
            if (w.stream == nullptr)
                openLogByNameLocked(nullptr);
            if (w.stream != nullptr) {
                n = vfprintf(w.stream, fmt, ap);
                fflush(w.stream);
            }
        }
    }
    va_end(ap);
    return n > 0 ? n : 0;
}

int log_include_file(int level, const char* path)
{
    FILE* f = fopen(path, "r");
    if (f == nullptr) {
        log_printf(0, "logger: Cannot include contents of %s (open failed - %s)\n", path,
                   strerror(errno));
        return -1;
    }
    char line[2048];
    while (fgets(line, sizeof line, f) != nullptr) {
        size_t len = strlen(line);
        if (len > 0 && line[len - 1] == '\n')
            line[len - 1] = '\0';
        log_printf(level, "%s\n", line);
    }
    fclose(f);
    return 0;
}

int error_printf(const char* fmt, ...)
{
    char message[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(message, sizeof message, fmt, ap);
    va_end(ap);
    if (g_errmsg_proc != nullptr && !g_shell_mode)
        return g_errmsg_proc(message);
    return fputs(message, stderr) < 0 ? -1 : (int)strlen(message);
}

int open_log(const char* name)
{
    LogLock lock;
    return openLogByNameLocked(name);
}

int OpenLog(const char* path)
{
    LogLock lock;
    if (path != log_fname)
        copyText(log_fname, sizeof log_fname, path);
    return openLogLocked(path);
}

void close_log()
{
    LogLock lock;
    closeLogLocked();
}

void set_log_rotation(const char* name, int instance, int maxKB, int filesPerInstance,
                      const char* startTime)
{
    LogLock lock;
    if (filesPerInstance > 1 && maxKB > 0) {
        w.sizeLimit = (long)maxKB * 1024;
        g_logs_per_instance = filesPerInstance;
    } else {
        w.sizeLimit = -1;
        g_logs_per_instance = 1;
    }
    if (name != nullptr)
        copyText(w.headerName, sizeof w.headerName, name);
    w.instance = instance;
    if (startTime != nullptr)
        copyText(w.startTime, sizeof w.startTime, startTime);
}

void set_log_rename_flag(int flag)
{
    log_printf(6, " setting log rename flag %d \n", flag);
    LogLock lock;
    w.renameFlag = flag;
}

void flush_log()
{
    LogLock lock;
    if (w.stream != nullptr)
        fflush(w.stream);
}

FILE* swap_log_stream(FILE* stream)
{
    LogLock lock;
    FILE* old = w.stream;
    if (stream != nullptr) {
        if (old != nullptr)
            fflush(old);
        w.stream = stream;
        return old;
    }
    if (w.stream == nullptr && log_level == kLogOff)
        w.stream = fopen("/dev/null", "w");
    return w.stream;
}

int LogfileExists(const char* pathWithoutExt, struct stat* st)
{
    for (int i = 0; i < 2; ++i) {
        char candidate[sizeof g_base_fname + 32];
        snprintf(candidate, sizeof candidate, "%s%s", pathWithoutExt, g_extns[i]);
        struct stat found {};
        if (stat(candidate, &found) == 0) {
            if (st != nullptr)
                *st = found;
            return i;
        }
    }
    return -1;
}

int CleanupOldLogs(const char* path)
{
    char base[sizeof g_base_fname];
    stripLogExtension(path, base, sizeof base);
    int removed = 0;
    for (int index = 0;; ++index) {
        char member[sizeof base + 16];
        familyMember(base, index, member, sizeof member);
        int ext = LogfileExists(member, nullptr);
        if (ext < 0)
            return removed;
        char file[sizeof member + 8];
        snprintf(file, sizeof file, "%s%s", member, g_extns[ext]);
        if (unlink(file) != 0) {
            error_printf("CleanupOldLogs(): Could not unlink %s because %s \n", file, strerror(errno));
            return -1;
        }
        ++removed;
    }
}
