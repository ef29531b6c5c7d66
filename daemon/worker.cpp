// worker: forking and running replication workers.
#include "daemon/worker.h"

// Nothing is dequeued until the queue and the target protocol exist, so no
// worker is ever started and there is nothing to terminate.
int startWorker(uint64_t, char*, int)
{
    return WORKER_NOTHING;
}

int handleTerminatedOperations()
{
    return 0;
}
