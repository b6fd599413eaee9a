#include <sim/motion_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/session.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

namespace sim {

namespace {

const char *const kCategory = "sim.motion";

struct JointDef
{
    const char *name;
    const char *chain;
    float min;
    float max;
    float stand;
    float rest;
};

// Body order: head, left arm, right arm, pelvis, left leg, right leg.
const JointDef kJoints[] = {
    {"NeckYaw", "Head", -2.0f, 2.0f, 0.0f, 0.0f},
    {"NeckPitch", "Head", -0.6f, 0.5f, 0.0f, 0.2f},
    {"LArmShoulderPitch", "LArm", -2.0f, 2.0f, 1.4f, 0.9f},
    {"LArmShoulderRoll", "LArm", -0.3f, 1.3f, 0.2f, 0.1f},
    {"LArmElbowYaw", "LArm", -2.0f, 2.0f, -1.2f, -1.2f},
    {"LArmElbowRoll", "LArm", -1.5f, -0.03f, -0.5f, -1.0f},
    {"LArmWristYaw", "LArm", -1.8f, 1.8f, 0.0f, 0.0f},
    {"LArmGrip", "LArm", 0.0f, 1.0f, 0.3f, 0.0f},
    {"RArmShoulderPitch", "RArm", -2.0f, 2.0f, 1.4f, 0.9f},
    {"RArmShoulderRoll", "RArm", -1.3f, 0.3f, -0.2f, -0.1f},
    {"RArmElbowYaw", "RArm", -2.0f, 2.0f, 1.2f, 1.2f},
    {"RArmElbowRoll", "RArm", 0.03f, 1.5f, 0.5f, 1.0f},
    {"RArmWristYaw", "RArm", -1.8f, 1.8f, 0.0f, 0.0f},
    {"RArmGrip", "RArm", 0.0f, 1.0f, 0.3f, 0.0f},
    {"PelvisYaw", "Pelvis", -1.1f, 0.7f, 0.0f, 0.0f},
    {"LLegHipRoll", "LLeg", -0.4f, 0.8f, 0.0f, 0.0f},
    {"LLegHipPitch", "LLeg", -1.5f, 0.5f, -0.45f, -0.9f},
    {"LLegKneePitch", "LLeg", -0.1f, 2.1f, 0.7f, 2.1f},
    {"LLegAnklePitch", "LLeg", -1.2f, 0.9f, -0.35f, -1.2f},
    {"LLegAnkleRoll", "LLeg", -0.4f, 0.8f, 0.0f, 0.0f},
    {"RLegHipRoll", "RLeg", -0.8f, 0.4f, 0.0f, 0.0f},
    {"RLegHipPitch", "RLeg", -1.5f, 0.5f, -0.45f, -0.9f},
    {"RLegKneePitch", "RLeg", -0.1f, 2.1f, 0.7f, 2.1f},
    {"RLegAnklePitch", "RLeg", -1.2f, 0.9f, -0.35f, -1.2f},
    {"RLegAnkleRoll", "RLeg", -0.8f, 0.4f, 0.0f, 0.0f},
};

const char *const kChains[] = {"Head", "LArm", "RArm", "Pelvis", "LLeg", "RLeg"};

// How long wakeUp and rest take to change the stiffness.
const double kStiffnessRampSeconds = 0.2;
// Speed fraction of the posture moves of wakeUp and rest.
const float kPostureFraction = 0.6f;

std::chrono::steady_clock::duration seconds(double s)
{
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(s));
}

float finiteNumber(const wz::AnyValue &v, const char *what)
{
    if (v.kind() != wz::AnyValue::Kind::Float && v.kind() != wz::AnyValue::Kind::Int)
        throw std::runtime_error(std::string(what) + " must be a number, not " + v.repr());
    const double d = v.toDouble();
    if (!std::isfinite(d) || std::fabs(d) > 1e6)
        throw std::runtime_error(std::string(what) + " must be a finite number, not " + v.repr());
    return static_cast<float>(d);
}

// A posted command returns once its motion is set up, so that the posts
// after it (which the framework runs one after the other) are not held
// behind it; a call waits for the end of the motion.
bool calledByPost()
{
    return wz::Session::currentCallPosted();
}

} // namespace

float MotionService::Track::at(Clock::time_point t) const
{
    if (keys.empty())
        return 0.0f;
    if (t <= keys.front().at)
        return keys.front().value;
    for (size_t i = 1; i < keys.size(); ++i) {
        const Key &a = keys[i - 1];
        const Key &b = keys[i];
        if (t < b.at) {
            const double span = std::chrono::duration<double>(b.at - a.at).count();
            const double done = std::chrono::duration<double>(t - a.at).count();
            return static_cast<float>(a.value + (b.value - a.value) * (done / span));
        }
    }
    return keys.back().value;
}

void MotionService::Track::set(Clock::time_point now, float value)
{
    keys.assign(1, Key {now, value});
}

void MotionService::Track::moveTo(Clock::time_point now, Clock::time_point end, float value)
{
    const float from = at(now);
    keys.assign(1, Key {now, from});
    if (end > now)
        keys.push_back(Key {end, value});
    else
        keys.front().value = value;
}

MotionService::MotionService() : Service(kName)
{
    const Clock::time_point now = Clock::now();
    for (const JointDef &def : kJoints) {
        Joint j;
        j.name = def.name;
        j.min = def.min;
        j.max = def.max;
        j.angle.set(now, def.rest);
        j.stiffness.set(now, 0.0f);
        m_joints.push_back(std::move(j));
    }
}

MotionService::~MotionService()
{
    stop();
}

const std::vector<std::string> &MotionService::jointNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const JointDef &def : kJoints)
            out.push_back(def.name);
        return out;
    }();
    return names;
}

std::vector<std::string> MotionService::bodyNames(const std::string &name)
{
    if (name == "Body")
        return jointNames();
    std::vector<std::string> out;
    for (const char *chain : kChains) {
        if (name == chain) {
            for (const JointDef &def : kJoints) {
                if (name == def.chain)
                    out.push_back(def.name);
            }
            return out;
        }
    }
    for (const JointDef &def : kJoints) {
        if (name == def.name)
            return {name};
    }
    throw std::runtime_error("unknown joint or chain \"" + name + "\"");
}

void MotionService::describe(ServiceBuilder &b)
{
    b.method("getBodyNames", [](const std::string &name) { return bodyNames(name); });
    // The older name of the same question.
    b.method("getJointNames", [](const std::string &name) { return bodyNames(name); });
    // The pose the desktop polls: computed from the joints' paths at once.
    b.method(
        "getAngles",
        [this](const wz::AnyValue &names, bool useSensors) { return getAngles(names, useSensors); },
        wz::MethodFlag_Direct);
    b.method(
        "getStiffnesses", [this](const wz::AnyValue &names) { return getStiffnesses(names); },
        wz::MethodFlag_Direct);
    b.method("robotIsWakeUp", [this]() { return robotIsWakeUp(); });
    b.method(
        "getPosition",
        [this](const std::string &name, int space, bool useSensors) {
            return getPosition(name, space, useSensors);
        },
        wz::MethodFlag_Direct);
    b.method("_getRealTorsoInWorld", [this]() { return getPosition("Torso", 1, true); });
    b.method("changeAngles",
             [this](const wz::AnyValue &names, const wz::AnyValue &changes, float fraction) {
                 changeAngles(names, changes, fraction);
             });
    b.method("setAngles",
             [this](const wz::AnyValue &names, const wz::AnyValue &angles, float fraction) {
                 setAngles(names, angles, fraction);
             });
    b.method("angleInterpolationWithSpeed",
             [this](const wz::AnyValue &names, const wz::AnyValue &targets, float fraction) {
                 angleInterpolationWithSpeed(names, targets, fraction);
             });
    b.method("setStiffnesses", [this](const wz::AnyValue &names, const wz::AnyValue &values) {
        setStiffnesses(names, values);
    });
    b.method("stiffnessInterpolation",
             [this](const wz::AnyValue &names, const wz::AnyValue &stiffnessLists,
                    const wz::AnyValue &timeLists) {
                 stiffnessInterpolation(names, stiffnessLists, timeLists);
             });
    b.method("wakeUp", [this]() { wakeUp(); });
    b.method("rest", [this]() { rest(); });
}

void MotionService::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_started = true;
}

void MotionService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_stopped.notify_all();
}

void MotionService::configure(const wz::AnyValue &settings)
{
    // Checked whole before anything changes.
    bool setAwake = false;
    bool awake = false;
    bool setStiffness = false;
    float stiffness = 0.0f;
    std::map<size_t, float> angles;
    for (const auto &field : settings.toMap()) {
        if (field.first == "awake") {
            if (field.second.kind() != wz::AnyValue::Kind::Bool)
                throw std::runtime_error("awake needs true or false");
            setAwake = true;
            awake = field.second.toBool();
        } else if (field.first == "stiffness") {
            stiffness = finiteNumber(field.second, "stiffness");
            if (stiffness < 0.0f || stiffness > 1.0f)
                throw std::runtime_error("stiffness is 0 to 1");
            setStiffness = true;
        } else if (field.first == "angles") {
            if (field.second.kind() != wz::AnyValue::Kind::Map)
                throw std::runtime_error("angles needs an object of joint names and radians");
            for (const auto &a : field.second.toMap()) {
                const std::vector<size_t> index = indexesOf(wz::AnyValue(a.first));
                if (index.size() != 1)
                    throw std::runtime_error("angles takes joint names, not \"" + a.first + "\"");
                angles[index.front()] = finiteNumber(a.second, "an angle");
            }
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const Clock::time_point now = Clock::now();
    if (setAwake)
        m_awake = awake;
    for (Joint &j : m_joints) {
        if (setStiffness)
            j.stiffness.set(now, stiffness);
    }
    for (const auto &a : angles) {
        Joint &j = m_joints[a.first];
        j.angle.set(now, std::clamp(a.second, j.min, j.max));
    }
}

std::vector<size_t> MotionService::indexesOf(const wz::AnyValue &names) const
{
    std::vector<std::string> list;
    if (names.kind() == wz::AnyValue::Kind::String) {
        list = bodyNames(names.toStr());
    } else if (names.kind() == wz::AnyValue::Kind::List) {
        for (const wz::AnyValue &n : names.toList()) {
            if (n.kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("joint names must be texts, not " + n.repr());
            for (const std::string &joint : bodyNames(n.toStr()))
                list.push_back(joint);
        }
    } else {
        throw std::runtime_error("names must be a text or a list of texts, not " + names.repr());
    }
    std::vector<size_t> out;
    out.reserve(list.size());
    for (const std::string &name : list) {
        for (size_t i = 0; i < m_joints.size(); ++i) {
            if (m_joints[i].name == name) {
                out.push_back(i);
                break;
            }
        }
    }
    return out;
}

std::vector<float> MotionService::perJoint(const wz::AnyValue &values, size_t count,
                                           const char *what)
{
    if (values.kind() == wz::AnyValue::Kind::List) {
        const wz::AnyValue::List &list = values.toList();
        if (list.size() != count)
            throw std::runtime_error(std::string("expected ") + std::to_string(count) + " " + what
                                     + ", got " + std::to_string(list.size()));
        std::vector<float> out;
        out.reserve(count);
        for (const wz::AnyValue &v : list)
            out.push_back(finiteNumber(v, what));
        return out;
    }
    return std::vector<float>(count, finiteNumber(values, what));
}

float MotionService::checkedFraction(float fraction)
{
    if (!(fraction > 0.0f && fraction <= 1.0f))
        throw std::runtime_error("the speed fraction must be above 0 and at most 1, not "
                                 + std::to_string(fraction));
    return fraction;
}

std::vector<float> MotionService::getAngles(const wz::AnyValue &names, bool useSensors) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<size_t> joints = indexesOf(names);
    const Clock::time_point t = useSensors ? Clock::now() - kSensorLag : Clock::now();
    std::vector<float> out;
    out.reserve(joints.size());
    for (size_t i : joints)
        out.push_back(m_joints[i].angle.at(t));
    return out;
}

std::vector<float> MotionService::getStiffnesses(const wz::AnyValue &names) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<size_t> joints = indexesOf(names);
    const Clock::time_point now = Clock::now();
    std::vector<float> out;
    out.reserve(joints.size());
    for (size_t i : joints)
        out.push_back(m_joints[i].stiffness.at(now));
    return out;
}

bool MotionService::robotIsWakeUp() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_awake;
}

float MotionService::torsoAngle(const char *joint, Clock::time_point t) const
{
    for (const Joint &j : m_joints) {
        if (j.name == joint)
            return j.angle.at(t);
    }
    return 0.0f;
}

std::vector<float> MotionService::getPosition(const std::string &name, int space,
                                              bool useSensors) const
{
    if (name != "Torso")
        throw std::runtime_error("the position of \"" + name
                                 + "\" is not known; only of \"Torso\"");
    if (space < 0 || space > 2)
        throw std::runtime_error("space is 0 (torso), 1 (world) or 2 (robot), not "
                                 + std::to_string(space));
    if (space == 0)
        return std::vector<float>(6, 0.0f);
    std::lock_guard<std::mutex> lock(m_mutex);
    const Clock::time_point t = useSensors ? Clock::now() - kSensorLag : Clock::now();
    // Two leg segments of 10 cm over a 12 cm foot and ankle: the torso sinks
    // as the hips and knees bend, and leans with the hips.
    const float hip = (torsoAngle("LLegHipPitch", t) + torsoAngle("RLegHipPitch", t)) / 2.0f;
    const float knee = (torsoAngle("LLegKneePitch", t) + torsoAngle("RLegKneePitch", t)) / 2.0f;
    const float ankle = (torsoAngle("LLegAnklePitch", t) + torsoAngle("RLegAnklePitch", t)) / 2.0f;
    const float roll = (torsoAngle("LLegHipRoll", t) + torsoAngle("RLegHipRoll", t)) / 2.0f;
    const float z = 0.12f + 0.10f * std::cos(hip) + 0.10f * std::cos(hip + knee);
    const float x = 0.10f * std::sin(ankle) * -0.5f;
    return {x, 0.0f, z, roll, hip + knee + ankle, torsoAngle("PelvisYaw", t) / 2.0f};
}

MotionService::Clock::time_point MotionService::moveLocked(const std::vector<size_t> &joints,
                                                           const std::vector<float> &targets,
                                                           float fraction, Clock::time_point now)
{
    Clock::time_point end = now;
    for (size_t k = 0; k < joints.size(); ++k) {
        Joint &j = m_joints[joints[k]];
        const float target = std::clamp(targets[k], j.min, j.max);
        const float distance = std::fabs(target - j.angle.at(now));
        const Clock::time_point jointEnd = now + seconds(distance / (kMaxSpeed * fraction));
        j.angle.moveTo(now, jointEnd, target);
        end = std::max(end, jointEnd);
    }
    return end;
}

void MotionService::moveAndWait(const std::vector<size_t> &joints,
                                const std::vector<float> &targets, float fraction)
{
    Clock::time_point end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        end = moveLocked(joints, targets, fraction, Clock::now());
    }
    waitUntil(end);
}

void MotionService::waitUntil(Clock::time_point end)
{
    if (calledByPost())
        return;
    // The robot waits for calls in progress before it stops its services, so
    // a motion also ends early once the robot is no longer running.
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping && Clock::now() < end) {
        if (m_started && !robot().isRunning())
            return;
        m_stopped.wait_until(lock, std::min(end, Clock::now() + std::chrono::milliseconds(50)));
    }
}

void MotionService::changeAngles(const wz::AnyValue &names, const wz::AnyValue &changes,
                                 float fraction)
{
    checkedFraction(fraction);
    std::vector<size_t> joints;
    std::vector<float> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        joints = indexesOf(names);
        targets = perJoint(changes, joints.size(), "angle changes");
        const Clock::time_point now = Clock::now();
        for (size_t k = 0; k < joints.size(); ++k)
            targets[k] += m_joints[joints[k]].angle.at(now);
    }
    moveAndWait(joints, targets, fraction);
}

void MotionService::setAngles(const wz::AnyValue &names, const wz::AnyValue &angles, float fraction)
{
    angleInterpolationWithSpeed(names, angles, fraction);
}

void MotionService::angleInterpolationWithSpeed(const wz::AnyValue &names,
                                                const wz::AnyValue &targets, float fraction)
{
    checkedFraction(fraction);
    std::vector<size_t> joints;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        joints = indexesOf(names);
    }
    moveAndWait(joints, perJoint(targets, joints.size(), "angles"), fraction);
}

void MotionService::setStiffnesses(const wz::AnyValue &names, const wz::AnyValue &stiffnesses)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<size_t> joints = indexesOf(names);
    const std::vector<float> values = perJoint(stiffnesses, joints.size(), "stiffnesses");
    const Clock::time_point now = Clock::now();
    for (size_t k = 0; k < joints.size(); ++k)
        m_joints[joints[k]].stiffness.set(now, std::clamp(values[k], 0.0f, 1.0f));
}

void MotionService::stiffnessInterpolation(const wz::AnyValue &names,
                                           const wz::AnyValue &stiffnessLists,
                                           const wz::AnyValue &timeLists)
{
    std::vector<size_t> joints;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        joints = indexesOf(names);
    }
    // Each joint's keyframes: a number, a list of numbers, or (per joint) a
    // list of lists.
    const auto keyLists = [&joints](const wz::AnyValue &v, const char *what) {
        std::vector<std::vector<float>> out;
        const auto numbers = [what](const wz::AnyValue &x) {
            std::vector<float> list;
            if (x.kind() == wz::AnyValue::Kind::List) {
                for (const wz::AnyValue &e : x.toList())
                    list.push_back(finiteNumber(e, what));
            } else {
                list.push_back(finiteNumber(x, what));
            }
            if (list.empty())
                throw std::runtime_error(std::string("empty list of ") + what);
            return list;
        };
        const bool nested = v.kind() == wz::AnyValue::Kind::List && !v.toList().empty()
            && v.toList().front().kind() == wz::AnyValue::Kind::List;
        if (nested) {
            if (v.toList().size() != joints.size())
                throw std::runtime_error(std::string("expected ") + std::to_string(joints.size())
                                         + " lists of " + what + ", got "
                                         + std::to_string(v.toList().size()));
            for (const wz::AnyValue &e : v.toList())
                out.push_back(numbers(e));
        } else {
            out.assign(joints.size(), numbers(v));
        }
        return out;
    };
    const std::vector<std::vector<float>> stiffness = keyLists(stiffnessLists, "stiffnesses");
    const std::vector<std::vector<float>> times = keyLists(timeLists, "times");
    for (size_t k = 0; k < joints.size(); ++k) {
        if (stiffness[k].size() != times[k].size())
            throw std::runtime_error("each stiffness needs its time: "
                                     + std::to_string(stiffness[k].size()) + " stiffness(es) and "
                                     + std::to_string(times[k].size()) + " time(s)");
        float last = 0.0f;
        for (float t : times[k]) {
            if (t <= last || t > kMaxRampSeconds)
                throw std::runtime_error("times must increase from above 0 to at most "
                                         + std::to_string(static_cast<int>(kMaxRampSeconds))
                                         + " seconds");
            last = t;
        }
    }

    Clock::time_point end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Clock::time_point now = Clock::now();
        end = now;
        for (size_t k = 0; k < joints.size(); ++k) {
            Track &track = m_joints[joints[k]].stiffness;
            track.keys.assign(1, Key {now, track.at(now)});
            for (size_t i = 0; i < times[k].size(); ++i) {
                const Clock::time_point at = now + seconds(times[k][i]);
                track.keys.push_back(Key {at, std::clamp(stiffness[k][i], 0.0f, 1.0f)});
                end = std::max(end, at);
            }
        }
    }
    waitUntil(end);
}

void MotionService::wakeUp()
{
    std::vector<size_t> all(m_joints.size());
    std::vector<float> stand;
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = i;
        stand.push_back(kJoints[i].stand);
    }
    Clock::time_point end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_awake = true;
        const Clock::time_point now = Clock::now();
        const Clock::time_point stiff = now + seconds(kStiffnessRampSeconds);
        for (Joint &j : m_joints)
            j.stiffness.moveTo(now, stiff, 1.0f);
        // The joints start to move once they hold.
        end = moveLocked(all, stand, kPostureFraction, stiff);
    }
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__) << "waking up";
    waitUntil(end);
}

void MotionService::rest()
{
    std::vector<size_t> all(m_joints.size());
    std::vector<float> crouch;
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = i;
        crouch.push_back(kJoints[i].rest);
    }
    Clock::time_point end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_awake = false;
        const Clock::time_point now = Clock::now();
        const Clock::time_point down = moveLocked(all, crouch, kPostureFraction, now);
        end = down + seconds(kStiffnessRampSeconds);
        for (Joint &j : m_joints) {
            j.stiffness.keys.assign(1, Key {now, j.stiffness.at(now)});
            if (down > now)
                j.stiffness.keys.push_back(Key {down, j.stiffness.keys.front().value});
            j.stiffness.keys.push_back(Key {end, 0.0f});
        }
    }
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__) << "resting";
    waitUntil(end);
}

void MotionService::setAngleNow(const std::string &joint, float angle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<size_t> index = indexesOf(wz::AnyValue(joint));
    if (index.size() != 1)
        throw std::runtime_error("\"" + joint + "\" is not one joint");
    Joint &j = m_joints[index.front()];
    j.angle.set(Clock::now(), std::clamp(angle, j.min, j.max));
}

void MotionService::resetPose()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < m_joints.size(); ++i) {
        m_joints[i].angle.set(now, kJoints[i].rest);
        m_joints[i].stiffness.set(now, 0.0f);
    }
    m_awake = false;
}

} // namespace sim
