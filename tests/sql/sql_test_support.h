// sql_test_support: small helpers for the schema tests: a libpq connection
// to the private cluster's tqdb, row fetching, and printf formatting of the
// programs' statement formats with sample values.
#pragma once

#include "harness/pg_cluster.h"

#include <libpq-fe.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace sqltest {

struct ConnCloser {
    void operator()(PGconn* conn) const { PQfinish(conn); }
};
struct ResultCloser {
    void operator()(PGresult* res) const { PQclear(res); }
};
using Conn = std::unique_ptr<PGconn, ConnCloser>;
using Result = std::unique_ptr<PGresult, ResultCloser>;
using Rows = std::vector<std::vector<std::string>>;

// A new connection to tqdb of this binary's cluster, with no options: the
// search path is what the database itself says. Empty (and a test failure)
// when it cannot be made.
inline Conn connect()
{
    if (ferrytest::pgCluster() == nullptr) {
        ADD_FAILURE() << "no PostgreSQL cluster registered in this test binary";
        return nullptr;
    }
    Conn conn(PQconnectdb(ferrytest::pgCluster()->connString().c_str()));
    if (PQstatus(conn.get()) == CONNECTION_OK)
        return conn;
    ADD_FAILURE() << "connect: " << PQerrorMessage(conn.get());
    return nullptr;
}

// Runs `sql`; true when the server accepted it. On refusal the server's
// message goes to `error` (when given) and, unless `quiet`, into a failure.
inline bool exec(PGconn* conn, const std::string& sql, std::string* error = nullptr, bool quiet = false)
{
    Result res(PQexec(conn, sql.c_str()));
    ExecStatusType status = PQresultStatus(res.get());
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        return true;
    if (error)
        *error = PQerrorMessage(conn);
    if (!quiet)
        ADD_FAILURE() << PQerrorMessage(conn) << "statement: " << sql;
    return false;
}

// All rows of `sql` as text ("" for NULL). A failed query adds a failure and
// gives no rows.
inline Rows rows(PGconn* conn, const std::string& sql)
{
    Rows out;
    Result res(PQexec(conn, sql.c_str()));
    if (PQresultStatus(res.get()) != PGRES_TUPLES_OK)
        ADD_FAILURE() << PQerrorMessage(conn) << "statement: " << sql;
    else
        for (int r = 0; r < PQntuples(res.get()); ++r) {
            out.emplace_back();
            for (int c = 0; c < PQnfields(res.get()); ++c)
                out.back().emplace_back(PQgetvalue(res.get(), r, c));
        }
    return out;
}

// The first column of every row of `sql`.
inline std::vector<std::string> column(PGconn* conn, const std::string& sql)
{
    std::vector<std::string> out;
    for (auto& row : rows(conn, sql))
        out.push_back(row.at(0));
    return out;
}

// printf into a std::string: the statement formats of the programs filled
// with sample values. The compiler checks arguments against the format.
[[gnu::format(printf, 1, 2)]] inline std::string sqlf(const char* format, ...)
{
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    std::string text(std::max(std::vsnprintf(nullptr, 0, format, args), 0), '\0');
    va_end(args);
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

} // namespace sqltest
