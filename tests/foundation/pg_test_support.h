// Shared by the database layer tests: a fixture that starts every test with
// no connection and the log captured, and small readers over the layer.
#pragma once

#include "foundation/pgConnect.h"
#include "foundation/pghelper.h"
#include "harness/log_capture.h"
#include "harness/pg_cluster.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace pgtest {

class PgLayerTest : public ::testing::Test {
protected:
    void SetUp() override { resetLayer(); }
    void TearDown() override { resetLayer(); }
    static void resetLayer()
    {
        pgCloseAll();
        free(lastHost);
        lastHost = nullptr;
    }
    // Whether `words` were logged since the last mark().
    bool logged(const std::string& words) { return log.text().find(words, mark_) != std::string::npos; }
    void mark() { mark_ = log.text().size(); }

    ferrytest::LogCapture log{6};
    size_t mark_ = 0;
};

// The first column of the first row, or "<failed>"; frees the result.
inline std::string firstValue(pgResult* res)
{
    std::string out = pgStatus(res) == 0 && PQntuples(res->result) > 0 ? PQgetvalue(res->result, 0, 0) : "<failed>";
    pgClear(res);
    return out;
}

inline std::string layerValue(const char* sql)
{
    return firstValue(pgExec(sql));
}

// The backend pid of the current connection, through the layer; 0 on failure.
inline int backendPid()
{
    return atoi(layerValue("SELECT pg_backend_pid()").c_str());
}

} // namespace pgtest
