#include "runtime.h"

#include <wz/detail/pool.h>
#include <wz/future.h>
#include <wz/log.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

namespace wz {
namespace detail {

namespace {
std::atomic<int64_t> g_idleTimeoutMs {5000};

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

void setPoolIdleTimeout(std::chrono::milliseconds timeout)
{
    g_idleTimeoutMs = std::max<int64_t>(1, timeout.count());
}

std::chrono::milliseconds poolIdleTimeout()
{
    return std::chrono::milliseconds(g_idleTimeoutMs.load());
}

int poolThreadCount()
{
    return FrameworkPool::instance().threadCount();
}

// ---- Waker ------------------------------------------------------------------------

Waker::Waker()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        m_read = fds[0];
        m_write = fds[1];
    } else {
        log::LogStream(LogLevel_Warning, "wz.pool", "Waker")
            << "no pipe for a thread waker (" << std::strerror(errno)
            << "); falling back to a condition variable";
    }
}

Waker::~Waker()
{
    if (m_read >= 0) {
        ::close(m_read);
        ::close(m_write);
    }
}

std::shared_ptr<Waker> Waker::forThisThread()
{
    thread_local std::shared_ptr<Waker> waker = std::make_shared<Waker>();
    return waker;
}

void Waker::wake()
{
    if (m_write >= 0) {
        const char byte = 1;
        // A full pipe already holds a wake: nothing is lost.
        while (::write(m_write, &byte, 1) < 0 && errno == EINTR) { }
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_flag = true;
    }
    m_cond.notify_all();
}

bool Waker::wait(int64_t timeoutMs)
{
    if (m_read >= 0) {
        pollfd p {m_read, POLLIN, 0};
        const int timeout
            = timeoutMs < 0 ? -1 : static_cast<int>(std::min<int64_t>(timeoutMs, INT32_MAX));
        int n;
        do {
            n = ::poll(&p, 1, timeout);
        } while (n < 0 && errno == EINTR);
        if (n <= 0)
            return false;
        drain();
        return true;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (timeoutMs < 0)
        m_cond.wait(lock, [this] { return m_flag; });
    else
        m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_flag; });
    const bool woke = m_flag;
    m_flag = false;
    return woke;
}

void Waker::drain()
{
    if (m_read >= 0) {
        char buf[64];
        while (::read(m_read, buf, sizeof buf) > 0) { }
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_flag = false;
}

// ---- FrameworkPool -------------------------------------------------------------------

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
    if (!m_idle.empty()) {
        Worker *w = m_idle.back();
        m_idle.pop_back();
        w->signaled = true;
        std::shared_ptr<Waker> waker = w->waker;
        lock.unlock();
        waker->wake();
        return;
    }
    if (m_threads < kMaxThreads) {
        spawn();
        return;
    }
    static std::atomic<bool> warned {false};
    lock.unlock();
    if (!warned.exchange(true))
        log::LogStream(LogLevel_Warning, "wz.pool", __FUNCTION__)
            << "framework pool at its cap of " << kMaxThreads
            << " threads; tasks wait for a free one";
}

int FrameworkPool::threadCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threads;
}

int FrameworkPool::idleCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_idle.size());
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
    Worker self;
    self.waker = Waker::forThisThread();
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (!m_queue.empty()) {
            Task task = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            runGuarded(task);
            task = nullptr; // captured state dies outside the lock
            lock.lock();
            continue;
        }
        self.signaled = false;
        self.waker->drain();
        m_idle.push_back(&self);
        lock.unlock();
        self.waker->wait(g_idleTimeoutMs.load(std::memory_order_relaxed));
        lock.lock();
        if (!self.signaled) {
            // Nobody picked this thread: it timed out (or woke spuriously).
            auto it = std::find(m_idle.begin(), m_idle.end(), &self);
            if (it != m_idle.end())
                m_idle.erase(it);
            if (m_queue.empty() && m_threads > kMinThreads) {
                --m_threads;
                return;
            }
        }
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
