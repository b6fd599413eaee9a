#include "runtime.h"

#include <wz/future.h>
#include <wz/log.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace wz {
namespace detail {

namespace {
// How long a pool thread above the minimum may stay idle before it leaves:
// 5 s, or WZ_POOL_IDLE_MS (read once; tests shorten it so that thread counts
// settle at once).
int64_t idleTimeoutMs()
{
    static const int64_t ms = [] {
        const char *v = std::getenv("WZ_POOL_IDLE_MS");
        const int64_t parsed = v && *v ? std::atoll(v) : 5000;
        return std::max<int64_t>(1, parsed);
    }();
    return ms;
}

int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

int64_t envInt(const char *name, int64_t fallback)
{
    const char *v = std::getenv(name);
    return v && *v ? std::atoll(v) : fallback;
}

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

// ---- DirectMethodScope ------------------------------------------------------------

namespace {
thread_local bool t_inDirectMethod = false;
} // namespace

DirectMethodScope::DirectMethodScope()
{
    t_inDirectMethod = true;
}

DirectMethodScope::~DirectMethodScope()
{
    t_inDirectMethod = false;
}

bool DirectMethodScope::active()
{
    return t_inDirectMethod;
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

// Overridable per process, for a machine where spinning does not pay
// (0 turns it off).
int64_t Waker::callerSpinUs()
{
    static const int64_t us = envInt("WZ_CALLER_SPIN_US", 100);
    return us;
}

int64_t Waker::ioSpinUs()
{
    static const int64_t us = envInt("WZ_IO_SPIN_US", 50);
    return us;
}

int64_t Waker::workerSpinUs()
{
    static const int64_t us = envInt("WZ_WORKER_SPIN_US", 100);
    return us;
}

namespace {

// Until when (steady clock, ns) no thread of this process spins.
std::atomic<int64_t> g_spinsPausedUntil {0};

int64_t lostCpuNs()
{
    static const int64_t ns = envInt("WZ_SPIN_LOST_US", 250) * 1000;
    return ns;
}

int64_t spinPauseNs()
{
    static const int64_t ns = envInt("WZ_SPIN_PAUSE_MS", 50) * 1000000;
    return ns;
}

} // namespace

bool Waker::spinsPaused()
{
    return nowNs() < g_spinsPausedUntil.load(std::memory_order_relaxed);
}

bool Waker::noteSpinGap(int64_t gapNs)
{
    if (lostCpuNs() <= 0 || gapNs <= lostCpuNs())
        return false;
    g_spinsPausedUntil.store(nowNs() + spinPauseNs(), std::memory_order_relaxed);
    return true;
}

void Waker::wake()
{
    // Paired with the waiter's store of Sleeping and load of the signal: one
    // of the two sees the other, so a sleeper is never left asleep.
    m_signal.store(true, std::memory_order_seq_cst);
    if (m_write >= 0) {
        if (m_mode.load(std::memory_order_seq_cst) != Sleeping)
            return;
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

bool Waker::spin(int64_t budgetNs, WaitHelper::Turn *turn)
{
    m_mode.store(Spinning, std::memory_order_seq_cst);
    int64_t last = nowNs();
    const int64_t deadline = last + budgetNs;
    for (unsigned i = 1;; ++i) {
        if (m_signal.load(std::memory_order_acquire))
            return true;
        if (i % 32 == 0) {
            if (noteSpinGap(nowNs() - last))
                return false;
            // The helper may finish the wait itself (a caller reading its
            // reply), sparing the wake of another thread.
            if (turn && turn->poll() && m_signal.load(std::memory_order_acquire))
                return true;
            last = nowNs();
            if (last >= deadline)
                return false;
            // Lets a thread that was woken onto this CPU run: it may well be
            // the one that is to wake this one (without it, small calls were
            // half as fast again on two cores).
            sched_yield();
        } else {
            cpuRelax();
        }
    }
}

bool Waker::sleep(int64_t deadlineNs, std::unique_ptr<WaitHelper::Turn> &turn)
{
    for (;;) {
        int timeout = -1;
        if (deadlineNs >= 0) {
            // Rounded up: a sleep never ends before its time.
            const int64_t left = std::max<int64_t>(0, deadlineNs - nowNs());
            timeout = static_cast<int>(std::min<int64_t>((left + 999999) / 1000000, INT32_MAX));
        }
        pollfd p[2] = {{m_read, POLLIN, 0}, {turn ? turn->descriptor() : -1, POLLIN, 0}};
        const nfds_t count = p[1].fd >= 0 ? 2 : 1;
        int n;
        do {
            n = ::poll(p, count, timeout);
        } while (n < 0 && errno == EINTR);
        if (n <= 0 || p[0].revents != 0)
            return n > 0;
        // Only the helper's descriptor: what it reads may finish the wait.
        // When it cannot go on (another thread must read first), it hands
        // its part back rather than wake this thread over and over.
        const bool progress = turn->poll();
        if (m_signal.load(std::memory_order_seq_cst))
            return true;
        if (!progress)
            turn.reset();
    }
}

bool Waker::wait(int64_t timeoutMs, int64_t maxSpinUs, WaitHelper *helper)
{
    const int64_t start = nowNs();
    int64_t budgetNs = 0;
    // Spin while this thread's waits have been at most a few times what the
    // spin may last: the spin itself shortens them (a spinning CPU is not a
    // halted one that the next wake must bring back first), so a wait seen
    // without it looks longer than it will be. Long waits (an idle thread)
    // turn it off.
    if (maxSpinUs > 0 && m_meanWaitNs <= maxSpinUs * 4000 && !spinsPaused()) {
        budgetNs = maxSpinUs * 1000;
        if (timeoutMs >= 0)
            budgetNs = std::min(budgetNs, timeoutMs * 1000000);
    }
    // The helper's part lasts the whole wait, spin and sleep, and ends (so
    // hands back what it took) before this returns.
    std::unique_ptr<WaitHelper::Turn> turn = helper ? helper->begin() : nullptr;
    bool woke = budgetNs > 0 && spin(budgetNs, turn.get());
    if (!woke) {
        m_mode.store(Sleeping, std::memory_order_seq_cst);
        m_pipeMayHoldWake = true;
        if (m_signal.load(std::memory_order_seq_cst)) {
            woke = true;
        } else if (m_read >= 0) {
            woke = sleep(timeoutMs < 0 ? -1 : start + timeoutMs * 1000000, turn);
        } else {
            turn.reset();
            std::unique_lock<std::mutex> lock(m_mutex);
            if (timeoutMs < 0)
                m_cond.wait(lock, [this] { return m_flag; });
            else
                m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [this] { return m_flag; });
            woke = m_flag;
        }
    }
    turn.reset();
    m_mode.store(Awake, std::memory_order_seq_cst);
    if (woke)
        drain();
    // A sample is capped so that one long idle spell does not keep spinning
    // off for long once waits are short again.
    const int64_t cap = std::max<int64_t>(maxSpinUs, 1) * 16000;
    const int64_t waited = std::min(nowNs() - start, cap);
    m_meanWaitNs += (waited - m_meanWaitNs) / 8;
    return woke;
}

void Waker::drain()
{
    m_signal.store(false, std::memory_order_seq_cst);
    if (m_read >= 0) {
        // A byte that lands after this read makes one later sleep end at
        // once, which every waiter takes as a possible spurious wake.
        if (m_pipeMayHoldWake) {
            m_pipeMayHoldWake = false;
            char buf[64];
            while (::read(m_read, buf, sizeof buf) > 0) { }
        }
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
        std::thread([this]() {
            pthread_setname_np(pthread_self(), "wz pool");
            run();
        }).detach();
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
        self.waker->wait(idleTimeoutMs(), Waker::workerSpinUs());
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
