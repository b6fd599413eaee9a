#pragma once

// Qt defines "signals" as a keyword macro; this header names members so, and
// must read the same whether or not Qt's headers came first.
#pragma push_macro("signals")
#undef signals

#include <sim/api.h>

#include <wz/any_value.h>
#include <wz/object.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sim {

class Robot;

using Args = std::vector<wz::AnyValue>;
using MethodFn = std::function<wz::AnyValue(const Args &args)>;

struct MethodDef
{
    std::string name;
    unsigned arity = 0;
    MethodFn fn;
    // A getter that answers at once from the service's state: served on the
    // I/O thread while no scenario rule (delay, hold, failure) is set on it.
    bool direct = false;
};

struct SignalDef
{
    std::string name;
    unsigned arity = 0;
};

struct PropertyDef
{
    std::string name;
    wz::AnyValue initial;
};

// What a service offers, collected once; the robot turns it into a wz object
// and wraps every method with the scenario layer (rules, call log, delays).
class SIM_API ServiceBuilder
{
public:
    // `flags`: wz::MethodFlag_Direct for a method that answers at once and
    // never waits (see MethodDef::direct).
    void method(const std::string &name, unsigned arity, MethodFn fn,
                wz::MethodFlag flags = wz::MethodFlag_None);
    // Arity and argument conversions from the callable's own signature; a
    // value of the wrong shape fails the call with the framework's TypeError.
    template<typename F>
    void method(const std::string &name, F typedCallable,
                wz::MethodFlag flags = wz::MethodFlag_None)
    {
        using Traits = wz::detail::CallableTraits<F>;
        method(
            name, Traits::arity,
            [f = std::move(typedCallable)](const Args &args) mutable {
                return wz::detail::invokeAny(f, args);
            },
            flags);
    }
    void signal(const std::string &name, unsigned arity);
    void property(const std::string &name, wz::AnyValue initial);

    const std::vector<MethodDef> &methods() const { return m_methods; }
    const std::vector<SignalDef> &signals() const { return m_signals; }
    const std::vector<PropertyDef> &properties() const { return m_properties; }

private:
    std::vector<MethodDef> m_methods;
    std::vector<SignalDef> m_signals;
    std::vector<PropertyDef> m_properties;
};

// One service of the simulated robot. A subclass declares its methods in
// describe() and keeps its state behind its own lock: methods run on the
// framework's threads, many at once.
class SIM_API Service
{
public:
    explicit Service(std::string name);
    virtual ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    const std::string &name() const { return m_name; }

    // Called once, before the robot starts.
    virtual void describe(ServiceBuilder &builder) = 0;
    // After the robot listens, before the service is registered.
    virtual void start() { }
    // Before the session closes; must end every thread the service started.
    virtual void stop() { }
    // The service's section of a scenario file ("services": {"NAME": {...}}),
    // as a Map. Throws std::runtime_error for settings it does not take.
    virtual void configure(const wz::AnyValue &settings);

    // Emits one of the service's own signals to its subscribers; nothing
    // happens while the service is not registered.
    void emitSignal(const std::string &signal, const Args &args);

protected:
    Robot &robot() const { return *m_robot; }

private:
    friend class Robot;
    std::string m_name;
    Robot *m_robot = nullptr;
};

// A service with no method yet: the robot lists it and every call fails with
// the framework's "method not found", as on an older runtime.
class SIM_API PlaceholderService : public Service
{
public:
    using Service::Service;
    void describe(ServiceBuilder &) override { }
};

using ServiceFactory = std::function<std::unique_ptr<Service>()>;

struct ServiceEntry
{
    std::string name;
    ServiceFactory factory;
};

// Every service the robot offers, in registration order (service_catalog.cpp).
SIM_API std::vector<ServiceEntry> defaultServices();

} // namespace sim

#pragma pop_macro("signals")
