// pg_cluster: initdb, start, load and tear down the private PostgreSQL
// cluster of one test binary, plus small SQL helpers for fixtures.
#include "harness/pg_cluster.h"

#include <libpq-fe.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace ferrytest {
namespace {

PgClusterEnvironment* g_cluster = nullptr;

// PostgreSQL refuses to run as root: then the server and its tools run as
// the postgres system user, resolved once before anything is forked.
struct ServerUser {
    bool drop = false;
    uid_t uid = 0;
    gid_t gid = 0;
} g_serverUser;

using ResultPtr = std::unique_ptr<PGresult, decltype(&PQclear)>;

std::string pgBin(const char* tool)
{
    const char* dir = getenv("FERRY_PG_BINDIR");
    return std::string(dir && *dir ? dir : "/usr/lib/postgresql/15/bin") + "/" + tool;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Runs argv with stdin from /dev/null and stdout+stderr appended to
// `outPath`, in `cwd`, as the server user when `asServer`. No descriptor of
// this process leaks into the child (the server must not hold the
// guardian's pipe). Returns the exit status, or -1 if it did not exit.
int runCommand(const std::vector<std::string>& argv, const std::string& outPath, bool asServer,
               const std::string& cwd)
{
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        bool drop = asServer && g_serverUser.drop;
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0 ||
            close_range(3, ~0U, 0) != 0 ||
            (drop && (setgroups(0, nullptr) != 0 || setgid(g_serverUser.gid) != 0 || setuid(g_serverUser.uid) != 0)) ||
            (!cwd.empty() && chdir(cwd.c_str()) != 0))
            _exit(126);
        setenv("LC_ALL", "C", 1);
        if (drop)
            setenv("HOME", cwd.c_str(), 1);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// pg_ctl stop in `mode`; its output goes to `log`. True when it worked.
bool stopServer(const std::string& baseDir, const std::string& dataDir, const char* mode, const std::string& log)
{
    return runCommand({pgBin("pg_ctl"), "stop", "-D", dataDir, "-m", mode, "-w", "-t", "120"}, log, true,
                      baseDir) == 0;
}

// Runs `sql` on a fresh connection to `dbname` of the cluster. True on
// success, with the result in *out when given; else the reason in `error`.
bool runSql(const std::string& dbname, const std::string& sql, std::string& error, ResultPtr* out = nullptr)
{
    if (!g_cluster || g_cluster->baseDir().empty()) {
        error = "no PostgreSQL cluster registered";
        return false;
    }
    std::unique_ptr<PGconn, decltype(&PQfinish)> conn(PQconnectdb(g_cluster->connString(dbname).c_str()), PQfinish);
    ResultPtr res(PQstatus(conn.get()) == CONNECTION_OK ? PQexec(conn.get(), sql.c_str()) : nullptr, PQclear);
    ExecStatusType status = PQresultStatus(res.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_EMPTY_QUERY) {
        error = PQerrorMessage(conn.get());
        return false;
    }
    if (out)
        *out = std::move(res);
    return true;
}

// The guardian: waits until every copy of the pipe's write end is closed
// (the test binary and its forked children have ended, however they ended),
// then stops the server if it still runs and removes the directory.
[[noreturn]] void guardianMain(int readFd, const std::string& baseDir, const std::string& dataDir)
{
    setsid();
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
        signal(sig, SIG_IGN);
    int devnull = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3 && devnull >= 0; ++fd)
        dup2(devnull, fd);
    dup2(readFd, 3);
    close_range(4, ~0U, 0);
    char buf[64];
    ssize_t n;
    while ((n = read(3, buf, sizeof(buf))) != 0 && (n > 0 || errno == EINTR)) {
    }
    std::error_code ec;
    if (fs::exists(dataDir + "/postmaster.pid", ec))
        stopServer(baseDir, dataDir, "immediate", "/dev/null");
    fs::remove_all(baseDir, ec);
    _exit(0);
}

} // namespace

PgClusterEnvironment::PgClusterEnvironment()
{
    g_cluster = this;
}

PgClusterEnvironment::~PgClusterEnvironment()
{
    // A forked child that calls exit() runs this destructor too; only the
    // process that made the cluster may take it down.
    if (!baseDir_.empty() && getpid() == ownerPid_)
        cleanup();
    if (g_cluster == this)
        g_cluster = nullptr;
}

PgClusterEnvironment* pgCluster()
{
    return g_cluster;
}

std::string PgClusterEnvironment::connString(const std::string& dbname) const
{
    return "host=" + socketDir_ + " port=" + std::to_string(port_) + " user=postgres dbname=" + dbname;
}

void PgClusterEnvironment::SetUp()
{
    ownerPid_ = getpid();
    if (geteuid() == 0) {
        struct passwd* pw = getpwnam("postgres");
        ASSERT_NE(pw, nullptr) << "running as root needs the postgres system user";
        g_serverUser = {true, pw->pw_uid, pw->pw_gid};
    }
    // /tmp keeps the socket path short and is reachable for the postgres user.
    std::string tmpl = "/tmp/ferry-pg-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr) << "mkdtemp: " << strerror(errno);
    baseDir_ = tmpl;
    dataDir_ = baseDir_ + "/data";
    socketDir_ = baseDir_ + "/sock";
    serviceFile_ = baseDir_ + "/pg_service.conf";
    serverLog_ = baseDir_ + "/server.log";
    // The socket sits in a private directory and nothing listens on TCP, so
    // every cluster can keep the default port.
    port_ = 5432;
    ASSERT_EQ(mkdir(socketDir_.c_str(), 0755), 0) << strerror(errno);
    ASSERT_EQ(chmod(baseDir_.c_str(), 0755), 0);
    if (g_serverUser.drop) {
        ASSERT_EQ(chown(baseDir_.c_str(), g_serverUser.uid, g_serverUser.gid), 0) << strerror(errno);
        ASSERT_EQ(chown(socketDir_.c_str(), g_serverUser.uid, g_serverUser.gid), 0) << strerror(errno);
    }
    startGuardian();
    ASSERT_TRUE(initCluster());
    ASSERT_TRUE(start());
    ASSERT_TRUE(createDatabase());
    writeServiceFile();
    ASSERT_TRUE(loadSchema());
}

void PgClusterEnvironment::TearDown()
{
    cleanup();
}

void PgClusterEnvironment::cleanup()
{
    if (baseDir_.empty())
        return;
    std::error_code ec;
    if (running_ || fs::exists(dataDir_ + "/postmaster.pid", ec))
        stopServer(baseDir_, dataDir_, "immediate", "/dev/null");
    running_ = false;
    fs::remove_all(baseDir_, ec);
    baseDir_.clear();
    if (hadServiceFile_)
        setenv("PGSERVICEFILE", savedServiceFile_.c_str(), 1);
    else
        unsetenv("PGSERVICEFILE");
    // The guardian finds nothing left to do and ends by itself.
    if (guardianFd_ >= 0)
        close(guardianFd_);
    guardianFd_ = -1;
}

void PgClusterEnvironment::startGuardian()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << strerror(errno);
        return;
    }
    fflush(nullptr);
    // Forked twice, so the guardian is nobody's child here: code under test
    // that waits for "any child" never sees it.
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[1]);
        if (fork() == 0)
            guardianMain(fds[0], baseDir_, dataDir_);
        _exit(0);
    }
    close(fds[0]);
    int status;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (pid < 0) {
        close(fds[1]);
        ADD_FAILURE() << "fork: " << strerror(errno);
        return;
    }
    guardianFd_ = fds[1];
}

bool PgClusterEnvironment::initCluster()
{
    std::string log = baseDir_ + "/initdb.log";
    int rc = runCommand({pgBin("initdb"), "-D", dataDir_, "-U", "postgres", "-A", "trust", "-E", "UTF8",
                         "--locale=C", "--no-sync", "--no-instructions"},
                        log, true, baseDir_);
    if (rc != 0) {
        ADD_FAILURE() << "initdb failed (" << rc << "):\n" << slurp(log);
        return false;
    }
    std::ofstream conf(dataDir_ + "/postgresql.conf", std::ios::app);
    conf << "\n# private test cluster\nlisten_addresses = ''\nport = " << port_
         << "\nunix_socket_directories = '" << socketDir_
         << "'\nfsync = off\nsynchronous_commit = off\nfull_page_writes = off\nshared_buffers = 16MB\n";
    if (!conf.flush()) {
        ADD_FAILURE() << "cannot write postgresql.conf";
        return false;
    }
    return true;
}

bool PgClusterEnvironment::start()
{
    std::string log = baseDir_ + "/pg_ctl.log";
    int rc = runCommand({pgBin("pg_ctl"), "start", "-D", dataDir_, "-l", serverLog_, "-w", "-t", "120"}, log, true,
                        baseDir_);
    if (rc != 0) {
        ADD_FAILURE() << "pg_ctl start failed (" << rc << "):\n" << slurp(log) << "\n" << slurp(serverLog_);
        return false;
    }
    running_ = true;
    return true;
}

bool PgClusterEnvironment::stop()
{
    std::string log = baseDir_ + "/pg_ctl.log";
    if (!stopServer(baseDir_, dataDir_, "fast", log)) {
        ADD_FAILURE() << "pg_ctl stop failed:\n" << slurp(log);
        return false;
    }
    running_ = false;
    return true;
}

bool PgClusterEnvironment::restart()
{
    return stop() && start();
}

bool PgClusterEnvironment::createDatabase()
{
    // CREATE DATABASE cannot share a statement string with anything else.
    std::string error;
    bool ok = runSql("postgres", "CREATE DATABASE tqdb", error);
    // Tools that connect without naming a user come as the current one.
    struct passwd* pw = getpwuid(geteuid());
    if (ok && pw && strcmp(pw->pw_name, "postgres") != 0)
        ok = runSql("postgres", "CREATE ROLE \"" + std::string(pw->pw_name) + "\" SUPERUSER LOGIN", error);
    if (!ok)
        ADD_FAILURE() << "creating tqdb: " << error;
    return ok;
}

void PgClusterEnvironment::writeServiceFile()
{
    std::ofstream(serviceFile_, std::ios::trunc) << "# private test cluster\n";
    addService("localhost");
    if (const char* old = getenv("PGSERVICEFILE")) {
        hadServiceFile_ = true;
        savedServiceFile_ = old;
    }
    setenv("PGSERVICEFILE", serviceFile_.c_str(), 1);
}

void PgClusterEnvironment::addService(const std::string& name)
{
    appendServiceText("[" + name + "]\nhost=" + socketDir_ + "\nport=" + std::to_string(port_) +
                      "\nuser=postgres\ndbname=tqdb\n");
}

void PgClusterEnvironment::appendServiceText(const std::string& text)
{
    std::ofstream out(serviceFile_, std::ios::app);
    out << text;
    if (!text.empty() && text.back() != '\n')
        out << '\n';
}

bool PgClusterEnvironment::loadSchema()
{
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(std::string(FERRY_SOURCE_DIR) + "/sql", ec))
        if (entry.is_regular_file() && entry.path().extension() == ".sql")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::string output;
        if (!pgRunSqlFile(file, &output)) {
            ADD_FAILURE() << "loading " << file << " failed:\n" << output;
            return false;
        }
    }
    return true;
}

bool pgRunSqlFile(const std::string& path, std::string* output)
{
    if (!g_cluster || g_cluster->baseDir().empty()) {
        ADD_FAILURE() << "no PostgreSQL cluster registered";
        return false;
    }
    std::string log = g_cluster->baseDir() + "/psql-" + std::to_string(getpid()) + ".log";
    unlink(log.c_str());
    // psql runs as the caller: it only needs to reach the socket.
    int rc = runCommand({pgBin("psql"), "-X", "-q", "-v", "ON_ERROR_STOP=1", "-d", g_cluster->connString(), "-f",
                         path},
                        log, false, "");
    if (output)
        *output = slurp(log);
    unlink(log.c_str());
    return rc == 0;
}

bool pgExecSql(const std::string& sql, std::string* error, bool expectFailure)
{
    std::string message;
    if (runSql("tqdb", sql, message))
        return true;
    if (error)
        *error = message;
    if (!expectFailure)
        ADD_FAILURE() << "SQL failed: " << message << "statement: " << sql;
    return false;
}

std::string pgQueryValue(const std::string& sql)
{
    ResultPtr res(nullptr, PQclear);
    std::string message;
    if (!runSql("tqdb", sql, message, &res)) {
        ADD_FAILURE() << "query failed: " << message << "statement: " << sql;
        return "";
    }
    if (PQntuples(res.get()) < 1 || PQnfields(res.get()) < 1 || PQgetisnull(res.get(), 0, 0))
        return "";
    return PQgetvalue(res.get(), 0, 0);
}

} // namespace ferrytest
