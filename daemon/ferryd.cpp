// ferryd: start-up, daemonising and the parent's main loop.
#include "daemon/ferryd.h"

int ferrydMain(int, char**)
{
    return 0;
}
