#pragma once

// Qt defines "signals" as a keyword macro; this header names members so, and
// must read the same whether or not Qt's headers came first.
#pragma push_macro("signals")
#undef signals

#include <wz/any_value.h>
#include <wz/api.h>
#include <wz/object.h>
#include <wz/signal.h>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

namespace wz {

namespace detail {

// How to serve one C++ type (or one dynamic object): the members reach the
// instance through a void pointer so that this part is not a template.
struct WZ_API TypeDescription
{
    using Invoke = std::function<AnyValue(void *self, const std::vector<AnyValue> &args)>;
    using SignalGetter = std::function<SignalBase *(void *self)>;

    // Asked as each call arrives; empty: never direct (see MethodFlag_Direct).
    using DirectWhen = std::function<bool()>;

    struct Method
    {
        std::string name;
        unsigned arity = 0;
        Invoke invoke;
        DirectWhen direct;
    };
    struct SignalEntry
    {
        std::string name;
        unsigned arity = 0;
        SignalGetter get; // empty: a signal held by the object itself (dynamic)
    };
    struct PropertyEntry
    {
        std::string name;
        std::function<AnyValue(void *self)> get; // empty: dynamic, starts at `initial`
        std::function<void(void *self, const AnyValue &value)> set;
        SignalGetter changed;
        AnyValue initial;
    };

    MetaObject meta;
    std::vector<Method> methods;
    std::vector<SignalEntry> signals;
    std::vector<PropertyEntry> properties;

    unsigned addMethod(const std::string &name, unsigned arity, Invoke invoke,
                       MethodFlag flags = MethodFlag_None);
    unsigned addMethod(const std::string &name, unsigned arity, Invoke invoke, DirectWhen direct);
    unsigned addSignal(const std::string &name, unsigned arity, SignalGetter get);
    unsigned addProperty(PropertyEntry entry);
};

WZ_API unsigned registerTypeDescription(const std::type_info &type,
                                        std::shared_ptr<const TypeDescription> description);
WZ_API std::shared_ptr<const TypeDescription> findTypeDescription(const std::type_info &type);
WZ_API Object makeLocalObject(std::shared_ptr<const TypeDescription> description,
                              boost::shared_ptr<void> instance);
WZ_API std::string typeName(const std::type_info &type);
[[noreturn]] WZ_API void throwNotRegistered(const std::type_info &type);

template<typename C, typename Fn, typename... A, std::size_t... I>
auto applyMember(C *self, Fn fn, const std::vector<AnyValue> &args, std::tuple<A...> *,
                 std::index_sequence<I...>)
{
    (void)args;
    return (self->*fn)(fromAny<A>(args[I])...);
}

} // namespace detail

// Describes a C++ class to the framework once; then makeObject() turns any
// boost::shared_ptr<C> into an Object whose methods, signals and properties
// can be reached locally and over the network.
//
//   wz::ObjectTypeBuilder<Counter> b;
//   b.advertiseMethod("add", &Counter::add);
//   b.advertiseSignal("changed", &Counter::changed);
//   b.registerType();
//   wz::Object o = wz::makeObject(boost::make_shared<Counter>());
template<typename C>
class ObjectTypeBuilder
{
public:
    explicit ObjectTypeBuilder(const std::string &name = std::string())
        : m_desc(std::make_shared<detail::TypeDescription>())
    {
        m_desc->meta.setName(name.empty() ? detail::typeName(typeid(C)) : name);
    }

    // The arity comes from the member function's signature; overloads need a
    // cast to pick one: static_cast<int (C::*)(int)>(&C::f).
    template<typename M>
    unsigned advertiseMethod(const std::string &name, M C::*fn, MethodFlag flags = MethodFlag_None)
    {
        using Traits = detail::CallableTraits<M C::*>;
        using Args = typename Traits::Args;
        auto invoke = [fn](void *self, const std::vector<AnyValue> &args) -> AnyValue {
            if (args.size() != Traits::arity)
                throw TypeError(detail::arityMismatchText(Traits::arity, args.size()));
            C *c = static_cast<C *>(self);
            constexpr auto seq = std::make_index_sequence<std::tuple_size<Args>::value>();
            if constexpr (std::is_void<typename Traits::Result>::value) {
                detail::applyMember(c, fn, args, static_cast<Args *>(nullptr), seq);
                return AnyValue();
            } else {
                return toAny(detail::applyMember(c, fn, args, static_cast<Args *>(nullptr), seq));
            }
        };
        return m_desc->addMethod(name, Traits::arity, invoke, flags);
    }

    template<typename... A>
    unsigned advertiseSignal(const std::string &name, Signal<A...> C::*member)
    {
        return m_desc->addSignal(name, sizeof...(A), [member](void *self) -> SignalBase * {
            return &(static_cast<C *>(self)->*member);
        });
    }

    // Subscribing to the property's name delivers its changes.
    template<typename T>
    unsigned advertiseProperty(const std::string &name, Property<T> C::*member)
    {
        detail::TypeDescription::PropertyEntry e;
        e.name = name;
        e.get = [member](void *self) { return (static_cast<C *>(self)->*member).getAny(); };
        e.set = [member](void *self, const AnyValue &v) {
            (static_cast<C *>(self)->*member).setAny(v);
        };
        e.changed = [member](void *self) -> SignalBase * {
            return &(static_cast<C *>(self)->*member).changed;
        };
        return m_desc->addProperty(std::move(e));
    }

    // Process-wide registry keyed by typeid(C); registering again replaces
    // nothing and returns the same id.
    unsigned registerType() { return detail::registerTypeDescription(typeid(C), m_desc); }

    Object object(boost::shared_ptr<C> instance) const
    {
        return detail::makeLocalObject(m_desc, boost::shared_ptr<void>(std::move(instance)));
    }

    const MetaObject &metaObject() const { return m_desc->meta; }

private:
    std::shared_ptr<detail::TypeDescription> m_desc;
};

// Throws std::runtime_error when C was never registered.
template<typename C>
Object makeObject(boost::shared_ptr<C> instance)
{
    auto desc = detail::findTypeDescription(typeid(C));
    if (!desc)
        detail::throwNotRegistered(typeid(C));
    return detail::makeLocalObject(std::move(desc), boost::shared_ptr<void>(std::move(instance)));
}

// An object whose methods are plain functions, signals are emitted with
// GenericObject::emitSignal and properties are values held by the object.
class WZ_API DynamicObjectBuilder
{
public:
    using Method = std::function<AnyValue(const std::vector<AnyValue> &args)>;

    explicit DynamicObjectBuilder(const std::string &name = "DynamicObject");

    unsigned advertiseMethod(const std::string &name, unsigned arity, Method fn,
                             MethodFlag flags = MethodFlag_None);
    // Direct for the calls that arrive while `directWhen()` says so: for a
    // method that is quick except in states it can see (it is asked on the
    // I/O thread, so it must itself be quick and never wait).
    unsigned advertiseMethod(const std::string &name, unsigned arity, Method fn,
                             std::function<bool()> directWhen);
    // Arity and conversions from the callable's own signature.
    template<typename F>
    unsigned advertiseMethod(const std::string &name, F typedCallable,
                             MethodFlag flags = MethodFlag_None)
    {
        using Traits = detail::CallableTraits<F>;
        return advertiseMethod(
            name, Traits::arity,
            [f = std::move(typedCallable)](const std::vector<AnyValue> &args) mutable {
                return detail::invokeAny(f, args);
            },
            flags);
    }
    unsigned advertiseSignal(const std::string &name, unsigned arity);
    unsigned advertiseProperty(const std::string &name, AnyValue initial);

    // Each call makes a new object (with fresh property values).
    Object object();

    const MetaObject &metaObject() const;

private:
    std::shared_ptr<detail::TypeDescription> m_desc;
};

using ObjectFactory = std::function<Object(const std::vector<AnyValue> &args)>;
// False when the name is taken.
WZ_API bool registerObjectFactory(const std::string &name, ObjectFactory factory);
WZ_API std::vector<std::string> listObjectFactories();
// Throws std::runtime_error for an unknown name; the factory's own exceptions pass through.
WZ_API Object createObject(const std::string &name, const std::vector<AnyValue> &args = {});

} // namespace wz

#pragma pop_macro("signals")
