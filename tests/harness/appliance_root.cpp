// ApplianceRoot: temporary appliance trees for tests.
#include "harness/appliance_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/time.h>

namespace fs = std::filesystem;

namespace ferrytest {

ApplianceRoot::ApplianceRoot()
{
    std::string tmpl = (fs::temp_directory_path() / "ferry-root-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed for appliance root");
    root_ = tmpl;
    chmod(root_.c_str(), 0755);
    for (const char* dir : {"/etc/default", "/usr/tq/tqinit", "/usr/tq/logs.dir", "/usr/tq/bin",
                            "/var/run", "/dev/shm", "/tmp", "/backups", "/var/opt/quillmont"})
        makeDirs(root_ + dir);
    writeFile(tqIni(), "[Location Information]\nTQDIR=" + appdir() + "\n");
    writeFile(masterIni(), "[Replication]\n");
    if (const char* old = getenv("FERRY_SYSROOT")) {
        hadSysroot_ = true;
        savedSysroot_ = old;
    }
    setenv("FERRY_SYSROOT", root_.c_str(), 1);
}

ApplianceRoot::~ApplianceRoot()
{
    if (hadSysroot_)
        setenv("FERRY_SYSROOT", savedSysroot_.c_str(), 1);
    else
        unsetenv("FERRY_SYSROOT");
    if (getenv("FERRY_KEEP_ROOTS") == nullptr)
        removeTree(root_);
}

void ApplianceRoot::writeMasterIni(const std::string& text, int mtimeBump)
{
    struct stat before {};
    bool existed = stat(masterIni().c_str(), &before) == 0;
    writeFile(masterIni(), text);
    if (existed && mtimeBump > 0) {
        struct timeval times[2] = {{before.st_mtime + mtimeBump, 0}, {before.st_mtime + mtimeBump, 0}};
        utimes(masterIni().c_str(), times);
    }
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::string& path, const std::string& text)
{
    makeDirs(fs::path(path).parent_path().string());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

bool fileExists(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

void makeDirs(const std::string& path)
{
    std::error_code ec;
    fs::create_directories(path, ec);
}

void removeTree(const std::string& path)
{
    std::error_code ec;
    fs::remove_all(path, ec);
}

} // namespace ferrytest
