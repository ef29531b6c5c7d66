// pg_cluster: a private PostgreSQL 15 cluster for one test binary, started
// before the first test and removed after the last, with a libpq service file
// so the code under test reaches it as service "localhost", database tqdb.
//
// How to write a DB test
// ----------------------
//   #include "harness/pg_cluster.h"
//
//   // once per test binary, at namespace scope:
//   static auto* const pgEnv =
//       ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);
//
//   TEST(Queue, Something) {
//       ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE tq.scratch (a int);"));
//       ... code under test connects with "service=localhost dbname=tqdb ..." ...
//       EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(*) FROM tq.scratch"), "1");
//   }
//
// - The cluster holds database tqdb with every sql/*.sql of the source tree
//   loaded in name order (psql, ON_ERROR_STOP). Tests of one binary share it:
//   create scratch tables with unique names, or drop what you made.
// - Everything runs as the superuser "postgres" over a Unix socket in a
//   private directory; nothing listens on TCP. As root the server runs as
//   the postgres system user, otherwise as the current user.
// - PGSERVICEFILE is exported; the service "localhost" is defined, more can
//   be added with addService(). A forked child inherits all of it.
// - restart() stops the server (fast: sessions are cut) and starts it again:
//   for reconnect tests.
// - Teardown stops the server (immediate) and removes the directory. A
//   guardian process does the same if the test binary dies without teardown
//   (crash, abort, kill), so nothing is left behind.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <sys/types.h>

namespace ferrytest {

class PgClusterEnvironment : public ::testing::Environment {
public:
    PgClusterEnvironment();
    ~PgClusterEnvironment() override;

    // initdb, start, create tqdb, load sql/*.sql, write the service file.
    // A failure here is a fatal test failure: no test of the binary runs.
    void SetUp() override;
    // Stops the server and removes the directory.
    void TearDown() override;

    const std::string& baseDir() const { return baseDir_; }     // everything lives here
    const std::string& dataDir() const { return dataDir_; }
    const std::string& socketDir() const { return socketDir_; }
    int port() const { return port_; }
    const std::string& serviceFile() const { return serviceFile_; }
    const std::string& serverLog() const { return serverLog_; }
    // "host=<socket dir> port=<port> user=postgres dbname=tqdb"
    std::string connString(const std::string& dbname = "tqdb") const;

    // Stops the server with -m fast (connected sessions are terminated) and
    // starts it again on the same socket and port. Returns false (and adds
    // a test failure) if either step failed.
    bool restart();
    // The two halves of restart(), for tests that need the server gone.
    bool stop();
    bool start();
    bool running() const { return running_; }

    // Appends a section [name] to the service file pointing at this cluster
    // (database tqdb, user postgres). libpq reads the file at each connect.
    void addService(const std::string& name);
    // Appends raw text (whole sections) to the service file, e.g. a service
    // that points at a socket directory where no server listens.
    void appendServiceText(const std::string& text);

private:
    bool initCluster();
    bool createDatabase();
    bool loadSchema();
    void writeServiceFile();
    void startGuardian();
    void cleanup();

    std::string baseDir_, dataDir_, socketDir_, serviceFile_, serverLog_;
    int port_ = 0;
    bool running_ = false;
    int guardianFd_ = -1;
    pid_t ownerPid_ = -1;
    std::string savedServiceFile_;
    bool hadServiceFile_ = false;
};

// The environment of this binary, or nullptr when none was registered.
PgClusterEnvironment* pgCluster();

// Runs SQL text (one or more statements, no psql meta-commands) in tqdb as
// postgres on a fresh connection. Returns true on success; on failure adds a
// non-fatal test failure with the server's message (unless `expectFailure`)
// and, if `error` is given, stores the message there.
bool pgExecSql(const std::string& sql, std::string* error = nullptr, bool expectFailure = false);

// First column of the first row of `sql` as text; "" for no row or NULL.
// A failing statement adds a test failure and gives "".
std::string pgQueryValue(const std::string& sql);

// Runs a file through psql -v ON_ERROR_STOP=1 into tqdb; true on success.
// psql's output goes to `output` when given.
bool pgRunSqlFile(const std::string& path, std::string* output = nullptr);

} // namespace ferrytest
