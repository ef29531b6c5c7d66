// sysroot: the one place where the appliance's fixed absolute paths are
// resolved. Tests and the demo run whole appliances side by side, each under
// its own root named by FERRY_SYSROOT; on a real appliance it is unset.
#pragma once

#include <string>

// Returns `fixedPath` with $FERRY_SYSROOT in front of it when that variable is
// set and not empty; the path unchanged otherwise. Only for paths written in
// the code (constants and built-in defaults such as "/usr/tq"), never for a
// path read from configuration or the environment. Paths under /proc and
// /dev/null are kernel objects, not appliance files, and come back unchanged.
// The variable is read at every call, so a test may change roots in-process.
std::string appliancePath(const char* fixedPath);
std::string appliancePath(const std::string& fixedPath);
