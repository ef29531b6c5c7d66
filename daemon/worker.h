// worker: starting a worker for the next queued backup, and the parent's
// handling of rows a user marked for termination.
#pragma once

#include <cstdint>

// Results of startWorker.
constexpr int WORKER_FORKED = 0;      // parent side: a worker was forked
constexpr int WORKER_NOTHING = 1;     // nothing to do
constexpr int WORKER_FINISHED = -5;   // this process is a worker that has finished

// Dequeues the next backup (or takes `backup_no` when not 0) for `vault` and
// runs it in a forked worker when `fork` is 1, in this process otherwise.
int startWorker(uint64_t backup_no, char* vault, int fork);

// Acts on rows marked REPLICATION_TERMINATE; returns the number handled, -1
// when the pass had to be skipped.
int handleTerminatedOperations();
