#include "runtime.h"

#include <wz/future.h>
#include <wz/log.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace wz {
namespace detail {

namespace {
const auto kIdleTimeout = std::chrono::seconds(5);

void runGuarded(Task &task)
{
    try {
        task();
    } catch (const std::exception &e) {
        log::LogStream(LogLevel_Error, "wz.pool", __FUNCTION__)
            << "a framework task threw: " << e.what();
    } catch (...) {
        log::LogStream(LogLevel_Error, "wz.pool", __FUNCTION__)
            << "a framework task threw an unknown exception";
    }
}
} // namespace

FrameworkPool &FrameworkPool::instance()
{
    // Leaked: detached workers may still be parked in it at exit.
    static FrameworkPool *pool = new FrameworkPool;
    return *pool;
}

void FrameworkPool::post(Task task)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_queue.push_back(std::move(task));
    if (static_cast<int>(m_queue.size()) > m_idle && m_threads < kMaxThreads) {
        spawn();
        return;
    }
    if (static_cast<int>(m_queue.size()) > m_idle && m_threads >= kMaxThreads) {
        static std::atomic<bool> warned {false};
        if (!warned.exchange(true)) {
            lock.unlock();
            log::LogStream(LogLevel_Warning, "wz.pool", __FUNCTION__)
                << "framework pool at its cap of " << kMaxThreads
                << " threads; tasks wait for a free one";
            return;
        }
    }
    lock.unlock();
    m_cond.notify_one();
}

int FrameworkPool::threadCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threads;
}

int FrameworkPool::idleCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_idle;
}

void FrameworkPool::spawn()
{
    ++m_threads;
    try {
        std::thread([this]() { run(); }).detach();
    } catch (const std::system_error &e) {
        --m_threads;
        log::LogStream(LogLevel_Error, "wz.pool", __FUNCTION__)
            << "cannot start a framework thread: " << e.what();
    }
}

void FrameworkPool::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        while (m_queue.empty()) {
            ++m_idle;
            const bool woke
                = m_cond.wait_for(lock, kIdleTimeout, [this] { return !m_queue.empty(); });
            --m_idle;
            if (!woke && m_threads > kMinThreads) {
                --m_threads;
                return;
            }
        }
        Task task = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        runGuarded(task);
        task = nullptr; // captured state dies outside the lock
        lock.lock();
    }
}

void SerialQueue::post(Task task)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(std::move(task));
        if (m_running)
            return;
        m_running = true;
    }
    auto self = shared_from_this();
    FrameworkPool::instance().post([self]() { self->drain(); });
}

void SerialQueue::drain()
{
    // A bounded batch, then yield the thread so one busy queue cannot hold it.
    for (int i = 0; i < 64; ++i) {
        Task task;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_queue.empty()) {
                m_running = false;
                return;
            }
            task = std::move(m_queue.front());
            m_queue.pop_front();
        }
        runGuarded(task);
    }
    auto self = shared_from_this();
    FrameworkPool::instance().post([self]() { self->drain(); });
}

void runOnFrameworkThread(std::function<void()> task)
{
    FrameworkPool::instance().post(std::move(task));
}

} // namespace detail
} // namespace wz
