// The private PostgreSQL cluster: code under test reaches database tqdb
// through the service "localhost", and the data outlives a restart.
#include "harness/pg_cluster.h"

#include <libpq-fe.h>

#include <string>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

// The single value of `sql` over a new connection made from `conninfo`.
std::string valueThrough(const char* conninfo, const char* sql)
{
    PGconn* conn = PQconnectdb(conninfo);
    PGresult* res = PQexec(conn, sql);
    std::string value = PQresultStatus(res) == PGRES_TUPLES_OK && PQntuples(res) == 1 ? PQgetvalue(res, 0, 0) : "";
    EXPECT_NE(value, "") << PQerrorMessage(conn);
    PQclear(res);
    PQfinish(conn);
    return value;
}

TEST(PgCluster, ServiceLocalhostReachesTqdbBeforeAndAfterARestart)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE tq.fixture_probe (v text); INSERT INTO tq.fixture_probe VALUES ('kept');"));
    EXPECT_EQ(valueThrough("service=localhost", "SELECT current_database() || ' ' || current_user"), "tqdb postgres");
    PGconn* before = PQconnectdb("service=localhost");
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    PGresult* res = PQexec(before, "SELECT 1");
    EXPECT_NE(PQresultStatus(res), PGRES_TUPLES_OK) << "a session from before the restart must be cut";
    PQclear(res);
    PQfinish(before);
    EXPECT_EQ(valueThrough("service=localhost", "SELECT v FROM tq.fixture_probe"), "kept");
    std::string error;
    EXPECT_FALSE(ferrytest::pgExecSql("SELECT * FROM no_such_table_here", &error, true));
    EXPECT_NE(error.find("no_such_table_here"), std::string::npos) << error;
}

} // namespace
