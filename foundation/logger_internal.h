// logger_internal: helpers shared by the logger's own files (logger.cpp,
// programlog.cpp, logpurge.cpp); not for callers outside the logger.
#pragma once

#include <string>

// A log level above 99 asks for simple mode: the first use subtracts 100 and
// sets log_simple, except for a `name` containing "tqserver", which always
// keeps the full writer. Level 200 (off) is left alone.
void fold_simple_log_level(const char* name);

// g_logdir, or "/tmp" of the appliance when it is unset.
std::string log_directory();
