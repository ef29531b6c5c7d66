// Backup fixtures: the mkbackup tool run as a process.
#include "harness/mkbackup.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace ferrytest {

namespace {

std::string readAll(int fd)
{
    std::string text;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

// Reads the line "backup_no=<N> path=<file> entries=<count> bytes=<length>";
// other output (--help, --list) leaves the fields alone.
void parseSuccessLine(MkbackupResult& r)
{
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("backup_no=", 0) != 0)
            continue;
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            auto eq = word.find('=');
            std::string key = word.substr(0, eq), value = word.substr(eq + 1);
            if (key == "backup_no")
                r.backupNo = strtoll(value.c_str(), nullptr, 10);
            else if (key == "path")
                r.path = value;
            else if (key == "entries")
                r.entries = strtoull(value.c_str(), nullptr, 10);
            else if (key == "bytes")
                r.bytes = strtoull(value.c_str(), nullptr, 10);
        }
    }
}

} // namespace

std::string mkbackupPath()
{
#ifdef MKBACKUP_PATH
    return MKBACKUP_PATH;
#else
    return std::string(FERRY_BINARY_DIR) + "/tools/mkbackup/mkbackup";
#endif
}

MkbackupResult runMkbackup(const std::vector<std::string>& args)
{
    MkbackupResult r;
    // Output goes to unlinked temporary files: no pipe can fill up and stall.
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    if (out == nullptr || err == nullptr)
        return r;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        std::vector<std::string> store{mkbackupPath()};
        store.insert(store.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& s : store)
            argv.push_back(s.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        r.exitStatus = WEXITSTATUS(status);
    r.out = readAll(fileno(out));
    r.err = readAll(fileno(err));
    fclose(out);
    fclose(err);
    if (r.exitStatus == 0)
        parseSuccessLine(r);
    return r;
}

} // namespace ferrytest
