// Helpers to run ferryd as a real process and watch what it leaves behind.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ferrytest {

// Path of the built ferryd executable.
std::string ferrydPath();

struct RunResult {
    int exitStatus = -1;  // WEXITSTATUS, or -1 when killed or timed out
    int termSignal = 0;   // signal that ended it, 0 if none
    std::string out;      // everything written on stdout
    std::string err;      // everything written on stderr
};

// Runs ferryd with `args` (argv[1]...), the current environment plus `env`
// ("NAME=value" entries), stdin from /dev/null, and waits at most `timeout`.
// A process still running at the timeout is killed with SIGKILL.
RunResult runFerryd(const std::vector<std::string>& args,
                    const std::vector<std::string>& env = {},
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Starts ferryd without waiting; stdout and stderr go to /dev/null.
pid_t spawnFerryd(const std::vector<std::string>& args, const std::vector<std::string>& env = {});

// Polls `condition` every 20 ms until it holds or `timeout` passes.
bool waitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));

// True while a process with this pid exists (and is not a zombie we reaped).
bool processAlive(pid_t pid);

// Reads a pid written as decimal text; 0 if the file is missing or empty.
pid_t readPidFile(const std::string& path);

// Waits for `pid` (a child of this process) to end; returns its status as
// from waitpid, or -1 after `timeout`.
int waitChild(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Concatenation of every "*.log" file in `dir` whose name starts with `prefix`.
std::string readLogs(const std::string& dir, const std::string& prefix);

} // namespace ferrytest
