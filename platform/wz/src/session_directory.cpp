// The service directory: what is registered here, lookups and registrations
// from clients, and the same asked of the directory this session connected to.

#include "session_impl.h"

#include <wz/log.h>

namespace wz {
namespace detail {

unsigned SessionImpl::addService(const std::string &name, const Object &object,
                                 const PeerLink *owner, const std::string &endpoint,
                                 std::string &error)
{
    if (name.empty()) {
        error = "cannot register a service with an empty name";
        return 0;
    }
    if (!object) {
        error = "cannot register service \"" + name + "\": null object";
        return 0;
    }
    unsigned id;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto &s : m_services) {
            if (s.second.name == name) {
                error = "service \"" + name + "\" is already registered";
                return 0;
            }
        }
        id = m_nextServiceId++;
        m_services[id] = ServiceEntry {id, name, object, owner, endpoint};
    }
    object->setDisplayName(name);
    log::LogStream(LogLevel_Info, kSession, __FUNCTION__)
        << "service \"" << name << "\" registered (" << endpoint << ")";
    return id;
}

std::vector<ServiceInfo> SessionImpl::listServices(bool localOnly) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<ServiceInfo> out;
    for (const auto &s : m_services) {
        if (localOnly && s.second.owner)
            continue;
        out.push_back(ServiceInfo {s.second.name, s.second.id, s.second.endpoint});
    }
    return out;
}

void SessionImpl::handleDirectoryRequest(const std::shared_ptr<PeerLink> &conn, Message &msg)
{
    Message reply;
    reply.kind = MsgKind::Reply;
    reply.id = msg.id;
    auto fail = [&](const std::string &text) {
        reply.kind = MsgKind::Error;
        reply.name = text;
    };
    switch (msg.kind) {
    case MsgKind::ServiceLookup: {
        Object obj;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const auto &s : m_services) {
                if (s.second.name == msg.name) {
                    obj = s.second.object;
                    break;
                }
            }
        }
        if (obj)
            reply.value = AnyValue(obj);
        else
            fail(serviceNotFoundText(msg.name));
        break;
    }
    case MsgKind::ServicesList: {
        AnyValue::List list;
        for (const ServiceInfo &s : listServices(false)) {
            list.push_back(AnyValue(AnyValue::Map {{"name", AnyValue(s.name)},
                                                   {"serviceId", AnyValue(s.serviceId)},
                                                   {"endpoint", AnyValue(s.endpoint)}}));
        }
        reply.value = AnyValue(std::move(list));
        break;
    }
    case MsgKind::Register: {
        if (msg.value.kind() != AnyValue::Kind::Object) {
            fail("cannot register service \"" + msg.name + "\": the value is not an object");
            break;
        }
        std::string error;
        const unsigned id
            = addService(msg.name, msg.value.toObject(), conn.get(), conn->peerId(), error);
        if (id == 0)
            fail(error);
        else
            reply.value = AnyValue(id);
        break;
    }
    case MsgKind::Unregister: {
        ServiceEntry gone;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_services.find(static_cast<unsigned>(msg.link));
            if (it == m_services.end() || it->second.owner != conn.get()) {
                reply.kind = MsgKind::Error;
                reply.name
                    = "no service with id " + std::to_string(msg.link) + " registered by this peer";
            } else {
                gone = std::move(it->second);
                m_services.erase(it);
            }
        }
        break;
    }
    default:
        fail("not a directory request");
        break;
    }
    conn->send(reply);
}

Future<std::vector<ServiceInfo>> SessionImpl::services(ServiceLocality locality)
{
    auto dir = directoryLink();
    if (!dir)
        return makeReadyFuture(listServices(locality == ServiceLocality_Local));
    std::set<unsigned> mine;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        mine = m_registeredRemotely;
    }
    Promise<std::vector<ServiceInfo>> p;
    Message m;
    m.kind = MsgKind::ServicesList;
    dir->request(std::move(m),
                 [p, locality, mine](bool ok, const AnyValue &v, const std::string &e) mutable {
                     if (!ok) {
                         p.setError(e);
                         return;
                     }
                     try {
                         std::vector<ServiceInfo> out;
                         for (const AnyValue &item : v.toList()) {
                             ServiceInfo info;
                             info.name = fromAny<std::string>(item.toMap().at("name"));
                             info.serviceId = fromAny<unsigned>(item.toMap().at("serviceId"));
                             info.endpoint = fromAny<std::string>(item.toMap().at("endpoint"));
                             if (locality == ServiceLocality_Local && !mine.count(info.serviceId))
                                 continue;
                             out.push_back(std::move(info));
                         }
                         p.setValue(std::move(out));
                     } catch (const std::exception &ex) {
                         p.setError(std::string("malformed services list from the directory: ")
                                    + ex.what());
                     }
                 });
    return p.future();
}

Future<Object> SessionImpl::service(const std::string &name)
{
    auto dir = directoryLink();
    if (!dir) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto &s : m_services) {
            if (s.second.name == name)
                return makeReadyFuture(s.second.object);
        }
        return makeFutureError<Object>(serviceNotFoundText(name));
    }
    Promise<Object> p;
    Message m;
    m.kind = MsgKind::ServiceLookup;
    m.name = name;
    dir->request(std::move(m), [p, name](bool ok, const AnyValue &v, const std::string &e) mutable {
        if (!ok) {
            p.setError(e);
        } else if (v.kind() != AnyValue::Kind::Object) {
            p.setError("the directory answered the lookup of \"" + name + "\" with " + v.repr());
        } else {
            Object obj = v.toObject();
            if (obj->isRemote())
                obj->setDisplayName(name);
            p.setValue(obj);
        }
    });
    return p.future();
}

Future<unsigned int> SessionImpl::registerService(const std::string &name, Object object)
{
    auto dir = directoryLink();
    if (!dir) {
        std::string error;
        const unsigned id = addService(name, object, nullptr, "local", error);
        if (id == 0)
            return makeFutureError<unsigned int>(error);
        return makeReadyFuture(id);
    }
    if (!object)
        return makeFutureError<unsigned int>("cannot register service \"" + name
                                             + "\": null object");
    Promise<unsigned int> p;
    Message m;
    m.kind = MsgKind::Register;
    m.name = name;
    m.value = AnyValue(object);
    std::weak_ptr<SessionImpl> weak = shared_from_this();
    dir->request(std::move(m), [p, weak](bool ok, const AnyValue &v, const std::string &e) mutable {
        if (!ok) {
            p.setError(e);
            return;
        }
        try {
            const unsigned id = fromAny<unsigned>(v);
            if (auto self = weak.lock()) {
                std::lock_guard<std::mutex> lock(self->m_mutex);
                self->m_registeredRemotely.insert(id);
            }
            p.setValue(id);
        } catch (const std::exception &ex) {
            p.setError(std::string("malformed answer to a registration: ") + ex.what());
        }
    });
    return p.future();
}

Future<void> SessionImpl::unregisterService(unsigned int id)
{
    auto dir = directoryLink();
    if (!dir) {
        ServiceEntry gone;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_services.find(id);
            if (it == m_services.end() || it->second.owner)
                return makeFutureError<void>("no service with id " + std::to_string(id)
                                             + " registered by this session");
            gone = std::move(it->second);
            m_services.erase(it);
        }
        return makeReadyFuture();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_registeredRemotely.erase(id);
    }
    Message m;
    m.kind = MsgKind::Unregister;
    m.link = id;
    return convertFuture<void>(dir->call(std::move(m)));
}

} // namespace detail
} // namespace wz
