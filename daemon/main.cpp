// Entry point of the ferryd executable: the daemon and `ferryd util`.
#include "daemon/ferryd.h"

int main(int argc, char** argv)
{
    return ferrydMain(argc, argv);
}
