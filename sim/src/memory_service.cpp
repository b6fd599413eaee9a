#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/session.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <stdexcept>
#include <thread>

namespace sim {

namespace {
const char *const kCategory = "sim.memory";
// Looking up a module in the robot's own directory is local; the bound only
// keeps a broken directory from hanging a caller.
const int kSubscriberLookupTimeoutMs = 10000;

std::string typeName(const wz::AnyValue &v)
{
    switch (v.kind()) {
    case wz::AnyValue::Kind::Invalid:
        return "Invalid";
    case wz::AnyValue::Kind::Bool:
        return "Bool";
    case wz::AnyValue::Kind::Int:
        return "Int";
    case wz::AnyValue::Kind::Float:
        return "Float";
    case wz::AnyValue::Kind::String:
        return "String";
    case wz::AnyValue::Kind::Binary:
        return "Binary";
    case wz::AnyValue::Kind::List:
        return "Array";
    case wz::AnyValue::Kind::Map:
        return "Map";
    case wz::AnyValue::Kind::Object:
        return "Object";
    }
    return "Invalid";
}
} // namespace

// Posts the events of one subscriber module, in order, on a thread of its
// own: a slow or frozen subscriber delays nobody else. The module is looked
// up in the directory when an event is to be delivered, not when it was
// subscribed: a client may subscribe a module it registers afterwards. An
// event for a module that is not (yet) there is dropped.
class MemoryService::Subscriber
{
public:
    struct Delivery
    {
        std::string method;
        std::string key;
        wz::AnyValue value;
        std::string message;
    };
    using Lookup = std::function<wz::Object(const std::string &module)>;

    Subscriber(std::string module, Lookup lookup)
        : module(std::move(module)), m_lookup(std::move(lookup))
    {
        m_thread = std::thread([this]() { run(); });
    }
    ~Subscriber() { stop(); }

    void push(Delivery d)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stopping)
                return;
            if (m_queue.size() >= kQueueLimit) {
                m_queue.pop_front();
                if (!m_overflowing) {
                    m_overflowing = true;
                    wz::log::LogStream(wz::LogLevel_Warning, kCategory, "deliver")
                        << "subscriber " << module << " is not keeping up; dropping its "
                        << "oldest events";
                }
            } else if (m_queue.size() < kQueueLimit / 2) {
                m_overflowing = false;
            }
            m_queue.push_back(std::move(d));
        }
        m_cond.notify_one();
    }

    // Held events wait in the queue, in order, until released.
    void setHeld(bool held)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_held = held;
        }
        m_cond.notify_one();
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
            m_queue.clear();
        }
        m_cond.notify_all();
        if (!m_thread.joinable())
            return;
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }

    const std::string module;

private:
    // The object of the module as registered now, or null.
    wz::Object lookup()
    {
        try {
            return m_lookup(module);
        } catch (const std::exception &) {
            return wz::Object();
        }
    }

    void deliver(const Delivery &d)
    {
        // A kept object may belong to a registration that has gone: on a
        // failure the module is looked up once more.
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (!m_object)
                m_object = lookup();
            if (!m_object) {
                wz::log::LogStream(wz::LogLevel_Debug, kCategory, "deliver")
                    << "dropping " << d.key << " for " << module << ": module not registered";
                return;
            }
            try {
                m_object.post(d.method, d.key, d.value, d.message);
                return;
            } catch (const std::exception &e) {
                wz::log::LogStream(wz::LogLevel_Debug, kCategory, "deliver")
                    << "cannot post " << d.key << " to " << module << ": " << e.what();
                m_object.reset();
            }
        }
    }

    void run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_cond.wait(lock, [this]() { return m_stopping || (!m_held && !m_queue.empty()); });
            if (m_stopping)
                return;
            Delivery d = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            deliver(d);
            lock.lock();
        }
    }

    Lookup m_lookup;
    wz::Object m_object;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<Delivery> m_queue;
    bool m_stopping = false;
    bool m_held = false;
    bool m_overflowing = false;
    std::thread m_thread;
};

MemoryService::MemoryService(std::string version)
    : Service(kName), m_version(std::move(version)) { }

MemoryService::~MemoryService()
{
    stop();
}

std::string MemoryService::keyNotFoundText(const std::string &key)
{
    return "key \"" + key + "\" not found";
}

void MemoryService::describe(ServiceBuilder &b)
{
    // The getters the desktop polls answer from the map at once.
    b.method(
        "getData", [this](const std::string &key) { return getData(key); }, wz::MethodFlag_Direct);
    b.method("insertData",
             [this](const std::string &key, const wz::AnyValue &value) { insertData(key, value); });
    b.method("insertListData", [this](const wz::AnyValue::List &pairs) {
        // Checked whole before any key changes.
        for (const wz::AnyValue &p : pairs) {
            if (p.kind() != wz::AnyValue::Kind::List || p.toList().size() != 2
                || p.toList()[0].kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("insertListData takes [key, value] pairs, got "
                                         + p.repr());
        }
        for (const wz::AnyValue &p : pairs)
            insertData(p.toList()[0].toStr(), p.toList()[1]);
    });
    b.method(
        "getListData",
        [this](const std::vector<std::string> &keys) {
            wz::AnyValue::List out;
            out.reserve(keys.size());
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const std::string &k : keys) {
                auto it = m_keys.find(k);
                out.push_back(it == m_keys.end() ? wz::AnyValue() : it->second.value);
            }
            return out;
        },
        wz::MethodFlag_Direct);
    b.method(
        "getType", [this](const std::string &key) { return getType(key); }, wz::MethodFlag_Direct);
    b.method(
        "getDataList", [this](const std::string &filter) { return getDataList(filter); },
        wz::MethodFlag_Direct);
    b.method("getEventList", [this]() { return getEventList(); });
    b.method("getMicroEventList", [this]() { return getMicroEventList(); });
    b.method("removeData", [this](const std::string &key) { removeData(key); });
    b.method("subscribeToEvent",
             [this](const std::string &name, const std::string &module, const std::string &method) {
                 subscribe(name, module, "", method, false);
             });
    b.method(
        "subscribeToEvent",
        [this](const std::string &name, const std::string &module, const std::string &message,
               const std::string &method) { subscribe(name, module, message, method, false); });
    b.method("unsubscribeToEvent", [this](const std::string &name, const std::string &module) {
        unsubscribe(name, module);
    });
    b.method("subscribeToMicroEvent",
             [this](const std::string &name, const std::string &module, const std::string &message,
                    const std::string &method) { subscribe(name, module, message, method, true); });
    b.method("unsubscribeToMicroEvent", [this](const std::string &name, const std::string &module) {
        unsubscribe(name, module);
    });
    b.method("raiseEvent", [this](const std::string &name, const wz::AnyValue &value) {
        raiseEvent(name, value);
    });
    b.method("raiseMicroEvent", [this](const std::string &name, const wz::AnyValue &value) {
        raiseMicroEvent(name, value);
    });
    b.method("removeMicroEvent", [this](const std::string &name) { removeMicroEvent(name); });
    b.method("getSubscribers", [this](const std::string &name) { return subscribers(name); });
    b.method("version", [this]() { return version(); });
}

void MemoryService::start()
{
    m_clientWatch.start(robot().session(), [this](const std::string &peer) { onClientGone(peer); });
}

void MemoryService::stop()
{
    std::vector<std::shared_ptr<Subscriber>> retired;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped)
            return;
        m_stopped = true;
        for (auto &s : m_subscribers)
            retired.push_back(s.second);
        m_subscribers.clear();
    }
    m_clientWatch.stop();
    retire(retired);
}

void MemoryService::insertData(const std::string &key, const wz::AnyValue &value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_keys[key].value = value;
    deliver(key, value);
}

wz::AnyValue MemoryService::getData(const std::string &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_keys.find(key);
    if (it == m_keys.end())
        throw std::runtime_error(keyNotFoundText(key));
    return it->second.value;
}

bool MemoryService::hasKey(const std::string &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_keys.count(key) > 0;
}

std::string MemoryService::getType(const std::string &key) const
{
    return typeName(getData(key));
}

std::vector<std::string> MemoryService::getDataList(const std::string &filter) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &k : m_keys) {
        if (k.first.find(filter) != std::string::npos)
            out.push_back(k.first);
    }
    return out;
}

std::vector<std::string> MemoryService::getEventList() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &k : m_keys) {
        if (k.second.kind == Kind::Event)
            out.push_back(k.first);
    }
    return out;
}

std::vector<std::string> MemoryService::getMicroEventList() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &k : m_keys) {
        if (k.second.kind == Kind::MicroEvent)
            out.push_back(k.first);
    }
    return out;
}

void MemoryService::removeData(const std::string &key)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_keys.erase(key))
            throw std::runtime_error(keyNotFoundText(key));
    }
    raiseMicroEvent(kKeyRemoved, key);
}

void MemoryService::raiseEvent(const std::string &name, const wz::AnyValue &value)
{
    raise(name, value, Kind::Event);
}

void MemoryService::raiseMicroEvent(const std::string &name, const wz::AnyValue &value)
{
    raise(name, value, Kind::MicroEvent);
}

void MemoryService::raise(const std::string &name, const wz::AnyValue &value, Kind kind)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Entry &e = m_keys[name];
    e.value = value;
    e.kind = kind;
    deliver(name, value);
}

void MemoryService::removeMicroEvent(const std::string &name)
{
    std::vector<std::shared_ptr<Subscriber>> retired;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool hadKey = m_keys.erase(name) > 0;
        auto subs = m_subscriptions.find(name);
        if (!hadKey && subs == m_subscriptions.end())
            throw std::runtime_error("micro event \"" + name + "\" not found");
        if (subs != m_subscriptions.end()) {
            std::vector<std::string> modules;
            for (const auto &s : subs->second)
                modules.push_back(s.first);
            m_subscriptions.erase(subs);
            for (const std::string &module : modules) {
                bool stillUsed = false;
                for (const auto &other : m_subscriptions)
                    stillUsed = stillUsed || other.second.count(module) > 0;
                if (!stillUsed) {
                    auto sub = m_subscribers.find(module);
                    if (sub != m_subscribers.end()) {
                        retired.push_back(sub->second);
                        m_subscribers.erase(sub);
                    }
                }
            }
        }
    }
    retire(retired);
    raiseMicroEvent(kKeyRemoved, name);
}

void MemoryService::subscribe(const std::string &name, const std::string &module,
                              const std::string &message, const std::string &method, bool micro)
{
    if (name.empty() || module.empty() || method.empty())
        throw std::runtime_error("subscribing needs an event name, a module and a method");
    // The subscription belongs to the client that makes it, and goes with it.
    const std::string client = wz::Session::currentCaller();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopped)
        throw std::runtime_error("robot stopped");
    if (m_subscribers.find(module) == m_subscribers.end()) {
        wz::Session *session = &robot().session();
        m_subscribers.emplace(module,
                              std::make_shared<Subscriber>(module, [session](const std::string &m) {
                                  return session->service(m).value(kSubscriberLookupTimeoutMs);
                              }));
        if (m_held.count(module))
            m_subscribers[module]->setHeld(true);
    }
    m_subscriptions[name][module] = Subscription {message, method, client};
    Entry &e = m_keys[name];
    if (e.kind == Kind::Data)
        e.kind = micro ? Kind::MicroEvent : Kind::Event;
}

void MemoryService::unsubscribe(const std::string &name, const std::string &module)
{
    std::vector<std::shared_ptr<Subscriber>> retired;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto subs = m_subscriptions.find(name);
        if (subs == m_subscriptions.end() || !subs->second.erase(module))
            throw std::runtime_error("module \"" + module + "\" is not subscribed to \"" + name
                                     + "\"");
        if (subs->second.empty())
            m_subscriptions.erase(subs);
        bool stillUsed = false;
        for (const auto &other : m_subscriptions)
            stillUsed = stillUsed || other.second.count(module) > 0;
        if (!stillUsed) {
            auto sub = m_subscribers.find(module);
            if (sub != m_subscribers.end()) {
                retired.push_back(sub->second);
                m_subscribers.erase(sub);
            }
        }
    }
    retire(retired);
}

void MemoryService::setDeliveryBlocked(const std::string &module, bool blocked)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (blocked)
        m_blocked.insert(module);
    else
        m_blocked.erase(module);
}

void MemoryService::setDeliveryHeld(const std::string &module, bool held)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (held)
        m_held.insert(module);
    else
        m_held.erase(module);
    auto sub = m_subscribers.find(module);
    if (sub != m_subscribers.end())
        sub->second->setHeld(held);
}

std::vector<std::string> MemoryService::subscribers(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    auto subs = m_subscriptions.find(name);
    if (subs != m_subscriptions.end()) {
        for (const auto &s : subs->second)
            out.push_back(s.first);
    }
    return out;
}

size_t MemoryService::subscriberModuleCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscribers.size();
}

std::string MemoryService::version() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_version;
}

void MemoryService::setVersion(const std::string &version)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_version = version;
}

void MemoryService::deliver(const std::string &key, const wz::AnyValue &value)
{
    auto subs = m_subscriptions.find(key);
    if (subs == m_subscriptions.end())
        return;
    for (const auto &s : subs->second) {
        if (m_blocked.count(s.first))
            continue;
        auto sub = m_subscribers.find(s.first);
        if (sub == m_subscribers.end())
            continue;
        sub->second->push(Subscriber::Delivery {s.second.method, key, value, s.second.message});
    }
}

void MemoryService::retireUnusedLocked(std::vector<std::shared_ptr<Subscriber>> &retired)
{
    for (auto sub = m_subscribers.begin(); sub != m_subscribers.end();) {
        bool used = false;
        for (const auto &event : m_subscriptions)
            used = used || event.second.count(sub->first) > 0;
        if (used) {
            ++sub;
        } else {
            retired.push_back(sub->second);
            sub = m_subscribers.erase(sub);
        }
    }
}

void MemoryService::onClientGone(const std::string &peer)
{
    std::vector<std::shared_ptr<Subscriber>> retired;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::map<std::string, size_t> dropped;
        for (auto event = m_subscriptions.begin(); event != m_subscriptions.end();) {
            for (auto s = event->second.begin(); s != event->second.end();) {
                if (s->second.client == peer) {
                    ++dropped[s->first];
                    s = event->second.erase(s);
                } else {
                    ++s;
                }
            }
            if (event->second.empty())
                event = m_subscriptions.erase(event);
            else
                ++event;
        }
        for (const auto &d : dropped)
            wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__)
                << "dropping subscriber " << d.first << " (" << d.second
                << " subscription(s)): its client " << peer << " has gone";
        retireUnusedLocked(retired);
    }
    retire(retired);
}

void MemoryService::retire(std::vector<std::shared_ptr<Subscriber>> &retired)
{
    for (auto &s : retired)
        s->stop();
    retired.clear();
}

} // namespace sim
