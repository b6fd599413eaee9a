#pragma once

// Shared by the source files of PeerLink only.

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wz {
namespace detail {

constexpr size_t kRxCapacity = 64 * 1024;
constexpr const char *kTransport = "wz.transport";

inline int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Writes what the socket takes now, never waiting. Returns the bytes written;
// sets `error` on a failure other than "would block".
size_t sendSome(int fd, std::vector<iovec> iov, std::string &error);

} // namespace detail
} // namespace wz
