// namestack: the stack of procedure names that older code pushes on entry
// and pops on exit, so that a message can name the procedure it came from.
// For one thread of a process; no lock.
#include "foundation/logger.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int kStackDepth = 50;
constexpr int kNameLength = 64;  // 63 characters kept
constexpr char kNotSet[] = "Not set:";

char nameArray[kStackDepth][kNameLength];
int nameIndex = -1;

bool indexInStack(int index)
{
    return index >= 0 && index < kStackDepth;
}

} // namespace

int push_name(const char* name)
{
    if (log_level >= 4) {
        if (name != nullptr)
            log_printf(4, "Entering function: %s\n", name);
        else
            log_printf(4, "Entering function: (null function name)\n");
    }
    if (nameIndex >= kStackDepth - 1) {
        log_printf(1, "WARNING: push_name() limit of %d reached\n", kStackDepth);
        for (int i = 0; i < kStackDepth; ++i) {
            log_printf(1, "name_array[%d] is \"%s\"\n", i, nameArray[i]);
            nameArray[i][0] = '\0';
        }
        nameIndex = -1;
        return -1;
    }
    ++nameIndex;
    // pop_name does not stop at the bottom, so the index may still be below
    // 0 here: such a push only climbs back towards the stack.
    if (indexInStack(nameIndex))
        snprintf(nameArray[nameIndex], kNameLength, "%s", name != nullptr ? name : kNotSet);
    return 0;
}

int pop_name()
{
    if (nameIndex > kStackDepth - 1) {
        log_printf(1, "WARNING: pop_name() - cannot pop stack further\n");
        return -1;
    }
    if (log_level >= 4)
        log_printf(4, "Leaving function: %s\n", dbproc_name());
    --nameIndex;
    return 0;
}

const char* dbproc_name()
{
    if (!indexInStack(nameIndex))
        return kNotSet;
    const char* top = nameArray[nameIndex];
    if (top[0] == '\0' || strstr(top, "%%s") != nullptr)
        return kNotSet;
    return top;
}

void dump_name_stack()
{
    log_printf(1, "Stack Procedure Trace Dump:\n");
    for (int i = 0; i <= nameIndex && i < kStackDepth; ++i)
        log_printf(1, "name_array[%d] is \"%s\"\n", i, nameArray[i]);
}
