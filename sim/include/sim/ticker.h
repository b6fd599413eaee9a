#pragma once

#include <sim/api.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace sim {

// The thread of a scene that lives on its own: calls `tick(n)` every
// `period` while it is on (n counts the ticks run, from 1). A tick that
// throws is dropped, as when a test's hook changed the scene under it; the
// next one goes on.
class SIM_API Ticker
{
public:
    Ticker(std::chrono::milliseconds period, std::function<void(uint64_t)> tick);
    ~Ticker();
    Ticker(const Ticker &) = delete;
    Ticker &operator=(const Ticker &) = delete;

    void start();
    // Returns once the thread has ended; no tick runs after it.
    void stop();
    void setOn(bool on) { m_on = on; }
    bool isOn() const { return m_on; }

private:
    void run();

    const std::chrono::milliseconds m_period;
    const std::function<void(uint64_t)> m_tick;
    std::atomic<bool> m_on {false};
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace sim
