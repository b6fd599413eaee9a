#include <wz/os.h>

#include <chrono>

namespace wz {
namespace os {

int gettimeofday(timeval *tp)
{
    if (!tp)
        return -1;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    // Floor division, so that a time before the epoch keeps 0 <= tv_usec < 1e6.
    tp->tv_sec = us / 1000000;
    tp->tv_usec = us % 1000000;
    if (tp->tv_usec < 0) {
        tp->tv_usec += 1000000;
        tp->tv_sec -= 1;
    }
    return 0;
}

} // namespace os
} // namespace wz
