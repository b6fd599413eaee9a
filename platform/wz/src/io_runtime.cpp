// The process-wide I/O threads and the caller id of the task being served.

#include "peer_link.h"
#include "peer_link_support.h"

#include <wz/log.h>

#include <pthread.h>
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
                    m_io.run();
                    return;
                } catch (const std::exception &e) {
                    log::LogStream(LogLevel_Error, kTransport, "IoRuntime")
                        << "an I/O handler threw: " << e.what();
                }
            }
        }).detach();
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
