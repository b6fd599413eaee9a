#include <sim/device_services.h>

#include <wz/log_listener.h>

#include <chrono>
#include <stdexcept>

namespace sim {

LogManagerService::LogManagerService() : Service("LogManager") { }

LogManagerService::~LogManagerService()
{
    stop();
}

void LogManagerService::describe(ServiceBuilder &b)
{
    b.method("getListener", []() { return wz::makeLogListenerObject(); });
}

void LogManagerService::configure(const wz::AnyValue &settings)
{
    using Kind = wz::AnyValue::Kind;
    for (const auto &field : settings.toMap()) {
        if (field.first != "chatter" || field.second.kind() != Kind::Map)
            throw std::runtime_error("LogManager takes only {\"chatter\": {...}}");
        Chatter c;
        for (const auto &f : field.second.toMap()) {
            if (f.first == "rate" && f.second.kind() == Kind::Int && f.second.toInt() >= 0
                && f.second.toInt() <= 1000000) {
                c.rate = static_cast<int>(f.second.toInt());
            } else if (f.first == "category" && f.second.kind() == Kind::String) {
                c.category = f.second.toStr();
            } else if (f.first == "level" && f.second.kind() == Kind::Int && f.second.toInt() >= 1
                       && f.second.toInt() <= 6) {
                c.level = static_cast<wz::LogLevel>(f.second.toInt());
            } else {
                throw std::runtime_error("chatter." + f.first
                                         + ": rate 0..1000000, category a text, level 1..6");
            }
        }
        setChatter(c);
    }
}

void LogManagerService::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_thread.joinable())
        return;
    m_running = true;
    m_thread = std::thread([this]() { run(); });
}

void LogManagerService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_running = false;
        ++m_changes;
        m_cond.notify_all();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void LogManagerService::setChatter(const Chatter &chatter)
{
    if (chatter.rate < 0)
        throw std::invalid_argument("a chatter rate is 0 or more");
    std::unique_lock<std::mutex> lock(m_mutex);
    m_chatter = chatter;
    ++m_changes;
    m_cond.notify_all();
    // A batch being written goes on to its end unless told; once it has
    // stopped, sent() holds for a stopped chatter, which is what a test
    // counting messages compares against.
    m_cond.wait(lock, [this]() { return !m_writing; });
}

LogManagerService::Chatter LogManagerService::chatter() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_chatter;
}

void LogManagerService::run()
{
    using clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_running) {
        if (m_chatter.rate == 0) {
            m_cond.wait(lock, [this]() { return !m_running || m_chatter.rate > 0; });
            continue;
        }
        // Paced against the start of this setting, so that a slow tick
        // catches up rather than lowering the rate.
        const Chatter c = m_chatter;
        const uint64_t changes = m_changes;
        const auto begin = clock::now();
        uint64_t written = 0;
        while (m_running && m_changes == changes) {
            const double elapsed = std::chrono::duration<double>(clock::now() - begin).count();
            const uint64_t due = static_cast<uint64_t>(elapsed * c.rate) + 1;
            if (written < due) {
                const uint64_t n = due - written;
                m_writing = true;
                lock.unlock();
                for (uint64_t i = 0; i < n && m_changes.load() == changes; ++i)
                    wz::log::log(c.level, c.category, "chatter",
                                 "chatter " + std::to_string(m_sent++));
                lock.lock();
                m_writing = false;
                m_cond.notify_all();
                written = due;
                continue;
            }
            m_cond.wait_for(lock, std::chrono::milliseconds(5));
        }
    }
}

} // namespace sim
