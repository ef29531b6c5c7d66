// utility: `ferryd util <command>`, the one-shot command-line face of the
// daemon: queue handling and single steps of a replication by hand.
#pragma once

// argv[1] is "util" or "utility", the command word is argv[2], its arguments
// follow. Sets up the process as the daemon does (name, paths, log settings),
// opens the log as "ferryd-util" and logs "Entering utility mode\n".
// No command, or a known command with the wrong number of arguments: the
// usage text on stdout, result 0. An unknown command: nothing, result 0.
// Otherwise the command's own result (the exit status keeps its low byte).
int utilityMain(int argc, char** argv);

// Prints the usage text on stdout, line by line.
void printUtilityUsage();
