#include "runtime.h"

#include <wz/detail/trace.h>
#include <wz/future.h>

#include <algorithm>

#include <chrono>
#include <stdexcept>

namespace wz {

FutureError::FutureError(const std::string &what) : std::runtime_error(what) { }

namespace detail {

const std::string &invalidFutureText()
{
    static const std::string text = "the future is not valid (no producer)";
    return text;
}

std::string timeoutText(int msecs)
{
    return "timeout: no result after " + std::to_string(msecs) + " ms";
}

FutureStateBase::FutureStateBase() = default;
FutureStateBase::~FutureStateBase() = default;

FutureState FutureStateBase::wait(int msecs) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_state != FutureState_Running || msecs <= 0) {
        if (m_state != FutureState_Running && msecs > 0)
            WZ_TRACE_MARK(CallerAwake);
        return m_state;
    }
    if (DirectMethodScope::active()) {
        // Fails the method, so its caller gets this error rather than a hang.
        throw std::logic_error("a direct method cannot wait for a result (it runs on the I/O "
                               "thread); advertise it without MethodFlag_Direct");
    }
    const bool forever = msecs == FutureTimeout_Infinite;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(msecs);
    std::shared_ptr<Waker> waker = Waker::forThisThread();
    waker->drain();
    m_waiters.push_back(waker);
    const std::shared_ptr<WaitHelper> helper = m_waitHelper;
    while (m_state == FutureState_Running) {
        int64_t left = -1;
        if (!forever) {
            // Rounded up: a wait never ends before its time.
            left = std::chrono::ceil<std::chrono::milliseconds>(deadline
                                                                - std::chrono::steady_clock::now())
                       .count();
            if (left <= 0)
                break;
        }
        lock.unlock();
        waker->wait(left, Waker::callerSpinUs(), helper.get());
        lock.lock();
    }
    auto it = std::find(m_waiters.begin(), m_waiters.end(), waker);
    if (it != m_waiters.end())
        m_waiters.erase(it);
    if (m_state != FutureState_Running)
        WZ_TRACE_MARK(CallerAwake);
    return m_state;
}

void FutureStateBase::setWaitHelper(std::shared_ptr<WaitHelper> helper)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == FutureState_Running)
        m_waitHelper = std::move(helper);
}

std::shared_ptr<WaitHelper> FutureStateBase::waitHelper() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_waitHelper;
}

FutureState FutureStateBase::state() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

std::string FutureStateBase::error() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

bool FutureStateBase::finishWithError(const std::string &text)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!beginFinish(lock))
        return false;
    m_error = text;
    endFinish(lock, FutureState_FinishedWithError);
    return true;
}

bool FutureStateBase::finishCanceled()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!beginFinish(lock))
        return false;
    m_error = "canceled";
    endFinish(lock, FutureState_Canceled);
    return true;
}

bool FutureStateBase::beginFinish(std::unique_lock<std::mutex> &)
{
    return m_state == FutureState_Running;
}

void FutureStateBase::endFinish(std::unique_lock<std::mutex> &lock, FutureState state)
{
    m_state = state;
    std::vector<std::function<void()>> callbacks;
    std::vector<std::function<void()>> direct;
    callbacks.swap(m_callbacks);
    direct.swap(m_directCallbacks);
    std::function<void()> handler = std::move(m_cancelHandler);
    m_cancelHandler = nullptr;
    m_waitHelper = nullptr;
    std::vector<std::shared_ptr<Waker>> waiters;
    waiters.swap(m_waiters);
    lock.unlock();
    for (auto &w : waiters)
        w->wake();
    for (auto &cb : direct)
        cb();
    for (auto &cb : callbacks)
        runOnFrameworkThread(std::move(cb));
}

void FutureStateBase::addCallback(std::function<void()> cb)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == FutureState_Running) {
            m_callbacks.push_back(std::move(cb));
            return;
        }
    }
    runOnFrameworkThread(std::move(cb));
}

void FutureStateBase::addDirectCallback(std::function<void()> cb)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == FutureState_Running) {
            m_directCallbacks.push_back(std::move(cb));
            return;
        }
    }
    cb();
}

void FutureStateBase::setCancelHandler(std::function<void()> handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == FutureState_Running)
        m_cancelHandler = std::move(handler);
}

void FutureStateBase::requestCancel()
{
    std::function<void()> handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != FutureState_Running || m_cancelRequested)
            return;
        m_cancelRequested = true;
        handler = m_cancelHandler;
    }
    if (handler)
        handler();
}

} // namespace detail
} // namespace wz
