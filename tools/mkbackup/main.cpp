// mkbackup: writes real plain backup files from directory trees, for test
// fixtures and demos, and optionally the database rows of the finished job.
#include "catalog.h"
#include "tree_writer.h"

#include "archive/arco.h"
#include "archive/arco_walk.h"
#include "foundation/logger.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <unistd.h>

namespace {

const char kUsage[] =
    "Usage: mkbackup [options] SOURCE...\n"
    "       mkbackup --list FILE\n"
    "\n"
    "Writes one plain (not compressed, not encrypted) backup file \"backup_<N>\" in the\n"
    "arco format holding the SOURCE trees: directories, regular and empty files,\n"
    "symbolic links, hard links (later names store no payload), names of any length\n"
    "(over 400 characters through the extended header). Holes in sparse files stay\n"
    "holes, so a sparse input of many GiB costs nothing; --big adds such a file\n"
    "without any input. The file is created with O_EXCL: an existing backup is never\n"
    "overwritten. On success one line goes to stdout:\n"
    "  backup_no=<N> path=<file> entries=<count> bytes=<archive length>\n"
    "\n"
    "Where the file goes (one of):\n"
    "  -d, --dir DIR          write DIR/backup_<N> and touch no database\n"
    "  -D, --db               use the appliance database: find or create the device\n"
    "                         (and its tape and the node), write into the device's\n"
    "                         dev_rw_name directory, then insert the rows of a\n"
    "                         finished job (backups, filesets) in one transaction\n"
    "\n"
    "Backup options:\n"
    "  -b, --backup-no N      backup number (default: 1 with --dir; the next number\n"
    "                         of tq.backups_backup_no_seq with --db)\n"
    "  -t, --type T           backups.type (default 1, full; 2 incremental...)\n"
    "  -i, --instance ID      backups.instance_id (default NULL)\n"
    "  -n, --node N           backups.node_no (default 1); a missing node is created\n"
    "  -s, --start-time T     backups.start_time, seconds since the epoch (default now)\n"
    "  -j, --job N            backups.job_no (default NULL)\n"
    "  -p, --properties P     backups.properties (default 0); C-style number\n"
    "      --status S         backups.status (default 0xC40)\n"
    "      --sync-status S    backups.sync_status (default 0)\n"
    "      --device NAME      device to use or create (default \"disk1\")\n"
    "      --device-dir DIR   dev_rw_name of a created device (default <root>/backups,\n"
    "                         <root> being $FERRY_SYSROOT; at most 32 characters)\n"
    "      --tape-no N        tape_no of a created device (default: next free)\n"
    "      --service NAME     libpq service of the database (default \"localhost\")\n"
    "      --file-list        also fill tq.dirs and tq.backup_files\n"
    "\n"
    "Content options:\n"
    "      --prefix TEXT      names start with TEXT instead of the source's absolute\n"
    "                         path (TEXT must not be empty)\n"
    "      --no-dirs          no directory entries\n"
    "      --big NAME:SIZE    add a regular file NAME of SIZE bytes (suffix K, M, G\n"
    "                         or T for powers of 1024) whose payload is a hole of\n"
    "                         zeros; sizes of 8 GiB and more use the big-size form\n"
    "\n"
    "Other:\n"
    "  -l, --list FILE        list the entries of a plain backup file:\n"
    "                         <flag> <header offset> <size> <name>[ -> <target>]\n"
    "  -v, --verbose          log at level 5 on stderr\n"
    "  -h, --help             this text\n"
    "\n"
    "Exit status: 0 success, 1 failure (message on stderr), 2 bad usage.\n";

enum LongOnly {
    OPT_STATUS = 1000,
    OPT_SYNC_STATUS,
    OPT_DEVICE,
    OPT_DEVICE_DIR,
    OPT_TAPE_NO,
    OPT_SERVICE,
    OPT_FILE_LIST,
    OPT_PREFIX,
    OPT_NO_DIRS,
    OPT_BIG,
};

const struct option kOptions[] = {
    {"dir", required_argument, nullptr, 'd'},
    {"db", no_argument, nullptr, 'D'},
    {"backup-no", required_argument, nullptr, 'b'},
    {"type", required_argument, nullptr, 't'},
    {"instance", required_argument, nullptr, 'i'},
    {"node", required_argument, nullptr, 'n'},
    {"start-time", required_argument, nullptr, 's'},
    {"job", required_argument, nullptr, 'j'},
    {"properties", required_argument, nullptr, 'p'},
    {"status", required_argument, nullptr, OPT_STATUS},
    {"sync-status", required_argument, nullptr, OPT_SYNC_STATUS},
    {"device", required_argument, nullptr, OPT_DEVICE},
    {"device-dir", required_argument, nullptr, OPT_DEVICE_DIR},
    {"tape-no", required_argument, nullptr, OPT_TAPE_NO},
    {"service", required_argument, nullptr, OPT_SERVICE},
    {"file-list", no_argument, nullptr, OPT_FILE_LIST},
    {"prefix", required_argument, nullptr, OPT_PREFIX},
    {"no-dirs", no_argument, nullptr, OPT_NO_DIRS},
    {"big", required_argument, nullptr, OPT_BIG},
    {"list", required_argument, nullptr, 'l'},
    {"verbose", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct Settings {
    std::string dir;
    bool db = false;
    std::string listFile;
    TreeWriterOptions tree;
    CatalogOptions catalog;
};

bool parseNumber(const char* text, long long* out)
{
    char* end = nullptr;
    errno = 0;
    long long n = strtoll(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0') {
        return false;
    }
    *out = n;
    return true;
}

bool parseSize(const std::string& text, uint64_t* out)
{
    char* end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || text[0] == '-') {
        return false;
    }
    int shift = 0;
    switch (*end) {
    case '\0': break;
    case 'K': shift = 10; break;
    case 'M': shift = 20; break;
    case 'G': shift = 30; break;
    case 'T': shift = 40; break;
    default: return false;
    }
    if (*end != '\0' && end[1] != '\0') {
        return false;
    }
    if (shift != 0 && n > (~0ULL >> shift)) {
        return false;
    }
    *out = static_cast<uint64_t>(n) << shift;
    return true;
}

int usageError(const std::string& message)
{
    fprintf(stderr, "mkbackup: %s\nTry 'mkbackup --help'.\n", message.c_str());
    return 2;
}

// Applies one option; 0 to go on, otherwise the exit status.
int applyOption(int c, const char* arg, Settings* s)
{
    long long n = 0;
    const bool numeric = strchr("btinsjp", c) != nullptr || c == OPT_STATUS || c == OPT_SYNC_STATUS ||
                         c == OPT_TAPE_NO;
    if (numeric && !parseNumber(arg, &n)) {
        return usageError(std::string("not a number: ") + arg);
    }
    switch (c) {
    case 'd': s->dir = arg; break;
    case 'D': s->db = true; break;
    case 'b': s->catalog.backupNo = n; break;
    case 't': s->catalog.type = static_cast<int>(n); break;
    case 'i': s->catalog.instanceId = n; break;
    case 'n': s->catalog.nodeNo = static_cast<int>(n); break;
    case 's': s->catalog.startTime = n; break;
    case 'j': s->catalog.jobNo = n; break;
    case 'p': s->catalog.properties = static_cast<uint32_t>(n); break;
    case OPT_STATUS: s->catalog.status = static_cast<uint32_t>(n); break;
    case OPT_SYNC_STATUS: s->catalog.syncStatus = static_cast<int>(n); break;
    case OPT_DEVICE: s->catalog.deviceName = arg; break;
    case OPT_DEVICE_DIR: s->catalog.deviceDir = arg; break;
    case OPT_TAPE_NO: s->catalog.tapeNo = n; break;
    case OPT_SERVICE: s->catalog.service = arg; break;
    case OPT_FILE_LIST: s->catalog.fileList = true; break;
    case OPT_PREFIX:
        if (arg[0] == '\0') {
            return usageError("--prefix must not be empty");
        }
        s->tree.namePrefix = arg;
        break;
    case OPT_NO_DIRS: s->tree.directories = false; break;
    case OPT_BIG: {
        std::string text = arg;
        size_t colon = text.rfind(':');
        SyntheticFile file;
        if (colon == std::string::npos || colon == 0 || !parseSize(text.substr(colon + 1), &file.size)) {
            return usageError("--big wants NAME:SIZE, got " + text);
        }
        file.name = text.substr(0, colon);
        s->tree.synthetic.push_back(file);
        break;
    }
    case 'l': s->listFile = arg; break;
    case 'v': log_level = 5; break;
    case 'h': fputs(kUsage, stdout); return -1;
    default: return usageError("unknown option");
    }
    return 0;
}

uint64_t printEntry(const ArcoWalkEntry& w, void*)
{
    const ArcoEntry& e = w.entry;
    printf("%c %" PRIu64 " %" PRIu64 " %s%s%s\n", e.linkflag == 0 ? '0' : e.linkflag, w.headerOffset, e.realSize,
           e.name.c_str(), e.link.empty() ? "" : " -> ", e.link.c_str());
    return 0;
}

int listBackup(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        fprintf(stderr, "mkbackup: cannot open %s: %s\n", path.c_str(), strerror(errno));
        return 1;
    }
    uint64_t end = 0;
    long n = arco_walk(fd, printEntry, nullptr, &end);
    close(fd);
    if (n < 0) {
        fprintf(stderr, "mkbackup: %s is not a readable plain backup file\n", path.c_str());
        return 1;
    }
    printf("entries=%ld end=%" PRIu64 "\n", n, end);
    return 0;
}

int makeBackup(Settings& s)
{
    std::string error;
    CatalogTarget target;
    if (s.db) {
        if (catalogPrepare(s.catalog, &target, &error) != 0) {
            fprintf(stderr, "mkbackup: %s\n", error.c_str());
            return 1;
        }
    } else {
        target.backupNo = s.catalog.backupNo != 0 ? s.catalog.backupNo : 1;
        target.deviceDir = s.dir;
    }
    const std::string path = arco_backup_path(target.deviceDir, target.backupNo, false);
    TreeWriteResult written;
    if (writeTreeBackup(path, s.tree, &written, &error) != 0) {
        if (s.db) {
            catalogAbandon();
        }
        fprintf(stderr, "mkbackup: %s\n", error.c_str());
        return 1;
    }
    if (s.db && catalogCommit(s.catalog, target, written, &error) != 0) {
        unlink(path.c_str());
        fprintf(stderr, "mkbackup: %s\n", error.c_str());
        return 1;
    }
    printf("backup_no=%lld path=%s entries=%zu bytes=%" PRIu64 "\n", static_cast<long long>(target.backupNo),
           path.c_str(), written.entries.size(), written.archiveBytes);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    swap_log_stream(stderr);
    Settings s;
    int c = 0;
    while ((c = getopt_long(argc, argv, "d:Db:t:i:n:s:j:p:l:vh", kOptions, nullptr)) != -1) {
        if (c == '?') {
            return usageError("bad option");
        }
        int rc = applyOption(c, optarg, &s);
        if (rc != 0) {
            return rc < 0 ? 0 : rc;
        }
    }
    if (!s.listFile.empty()) {
        return listBackup(s.listFile);
    }
    for (int i = optind; i < argc; ++i) {
        s.tree.sources.emplace_back(argv[i]);
    }
    if (s.tree.sources.empty() && s.tree.synthetic.empty()) {
        return usageError("nothing to back up: give a SOURCE or --big");
    }
    if (s.db == !s.dir.empty()) {
        return usageError("give exactly one of --dir and --db");
    }
    return makeBackup(s);
}
