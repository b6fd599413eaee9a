#include <wz/path.h>

#include <climits>
#include <cstdlib>
#include <dlfcn.h>

namespace wz {
namespace path {

namespace {

std::string parentOf(const std::string &path)
{
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return std::string();
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string locate()
{
    // Any function of this library tells which file it was loaded from.
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&sdkPrefix), &info) == 0 || !info.dli_fname)
        return std::string();
    char resolved[PATH_MAX];
    if (!::realpath(info.dli_fname, resolved))
        return std::string();
    const std::string libDir = parentOf(resolved);
    return libDir.empty() ? std::string() : parentOf(libDir);
}

} // namespace

std::string sdkPrefix()
{
    // The library cannot move while it is loaded.
    static const std::string prefix = locate();
    return prefix;
}

} // namespace path
} // namespace wz
