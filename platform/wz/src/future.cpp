#include <wz/future.h>

#include <chrono>

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
    if (m_state != FutureState_Running || msecs <= 0)
        return m_state;
    if (msecs == FutureTimeout_Infinite) {
        m_cond.wait(lock, [this] { return m_state != FutureState_Running; });
    } else {
        m_cond.wait_for(lock, std::chrono::milliseconds(msecs),
                        [this] { return m_state != FutureState_Running; });
    }
    return m_state;
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
    lock.unlock();
    m_cond.notify_all();
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
