// sysroot: prefixes the appliance's fixed paths with FERRY_SYSROOT.
#include "foundation/sysroot.h"

#include <cstdlib>
#include <cstring>

namespace {

bool isKernelPath(const char* path)
{
    return strncmp(path, "/proc/", 6) == 0 || strcmp(path, "/proc") == 0 ||
           strcmp(path, "/dev/null") == 0;
}

} // namespace

std::string appliancePath(const char* fixedPath)
{
    if (fixedPath == nullptr)
        return std::string();
    const char* root = getenv("FERRY_SYSROOT");
    if (root == nullptr || *root == '\0' || fixedPath[0] != '/' || isKernelPath(fixedPath))
        return fixedPath;
    std::string out(root);
    while (!out.empty() && out.back() == '/')
        out.pop_back();
    return out + fixedPath;
}

std::string appliancePath(const std::string& fixedPath)
{
    return appliancePath(fixedPath.c_str());
}
