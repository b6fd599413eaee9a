#include <wz/detail/trace.h>

#include <atomic>
#include <chrono>

namespace wz {
namespace detail {
namespace trace {

#ifdef WZ_TRACE

namespace {
std::atomic<int64_t> g_stamps[StageCount];
}

void mark(Stage stage)
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    g_stamps[stage].store(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(),
                          std::memory_order_relaxed);
}

bool take(int64_t (&out)[StageCount])
{
    for (int i = 0; i < StageCount; ++i)
        out[i] = g_stamps[i].exchange(0, std::memory_order_relaxed);
    return true;
}

#endif

} // namespace trace
} // namespace detail
} // namespace wz
