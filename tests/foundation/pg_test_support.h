// Shared by the database layer tests: a log capture, a fixture that starts
// every test with no connection, and small readers over the layer.
#pragma once

#include "foundation/logger.h"
#include "foundation/pgConnect.h"
#include "foundation/pghelper.h"
#include "harness/pg_cluster.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace pgtest {

// Sends the process log to a temporary file at the given level.
class LogCapture {
public:
    explicit LogCapture(int level = 6) : file_(tmpfile()), savedLevel_(log_level)
    {
        old_ = swap_log_stream(file_);
        log_level = level;
    }
    ~LogCapture()
    {
        swap_log_stream(old_ != nullptr ? old_ : stderr);
        fclose(file_);
        log_level = savedLevel_;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text()
    {
        fflush(file_);
        std::string out;
        rewind(file_);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), file_)) > 0)
            out.append(buf, n);
        fseek(file_, 0, SEEK_END);
        return out;
    }
    bool has(const std::string& words) { return text().find(words) != std::string::npos; }
    // Forgets what was written so far.
    void clear()
    {
        fflush(file_);
        if (ftruncate(fileno(file_), 0) == 0)
            rewind(file_);
    }

private:
    FILE* file_;
    FILE* old_ = nullptr;
    int savedLevel_;
};

// Every test starts with no connection and "localhost" as the default name.
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
    LogCapture log;
};

// The first column of the first row of `sql` through the layer; "" on failure.
inline std::string layerValue(const char* sql)
{
    pgResult* res = pgExec(sql);
    std::string out;
    if (pgStatus(res) == 0 && pgTuples(res) > 0)
        out = PQgetvalue(res->result, 0, 0);
    pgClear(res);
    return out;
}

// The backend pid of the current connection, through the layer; 0 on failure.
inline int backendPid()
{
    std::string pid = layerValue("SELECT pg_backend_pid()");
    return pid.empty() ? 0 : atoi(pid.c_str());
}

} // namespace pgtest
