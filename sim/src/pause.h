#pragma once

#include <sim/robot.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace sim {

// A wait that a service can cut short (stopAll and the like), and that ends
// by itself when the robot stops, so that stop() never waits out a long
// pretend duration.
class Pause
{
public:
    // True when the whole duration passed; false when interrupted or when
    // the robot stopped.
    bool wait(std::chrono::milliseconds duration, const Robot &robot)
    {
        const auto deadline = std::chrono::steady_clock::now() + duration;
        std::unique_lock<std::mutex> lock(m_mutex);
        const uint64_t generation = m_generation;
        while (true) {
            if (m_generation != generation)
                return false;
            if (!robot.isRunning())
                return false;
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline)
                return true;
            // The robot's stop has no hook here: look at it every few ms.
            const auto slice = std::min<std::chrono::steady_clock::duration>(
                deadline - now, std::chrono::milliseconds(10));
            m_cond.wait_for(lock, slice);
        }
    }

    // Ends every wait in progress; later waits are not affected.
    void interrupt()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_generation;
        m_cond.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    uint64_t m_generation = 0;
};

} // namespace sim
