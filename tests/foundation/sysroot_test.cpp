// The appliance root prefixes fixed paths and leaves kernel paths alone.
#include "foundation/sysroot.h"

#include <cstdlib>
#include <gtest/gtest.h>

TEST(Sysroot, PrefixesFixedPathsOnlyWhenSet)
{
    unsetenv("FERRY_SYSROOT");
    EXPECT_EQ(appliancePath("/var/run/ferryd.pid"), "/var/run/ferryd.pid");
    setenv("FERRY_SYSROOT", "/tmp/root/", 1);
    EXPECT_EQ(appliancePath("/var/run/ferryd.pid"), "/tmp/root/var/run/ferryd.pid");
    EXPECT_EQ(appliancePath("/dev/shm/.SISlockFile"), "/tmp/root/dev/shm/.SISlockFile");
    EXPECT_EQ(appliancePath("/proc/loadavg"), "/proc/loadavg");
    EXPECT_EQ(appliancePath("/dev/null"), "/dev/null");
    EXPECT_EQ(appliancePath("relative/name"), "relative/name");
    setenv("FERRY_SYSROOT", "", 1);
    EXPECT_EQ(appliancePath("/usr/tq"), "/usr/tq");
    unsetenv("FERRY_SYSROOT");
}
