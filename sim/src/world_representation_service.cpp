#include <sim/memory_service.h>
#include <sim/robot.h>
#include <sim/world_representation_service.h>

#include <vx/vxmath.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace sim {

namespace {

VX::Math::Displacement displacementOf(const WorldRepresentationService::Pose &p)
{
    return VX::Math::Displacement(
        VX::Math::Position3D(p.translation[0], p.translation[1], p.translation[2]),
        VX::Math::Quaternion(p.rotation[0], p.rotation[1], p.rotation[2], p.rotation[3]));
}

VX::Math::Displacement inverse(const VX::Math::Displacement &d)
{
    const VX::Math::Quaternion q = d.Q.conjugate();
    return VX::Math::Displacement(-q.rotate(d.P), q);
}

WorldRepresentationService::Pose at(float x, float y, float z, float yaw = 0.0f)
{
    WorldRepresentationService::Pose p;
    p.rotation = {std::cos(yaw / 2.0f), 0.0f, 0.0f, std::sin(yaw / 2.0f)};
    p.translation = {x, y, z};
    return p;
}

const char *const kBallLabels[] = {"ball", "red ball", "rolling ball", "ball (fast)"};

} // namespace

WorldRepresentationService::WorldRepresentationService() : Service(kName)
{
    buildSceneLocked();
}

WorldRepresentationService::~WorldRepresentationService()
{
    stop();
}

void WorldRepresentationService::describe(ServiceBuilder &b)
{
    b.method("getObjectNames", [this]() { return objectNames(); });
    b.method("getObjectCategory", [this](const std::string &o) { return category(o); });
    b.method("getObjectAttributes", [this](const std::string &o) { return attributes(o); });
    b.method("getObjectAttributeValues",
             [this](const std::string &o, const std::string &a, int count) {
                 return attributeValues(o, a, count);
             });
    b.method("getPosition", [this](const std::string &o, const std::string &reference) {
        return position(o, reference);
    });
    b.method("getRootName", []() { return std::string(kRoot); });
    b.method("getObjectParentName", [this](const std::string &o) { return parentName(o); });
}

void WorldRepresentationService::start()
{
    if (robot().options().lively && !m_sceneConfigured)
        setSceneRunning(true);
    m_ticker.start();
}

void WorldRepresentationService::stop()
{
    m_ticker.stop();
}

void WorldRepresentationService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first != "scene")
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        if (field.second.kind() != wz::AnyValue::Kind::Bool)
            throw std::runtime_error("scene needs true or false");
        setSceneRunning(field.second.toBool());
        m_sceneConfigured = true;
    }
}

const WorldRepresentationService::Object &
WorldRepresentationService::objectLocked(const std::string &name) const
{
    for (const Object &o : m_objects) {
        if (o.name == name)
            return o;
    }
    throw std::runtime_error("unknown object \"" + name + "\"");
}

WorldRepresentationService::Object &
WorldRepresentationService::objectLocked(const std::string &name)
{
    return const_cast<Object &>(
        static_cast<const WorldRepresentationService *>(this)->objectLocked(name));
}

std::vector<std::string> WorldRepresentationService::objectNames() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (size_t i = 1; i < m_objects.size(); ++i)
        out.push_back(m_objects[i].name);
    return out;
}

std::string WorldRepresentationService::category(const std::string &object) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return objectLocked(object).category;
}

std::string WorldRepresentationService::parentName(const std::string &object) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return objectLocked(object).parent;
}

wz::AnyValue WorldRepresentationService::attributes(const std::string &object) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    wz::AnyValue::List out;
    for (const Attribute &a : objectLocked(object).attributes) {
        wz::AnyValue::List fields;
        for (const std::string &f : a.fields)
            fields.push_back(wz::AnyValue::List {f});
        out.push_back(wz::AnyValue::List {a.name, fields});
    }
    return out;
}

wz::AnyValue WorldRepresentationService::attributeValues(const std::string &object,
                                                         const std::string &attribute,
                                                         int count) const
{
    if (count < 1)
        throw std::runtime_error("the number of values must be at least 1, not "
                                 + std::to_string(count));
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Attribute &a : objectLocked(object).attributes) {
        if (a.name != attribute)
            continue;
        wz::AnyValue::List out;
        for (size_t i = 0; i < a.history.size() && i < static_cast<size_t>(count); ++i)
            out.push_back(a.history[i]);
        return out;
    }
    throw std::runtime_error("object \"" + object + "\" has no attribute \"" + attribute + "\"");
}

wz::AnyValue WorldRepresentationService::poseValue(const Pose &p)
{
    return wz::AnyValue::List {
        wz::AnyValue::List {p.rotation[0], p.rotation[1], p.rotation[2], p.rotation[3]},
        wz::AnyValue::List {p.translation[0], p.translation[1], p.translation[2]}};
}

wz::AnyValue WorldRepresentationService::position(const std::string &object,
                                                  const std::string &reference) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Object &o = objectLocked(object);
    const Object &r = objectLocked(reference);
    if (o.parent == r.name)
        return poseValue(o.pose);
    // Each one's displacement from the root, then the object seen from the
    // reference.
    const auto fromRoot = [this](const Object &start) {
        VX::Math::Displacement d;
        const Object *cur = &start;
        for (size_t depth = 0; cur->name != kRoot && depth <= m_objects.size(); ++depth) {
            d = displacementOf(cur->pose) * d;
            cur = &objectLocked(cur->parent);
        }
        return d;
    };
    const VX::Math::Displacement rel = inverse(fromRoot(r)) * fromRoot(o);
    Pose p;
    p.rotation = {rel.Q.w, rel.Q.x, rel.Q.y, rel.Q.z};
    p.translation = {rel.P.x, rel.P.y, rel.P.z};
    return poseValue(p);
}

void WorldRepresentationService::raise(const char *event, const wz::AnyValue &value)
{
    // Before start() there is no robot to tell.
    if (!robot().isRunning())
        return;
    robot().memory().raiseMicroEvent(event, value);
}

void WorldRepresentationService::addObject(const std::string &name, const std::string &cat,
                                           const std::string &parent, const Pose &pose)
{
    std::lock_guard<std::mutex> changes(m_changes);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (name.empty())
            throw std::runtime_error("an object needs a name");
        for (const Object &o : m_objects) {
            if (o.name == name)
                throw std::runtime_error("object \"" + name + "\" exists already");
        }
        objectLocked(parent);
        m_objects.push_back(Object {name, cat, parent, pose, {}});
    }
    raise(kPositionChanged,
          wz::AnyValue::List {name, poseValue(pose).toList()[0], poseValue(pose).toList()[1]});
}

void WorldRepresentationService::removeObject(const std::string &name)
{
    std::lock_guard<std::mutex> changes(m_changes);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (name == kRoot)
        throw std::runtime_error("the root cannot be removed");
    objectLocked(name);
    std::vector<std::string> gone {name};
    // Parents come before their children in m_objects, so one pass finds
    // every descendant.
    for (const Object &o : m_objects) {
        if (std::find(gone.begin(), gone.end(), o.parent) != gone.end())
            gone.push_back(o.name);
    }
    m_objects.erase(std::remove_if(m_objects.begin(), m_objects.end(),
                                   [&gone](const Object &o) {
                                       return std::find(gone.begin(), gone.end(), o.name)
                                           != gone.end();
                                   }),
                    m_objects.end());
}

void WorldRepresentationService::setPose(const std::string &name, const Pose &pose)
{
    std::lock_guard<std::mutex> changes(m_changes);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (name == kRoot)
            throw std::runtime_error("the root does not move");
        objectLocked(name).pose = pose;
    }
    const wz::AnyValue p = poseValue(pose);
    raise(kPositionChanged, wz::AnyValue::List {name, p.toList()[0], p.toList()[1]});
}

void WorldRepresentationService::setAttribute(const std::string &object,
                                              const std::string &attribute,
                                              const std::vector<std::string> &fields)
{
    std::lock_guard<std::mutex> changes(m_changes);
    std::lock_guard<std::mutex> lock(m_mutex);
    Object &o = objectLocked(object);
    for (Attribute &a : o.attributes) {
        if (a.name == attribute) {
            a.fields = fields;
            a.history.clear();
            return;
        }
    }
    o.attributes.push_back(Attribute {attribute, fields, {}});
}

void WorldRepresentationService::pushAttributeValues(const std::string &object,
                                                     const std::string &attribute,
                                                     const wz::AnyValue::List &values)
{
    std::lock_guard<std::mutex> changes(m_changes);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Attribute *found = nullptr;
        for (Attribute &a : objectLocked(object).attributes) {
            if (a.name == attribute)
                found = &a;
        }
        if (!found)
            throw std::runtime_error("object \"" + object + "\" has no attribute \"" + attribute
                                     + "\"");
        found->history.push_front(values);
        if (found->history.size() > kHistoryDepth)
            found->history.pop_back();
    }
    raise(kAttributeChanged, wz::AnyValue::List {object, attribute, values});
}

void WorldRepresentationService::setDisplayed(const std::vector<std::string> &names)
{
    std::lock_guard<std::mutex> changes(m_changes);
    raise(kDisplayRequired, wz::toAny(names));
}

void WorldRepresentationService::setSceneRunning(bool running)
{
    m_ticker.setOn(running);
}

void WorldRepresentationService::resetWorld()
{
    std::lock_guard<std::mutex> changes(m_changes);
    std::lock_guard<std::mutex> lock(m_mutex);
    buildSceneLocked();
}

void WorldRepresentationService::buildSceneLocked()
{
    m_objects.clear();
    m_objects.push_back(Object {kRoot, "root", "", Pose(), {}});
    m_objects.push_back(Object {"Table", "furniture", kRoot, at(1.0f, 0.0f, 0.0f), {}});
    m_objects.push_back(Object {"Cup", "object", "Table", at(0.1f, 0.2f, 0.75f), {}});
    Object ball {"Ball", "toy", "Table", at(0.3f, 0.0f, 0.8f), {}};
    ball.attributes.push_back(Attribute {"Display", {"label", "color"}, {}});
    ball.attributes.front().history.push_front(wz::AnyValue::List {kBallLabels[0], "red"});
    ball.attributes.push_back(Attribute {"Physics", {"mass", "radius"}, {}});
    ball.attributes.back().history.push_front(wz::AnyValue::List {0.05f, 0.04f});
    m_objects.push_back(std::move(ball));
}

void WorldRepresentationService::tick(uint64_t n)
{
    // The ball circles the middle of the table once every 4 s.
    const float angle = static_cast<float>(n % 40) * (2.0f * 3.14159265f / 40.0f);
    setPose("Ball", at(0.3f * std::cos(angle), 0.3f * std::sin(angle), 0.8f, angle));
    if (n % 10 == 0) {
        pushAttributeValues("Ball", "Display",
                            wz::AnyValue::List {kBallLabels[(n / 10) % 4], "red"});
        setDisplayed(n % 20 == 0 ? std::vector<std::string> {"Ball", "Cup"}
                                 : std::vector<std::string> {"Ball"});
    }
    if (n % 30 == 0) {
        bool present = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const Object &o : m_objects)
                present = present || o.name == "Visitor";
        }
        if (present)
            removeObject("Visitor");
        else
            addObject("Visitor", "person", kRoot, at(2.0f, -1.0f, 0.0f, 3.14159265f));
    }
}

} // namespace sim
