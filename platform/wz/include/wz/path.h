#pragma once

#include <wz/api.h>

#include <string>

namespace wz {
namespace path {

// The installation prefix of the SDK: the parent of the directory that holds
// the loaded libnimiob-wz.so, found at run time, so that an installed tree
// still works after it has been moved. Absolute, symbolic links resolved, no
// trailing slash; empty if the library cannot locate itself.
WZ_API std::string sdkPrefix();

} // namespace path
} // namespace wz
