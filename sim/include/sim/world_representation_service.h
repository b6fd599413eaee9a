#pragma once

#include <sim/api.h>
#include <sim/service.h>
#include <sim/ticker.h>

#include <wz/any_value.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// Where an object is relative to its parent.
struct WorldPose
{
    std::array<float, 4> rotation {1.0f, 0.0f, 0.0f, 0.0f}; // w x y z
    std::array<float, 3> translation {0.0f, 0.0f, 0.0f};
};

// "VXWorldRepresentation": a tree of named objects under the root "World".
// Each object has a category, a parent, a displacement from that parent
// (rotation w x y z, translation x y z, kept exactly as given so that a
// malformed one reaches the client unchanged), and ordered attributes, each
// with its field names and a short history of values (newest first).
//
// Changes raise the micro events "VXWorldRepresentation/PositionChanged"
// [object, [w, x, y, z], [x, y, z]], ".../AttributeChanged" [object,
// attribute, [field values]] and ".../DisplayRequired" [names] (also kept as
// the key of that name). A small scene runs by itself every 100 ms until
// setSceneRunning(false): a ball circles the table, its Display label
// changes each second, and a visitor comes and goes every 3 s.
class SIM_API WorldRepresentationService : public Service
{
public:
    static constexpr const char *kName = "VXWorldRepresentation";
    static constexpr const char *kRoot = "World";
    static constexpr const char *kDisplayRequired = "VXWorldRepresentation/DisplayRequired";
    static constexpr const char *kAttributeChanged = "VXWorldRepresentation/AttributeChanged";
    static constexpr const char *kPositionChanged = "VXWorldRepresentation/PositionChanged";
    static constexpr std::chrono::milliseconds kTick {100};
    // Values kept per attribute.
    static constexpr size_t kHistoryDepth = 16;

    using Pose = WorldPose;

    WorldRepresentationService();
    ~WorldRepresentationService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"scene": bool}.
    void configure(const wz::AnyValue &settings) override;

    // The C++ side of the remote methods; unknown objects throw
    // std::runtime_error "unknown object \"NAME\"".
    std::vector<std::string> objectNames() const; // the root excluded, in order of arrival
    std::string category(const std::string &object) const;
    std::string parentName(const std::string &object) const;
    wz::AnyValue attributes(const std::string &object) const;
    wz::AnyValue attributeValues(const std::string &object, const std::string &attribute,
                                 int count) const;
    // Through the tree; the parent as reference answers the stored pose as is.
    wz::AnyValue position(const std::string &object, const std::string &reference) const;

    // Scenario hooks. Each raises the matching micro event.
    void addObject(const std::string &name, const std::string &category, const std::string &parent,
                   const Pose &pose = Pose());
    // With its descendants.
    void removeObject(const std::string &name);
    // Any numbers go, NaN and non-unit rotations included.
    void setPose(const std::string &name, const Pose &pose);
    // Declares (or redeclares) an attribute with its fields, history cleared.
    void setAttribute(const std::string &object, const std::string &attribute,
                      const std::vector<std::string> &fields);
    // Any number of values, whatever the field count says.
    void pushAttributeValues(const std::string &object, const std::string &attribute,
                             const wz::AnyValue::List &values);
    void setDisplayed(const std::vector<std::string> &names);

    void setSceneRunning(bool running);
    bool sceneRunning() const { return m_ticker.isOn(); }
    // The empty world (root only), the scene's objects back in place.
    void resetWorld();

private:
    struct Attribute
    {
        std::string name;
        std::vector<std::string> fields;
        std::deque<wz::AnyValue::List> history;
    };
    struct Object
    {
        std::string name;
        std::string category;
        std::string parent;
        Pose pose;
        std::vector<Attribute> attributes;
    };

    const Object &objectLocked(const std::string &name) const;
    Object &objectLocked(const std::string &name);
    static wz::AnyValue poseValue(const Pose &pose);
    void raise(const char *event, const wz::AnyValue &value);
    void buildSceneLocked();
    void tick(uint64_t n);

    // Serialises changes with their events, so that events leave in the
    // order the changes were made.
    std::mutex m_changes;
    mutable std::mutex m_mutex;
    std::vector<Object> m_objects; // m_objects[0] is the root
    bool m_sceneConfigured = false;
    // Last: it goes first, before anything its ticks touch.
    Ticker m_ticker {kTick, [this](uint64_t n) { tick(n); }};
};

} // namespace sim
