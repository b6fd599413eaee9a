#include <sim/ticker.h>

#include <exception>
#include <utility>

namespace sim {

Ticker::Ticker(std::chrono::milliseconds period, std::function<void(uint64_t)> tick)
    : m_period(period), m_tick(std::move(tick))
{ }

Ticker::~Ticker()
{
    stop();
}

void Ticker::start()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_thread.joinable())
            return;
        m_stopping = false;
    }
    m_thread = std::thread([this]() { run(); });
}

void Ticker::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void Ticker::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    uint64_t n = 0;
    auto due = std::chrono::steady_clock::now();
    while (!m_stopping) {
        due += m_period;
        m_wake.wait_until(lock, due, [this] { return m_stopping; });
        if (m_stopping)
            break;
        if (!m_on)
            continue;
        lock.unlock();
        try {
            m_tick(++n);
        } catch (const std::exception &) { }
        lock.lock();
    }
}

} // namespace sim
