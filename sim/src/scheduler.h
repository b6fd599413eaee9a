#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace sim {

// One thread that runs short tasks at a given time (readiness, scheduled
// events). Stopping drops what is pending.
class Scheduler
{
public:
    using Clock = std::chrono::steady_clock;

    Scheduler() = default;
    ~Scheduler() { stop(); }
    Scheduler(const Scheduler &) = delete;
    Scheduler &operator=(const Scheduler &) = delete;

    void start();
    void stop();
    void schedule(std::chrono::milliseconds delay, std::function<void()> task);

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::multimap<std::pair<Clock::time_point, uint64_t>, std::function<void()>> m_tasks;
    uint64_t m_seq = 0;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace sim
