#pragma once

// Tuning and state of the framework's thread pool, for tests that would
// otherwise wait out its idle time. Not part of the stable API.

#include <wz/api.h>

#include <chrono>

namespace wz {
namespace detail {

// How long a pool thread above the minimum may stay idle before it leaves
// (5 s unless set). A thread already idle keeps the time it started with.
WZ_API void setPoolIdleTimeout(std::chrono::milliseconds timeout);
WZ_API std::chrono::milliseconds poolIdleTimeout();

// The framework threads alive now, busy or idle.
WZ_API int poolThreadCount();

} // namespace detail
} // namespace wz
