#pragma once

#include <wz/api.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace wz {

enum FutureState {
    FutureState_None,
    FutureState_Running,
    FutureState_Canceled,
    FutureState_FinishedWithError,
    FutureState_FinishedWithValue
};

enum FutureTimeout { FutureTimeout_None = 0, FutureTimeout_Infinite = 2147483647 };

// Reading the value of a failed, canceled or broken future. what() is the
// error text exactly as the producer gave it ("canceled" for a cancellation).
class WZ_API FutureError : public std::runtime_error
{
public:
    explicit FutureError(const std::string &what);
};

template<typename T>
class Future;
template<typename T>
class Promise;

namespace detail {

class Waker;

// What a thread waiting for a future may do itself rather than sleep until
// another thread completes it, such as reading the reply from the socket.
// Internal use only.
class WaitHelper
{
public:
    virtual ~WaitHelper() = default;

    // One thread's part in one wait: it may poll() while this lives, and its
    // end hands back whatever it took over.
    class Turn
    {
    public:
        virtual ~Turn() = default;
        // Does what can be done now, without blocking; true when it made
        // progress.
        virtual bool poll() = 0;
        // A descriptor that turns readable when poll() may make progress,
        // for the thread to sleep on; -1 when there is none.
        virtual int descriptor() const = 0;
    };
    virtual std::unique_ptr<Turn> begin() = 0;
};

// Runs `task` on a framework thread (the process-wide pool).
WZ_API void runOnFrameworkThread(std::function<void()> task);

// State shared by a promise and its futures; the value lives in the derived
// template so that this part compiles once.
class WZ_API FutureStateBase
{
public:
    FutureStateBase();
    virtual ~FutureStateBase();
    FutureStateBase(const FutureStateBase &) = delete;
    FutureStateBase &operator=(const FutureStateBase &) = delete;

    FutureState wait(int msecs) const;
    FutureState state() const;
    std::string error() const;

    // Completion: the first one wins, later ones return false.
    bool finishWithError(const std::string &text);
    bool finishCanceled();

    // Callback after completion, on a framework thread.
    void addCallback(std::function<void()> cb);
    // Callback after completion, on the completing thread. Internal use
    // only: it must not block.
    void addDirectCallback(std::function<void()> cb);

    void setCancelHandler(std::function<void()> handler);
    void requestCancel();

    // Work a thread waiting for this future may do while it spins, such as
    // reading the reply from the socket itself. It must not block. Internal
    // use only.
    void setWaitHelper(std::shared_ptr<WaitHelper> helper);
    std::shared_ptr<WaitHelper> waitHelper() const;

protected:
    // Called with the lock held, before waking waiters.
    bool beginFinish(std::unique_lock<std::mutex> &lock);
    void endFinish(std::unique_lock<std::mutex> &lock, FutureState state);

    mutable std::mutex m_mutex;

private:
    // Threads blocked in wait(), each woken through its own Waker.
    mutable std::vector<std::shared_ptr<Waker>> m_waiters;
    FutureState m_state = FutureState_Running;
    std::string m_error;
    std::vector<std::function<void()>> m_callbacks;
    std::vector<std::function<void()>> m_directCallbacks;
    std::function<void()> m_cancelHandler;
    std::shared_ptr<WaitHelper> m_waitHelper;
    bool m_cancelRequested = false;
};

template<typename T>
class FutureData : public FutureStateBase
{
public:
    bool finishWithValue(T v)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!beginFinish(lock))
            return false;
        m_value.reset(new T(std::move(v)));
        endFinish(lock, FutureState_FinishedWithValue);
        return true;
    }
    const T &value() const { return *m_value; }

private:
    std::unique_ptr<T> m_value;
};

template<>
class FutureData<void> : public FutureStateBase
{
public:
    bool finishWithValue()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!beginFinish(lock))
            return false;
        endFinish(lock, FutureState_FinishedWithValue);
        return true;
    }
};

WZ_API const std::string &invalidFutureText();
WZ_API std::string timeoutText(int msecs);

// Tells who is holding a promise, so that the last one to drop it breaks it.
template<typename T>
struct PromiseGuard
{
    explicit PromiseGuard(std::shared_ptr<FutureData<T>> s) : state(std::move(s)) { }
    ~PromiseGuard() { state->finishWithError("promise broken: no result will come"); }
    std::shared_ptr<FutureData<T>> state;
};

template<typename T>
struct FutureAccess;

} // namespace detail

template<typename T>
class FutureBase
{
public:
    FutureState wait(int msecs = FutureTimeout_Infinite) const
    {
        return m_state ? m_state->wait(msecs) : FutureState_None;
    }
    // True when the future finished with an error (a cancellation is not one).
    bool hasError(int msecs = FutureTimeout_Infinite) const
    {
        if (!m_state)
            return true;
        return m_state->wait(msecs) == FutureState_FinishedWithError;
    }
    // The error text; "canceled" for a canceled future, empty otherwise.
    std::string error(int msecs = FutureTimeout_Infinite) const
    {
        if (!m_state)
            return detail::invalidFutureText();
        m_state->wait(msecs);
        return m_state->error();
    }
    bool isCanceled() const { return m_state && m_state->state() == FutureState_Canceled; }
    bool isRunning() const { return m_state && m_state->state() == FutureState_Running; }
    bool isFinished() const
    {
        if (!m_state)
            return false;
        const FutureState s = m_state->state();
        return s != FutureState_Running && s != FutureState_None;
    }
    bool hasValue() const { return m_state && m_state->state() == FutureState_FinishedWithValue; }
    bool isValid() const { return static_cast<bool>(m_state); }

    // Asks the producer to stop; a remote call sends a cancel to the peer and
    // finishes as canceled at once.
    void cancel()
    {
        if (m_state)
            m_state->requestCancel();
    }

    // `cb` runs once the future is finished, on a framework thread (at once
    // if it already is).
    void connect(std::function<void(const Future<T> &)> cb) const
    {
        if (!m_state) {
            Future<T> self = static_cast<const Future<T> &>(*this);
            detail::runOnFrameworkThread([cb, self]() { cb(self); });
            return;
        }
        std::shared_ptr<detail::FutureData<T>> s = m_state;
        m_state->addCallback([cb, s]() { cb(Future<T>(s)); });
    }

    // Future of f(*this), run on a framework thread once this one finishes.
    // An exception thrown by f becomes the error of the result; canceling the
    // result cancels this future.
    template<typename F>
    auto then(F f) const -> Future<std::invoke_result_t<F, const Future<T> &>>
    {
        using R = std::invoke_result_t<F, const Future<T> &>;
        std::weak_ptr<detail::FutureData<T>> source = m_state;
        Promise<R> promise([source](Promise<R> &) {
            if (auto s = source.lock())
                s->requestCancel();
        });
        connect([promise, f](const Future<T> &done) mutable {
            try {
                fulfil(promise, f, done);
            } catch (const std::exception &e) {
                promise.setError(e.what());
            } catch (...) {
                promise.setError("unknown exception in a continuation");
            }
        });
        return promise.future();
    }

protected:
    FutureBase() = default;
    explicit FutureBase(std::shared_ptr<detail::FutureData<T>> s) : m_state(std::move(s)) { }

    void throwIfNoValue(int msecs) const
    {
        if (!m_state)
            throw FutureError(detail::invalidFutureText());
        const FutureState s = m_state->wait(msecs);
        if (s == FutureState_FinishedWithValue)
            return;
        if (s == FutureState_Running)
            throw FutureError(detail::timeoutText(msecs));
        throw FutureError(m_state->error());
    }

    template<typename R, typename F>
    static void fulfil(Promise<R> &promise, F &f, const Future<T> &done)
    {
        if constexpr (std::is_void<R>::value) {
            f(done);
            promise.setValue();
        } else {
            promise.setValue(f(done));
        }
    }

    std::shared_ptr<detail::FutureData<T>> m_state;
    friend struct detail::FutureAccess<T>;
};

// A result that arrives later. Copies share one state. Default-constructed:
// not valid (reading it throws).
template<typename T>
class Future : public FutureBase<T>
{
public:
    using ValueType = T;
    Future() = default;
    explicit Future(std::shared_ptr<detail::FutureData<T>> s) : FutureBase<T>(std::move(s)) { }

    // Waits, then gives the value or throws FutureError with the error text.
    const T &value(int msecs = FutureTimeout_Infinite) const
    {
        this->throwIfNoValue(msecs);
        return this->m_state->value();
    }
};

template<>
class Future<void> : public FutureBase<void>
{
public:
    using ValueType = void;
    Future() = default;
    explicit Future(std::shared_ptr<detail::FutureData<void>> s)
        : FutureBase<void>(std::move(s)) { }
    void value(int msecs = FutureTimeout_Infinite) const { this->throwIfNoValue(msecs); }
};

namespace detail {
template<typename T>
struct FutureAccess
{
    static const std::shared_ptr<FutureData<T>> &state(const FutureBase<T> &f) { return f.m_state; }
};
} // namespace detail

template<typename T>
class PromiseBase
{
public:
    void setError(const std::string &text) { m_guard->state->finishWithError(text); }
    void setCanceled() { m_guard->state->finishCanceled(); }
    Future<T> future() const { return Future<T>(m_guard->state); }
    bool isFinished() const { return future().isFinished(); }

protected:
    PromiseBase()
        : m_guard(
            std::make_shared<detail::PromiseGuard<T>>(std::make_shared<detail::FutureData<T>>()))
    { }
    std::shared_ptr<detail::PromiseGuard<T>> m_guard;
};

// The producer side. Without a cancel handler, cancel() on a future finishes
// it as canceled at once; with one, the handler decides. Once every copy of
// a promise is gone, an unfinished future fails ("promise broken").
template<typename T>
class Promise : public PromiseBase<T>
{
public:
    Promise() { installDefaultCancel(); }
    explicit Promise(std::function<void(Promise<T> &)> onCancel)
    {
        // The handler holds the state weakly so that the promise can break.
        std::weak_ptr<detail::PromiseGuard<T>> weak = this->m_guard;
        this->m_guard->state->setCancelHandler([weak, onCancel]() {
            if (auto g = weak.lock()) {
                Promise<T> p(g);
                onCancel(p);
            }
        });
    }
    void setValue(T v) { this->m_guard->state->finishWithValue(std::move(v)); }

private:
    explicit Promise(std::shared_ptr<detail::PromiseGuard<T>> g) { this->m_guard = std::move(g); }
    void installDefaultCancel()
    {
        std::weak_ptr<detail::FutureData<T>> weak = this->m_guard->state;
        this->m_guard->state->setCancelHandler([weak]() {
            if (auto s = weak.lock())
                s->finishCanceled();
        });
    }
};

template<>
class Promise<void> : public PromiseBase<void>
{
public:
    Promise() { installDefaultCancel(); }
    explicit Promise(std::function<void(Promise<void> &)> onCancel)
    {
        std::weak_ptr<detail::PromiseGuard<void>> weak = this->m_guard;
        this->m_guard->state->setCancelHandler([weak, onCancel]() {
            if (auto g = weak.lock()) {
                Promise<void> p(g);
                onCancel(p);
            }
        });
    }
    void setValue() { this->m_guard->state->finishWithValue(); }

private:
    explicit Promise(std::shared_ptr<detail::PromiseGuard<void>> g)
    {
        this->m_guard = std::move(g);
    }
    void installDefaultCancel()
    {
        std::weak_ptr<detail::FutureData<void>> weak = this->m_guard->state;
        this->m_guard->state->setCancelHandler([weak]() {
            if (auto s = weak.lock())
                s->finishCanceled();
        });
    }
};

// Holds a future and waits for it when destroyed, so that a fire-and-forget
// call cannot outlive the scope that issued it.
template<typename T>
class FutureSync
{
public:
    FutureSync() = default;
    FutureSync(Future<T> f) : m_future(std::move(f)) { }
    FutureSync(FutureSync &&) = default;
    FutureSync &operator=(FutureSync &&) = default;
    FutureSync(const FutureSync &) = delete;
    FutureSync &operator=(const FutureSync &) = delete;
    ~FutureSync()
    {
        if (m_future.isValid())
            m_future.wait();
    }

    operator Future<T>() const { return m_future; }
    const Future<T> &future() const { return m_future; }
    // Stops waiting at destruction.
    Future<T> async()
    {
        Future<T> f = m_future;
        m_future = Future<T>();
        return f;
    }

    FutureState wait(int msecs = FutureTimeout_Infinite) const { return m_future.wait(msecs); }
    decltype(auto) value(int msecs = FutureTimeout_Infinite) const { return m_future.value(msecs); }
    bool hasError(int msecs = FutureTimeout_Infinite) const { return m_future.hasError(msecs); }
    std::string error(int msecs = FutureTimeout_Infinite) const { return m_future.error(msecs); }
    bool isCanceled() const { return m_future.isCanceled(); }
    bool isRunning() const { return m_future.isRunning(); }
    bool isFinished() const { return m_future.isFinished(); }
    bool isValid() const { return m_future.isValid(); }
    void cancel() { m_future.cancel(); }

private:
    Future<T> m_future;
};

template<typename T>
Future<T> makeReadyFuture(T value)
{
    Promise<T> p;
    p.setValue(std::move(value));
    return p.future();
}

inline Future<void> makeReadyFuture()
{
    Promise<void> p;
    p.setValue();
    return p.future();
}

template<typename T>
Future<T> makeFutureError(const std::string &text)
{
    Promise<T> p;
    p.setError(text);
    return p.future();
}

} // namespace wz
