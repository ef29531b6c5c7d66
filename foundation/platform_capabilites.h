// platform_capabilites: what this appliance can do (keywords of the platform
// capabilities file, answers of the platform's own probe programs), and the
// helpers that run and stop outside commands.
#pragma once

#include <cstddef>
#include <sys/types.h>

// The capabilities file, one keyword at the start of a line; resolved through
// appliancePath. Its absence means no capability.
inline constexpr const char* kPlatformCapabilitiesFile = "/var/opt/quillmont/platform_capabilities";

// Keyword tests: 1 when grep finds the keyword at the start of a line of the
// capabilities file, else 0 (also for a missing file, a failed shell or a
// grep that died on a signal). isNLUVirtual logs its answer at level 0.
int isNLUVirtual();
int platformSupportsInlineDedup();
int platformSupportsDedupNT();

// Exit code of "<g_bindir>/platformSupportsDedup": 0 to 4; 5 and above, a
// signal or a shell failure give 0.
int platformSupportsDedup();

// Exit code of "<g_bindir>/platformSupportsSynth" (127 when it is missing);
// 0 for a signal or a shell failure.
int platformSupportsiSynth();

// Runs `command` through /bin/sh -c in a child that is its own session
// leader, polling once a second. On each pass the wait callback runs and
// then the handlers registered for kSystemTMaxWaitCode, with the command.
// SIGINT and SIGQUIT are ignored and SIGCHLD is default during the wait.
// Returns the wait status, or -1 when fork fails or the command outlives
// `maxSeconds` (0: no limit); then its process group gets SIGTERM.
// For the main thread of a process only: it changes signal dispositions.
int SystemTMax(const char* command, unsigned long maxSeconds);

// The callback SystemTMax runs on each pass (init_state registers
// GiveUpProcessor). Returns the previous one; nullptr clears it.
using SystemTMaxCallback = void (*)();
SystemTMaxCallback setSystemTMaxCallback(SystemTMaxCallback callback);

// Handlers by code: SystemTMax runs those of code 100 on each pass with the
// command as argument. Up to 16 handlers in all. register gives 0, or -1
// when the table is full; unregister gives 0, or -1 when not found.
inline constexpr int kSystemTMaxWaitCode = 100;
using CodeHandler = void (*)(const char* argument);
int registerCodeHandler(int code, CodeHandler handler);
int unregisterCodeHandler(int code, CodeHandler handler);

// Sends `sig` to `pid` (SIGKILL is replaced by SIGTERM, logged), logs the
// call at level 0, sleeps a second and, for pid >= 1, escalates while the
// process lives: SIGTERM after `termAfter` seconds, SIGINT and SIGKILL a
// third and two thirds of the way to `limit`. Returns 0 when the process is
// gone (always for pid < 1), -1 when it outlives `limit`; with sig 0 the
// result of that first kill.
int KillPid(pid_t pid, int sig, int termAfter, int limit);
// As KillPid with its own log words, halves instead of thirds, never SIGKILL.
int KillPidSafe(pid_t pid, int sig, int termAfter, int limit);

// 1 when signal 0 reaches `pid` or is refused for lack of rights; 0 for
// pid < 1 or a process that is gone.
int isPidAlive(pid_t pid);

// Host name cut at the first "." into `buffer` (always NUL-terminated);
// falls back to uname's node name when gethostname fails. 0/-1.
int mynodename(char* buffer, size_t size);

// Runs "<g_bindir>/ping_check <name>" with a 10 second limit. 0 when the
// client answers, -7 when it does not, -1 for an empty name. With `report`
// set and a name other than the previous call's, adds an error-store record
// (class 2, number 1) saying which.
int ping_client(const char* name, int report);
