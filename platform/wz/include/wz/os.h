#pragma once

#include <wz/api.h>

#include <cstdint>

namespace wz {
namespace os {

struct timeval
{
    int64_t tv_sec = 0; // seconds since the epoch
    int64_t tv_usec = 0; // microseconds, 0 to 999999
};

// Wall-clock time. Returns 0, or -1 when `tp` is null.
WZ_API int gettimeofday(timeval *tp);

} // namespace os
} // namespace wz
