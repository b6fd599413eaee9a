#pragma once

#include <sim/api.h>
#include <sim/behavior_script.h>
#include <sim/service.h>

#include <wz/object.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXBehaviorManager": installed behaviours (behaviour texts, see
// BehaviorScript), default behaviours, box libraries, loaded instances and
// the running list. A bare name stands for "User/NAME".
//
// A loaded behaviour has a frame-manager id ("behavior_N_", stable for a
// name while the robot runs), declares each box input and output as the micro
// event ID + BOX + "__" + NAME, publishes its timeline's frame under the key
// ID + TIMELINE, and registers each box as the service ID + BOX. Stopping,
// ending or removing the behaviour undoes all of it.
class SIM_API BehaviorManagerService : public Service
{
public:
    static constexpr const char *kName = "VXBehaviorManager";
    static constexpr const char *kRunEvent = "BehaviorsRun";
    static constexpr const char *kAddedEvent = "VXBehaviorManager/BehaviorAdded";
    static constexpr const char *kUpdatedEvent = "VXBehaviorManager/BehaviorUpdated";
    static constexpr const char *kRemovedEvent = "VXBehaviorManager/BehaviorRemoved";
    static constexpr const char *kFailedEvent = "VXBehaviorManager/BehaviorFailed";
    static constexpr size_t kMaxBehaviors = 1000;
    static constexpr size_t kMaxLoaded = 64;

    BehaviorManagerService();
    ~BehaviorManagerService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // {"behaviors": {"NAME": "behaviour text"}, "directory": "DIR",
    //  "defaults": ["NAME"], "boxLibraries": ["NAME"]}
    void configure(const wz::AnyValue &settings) override;

    // "User/NAME" for a bare name, the name itself otherwise.
    static std::string fullName(const std::string &name);

    // The C++ side of the remote methods; failures throw std::runtime_error
    // with the text a caller receives.
    std::vector<std::string> installedBehaviors() const;
    std::vector<std::string> defaultBehaviors() const;
    std::vector<std::string> runningBehaviors() const;
    std::vector<std::string> boxLibraries() const;
    std::vector<std::string> tags() const;
    bool isInstalled(const std::string &name) const;
    bool isRunning(const std::string &name) const;
    std::string nature(const std::string &name) const;
    void preload(const std::string &name);
    void startBehavior(const std::string &name);
    void stopBehavior(const std::string &name);
    void stopAll();
    void removeBehavior(const std::string &name);
    void addDefault(const std::string &name);
    void removeDefault(const std::string &name);
    void removeBoxLibrary(const std::string &name);
    // "" while the behaviour is not loaded.
    std::string frameManagerId(const std::string &name) const;
    // Installs (or replaces) a behaviour from its text; false when it exists
    // and `overwrite` is false.
    bool install(const std::string &name, const std::string &text, bool overwrite = true);
    // Every "*.bhv" file of the directory, as "User/" + the file's base name.
    void installDirectory(const std::string &dir);

    // Scenario hooks and test views.
    // Ends a running behaviour now, as if it had reached its end.
    void finishBehavior(const std::string &name);
    void addBoxLibrary(const std::string &name);
    // Back to the two built-in behaviours, nothing loaded, running or default.
    void reset();
    // A box parameter set through the box's "setParameter"; invalid if unset.
    wz::AnyValue parameter(const std::string &name, const std::string &box,
                           const std::string &param) const;
    // Current frame of a loaded behaviour's timeline, -1 without one.
    int currentFrame(const std::string &name) const;

private:
    using Clock = std::chrono::steady_clock;
    struct Instance
    {
        std::string name;
        std::string id;
        std::shared_ptr<const BehaviorScript> script;
        std::vector<unsigned> serviceIds;
        bool running = false;
        Clock::time_point startedAt;
        int frame = 0;
        size_t nextOutput = 0;
        size_t nextFailure = 0;
        std::map<std::string, std::map<std::string, wz::AnyValue>> parameters;
    };
    // Reaches the service from box objects that the framework may keep after
    // the service has gone.
    struct Hook
    {
        std::mutex mutex;
        BehaviorManagerService *service = nullptr;
    };

    const BehaviorScript &scriptLocked(const std::string &full) const;
    void loadLocked(const std::string &full, std::unique_lock<std::mutex> &lock);
    // Takes the instance out; the caller then releases what it declared.
    // By value: callers pass a key of the map it erases from.
    Instance unloadLocked(std::string full);
    void release(Instance &instance, bool wasRunning);
    void raiseRunning(const std::vector<std::string> &list);
    std::vector<std::string> runningLocked() const;
    wz::Object boxObject(const std::string &full, const std::string &id,
                         const BehaviorScript::Box &box);
    wz::AnyValue boxCall(const std::string &id, const std::string &box, const std::string &method,
                         const Args &args);
    void installBuiltIns();
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, std::shared_ptr<const BehaviorScript>> m_installed;
    std::set<std::string> m_defaults;
    std::set<std::string> m_boxLibraries;
    std::map<std::string, Instance> m_loaded;
    std::vector<std::string> m_runOrder;
    std::map<std::string, int> m_ids;
    int m_nextId = 1;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_thread;
    std::shared_ptr<Hook> m_hook;
};

// "VXAutonomousLife": the life state ("disabled", "solitary", "interactive",
// "reflex"; "disabled" at start), its micro event "AutonomousLife/State" on
// every change, and switchFocus, which starts a behaviour through
// VXBehaviorManager.
class SIM_API AutonomousLifeService : public Service
{
public:
    static constexpr const char *kName = "VXAutonomousLife";
    static constexpr const char *kStateEvent = "AutonomousLife/State";

    AutonomousLifeService();
    void describe(ServiceBuilder &builder) override;
    // {"state": "solitary"}
    void configure(const wz::AnyValue &settings) override;

    std::string state() const;
    void setState(const std::string &state);
    void switchFocus(const std::string &name);
    static bool isState(const std::string &state);

private:
    mutable std::mutex m_mutex;
    std::string m_state = "disabled";
};

} // namespace sim
