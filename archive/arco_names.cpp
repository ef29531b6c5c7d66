// arco_names: where a backup lives on disk. The two file name forms
// "backup_<N>.gz" and "backup_<N>" in the directory of the backup's device,
// and the number read back out of a file name.
#include "archive/arco.h"

#include "foundation/logger.h"
#include "foundation/pghelper.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace {

const char kBackupPrefix[] = "backup_";

struct ResultHolder {
    pgResult* res;
    ~ResultHolder() { pgClear(res); }
};

} // namespace

std::string arco_backup_path(const std::string& dir, int64_t backupNo, bool gz)
{
    std::string path = dir + "/" + kBackupPrefix + std::to_string(backupNo);
    return gz ? path + ".gz" : path;
}

int arco_backup_no_from_name(const char* path, int64_t* backupNo)
{
    if (path == nullptr) {
        return -1;
    }
    const char* slash = strrchr(path, '/');
    const char* base = slash != nullptr ? slash + 1 : path;
    if (strncmp(base, kBackupPrefix, strlen(kBackupPrefix)) != 0) {
        return -1;
    }
    const char* p = base + strlen(kBackupPrefix);
    int64_t value = 0;
    const char* digits = p;
    for (; *p >= '0' && *p <= '9'; ++p) {
        if (value > (INT64_MAX - (*p - '0')) / 10) {
            return -1;
        }
        value = value * 10 + (*p - '0');
    }
    if (p == digits || (*p != '\0' && strcmp(p, ".gz") != 0)) {
        return -1;
    }
    *backupNo = value;
    return 0;
}

int arco_find_backup(int64_t backupNo, std::string* path, uint32_t* properties)
{
    const int number = static_cast<int>(backupNo);
    ResultHolder q{pgQuery("SELECT backups.properties, devices.dev_rw_name FROM backups JOIN devices USING "
                           "(tape_no) WHERE backups.backup_no = %d",
                           number)};
    if (pgStatus(q.res) != 0 || pgTuples(q.res) < 1) {
        log_printf(0, "%s:%d: Failed to retrieve backup %d path from database\n", __FILE__, __LINE__, number);
        errno = EBADMSG;
        return -1;
    }
    const char* dir = pgSVal(q.res, 0, "dev_rw_name");
    const uint32_t props = static_cast<uint32_t>(pgULongVal(q.res, 0, "properties"));
    if (dir == nullptr) {
        log_printf(0, "%s:%d: Failed to retrieve backup %d path from database\n", __FILE__, __LINE__, number);
        errno = EBADMSG;
        return -1;
    }
    // The suffix proves nothing about the content: a reader looks at the
    // first bytes. The .gz name is simply the one tried first.
    for (bool gz : {true, false}) {
        std::string candidate = arco_backup_path(dir, backupNo, gz);
        if (access(candidate.c_str(), R_OK) == 0) {
            *path = std::move(candidate);
            if (properties != nullptr) {
                *properties = props;
            }
            return 0;
        }
    }
    log_printf(0, "%s:%d: Backup %d not found on disk", __FILE__, __LINE__, number);
    log_printf(0, "%s:%d: Tried %s[.gz]\n", __FILE__, __LINE__, arco_backup_path(dir, backupNo, false).c_str());
    errno = ENOENT;
    return -1;
}
