// common: the daemon's process-wide records and the SIGCHLD guard.
#include "daemon/common.h"

#include "foundation/logger.h"

DaemonState g_daemon;
ReplicationSettings g_settings;

SigchldBlock::SigchldBlock()
{
    sigset_t block;
    if (sigemptyset(&block) != 0 || sigaddset(&block, SIGCHLD) != 0 ||
        sigprocmask(SIG_BLOCK, &block, &saved_) != 0) {
        log_printf(0, "%s:%d: can't block SIGCHLD", __FILE__, __LINE__);
        return;
    }
    blocked_ = true;
}

SigchldBlock::~SigchldBlock()
{
    if (blocked_ && sigprocmask(SIG_SETMASK, &saved_, nullptr) != 0)
        log_printf(0, "%s:%d: sigprocmask(SIG_SETMASK,,)\n", __FILE__, __LINE__);
}
