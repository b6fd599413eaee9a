#pragma once

// Process-wide threads: the framework pool that runs user code, and the
// serial queues that keep posts and signal deliveries in order.

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace wz {
namespace detail {

using Task = std::function<void()>;

// Grows when every thread is busy (so a task may block on a nested remote
// call without starving the others), up to a cap; idle threads above the
// minimum leave after a while.
class FrameworkPool
{
public:
    static FrameworkPool &instance();

    void post(Task task);
    int threadCount() const;
    int idleCount() const;

    static constexpr int kMinThreads = 2;
    static constexpr int kMaxThreads = 256;

private:
    FrameworkPool() = default;
    void spawn();
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<Task> m_queue;
    int m_threads = 0;
    int m_idle = 0;
};

// Runs tasks one after the other on the pool, in the order they were posted.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    void post(Task task);

private:
    void drain();

    std::mutex m_mutex;
    std::deque<Task> m_queue;
    bool m_running = false;
};

} // namespace detail
} // namespace wz
