// The process-wide I/O threads and the caller id of the task being served.

#include "peer_link.h"
#include "peer_link_support.h"
#include "runtime.h"

#include <wz/log.h>

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <thread>

namespace wz {
namespace detail {

namespace asio = boost::asio;

namespace {

thread_local std::string t_caller;
thread_local bool t_posted = false;

} // namespace

IoRuntime &IoRuntime::instance()
{
    // Leaked: the I/O thread may still be inside it while the process exits.
    static IoRuntime *runtime = new IoRuntime;
    return *runtime;
}

IoRuntime::IoRuntime()
    : m_work(std::make_unique<asio::executor_work_guard<asio::io_context::executor_type>>(
        asio::make_work_guard(m_io)))
{
    // One thread: with a second one, every event also wakes the idle thread
    // (measured: small calls 25% slower on two cores). Each connection's
    // handlers still run in its own strand, so more threads stay an option.
    for (int i = 0; i < kIoThreads; ++i) {
        std::thread([this]() {
            pthread_setname_np(pthread_self(), "wz io");
            for (;;) {
                try {
                    runLoop();
                    return;
                } catch (const std::exception &e) {
                    log::LogStream(LogLevel_Error, kTransport, "IoRuntime")
                        << "an I/O handler threw: " << e.what();
                }
            }
        }).detach();
    }
}

// After answering a call, the I/O thread polls for up to Waker::ioSpinUs()
// before it sleeps: a caller's next request then finds it running, not on a
// halted CPU that must first be woken (on a virtual machine, most of a small
// call's time). Other work (timers, replies, signals) does not spin, so an
// idle or listening process stays asleep.
void IoRuntime::runLoop()
{
    const auto spin = std::chrono::microseconds(Waker::ioSpinUs());
    if (spin.count() <= 0) {
        m_io.run();
        return;
    }
    using Clock = std::chrono::steady_clock;
    uint64_t seen = m_answered.load(std::memory_order_relaxed);
    while (m_io.run_one() > 0) {
        if (m_answered.load(std::memory_order_relaxed) == seen || Waker::spinsPaused())
            continue;
        Clock::time_point deadline = Clock::now() + spin;
        while (!m_io.stopped()) {
            const uint64_t answered = m_answered.load(std::memory_order_relaxed);
            if (m_io.poll() == 0 && Clock::now() >= deadline)
                break;
            if (m_answered.load(std::memory_order_relaxed) != answered) {
                deadline = Clock::now() + spin;
            } else {
                const Clock::time_point before = Clock::now();
                sched_yield();
                if (Waker::noteSpinGap((Clock::now() - before) / std::chrono::nanoseconds(1)))
                    break;
            }
        }
        seen = m_answered.load(std::memory_order_relaxed);
    }
}

CallerScope::CallerScope(const std::string &peer, bool posted)
    : m_previous(std::move(t_caller)), m_previousPosted(t_posted)
{
    t_caller = peer;
    t_posted = posted;
}

CallerScope::~CallerScope()
{
    t_caller = std::move(m_previous);
    t_posted = m_previousPosted;
}

bool currentCallPosted()
{
    return t_posted;
}

std::string currentCallerId()
{
    return t_caller;
}
} // namespace detail
} // namespace wz
