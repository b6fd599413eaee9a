#include "runtime.h"

#include <wz/log.h>
#include <wz/object.h>
#include <wz/object_builder.h>

#include <boost/make_shared.hpp>

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <typeindex>

namespace wz {

// ---- error texts -----------------------------------------------------------

std::string methodNotFoundText(const std::string &method, size_t arity, const std::string &object)
{
    return "method \"" + method + "\" with " + std::to_string(arity)
        + " argument(s) not found on \"" + object + "\"";
}

std::string serviceNotFoundText(const std::string &name)
{
    return "service \"" + name + "\" not found";
}

std::string signalNotFoundText(const std::string &signal, const std::string &object)
{
    return "signal \"" + signal + "\" not found on \"" + object + "\"";
}

std::string propertyNotFoundText(const std::string &property, const std::string &object)
{
    return "property \"" + property + "\" not found on \"" + object + "\"";
}

// ---- MetaObject ------------------------------------------------------------

MetaObject::MetaObject() = default;
MetaObject::MetaObject(std::string name) : m_name(std::move(name)) { }

std::vector<MetaMethod> MetaObject::findMethod(const std::string &name) const
{
    std::vector<MetaMethod> out;
    for (const MetaMethod &m : m_methods) {
        if (m.name == name)
            out.push_back(m);
    }
    return out;
}

const MetaMethod *MetaObject::method(const std::string &name, unsigned arity) const
{
    for (const MetaMethod &m : m_methods) {
        if (m.name == name && m.arity == arity)
            return &m;
    }
    return nullptr;
}

const MetaSignal *MetaObject::signal(const std::string &name) const
{
    for (const MetaSignal &s : m_signals) {
        if (s.name == name)
            return &s;
    }
    return nullptr;
}

const MetaProperty *MetaObject::property(const std::string &name) const
{
    for (const MetaProperty &p : m_properties) {
        if (p.name == name)
            return &p;
    }
    return nullptr;
}

unsigned MetaObject::nextUid()
{
    return static_cast<unsigned>(m_methods.size() + m_signals.size() + m_properties.size() + 1);
}

unsigned MetaObject::addMethod(const std::string &name, unsigned arity)
{
    if (method(name, arity))
        throw std::invalid_argument("method \"" + name + "\" with " + std::to_string(arity)
                                    + " argument(s) is already advertised");
    const unsigned uid = nextUid();
    m_methods.push_back(MetaMethod {uid, name, arity});
    return uid;
}

unsigned MetaObject::addSignal(const std::string &name, unsigned arity)
{
    if (signal(name) || property(name))
        throw std::invalid_argument("signal \"" + name + "\" is already advertised");
    const unsigned uid = nextUid();
    m_signals.push_back(MetaSignal {uid, name, arity});
    return uid;
}

unsigned MetaObject::addProperty(const std::string &name)
{
    if (signal(name) || property(name))
        throw std::invalid_argument("property \"" + name + "\" is already advertised");
    const unsigned uid = nextUid();
    m_properties.push_back(MetaProperty {uid, name});
    return uid;
}

// ---- GenericObject, Object -------------------------------------------------

namespace {
std::atomic<uint64_t> g_nextObjectUid {1};
}

GenericObject::GenericObject() : m_uid(g_nextObjectUid++) { }
GenericObject::~GenericObject() = default;

bool GenericObject::isDirect(const std::string &, size_t) const
{
    return false;
}

void GenericObject::emitSignal(const std::string &signal, std::vector<AnyValue>)
{
    throw std::runtime_error("cannot emit signal \"" + signal + "\" on \"" + displayName()
                             + "\": signals are emitted by the side that owns the object");
}

std::string GenericObject::displayName() const
{
    {
        std::lock_guard<std::mutex> lock(m_nameMutex);
        if (!m_displayName.empty())
            return m_displayName;
    }
    return metaObject().name();
}

void GenericObject::setDisplayName(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_nameMutex);
    m_displayName = name;
}

Object::Object() = default;
Object::Object(boost::shared_ptr<GenericObject> object) : m_object(std::move(object)) { }

GenericObject &Object::checked() const
{
    if (!m_object)
        throw std::runtime_error("null object: this handle refers to no object");
    return *m_object;
}

// ---- local objects ---------------------------------------------------------

namespace detail {

unsigned TypeDescription::addMethod(const std::string &name, unsigned arity, Invoke invoke,
                                    MethodFlag flags)
{
    DirectWhen direct;
    if (flags & MethodFlag_Direct)
        direct = [] { return true; };
    return addMethod(name, arity, std::move(invoke), std::move(direct));
}

unsigned TypeDescription::addMethod(const std::string &name, unsigned arity, Invoke invoke,
                                    DirectWhen direct)
{
    const unsigned uid = meta.addMethod(name, arity);
    methods.push_back(Method {name, arity, std::move(invoke), std::move(direct)});
    return uid;
}

unsigned TypeDescription::addSignal(const std::string &name, unsigned arity, SignalGetter get)
{
    const unsigned uid = meta.addSignal(name, arity);
    signals.push_back(SignalEntry {name, arity, std::move(get)});
    return uid;
}

unsigned TypeDescription::addProperty(PropertyEntry entry)
{
    const unsigned uid = meta.addProperty(entry.name);
    properties.push_back(std::move(entry));
    return uid;
}

namespace {

// A signal with no C++ type: the values are passed through as they are.
class DynamicSignal : public SignalBase
{
public:
    explicit DynamicSignal(unsigned arity) : m_arity(arity) { }

    unsigned arity() const override { return m_arity; }
    SignalLink connectAny(GenericCallback cb) override
    {
        const SignalLink link = nextLink();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_callbacks.emplace(link, std::make_shared<GenericCallback>(std::move(cb)));
        return link;
    }
    void emitAny(const std::vector<AnyValue> &args) override
    {
        if (args.size() != m_arity)
            throw TypeError(arityMismatchText(m_arity, args.size()));
        std::vector<std::shared_ptr<GenericCallback>> cbs;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (auto &c : m_callbacks)
                cbs.push_back(c.second);
        }
        for (auto &c : cbs) {
            try {
                (*c)(args);
            } catch (const std::exception &e) {
                logCallbackFailure("signal callback", e.what());
            }
        }
    }
    bool disconnect(SignalLink link) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_callbacks.erase(link) > 0;
    }
    bool hasSubscribers() const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_callbacks.empty();
    }

private:
    unsigned m_arity;
    mutable std::mutex m_mutex;
    std::map<SignalLink, std::shared_ptr<GenericCallback>> m_callbacks;
};

class LocalObject : public GenericObject
{
public:
    LocalObject(std::shared_ptr<const TypeDescription> desc, boost::shared_ptr<void> instance)
        : m_desc(std::move(desc)),
          m_instance(std::move(instance)),
          m_posts(std::make_shared<SerialQueue>())
    {
        for (const auto &s : m_desc->signals) {
            if (!s.get)
                m_dynamicSignals.emplace(s.name, std::make_unique<DynamicSignal>(s.arity));
        }
        for (const auto &p : m_desc->properties) {
            if (!p.get) {
                DynamicProperty dp;
                dp.value = p.initial;
                dp.changed = std::make_unique<DynamicSignal>(1);
                m_dynamicProperties.emplace(p.name, std::move(dp));
            }
        }
    }

    const MetaObject &metaObject() const override { return m_desc->meta; }
    bool isRemote() const override { return false; }

    bool isDirect(const std::string &method, size_t arity) const override
    {
        for (const auto &m : m_desc->methods) {
            if (m.name == method && m.arity == arity)
                return m.direct && m.direct();
        }
        return false;
    }

    Future<AnyValue> metaCall(const std::string &method, std::vector<AnyValue> args) override
    {
        for (const auto &m : m_desc->methods) {
            if (m.name != method || m.arity != args.size())
                continue;
            try {
                return makeReadyFuture(m.invoke(m_instance.get(), args));
            } catch (const std::exception &e) {
                return makeFutureError<AnyValue>(e.what());
            } catch (...) {
                return makeFutureError<AnyValue>("unknown exception in \"" + method + "\"");
            }
        }
        return makeFutureError<AnyValue>(methodNotFoundText(method, args.size(), displayName()));
    }

    void metaPost(const std::string &method, std::vector<AnyValue> args) override
    {
        boost::shared_ptr<GenericObject> self = shared_from_this();
        m_posts->post([self, method, args]() mutable {
            Future<AnyValue> f = self->metaCall(method, std::move(args));
            if (f.hasError())
                log::LogStream(LogLevel_Warning, "wz.object", "metaPost")
                    << "posted call \"" << method << "\" on \"" << self->displayName()
                    << "\" failed: " << f.error();
        });
    }

    Future<SignalLink> connect(const std::string &signal, GenericCallback cb) override
    {
        SignalBase *sig = findSignal(signal);
        if (!sig)
            return makeFutureError<SignalLink>(signalNotFoundText(signal, displayName()));
        const SignalLink link = sig->connectAny(std::move(cb));
        std::lock_guard<std::mutex> lock(m_mutex);
        m_links.emplace(link, sig);
        return makeReadyFuture(link);
    }

    Future<void> disconnect(SignalLink link) override
    {
        SignalBase *sig = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_links.find(link);
            if (it != m_links.end()) {
                sig = it->second;
                m_links.erase(it);
            }
        }
        if (!sig || !sig->disconnect(link))
            return makeFutureError<void>("no subscription " + std::to_string(link) + " on \""
                                         + displayName() + "\"");
        return makeReadyFuture();
    }

    Future<AnyValue> property(const std::string &name) override
    {
        for (const auto &p : m_desc->properties) {
            if (p.name != name)
                continue;
            try {
                if (p.get)
                    return makeReadyFuture(p.get(m_instance.get()));
                std::lock_guard<std::mutex> lock(m_mutex);
                return makeReadyFuture(m_dynamicProperties.at(name).value);
            } catch (const std::exception &e) {
                return makeFutureError<AnyValue>(e.what());
            }
        }
        return makeFutureError<AnyValue>(propertyNotFoundText(name, displayName()));
    }

    Future<void> setProperty(const std::string &name, AnyValue value) override
    {
        for (const auto &p : m_desc->properties) {
            if (p.name != name)
                continue;
            try {
                if (p.set) {
                    p.set(m_instance.get(), value);
                } else {
                    SignalBase *changed;
                    {
                        std::lock_guard<std::mutex> lock(m_mutex);
                        DynamicProperty &dp = m_dynamicProperties.at(name);
                        dp.value = value;
                        changed = dp.changed.get();
                    }
                    changed->emitAny({value});
                }
                return makeReadyFuture();
            } catch (const std::exception &e) {
                return makeFutureError<void>(e.what());
            }
        }
        return makeFutureError<void>(propertyNotFoundText(name, displayName()));
    }

    void emitSignal(const std::string &signal, std::vector<AnyValue> args) override
    {
        SignalBase *sig = findSignal(signal);
        if (!sig)
            throw std::runtime_error(signalNotFoundText(signal, displayName()));
        sig->emitAny(args);
    }

private:
    struct DynamicProperty
    {
        AnyValue value;
        std::unique_ptr<DynamicSignal> changed;
    };

    SignalBase *findSignal(const std::string &name)
    {
        for (const auto &s : m_desc->signals) {
            if (s.name != name)
                continue;
            if (s.get)
                return s.get(m_instance.get());
            return m_dynamicSignals.at(name).get();
        }
        for (const auto &p : m_desc->properties) {
            if (p.name != name)
                continue;
            if (p.changed)
                return p.changed(m_instance.get());
            return m_dynamicProperties.at(name).changed.get();
        }
        return nullptr;
    }

    std::shared_ptr<const TypeDescription> m_desc;
    boost::shared_ptr<void> m_instance;
    std::shared_ptr<SerialQueue> m_posts;
    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<DynamicSignal>> m_dynamicSignals;
    std::map<std::string, DynamicProperty> m_dynamicProperties;
    std::map<SignalLink, SignalBase *> m_links;
};

struct TypeRegistry
{
    std::mutex mutex;
    std::map<std::type_index, std::pair<unsigned, std::shared_ptr<const TypeDescription>>> types;
    std::map<std::string, ObjectFactory> factories;
};

TypeRegistry &registry()
{
    static TypeRegistry *r = new TypeRegistry;
    return *r;
}

} // namespace

unsigned registerTypeDescription(const std::type_info &type,
                                 std::shared_ptr<const TypeDescription> description)
{
    TypeRegistry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.types.find(std::type_index(type));
    if (it != r.types.end())
        return it->second.first;
    const unsigned id = static_cast<unsigned>(r.types.size() + 1);
    r.types.emplace(std::type_index(type), std::make_pair(id, std::move(description)));
    return id;
}

std::shared_ptr<const TypeDescription> findTypeDescription(const std::type_info &type)
{
    TypeRegistry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.types.find(std::type_index(type));
    return it == r.types.end() ? nullptr : it->second.second;
}

Object makeLocalObject(std::shared_ptr<const TypeDescription> description,
                       boost::shared_ptr<void> instance)
{
    if (!instance && !description->methods.empty())
        throw std::invalid_argument("cannot make an object of \"" + description->meta.name()
                                    + "\" from a null instance");
    return Object(boost::make_shared<LocalObject>(std::move(description), std::move(instance)));
}

std::string typeName(const std::type_info &type)
{
    int status = 0;
    char *demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string out = (status == 0 && demangled) ? demangled : type.name();
    std::free(demangled);
    return out;
}

void throwNotRegistered(const std::type_info &type)
{
    throw std::runtime_error(
        "type \"" + typeName(type)
        + "\" is not registered: call ObjectTypeBuilder::registerType() first");
}

} // namespace detail

// ---- DynamicObjectBuilder, factories ---------------------------------------

DynamicObjectBuilder::DynamicObjectBuilder(const std::string &name)
    : m_desc(std::make_shared<detail::TypeDescription>())
{
    m_desc->meta.setName(name);
}

unsigned DynamicObjectBuilder::advertiseMethod(const std::string &name, unsigned arity, Method fn,
                                               MethodFlag flags)
{
    std::function<bool()> direct;
    if (flags & MethodFlag_Direct)
        direct = [] { return true; };
    return advertiseMethod(name, arity, std::move(fn), std::move(direct));
}

unsigned DynamicObjectBuilder::advertiseMethod(const std::string &name, unsigned arity, Method fn,
                                               std::function<bool()> directWhen)
{
    auto shared = std::make_shared<Method>(std::move(fn));
    return m_desc->addMethod(
        name, arity,
        [shared](void *, const std::vector<AnyValue> &args) { return (*shared)(args); },
        std::move(directWhen));
}

unsigned DynamicObjectBuilder::advertiseSignal(const std::string &name, unsigned arity)
{
    return m_desc->addSignal(name, arity, nullptr);
}

unsigned DynamicObjectBuilder::advertiseProperty(const std::string &name, AnyValue initial)
{
    detail::TypeDescription::PropertyEntry e;
    e.name = name;
    e.initial = std::move(initial);
    return m_desc->addProperty(std::move(e));
}

Object DynamicObjectBuilder::object()
{
    // Each object gets a snapshot, so later advertising does not change it.
    auto snapshot = std::make_shared<const detail::TypeDescription>(*m_desc);
    return Object(boost::make_shared<detail::LocalObject>(snapshot, boost::shared_ptr<void>()));
}

const MetaObject &DynamicObjectBuilder::metaObject() const
{
    return m_desc->meta;
}

bool registerObjectFactory(const std::string &name, ObjectFactory factory)
{
    auto &r = detail::registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.factories.emplace(name, std::move(factory)).second;
}

std::vector<std::string> listObjectFactories()
{
    auto &r = detail::registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::vector<std::string> out;
    for (const auto &f : r.factories)
        out.push_back(f.first);
    return out;
}

Object createObject(const std::string &name, const std::vector<AnyValue> &args)
{
    ObjectFactory factory;
    {
        auto &r = detail::registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.factories.find(name);
        if (it == r.factories.end())
            throw std::runtime_error("no object factory named \"" + name + "\"");
        factory = it->second;
    }
    return factory(args);
}

} // namespace wz
