#pragma once

#include <wz/any_value.h>
#include <wz/api.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace wz {

using SignalLink = uint64_t;
using GenericCallback = std::function<void(const std::vector<AnyValue> &)>;

class WZ_API SignalBase
{
public:
    static const SignalLink invalidSignalLink;

    SignalBase();
    virtual ~SignalBase();
    SignalBase(const SignalBase &) = delete;
    SignalBase &operator=(const SignalBase &) = delete;

    virtual unsigned arity() const = 0;
    // Type-erased access, used to serve the signal to remote subscribers.
    virtual SignalLink connectAny(GenericCallback cb) = 0;
    virtual void emitAny(const std::vector<AnyValue> &args) = 0;
    virtual bool disconnect(SignalLink link) = 0;
    virtual bool hasSubscribers() const = 0;

protected:
    static SignalLink nextLink();
};

namespace detail {
WZ_API void logCallbackFailure(const char *what, const std::string &text);
WZ_API std::string arityMismatchText(unsigned expected, size_t got);
} // namespace detail

// Thread-safe list of callbacks. Emitting runs local callbacks on the emitting
// thread, outside the lock (a callback may connect or disconnect). A callback
// that throws is logged and does not stop the others.
template<typename... Args>
class Signal : public SignalBase
{
public:
    using Callback = std::function<void(Args...)>;

    Signal() = default;

    SignalLink connect(Callback cb)
    {
        const SignalLink link = nextLink();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_callbacks.emplace(link, std::make_shared<Callback>(std::move(cb)));
        return link;
    }

    bool disconnect(SignalLink link) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_callbacks.erase(link) > 0;
    }

    void disconnectAll()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_callbacks.clear();
    }

    void operator()(const Args &...args)
    {
        std::vector<std::shared_ptr<Callback>> cbs;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            cbs.reserve(m_callbacks.size());
            for (auto &c : m_callbacks)
                cbs.push_back(c.second);
        }
        for (auto &c : cbs) {
            try {
                (*c)(args...);
            } catch (const std::exception &e) {
                detail::logCallbackFailure("signal callback", e.what());
            } catch (...) {
                detail::logCallbackFailure("signal callback", "unknown exception");
            }
        }
    }

    unsigned arity() const override { return sizeof...(Args); }

    bool hasSubscribers() const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_callbacks.empty();
    }

    SignalLink connectAny(GenericCallback cb) override
    {
        return connect([cb](const Args &...args) { cb(std::vector<AnyValue> {toAny(args)...}); });
    }

    // Throws TypeError when the values do not fit the signal's types.
    void emitAny(const std::vector<AnyValue> &args) override
    {
        if (args.size() != sizeof...(Args))
            throw TypeError(detail::arityMismatchText(sizeof...(Args), args.size()));
        emitFrom(args, std::index_sequence_for<Args...>());
    }

private:
    template<std::size_t... I>
    void emitFrom(const std::vector<AnyValue> &args, std::index_sequence<I...>)
    {
        std::tuple<std::decay_t<Args>...> values {fromAny<std::decay_t<Args>>(args[I])...};
        (*this)(std::get<I>(values)...);
        (void)args;
        (void)values;
    }

    mutable std::mutex m_mutex;
    std::map<SignalLink, std::shared_ptr<Callback>> m_callbacks;
};

// A value with a change signal. set() stores and emits `changed`.
template<typename T>
class Property
{
public:
    Property() : m_value() { }
    explicit Property(T initial) : m_value(std::move(initial)) { }
    Property(const Property &) = delete;
    Property &operator=(const Property &) = delete;

    T get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_value;
    }
    void set(const T &value)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_value = value;
        }
        changed(value);
    }

    AnyValue getAny() const { return toAny(get()); }
    void setAny(const AnyValue &value) { set(fromAny<T>(value)); }

    Signal<T> changed;

private:
    mutable std::mutex m_mutex;
    T m_value;
};

} // namespace wz
