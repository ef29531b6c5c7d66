// ferryd: the replication daemon's entry point, start-up and main loop.
#pragma once

// The whole program: utility branch, options, start-up, main loop, stop.
// Returns the exit status: 0 after a normal stop (also in a finished worker
// and when daemonising fails, as for a second daemon), -1 for a bad "-v",
// 1 for an unknown option, the command's result in utility mode.
int ferrydMain(int argc, char** argv);

// Detaches from the terminal and takes the pid file lock. The original
// process exits 0 inside; the daemon returns 0, or -1 when the pid file
// cannot be built, opened, locked (another daemon runs) or written. Exits
// with 255 when started by init.
int daemonize();

// The 1-minute load from /proc/loadavg; -1.0 when it cannot be read.
float getLoad();

// Reaps every exited child and drops its WorkerRecord (SIGCHLD blocked).
void reapWorkers();

// Sends SIGTERM to every worker; does not wait.
void killWorkers();

// The stop: kill workers, detach the bandwidth table, and in the parent
// remove the pid file.
void cleanup();

// Unlinks the pid file; a failure is logged and ignored.
void clearPidFile();
