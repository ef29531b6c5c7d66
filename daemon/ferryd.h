// ferryd: the replication daemon's entry point, start-up and main loop.
#pragma once

// The whole program: utility branch, options, start-up, main loop, stop.
// Returns the exit status (0 normal stop, -1 bad "-v", 1 unknown option, the
// command's result in utility mode).
int ferrydMain(int argc, char** argv);
