// environment: start-up of a process of the appliance. Finds the install
// directory and master.ini, fills the process-wide paths and exports them.
#include "foundation/environment.h"

#include "foundation/sysroot.h"

std::string g_appdir;
std::string g_master_ini;
std::string g_bindir;
std::string g_logdir;
std::string g_reportdir;
std::string g_initdir;
std::string g_xrdir;
std::string g_listdir;
std::string g_profiledir;
std::string g_infodir;
std::string g_utildir;
std::string g_libdir;

char ghAppName[32];

std::string tq_ini_path()
{
    return appliancePath("/etc/default/tq.ini");
}
