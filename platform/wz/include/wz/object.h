#pragma once

// Qt defines "signals" as a keyword macro; this header names members so, and
// must read the same whether or not Qt's headers came first.
#pragma push_macro("signals")
#undef signals

#include <wz/any_value.h>
#include <wz/api.h>
#include <wz/future.h>
#include <wz/signal.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace wz {

// How a served method is run when a peer calls it.
enum MethodFlag {
    MethodFlag_None = 0,
    // The method returns at once and never waits: no remote call, no sleep,
    // no lock held for long. It then runs on the I/O thread that read the
    // call, which spares every call a hand-over to a framework thread (one
    // thread fewer must wake). While it runs no other message of the process
    // is read, so a wait inside it fails at once instead of stalling them all.
    MethodFlag_Direct = 1,
};

struct MetaMethod
{
    unsigned uid = 0;
    std::string name;
    unsigned arity = 0;
};

struct MetaSignal
{
    unsigned uid = 0;
    std::string name;
    unsigned arity = 0;
};

struct MetaProperty
{
    unsigned uid = 0;
    std::string name;
};

// What an object offers. Methods are told apart by name and arity.
class WZ_API MetaObject
{
public:
    MetaObject();
    explicit MetaObject(std::string name);

    // The type's name, used in error texts when the object has no service name.
    const std::string &name() const { return m_name; }
    void setName(std::string name) { m_name = std::move(name); }

    const std::vector<MetaMethod> &methods() const { return m_methods; }
    const std::vector<MetaSignal> &signals() const { return m_signals; }
    const std::vector<MetaProperty> &properties() const { return m_properties; }

    // All overloads of `name`.
    std::vector<MetaMethod> findMethod(const std::string &name) const;
    const MetaMethod *method(const std::string &name, unsigned arity) const;
    const MetaSignal *signal(const std::string &name) const;
    const MetaProperty *property(const std::string &name) const;

    // Each returns the new member's uid. Adding a method with a name and
    // arity already present throws std::invalid_argument.
    unsigned addMethod(const std::string &name, unsigned arity);
    unsigned addSignal(const std::string &name, unsigned arity);
    unsigned addProperty(const std::string &name);

private:
    unsigned nextUid();

    std::string m_name;
    std::vector<MetaMethod> m_methods;
    std::vector<MetaSignal> m_signals;
    std::vector<MetaProperty> m_properties;
};

// The fixed error texts, for servers that produce them themselves.
WZ_API std::string methodNotFoundText(const std::string &method, size_t arity,
                                      const std::string &object);
WZ_API std::string serviceNotFoundText(const std::string &name);
WZ_API std::string signalNotFoundText(const std::string &signal, const std::string &object);
WZ_API std::string propertyNotFoundText(const std::string &property, const std::string &object);

class Object;

namespace detail {
template<typename F>
struct CallableTraits : CallableTraits<decltype(&std::decay_t<F>::operator())>
{
};
template<typename R, typename... A>
struct CallableTraits<R (*)(A...)>
{
    using Result = R;
    using Args = std::tuple<std::decay_t<A>...>;
    static constexpr unsigned arity = sizeof...(A);
};
template<typename R, typename... A>
struct CallableTraits<R(A...)> : CallableTraits<R (*)(A...)>
{
};
template<typename C, typename R, typename... A>
struct CallableTraits<R (C::*)(A...)> : CallableTraits<R (*)(A...)>
{
};
template<typename C, typename R, typename... A>
struct CallableTraits<R (C::*)(A...) const> : CallableTraits<R (*)(A...)>
{
};
template<typename R, typename... A>
struct CallableTraits<R (*)(A...) noexcept> : CallableTraits<R (*)(A...)>
{
};
template<typename C, typename R, typename... A>
struct CallableTraits<R (C::*)(A...) noexcept> : CallableTraits<R (*)(A...)>
{
};
template<typename C, typename R, typename... A>
struct CallableTraits<R (C::*)(A...) const noexcept> : CallableTraits<R (*)(A...)>
{
};

// Calls `f` with the values converted to its parameter types.
template<typename F, typename... A, std::size_t... I>
auto applyAny(F &f, const std::vector<AnyValue> &args, std::tuple<A...> *,
              std::index_sequence<I...>)
{
    (void)args;
    return f(fromAny<A>(args[I])...);
}

template<typename F>
AnyValue invokeAny(F &f, const std::vector<AnyValue> &args)
{
    using Traits = CallableTraits<F>;
    using Args = typename Traits::Args;
    if (args.size() != Traits::arity)
        throw TypeError(arityMismatchText(Traits::arity, args.size()));
    constexpr auto seq = std::make_index_sequence<std::tuple_size<Args>::value>();
    if constexpr (std::is_void<typename Traits::Result>::value) {
        applyAny(f, args, static_cast<Args *>(nullptr), seq);
        return AnyValue();
    } else {
        return toAny(applyAny(f, args, static_cast<Args *>(nullptr), seq));
    }
}

// A generic callback that converts the signal's values to the types of `f`;
// values that do not fit are logged and dropped.
template<typename F>
GenericCallback typedCallback(const std::string &signal, F f)
{
    return [signal, f](const std::vector<AnyValue> &args) mutable {
        try {
            invokeAny(f, args);
        } catch (const std::exception &e) {
            logCallbackFailure(signal.c_str(), e.what());
        }
    };
}

template<typename R>
Future<R> convertFuture(const Future<AnyValue> &f);

template<typename... A>
std::vector<AnyValue> packArgs(const A &...args)
{
    return std::vector<AnyValue> {toAny(args)...};
}
} // namespace detail

// An object, local or remote, seen through one interface. Local calls run
// the method on the calling thread; remote calls go over the connection and
// the peer runs them on its framework threads.
class WZ_API GenericObject : public boost::enable_shared_from_this<GenericObject>
{
public:
    GenericObject();
    virtual ~GenericObject();
    GenericObject(const GenericObject &) = delete;
    GenericObject &operator=(const GenericObject &) = delete;

    virtual const MetaObject &metaObject() const = 0;
    virtual Future<AnyValue> metaCall(const std::string &method, std::vector<AnyValue> args) = 0;
    // No reply; failures are logged by the side that runs the method.
    virtual void metaPost(const std::string &method, std::vector<AnyValue> args) = 0;
    virtual Future<SignalLink> connect(const std::string &signal, GenericCallback cb) = 0;
    virtual Future<void> disconnect(SignalLink link) = 0;
    virtual Future<AnyValue> property(const std::string &name) = 0;
    virtual Future<void> setProperty(const std::string &name, AnyValue value) = 0;
    virtual bool isRemote() const = 0;
    // Whether a peer's call of this method may run on the I/O thread that
    // read it (MethodFlag_Direct). Only local objects' methods can be.
    virtual bool isDirect(const std::string &method, size_t arity) const;
    // Local objects only: runs the signal's subscribers (remote ones get an
    // emit message). Throws std::runtime_error on a remote object or an
    // unknown signal, TypeError when the values do not fit.
    virtual void emitSignal(const std::string &signal, std::vector<AnyValue> args);

    // The name used in error texts: the service name when there is one,
    // otherwise the type's.
    std::string displayName() const;
    void setDisplayName(const std::string &name);

    // Process-wide identity, the same whichever handle refers to it.
    uint64_t objectUid() const { return m_uid; }

    // Blocking call; throws FutureError with the peer's error text, or
    // TypeError when the result does not convert to R.
    template<typename R, typename... A>
    R call(const std::string &method, const A &...args)
    {
        Future<AnyValue> f = metaCall(method, detail::packArgs(args...));
        if constexpr (std::is_void<R>::value) {
            f.value();
        } else {
            return fromAny<R>(f.value());
        }
    }

    template<typename R, typename... A>
    Future<R> async(const std::string &method, const A &...args)
    {
        return detail::convertFuture<R>(metaCall(method, detail::packArgs(args...)));
    }

    template<typename... A>
    void post(const std::string &method, const A &...args)
    {
        metaPost(method, detail::packArgs(args...));
    }

    template<typename T>
    Future<T> property(const std::string &name)
    {
        return detail::convertFuture<T>(property(name));
    }

    template<typename T>
    Future<void> setProperty(const std::string &name, const T &value)
    {
        return setProperty(name, toAny(value));
    }

    template<typename... A>
    Future<SignalLink> connect(const std::string &signal, std::function<void(A...)> cb)
    {
        return connect(signal, detail::typedCallback(signal, std::move(cb)));
    }

    // Any callable with fixed parameter types: connect("sig", [](int, std::string) {...}).
    template<typename F,
             typename = std::enable_if_t<!std::is_convertible<F, GenericCallback>::value>,
             typename = decltype(&std::decay_t<F>::operator())>
    Future<SignalLink> connect(const std::string &signal, F &&f)
    {
        return connect(signal, detail::typedCallback(signal, std::decay_t<F>(std::forward<F>(f))));
    }

private:
    uint64_t m_uid;
    mutable std::mutex m_nameMutex;
    std::string m_displayName;
};

// A handle to a GenericObject; copyable, may be null. The typed helpers throw
// std::runtime_error on a null handle.
class WZ_API Object
{
public:
    Object();
    Object(boost::shared_ptr<GenericObject> object);

    bool isValid() const { return static_cast<bool>(m_object); }
    explicit operator bool() const { return isValid(); }
    GenericObject *operator->() const { return m_object.get(); }
    GenericObject &operator*() const { return *m_object; }
    boost::shared_ptr<GenericObject> asGenericObject() const { return m_object; }
    bool operator==(const Object &other) const { return m_object == other.m_object; }
    bool operator!=(const Object &other) const { return m_object != other.m_object; }
    bool operator<(const Object &other) const { return m_object < other.m_object; }
    void reset() { m_object.reset(); }

    const MetaObject &metaObject() const { return checked().metaObject(); }

    template<typename R, typename... A>
    R call(const std::string &method, const A &...args) const
    {
        return checked().template call<R>(method, args...);
    }
    template<typename R, typename... A>
    Future<R> async(const std::string &method, const A &...args) const
    {
        return checked().template async<R>(method, args...);
    }
    template<typename... A>
    void post(const std::string &method, const A &...args) const
    {
        checked().post(method, args...);
    }
    template<typename T>
    Future<T> property(const std::string &name) const
    {
        return checked().template property<T>(name);
    }
    Future<AnyValue> property(const std::string &name) const { return checked().property(name); }
    template<typename T>
    Future<void> setProperty(const std::string &name, const T &value) const
    {
        return checked().setProperty(name, toAny(value));
    }
    Future<SignalLink> connect(const std::string &signal, GenericCallback cb) const
    {
        return checked().connect(signal, std::move(cb));
    }
    template<typename... A>
    Future<SignalLink> connect(const std::string &signal, std::function<void(A...)> cb) const
    {
        return checked().connect(signal, std::move(cb));
    }
    template<typename F,
             typename = std::enable_if_t<!std::is_convertible<F, GenericCallback>::value>,
             typename = decltype(&std::decay_t<F>::operator())>
    Future<SignalLink> connect(const std::string &signal, F &&f) const
    {
        return checked().connect(signal, std::forward<F>(f));
    }
    Future<void> disconnect(SignalLink link) const { return checked().disconnect(link); }

private:
    GenericObject &checked() const;

    boost::shared_ptr<GenericObject> m_object;
};

using AnyObject = Object;

template<>
struct TypeConverter<Object>
{
    static AnyValue toAny(const Object &v) { return AnyValue(v); }
    static Object fromAny(const AnyValue &v) { return v.toObject(); }
};

template<>
struct TypeConverter<boost::shared_ptr<GenericObject>>
{
    static AnyValue toAny(const boost::shared_ptr<GenericObject> &v) { return AnyValue(Object(v)); }
    static boost::shared_ptr<GenericObject> fromAny(const AnyValue &v)
    {
        return v.toGenericObject();
    }
};

namespace detail {

// Completes the converted future on the thread that completes the source;
// the conversion is cheap and must not wait for a free framework thread.
template<typename R>
Future<R> convertFuture(const Future<AnyValue> &f)
{
    if constexpr (std::is_same<R, AnyValue>::value) {
        return f;
    } else {
        auto source = FutureAccess<AnyValue>::state(f);
        std::weak_ptr<FutureData<AnyValue>> weak = source;
        Promise<R> promise([weak](Promise<R> &) {
            if (auto s = weak.lock())
                s->requestCancel();
        });
        if (!source)
            return makeFutureError<R>(invalidFutureText());
        if (auto state = FutureAccess<R>::state(promise.future()))
            state->setWaitHelper(source->waitHelper());
        source->addDirectCallback([promise, source]() mutable {
            const FutureState st = source->state();
            if (st == FutureState_Canceled) {
                promise.setCanceled();
            } else if (st != FutureState_FinishedWithValue) {
                promise.setError(source->error());
            } else {
                try {
                    if constexpr (std::is_void<R>::value) {
                        promise.setValue();
                    } else {
                        promise.setValue(fromAny<R>(source->value()));
                    }
                } catch (const std::exception &e) {
                    promise.setError(e.what());
                }
            }
        });
        return promise.future();
    }
}

} // namespace detail

} // namespace wz

#pragma pop_macro("signals")
