// ApplianceRoot: a whole appliance file tree in a temporary directory, with
// FERRY_SYSROOT pointing at it for the life of the object.
//
//   <root>/etc/default/tq.ini        Location Information: TQDIR=<root>/usr/tq
//   <root>/usr/tq/tqinit/master.ini  written by writeMasterIni
//   <root>/usr/tq/logs.dir, bin, ... <root>/var/run, <root>/dev/shm, <root>/tmp,
//   <root>/backups
//
// The destructor removes the tree and restores FERRY_SYSROOT as it was.
#pragma once

#include <string>

namespace ferrytest {

class ApplianceRoot {
public:
    ApplianceRoot();
    ~ApplianceRoot();
    ApplianceRoot(const ApplianceRoot&) = delete;
    ApplianceRoot& operator=(const ApplianceRoot&) = delete;

    const std::string& root() const { return root_; }
    std::string appdir() const { return root_ + "/usr/tq"; }
    std::string initdir() const { return appdir() + "/tqinit"; }
    std::string masterIni() const { return initdir() + "/master.ini"; }
    std::string logdir() const { return appdir() + "/logs.dir"; }
    std::string tqIni() const { return root_ + "/etc/default/tq.ini"; }
    std::string pidFile() const { return root_ + "/var/run/ferryd.pid"; }
    // The path a fixed appliance path has under this root.
    std::string path(const std::string& fixed) const { return root_ + fixed; }

    // Replaces master.ini with `text` and moves its modification time
    // forward by `mtimeBump` seconds past the previous one, so that a
    // reload by time stamp sees it even within the same second.
    void writeMasterIni(const std::string& text, int mtimeBump = 1);

private:
    std::string root_;
    std::string savedSysroot_;
    bool hadSysroot_ = false;
};

// Small file helpers for tests.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
bool fileExists(const std::string& path);
void makeDirs(const std::string& path);
void removeTree(const std::string& path);

} // namespace ferrytest
