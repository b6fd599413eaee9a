#include "scheduler.h"

#include <wz/log.h>

#include <exception>

namespace sim {

void Scheduler::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_thread.joinable() || m_stopping)
        return;
    m_thread = std::thread([this]() { run(); });
}

void Scheduler::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_tasks.clear();
    }
    m_cond.notify_all();
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

void Scheduler::schedule(std::chrono::milliseconds delay, std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping)
            return;
        m_tasks.emplace(std::make_pair(Clock::now() + delay, m_seq++), std::move(task));
    }
    m_cond.notify_all();
}

void Scheduler::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        if (m_tasks.empty()) {
            m_cond.wait(lock);
            continue;
        }
        auto first = m_tasks.begin();
        if (first->first.first > Clock::now()) {
            m_cond.wait_until(lock, first->first.first);
            continue;
        }
        std::function<void()> task = std::move(first->second);
        m_tasks.erase(first);
        lock.unlock();
        try {
            task();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Error, "sim", __FUNCTION__)
                << "scheduled task failed: " << e.what();
        }
        task = nullptr;
        lock.lock();
    }
}

} // namespace sim
