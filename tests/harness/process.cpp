// Running ferryd as a process from tests.
#include "harness/process.h"

#include "harness/appliance_root.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace ferrytest {

namespace {

std::vector<char*> makeArgv(const std::vector<std::string>& args, std::vector<std::string>& store)
{
    store.clear();
    store.push_back(ferrydPath());
    store.insert(store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return argv;
}

// In the child: applies the extra environment and executes ferryd.
[[noreturn]] void execFerryd(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    for (const auto& e : env) {
        auto eq = e.find('=');
        if (eq == std::string::npos)
            unsetenv(e.c_str());
        else
            setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
    }
    std::vector<std::string> store;
    auto argv = makeArgv(args, store);
    execv(argv[0], argv.data());
    _exit(127);
}

void drain(int fd, std::string& into, bool& open)
{
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0)
        into.append(buf, static_cast<size_t>(n));
    else if (n == 0 || (errno != EINTR && errno != EAGAIN))
        open = false;
}

} // namespace

std::string ferrydPath()
{
    return FERRYD_PATH;
}

RunResult runFerryd(const std::vector<std::string>& args, const std::vector<std::string>& env,
                    std::chrono::milliseconds timeout)
{
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0)
        return {};
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], devnull})
            close(fd);
        execFerryd(args, env);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    RunResult result;
    bool outOpen = true, errOpen = true;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while ((outOpen || errOpen) && std::chrono::steady_clock::now() < deadline) {
        pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
        if (poll(fds, 2, 50) <= 0)
            continue;
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP)))
            drain(outPipe[0], result.out, outOpen);
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP)))
            drain(errPipe[0], result.err, errOpen);
    }
    close(outPipe[0]);
    close(errPipe[0]);
    int status = waitChild(pid, std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::max(deadline - std::chrono::steady_clock::now(),
                                             std::chrono::steady_clock::duration(std::chrono::milliseconds(100)))));
    if (status == -1) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        result.termSignal = SIGKILL;
        return result;
    }
    if (WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        result.termSignal = WTERMSIG(status);
    return result;
}

pid_t spawnFerryd(const std::vector<std::string>& args, const std::vector<std::string>& env)
{
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(devnull, 2);
        close(devnull);
        execFerryd(args, env);
    }
    return pid;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

bool processAlive(pid_t pid)
{
    if (pid <= 0 || kill(pid, 0) != 0)
        return false;
    // A zombie still answers kill(0); look at its state.
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    auto close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] != 'Z';
}

pid_t readPidFile(const std::string& path)
{
    std::string text = readFile(path);
    return text.empty() ? 0 : static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10));
}

int waitChild(pid_t pid, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (true) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return status;
        if (r < 0 && errno != EINTR)
            return -1;
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string readLogs(const std::string& dir, const std::string& prefix)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) == 0 && name.size() > 4 && name.ends_with(".log"))
            names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());
    std::string all;
    for (const auto& n : names)
        all += readFile(n);
    return all;
}

} // namespace ferrytest
