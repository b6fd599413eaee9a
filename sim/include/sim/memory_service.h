#pragma once

#include <sim/api.h>
#include <sim/client_watch.h>
#include <sim/service.h>

#include <wz/object.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace sim {

// "VXMemory": typed keys, events and micro events, and their delivery to
// subscribed modules as method(key, value, message), posted over the
// subscriber's own connection by one delivery thread per subscriber module.
// The module is looked up when an event is delivered; subscriptions go with
// the client that made them.
class SIM_API MemoryService : public Service
{
public:
    static constexpr const char *kName = "VXMemory";
    static constexpr const char *kKeyRemoved = "VXMemory/KeyRemoved";
    static constexpr const char *kReadyKey = "MorvaneReady";
    // Events waiting for one subscriber beyond this are dropped, oldest
    // first, with a warning: a stalled subscriber cannot grow the robot.
    static constexpr size_t kQueueLimit = 10000;

    explicit MemoryService(std::string version = "2.1.4.13");
    ~MemoryService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;

    // The C++ side of the remote methods, for tests and other services.
    // Failures throw std::runtime_error with the text a caller receives.
    void insertData(const std::string &key, const wz::AnyValue &value);
    wz::AnyValue getData(const std::string &key) const;
    bool hasKey(const std::string &key) const;
    std::string getType(const std::string &key) const;
    std::vector<std::string> getDataList(const std::string &filter) const;
    std::vector<std::string> getEventList() const;
    std::vector<std::string> getMicroEventList() const;
    void removeData(const std::string &key);
    void raiseEvent(const std::string &name, const wz::AnyValue &value);
    void raiseMicroEvent(const std::string &name, const wz::AnyValue &value);
    void removeMicroEvent(const std::string &name);
    void subscribe(const std::string &name, const std::string &module, const std::string &message,
                   const std::string &method, bool micro);
    // Events and micro events share one name space: either form ends the
    // module's subscription to `name`.
    void unsubscribe(const std::string &name, const std::string &module);
    // Events for a blocked module are dropped without a word, as when the
    // robot cannot reach the subscriber (a firewall on its side).
    void setDeliveryBlocked(const std::string &module, bool blocked);
    // Events for a held module wait, in order, until it is released: the
    // robot-to-client path slower than the replies.
    void setDeliveryHeld(const std::string &module, bool held);
    // Modules subscribed to `name`.
    std::vector<std::string> subscribers(const std::string &name) const;
    // Modules with a delivery thread.
    size_t subscriberModuleCount() const;

    std::string version() const;
    void setVersion(const std::string &version);

    // The error text of an unknown key: key "NAME" not found.
    static std::string keyNotFoundText(const std::string &key);

private:
    enum class Kind { Data, Event, MicroEvent };
    struct Entry
    {
        wz::AnyValue value;
        Kind kind = Kind::Data;
    };
    struct Subscription
    {
        std::string message;
        std::string method;
        // Peer id of the client that subscribed.
        std::string client;
    };
    class Subscriber;

    void deliver(const std::string &key, const wz::AnyValue &value);
    void raise(const std::string &name, const wz::AnyValue &value, Kind kind);
    // Ends the delivery threads of modules that no subscription names.
    void retireUnusedLocked(std::vector<std::shared_ptr<Subscriber>> &retired);
    void onClientGone(const std::string &peer);
    static void retire(std::vector<std::shared_ptr<Subscriber>> &retired);

    mutable std::mutex m_mutex;
    std::string m_version;
    std::map<std::string, Entry> m_keys;
    // event name -> module -> subscription
    std::map<std::string, std::map<std::string, Subscription>> m_subscriptions;
    std::map<std::string, std::shared_ptr<Subscriber>> m_subscribers;
    std::set<std::string> m_blocked;
    std::set<std::string> m_held;
    bool m_stopped = false;
    ClientWatch m_clientWatch;
};

} // namespace sim
