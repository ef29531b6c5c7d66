// pg_cluster: initdb, start, load and tear down the private PostgreSQL
// cluster of one test binary, plus small SQL helpers for fixtures.
#include "harness/pg_cluster.h"

#include <libpq-fe.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <pwd.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace ferrytest {
namespace {

PgClusterEnvironment* g_cluster = nullptr;

struct ConnCloser {
    void operator()(PGconn* c) const { PQfinish(c); }
};
struct ResultCloser {
    void operator()(PGresult* r) const { PQclear(r); }
};
using ConnPtr = std::unique_ptr<PGconn, ConnCloser>;
using ResultPtr = std::unique_ptr<PGresult, ResultCloser>;

std::string pgBinDir()
{
    const char* dir = getenv("FERRY_PG_BINDIR");
    return dir && *dir ? dir : "/usr/lib/postgresql/15/bin";
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void closeFrom(int lowest)
{
    if (close_range(static_cast<unsigned>(lowest), ~0U, 0) == 0)
        return;
    long max = sysconf(_SC_OPEN_MAX);
    for (long fd = lowest; fd < (max > 0 ? max : 1024); ++fd)
        close(static_cast<int>(fd));
}

// Who runs the server and its tools: PostgreSQL refuses root.
struct RunAs {
    bool drop = false;
    uid_t uid = 0;
    gid_t gid = 0;
};

// Runs argv with stdin from /dev/null and stdout+stderr appended to
// `outPath`, in `cwd`, optionally as another user. No descriptor of this
// process leaks into the child (the server must not hold the guardian's
// pipe). Returns the exit status, or -1 if it did not exit normally.
int runCommand(const std::vector<std::string>& argv, const std::string& outPath, const RunAs& as,
               const std::string& cwd)
{
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0)
            _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        closeFrom(3);
        if (as.drop) {
            if (setgroups(0, nullptr) != 0 || setgid(as.gid) != 0 || setuid(as.uid) != 0)
                _exit(126);
        }
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
            _exit(126);
        setenv("LC_ALL", "C", 1);
        if (as.drop)
            setenv("HOME", cwd.c_str(), 1);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int findFreePort()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

bool chownTree(const std::string& path, uid_t uid, gid_t gid)
{
    if (chown(path.c_str(), uid, gid) != 0)
        return false;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(path, ec); !ec && it != fs::end(it); it.increment(ec))
        if (lchown(it->path().c_str(), uid, gid) != 0)
            return false;
    return !ec;
}

std::string sqlQuoteIdent(const std::string& name)
{
    std::string out = "\"";
    for (char c : name) {
        if (c == '"')
            out += '"';
        out += c;
    }
    return out + "\"";
}

// The guardian: waits until every copy of the pipe's write end is closed
// (the test binary and its forked children have ended, however they ended),
// then stops the server if it still runs and removes the directory.
[[noreturn]] void guardianMain(int readFd, const std::string& baseDir, const std::string& dataDir,
                               const RunAs& as)
{
    setsid();
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
        signal(sig, SIG_IGN);
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0) {
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(devnull, 2);
    }
    if (readFd != 3) {
        dup2(readFd, 3);
        readFd = 3;
    }
    closeFrom(4);
    char buf[64];
    for (;;) {
        ssize_t n = read(readFd, buf, sizeof(buf));
        if (n == 0 || (n < 0 && errno != EINTR))
            break;
    }
    std::error_code ec;
    if (fs::exists(dataDir + "/postmaster.pid", ec))
        runCommand({pgBinDir() + "/pg_ctl", "stop", "-D", dataDir, "-m", "immediate", "-w"}, "/dev/null",
                   as, baseDir);
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
    asRoot_ = geteuid() == 0;
    if (asRoot_) {
        struct passwd* pw = getpwnam("postgres");
        ASSERT_NE(pw, nullptr) << "running as root needs the postgres system user";
        runUid_ = pw->pw_uid;
        runGid_ = pw->pw_gid;
    } else {
        runUid_ = geteuid();
        runGid_ = getegid();
    }

    // /tmp keeps the socket path short and is reachable for the postgres user.
    std::string tmpl = "/tmp/ferry-pg-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr) << "mkdtemp: " << strerror(errno);
    baseDir_ = tmpl;
    dataDir_ = baseDir_ + "/data";
    socketDir_ = baseDir_ + "/sock";
    serviceFile_ = baseDir_ + "/pg_service.conf";
    serverLog_ = baseDir_ + "/server.log";
    fs::create_directory(socketDir_);
    chmod(baseDir_.c_str(), 0755);
    chmod(socketDir_.c_str(), 0755);
    if (asRoot_) {
        ASSERT_TRUE(chownTree(baseDir_, runUid_, runGid_)) << "chown " << baseDir_;
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
    if (running_ || fs::exists(dataDir_ + "/postmaster.pid")) {
        RunAs as{asRoot_, runUid_, runGid_};
        runCommand({pgBinDir() + "/pg_ctl", "stop", "-D", dataDir_, "-m", "immediate", "-w"},
                   "/dev/null", as, baseDir_);
        running_ = false;
    }
    std::error_code ec;
    fs::remove_all(baseDir_, ec);
    baseDir_.clear();
    if (hadServiceFile_)
        setenv("PGSERVICEFILE", savedServiceFile_.c_str(), 1);
    else
        unsetenv("PGSERVICEFILE");
    // The guardian finds nothing left to do and ends by itself.
    if (guardianFd_ >= 0) {
        close(guardianFd_);
        guardianFd_ = -1;
    }
}

void PgClusterEnvironment::startGuardian()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << strerror(errno);
        return;
    }
    RunAs as{asRoot_, runUid_, runGid_};
    fflush(nullptr);
    // Forked twice, so the guardian is nobody's child here: code under test
    // that waits for "any child" never sees it.
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[1]);
        if (fork() == 0)
            guardianMain(fds[0], baseDir_, dataDir_, as);
        _exit(0);
    }
    close(fds[0]);
    if (pid < 0) {
        close(fds[1]);
        ADD_FAILURE() << "fork: " << strerror(errno);
        return;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    guardianFd_ = fds[1];
}

bool PgClusterEnvironment::initCluster()
{
    RunAs as{asRoot_, runUid_, runGid_};
    std::string log = baseDir_ + "/initdb.log";
    int rc = runCommand({pgBinDir() + "/initdb", "-D", dataDir_, "-U", "postgres", "-A", "trust", "-E",
                         "UTF8", "--locale=C", "--no-sync", "--no-instructions"},
                        log, as, baseDir_);
    if (rc != 0) {
        ADD_FAILURE() << "initdb failed (" << rc << "):\n" << slurp(log);
        return false;
    }
    port_ = findFreePort();
    if (port_ == 0)
        port_ = 20000 + getpid() % 30000;
    std::ofstream conf(dataDir_ + "/postgresql.conf", std::ios::app);
    conf << "\n# private test cluster\n"
         << "listen_addresses = ''\n"
         << "port = " << port_ << "\n"
         << "unix_socket_directories = '" << socketDir_ << "'\n"
         << "fsync = off\n"
         << "synchronous_commit = off\n"
         << "full_page_writes = off\n"
         << "max_connections = 100\n"
         << "shared_buffers = 16MB\n"
         << "max_prepared_transactions = 0\n";
    if (!conf) {
        ADD_FAILURE() << "cannot write postgresql.conf";
        return false;
    }
    return true;
}

bool PgClusterEnvironment::start()
{
    RunAs as{asRoot_, runUid_, runGid_};
    std::string log = baseDir_ + "/pg_ctl.log";
    int rc = runCommand({pgBinDir() + "/pg_ctl", "start", "-D", dataDir_, "-l", serverLog_, "-w", "-t", "120"},
                        log, as, baseDir_);
    if (rc != 0) {
        ADD_FAILURE() << "pg_ctl start failed (" << rc << "):\n" << slurp(log) << "\n" << slurp(serverLog_);
        return false;
    }
    running_ = true;
    return true;
}

bool PgClusterEnvironment::stop()
{
    RunAs as{asRoot_, runUid_, runGid_};
    std::string log = baseDir_ + "/pg_ctl.log";
    int rc = runCommand({pgBinDir() + "/pg_ctl", "stop", "-D", dataDir_, "-m", "fast", "-w", "-t", "120"}, log,
                        as, baseDir_);
    if (rc != 0) {
        ADD_FAILURE() << "pg_ctl stop failed (" << rc << "):\n" << slurp(log);
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
    ConnPtr conn(PQconnectdb(connString("postgres").c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        ADD_FAILURE() << "cannot connect to the new cluster: " << PQerrorMessage(conn.get());
        return false;
    }
    std::string sql = "CREATE DATABASE tqdb;";
    struct passwd* pw = getpwuid(geteuid());
    if (pw && strcmp(pw->pw_name, "postgres") != 0)
        sql += "CREATE ROLE " + sqlQuoteIdent(pw->pw_name) + " SUPERUSER LOGIN;";
    // CREATE DATABASE cannot run inside the implicit transaction of a
    // multi-statement string, so the statements go one by one.
    std::istringstream statements(sql);
    std::string one;
    while (std::getline(statements, one, ';')) {
        ResultPtr res(PQexec(conn.get(), one.c_str()));
        if (PQresultStatus(res.get()) != PGRES_COMMAND_OK) {
            ADD_FAILURE() << one << ": " << PQerrorMessage(conn.get());
            return false;
        }
    }
    return true;
}

void PgClusterEnvironment::writeServiceFile()
{
    {
        std::ofstream out(serviceFile_, std::ios::trunc);
        out << "# private test cluster\n";
    }
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
    std::string dir = std::string(FERRY_SOURCE_DIR) + "/sql";
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec))
        if (entry.is_regular_file() && entry.path().extension() == ".sql")
            files.push_back(entry.path().string());
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
    PgClusterEnvironment* env = pgCluster();
    if (!env || env->baseDir().empty()) {
        ADD_FAILURE() << "no PostgreSQL cluster registered";
        return false;
    }
    std::string log = env->baseDir() + "/psql-" + std::to_string(getpid()) + ".log";
    unlink(log.c_str());
    // psql runs as the caller: it only needs to reach the socket.
    int rc = runCommand({pgBinDir() + "/psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-h", env->socketDir(), "-p",
                         std::to_string(env->port()), "-U", "postgres", "-d", "tqdb", "-f", path},
                        log, RunAs{}, "");
    if (output)
        *output = slurp(log);
    unlink(log.c_str());
    return rc == 0;
}

bool pgExecSql(const std::string& sql, std::string* error, bool expectFailure)
{
    PgClusterEnvironment* env = pgCluster();
    if (!env || env->baseDir().empty()) {
        ADD_FAILURE() << "no PostgreSQL cluster registered";
        return false;
    }
    ConnPtr conn(PQconnectdb(env->connString().c_str()));
    std::string message;
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        message = PQerrorMessage(conn.get());
    } else {
        ResultPtr res(PQexec(conn.get(), sql.c_str()));
        ExecStatusType st = PQresultStatus(res.get());
        if (st == PGRES_COMMAND_OK || st == PGRES_TUPLES_OK || st == PGRES_EMPTY_QUERY)
            return true;
        message = PQerrorMessage(conn.get());
    }
    if (error)
        *error = message;
    if (!expectFailure)
        ADD_FAILURE() << "SQL failed: " << message << "statement: " << sql;
    return false;
}

std::string pgQueryValue(const std::string& sql)
{
    PgClusterEnvironment* env = pgCluster();
    if (!env || env->baseDir().empty()) {
        ADD_FAILURE() << "no PostgreSQL cluster registered";
        return "";
    }
    ConnPtr conn(PQconnectdb(env->connString().c_str()));
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        ADD_FAILURE() << "connect failed: " << PQerrorMessage(conn.get());
        return "";
    }
    ResultPtr res(PQexec(conn.get(), sql.c_str()));
    if (PQresultStatus(res.get()) != PGRES_TUPLES_OK) {
        ADD_FAILURE() << "query failed: " << PQerrorMessage(conn.get()) << "statement: " << sql;
        return "";
    }
    if (PQntuples(res.get()) < 1 || PQnfields(res.get()) < 1 || PQgetisnull(res.get(), 0, 0))
        return "";
    return PQgetvalue(res.get(), 0, 0);
}

} // namespace ferrytest
