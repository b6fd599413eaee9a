#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace sim {

// What a robot does to one method: absent, failing, slow, or replaced.
struct MethodRule
{
    bool removed = false;
    std::optional<std::string> failText;
    std::chrono::milliseconds delay {0};
    // Calls wait, once they have reached the robot, until the rule goes.
    bool held = false;
    MethodFn replacement;
};

// Scenario control of a robot, usable before start() and while it runs: every
// change applies to the next call. Thread-safe.
class SIM_API Scenario
{
public:
    explicit Scenario(Robot &robot);
    Scenario(const Scenario &) = delete;
    Scenario &operator=(const Scenario &) = delete;

    // Services. An omitted service is unregistered at once and looked up as
    // "service not found"; restoring registers it again.
    void omitService(const std::string &service);
    void restoreService(const std::string &service);
    bool isOmitted(const std::string &service) const;

    // Methods, by name (every overload). A removed method leaves the
    // service's meta-object (the service is registered again, as after a
    // restart of that module) and fails with the framework's "method not found".
    void removeMethod(const std::string &service, const std::string &method);
    void failMethod(const std::string &service, const std::string &method, const std::string &text);
    void delayMethod(const std::string &service, const std::string &method,
                     std::chrono::milliseconds delay);
    void replaceMethod(const std::string &service, const std::string &method, MethodFn fn);
    // Calls reach the robot (they count in calls()) and then wait, however
    // long, until restoreMethod(), reset() or the robot's stop lets them go
    // on as usual: a call that a test can be sure is in progress, for
    // cutting the link under it.
    void holdMethod(const std::string &service, const std::string &method);
    bool isHeld(const std::string &service, const std::string &method) const;
    // A method the service does not have yet (registered again, like removal).
    void addMethod(const std::string &service, const std::string &method, unsigned arity,
                   MethodFn fn);
    // Back to the service's own behaviour (undoes all of the above).
    void restoreMethod(const std::string &service, const std::string &method);
    // Every method, service and callback rule undone; calls forgotten.
    void reset();

    // Readiness key "MorvaneReady".
    void holdReadiness();
    void holdReadinessFor(std::chrono::milliseconds delay);
    void releaseReadiness();

    // Memory.
    void setKey(const std::string &key, const wz::AnyValue &value);
    void removeKey(const std::string &key);
    void raiseEvent(const std::string &name, const wz::AnyValue &value);
    void raiseMicroEvent(const std::string &name, const wz::AnyValue &value);
    // The robot-to-client path of one module broken: its events are lost.
    void blockCallbacks(const std::string &module, bool blocked = true);
    // The same path slow: its events wait, in order, until released.
    void holdCallbacks(const std::string &module, bool held = true);

    // Connections, by peer id (see clients()).
    std::vector<std::string> clients() const;
    void dropClients();
    void dropClient(const std::string &peer);
    void stallClient(const std::string &peer, bool stalled = true);
    void sendRaw(const std::string &peer, const std::string &bytes);
    // The peer that registered `service` ("" when no client did).
    std::string peerOf(const std::string &service) const;

    // Calls that reached each method (failed and delayed ones included; calls
    // to a removed method never reach it). The log keeps the last
    // kCallLogDepth calls of each method; callCount() counts them all.
    static constexpr size_t kCallLogDepth = 1000;
    std::vector<Args> calls(const std::string &service, const std::string &method) const;
    uint64_t callCount(const std::string &service, const std::string &method) const;
    // Waits until the method has received at least `count` calls in all.
    bool waitForCalls(const std::string &service, const std::string &method, uint64_t count,
                      std::chrono::milliseconds timeout) const;
    void clearCalls();

    // The JSON scenario format of sim/README.md. Throws std::runtime_error
    // with the reason (and the JSON offset for a syntax error).
    void applyJson(const std::string &json);
    void loadFile(const std::string &path);

    // Used by the robot for every call.
    std::optional<MethodRule> ruleFor(const std::string &service, const std::string &method) const;
    std::vector<MethodDef> addedMethods(const std::string &service) const;
    std::set<std::string> removedMethods(const std::string &service) const;
    void recordCall(const std::string &service, const std::string &method, const Args &args);

private:
    using Key = std::pair<std::string, std::string>;
    struct CallLog
    {
        std::deque<Args> recent;
        uint64_t total = 0;
    };
    MethodRule &ruleLocked(const std::string &service, const std::string &method);
    void changeStructure(const std::string &service);

    Robot &m_robot;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_callsChanged;
    std::map<Key, MethodRule> m_rules;
    std::map<Key, MethodDef> m_added;
    std::set<std::string> m_omitted;
    std::set<std::string> m_blocked;
    std::set<std::string> m_held;
    std::map<Key, CallLog> m_calls;
};

// JSON value to AnyValue: numbers without a fraction become Int, objects Map;
// {"$float": n} forces a float and {"$binary": "base64"} gives bytes.
SIM_API wz::AnyValue anyFromJson(const std::string &json);

} // namespace sim
