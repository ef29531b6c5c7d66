// The private PostgreSQL cluster: reachable through the service "localhost",
// survives a restart, and keeps its data in database tqdb.
#include "harness/pg_cluster.h"

#include <libpq-fe.h>

#include <cstdlib>
#include <string>

namespace {

auto* const pgEnv = ::testing::AddGlobalTestEnvironment(new ferrytest::PgClusterEnvironment);

std::string readBackThroughService(const char* conninfo, const char* sql)
{
    PGconn* conn = PQconnectdb(conninfo);
    std::string value;
    if (PQstatus(conn) != CONNECTION_OK) {
        ADD_FAILURE() << "connect: " << PQerrorMessage(conn);
    } else {
        PGresult* res = PQexec(conn, sql);
        if (PQresultStatus(res) == PGRES_TUPLES_OK && PQntuples(res) == 1)
            value = PQgetvalue(res, 0, 0);
        else
            ADD_FAILURE() << "query: " << PQerrorMessage(conn);
        PQclear(res);
    }
    PQfinish(conn);
    return value;
}

TEST(PgCluster, ServiceLocalhostReachesTqdb)
{
    ASSERT_NE(getenv("PGSERVICEFILE"), nullptr);
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE public.fixture_probe (id int, name text);"
                                     "INSERT INTO public.fixture_probe VALUES (7, 'seven');"));
    EXPECT_EQ(readBackThroughService("service=localhost dbname=tqdb options='-c search_path=tq,public'",
                                     "SELECT name FROM fixture_probe WHERE id = 7"),
              "seven");
    EXPECT_EQ(readBackThroughService("service=localhost", "SELECT current_database()"), "tqdb");
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT count(*) FROM public.fixture_probe"), "1");
}

TEST(PgCluster, FailingSqlReportsTheServerMessage)
{
    std::string error;
    EXPECT_FALSE(ferrytest::pgExecSql("SELECT * FROM no_such_table_here", &error, true));
    EXPECT_NE(error.find("no_such_table_here"), std::string::npos) << error;
}

TEST(PgCluster, RestartKeepsDataAndCutsSessions)
{
    ASSERT_TRUE(ferrytest::pgExecSql("CREATE TABLE public.restart_probe (v text);"
                                     "INSERT INTO public.restart_probe VALUES ('kept');"));
    PGconn* before = PQconnectdb("service=localhost");
    ASSERT_EQ(PQstatus(before), CONNECTION_OK);
    ASSERT_TRUE(ferrytest::pgCluster()->restart());
    PGresult* res = PQexec(before, "SELECT 1");
    EXPECT_NE(PQresultStatus(res), PGRES_TUPLES_OK) << "a session from before the restart must be gone";
    PQclear(res);
    PQfinish(before);
    EXPECT_EQ(ferrytest::pgQueryValue("SELECT v FROM public.restart_probe"), "kept");
}

TEST(PgCluster, ExtraServicesPointAtTheSameCluster)
{
    ferrytest::pgCluster()->addService("second");
    EXPECT_EQ(readBackThroughService("service=second", "SELECT current_database()"), "tqdb");
}

} // namespace
