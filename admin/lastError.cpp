// lastError: the one error text of the process that the management
// interface shows after a failed administration call.
#include "admin/tqsql.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

const char kUnreportable[] = "(unreportable error; could not allocate memory for error message)";

char* g_lastError = nullptr;  // malloc'ed, or nullptr for none / kUnreportable
bool g_unreportable = false;

} // namespace

void tqSetLastError(const char* fmt, ...)
{
    free(g_lastError);
    g_lastError = nullptr;
    g_unreportable = false;
    int n;
    if (fmt == nullptr) {
        n = asprintf(&g_lastError, "%s", "(null)");
    } else {
        va_list ap;
        va_start(ap, fmt);
        n = vasprintf(&g_lastError, fmt, ap);
        va_end(ap);
    }
    if (n < 0) {
        g_lastError = nullptr;
        g_unreportable = true;
    }
}

const char* tqGetLastError()
{
    if (g_unreportable)
        return kUnreportable;
    return g_lastError ? g_lastError : "";
}
