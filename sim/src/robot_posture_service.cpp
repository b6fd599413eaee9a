#include <sim/memory_service.h>
#include <sim/motion_service.h>
#include <sim/robot.h>
#include <sim/robot_posture_service.h>

#include <wz/log.h>

#include <cmath>
#include <stdexcept>

namespace sim {

namespace {

const char *const kCategory = "sim.posture";

struct PostureDef
{
    const char *name;
    const char *family;
    // Angles in VXMotion's joint order.
    std::vector<float> angles;
};

const std::vector<PostureDef> &postures()
{
    // Body order: head (2), left arm (6), right arm (6), pelvis (1), left leg
    // (5), right leg (5).
    static const std::vector<PostureDef> table = {
        {"Stand", "Standing", {0.0f,   0.0f, 1.4f, 0.2f,   -1.2f, -0.5f,  0.0f, 0.3f,   1.4f,
                               -0.2f,  1.2f, 0.5f, 0.0f,   0.3f,  0.0f,   0.0f, -0.45f, 0.7f,
                               -0.35f, 0.0f, 0.0f, -0.45f, 0.7f,  -0.35f, 0.0f}},
        {"StandZero", "Standing", {0.0f, 0.0f, 0.0f,  0.0f, 0.0f, -0.03f, 0.0f, 0.0f, 0.0f,
                                   0.0f, 0.0f, 0.03f, 0.0f, 0.0f, 0.0f,   0.0f, 0.0f, 0.0f,
                                   0.0f, 0.0f, 0.0f,  0.0f, 0.0f, 0.0f,   0.0f}},
        {"Crouch", "Crouching", {0.0f,  0.2f, 0.9f, 0.1f,  -1.2f, -1.0f, 0.0f, 0.0f,  0.9f,
                                 -0.1f, 1.2f, 1.0f, 0.0f,  0.0f,  0.0f,  0.0f, -0.9f, 2.1f,
                                 -1.2f, 0.0f, 0.0f, -0.9f, 2.1f,  -1.2f, 0.0f}},
        {"Sit", "Sitting", {0.0f,  0.0f, 0.9f, 0.1f,  -1.2f, -1.0f, 0.0f, 0.0f,  0.9f,
                            -0.1f, 1.2f, 1.0f, 0.0f,  0.0f,  0.0f,  0.0f, -1.5f, 0.0f,
                            0.0f,  0.0f, 0.0f, -1.5f, 0.0f,  0.0f,  0.0f}},
    };
    return table;
}

const PostureDef &find(const std::string &name)
{
    for (const PostureDef &p : postures()) {
        if (name == p.name)
            return p;
    }
    throw std::runtime_error("unknown posture \"" + name + "\"");
}

} // namespace

RobotPostureService::RobotPostureService() : Service(kName) { }

RobotPostureService::~RobotPostureService()
{
    stop();
}

std::vector<std::string> RobotPostureService::postureNames()
{
    std::vector<std::string> out;
    for (const PostureDef &p : postures())
        out.push_back(p.name);
    return out;
}

std::string RobotPostureService::familyOf(const std::string &posture)
{
    return find(posture).family;
}

std::vector<float> RobotPostureService::anglesOf(const std::string &posture)
{
    return find(posture).angles;
}

void RobotPostureService::describe(ServiceBuilder &b)
{
    b.method("goToPosture",
             [this](const std::string &name, float speed) { return goToPosture(name, speed); });
    b.method("applyPosture",
             [this](const std::string &name, float speed) { return applyPosture(name, speed); });
    b.method("getPostureFamily", [this]() { return getPostureFamily(); });
    b.method("getPostureList", []() { return postureNames(); });
}

void RobotPostureService::start()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lastFamily = getPostureFamily();
    }
    m_watcher = std::thread([this]() { watch(); });
}

void RobotPostureService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_watcher.joinable())
        m_watcher.join();
}

std::string RobotPostureService::getPostureFamily() const
{
    MotionService *motion = robot().serviceAs<MotionService>(MotionService::kName);
    if (!motion)
        return kUnknownFamily;
    const std::vector<float> now = motion->getAngles(wz::AnyValue("Body"), true);
    for (const PostureDef &p : postures()) {
        bool fits = true;
        for (size_t i = 0; fits && i < now.size() && i < p.angles.size(); ++i)
            fits = std::fabs(now[i] - p.angles[i]) <= kTolerance;
        if (fits)
            return p.family;
    }
    return kUnknownFamily;
}

bool RobotPostureService::goToPosture(const std::string &posture, float speed)
{
    return reach(posture, speed, true);
}

bool RobotPostureService::applyPosture(const std::string &posture, float speed)
{
    return reach(posture, speed, false);
}

bool RobotPostureService::reach(const std::string &posture, float speed, bool stiffenFirst)
{
    const PostureDef &def = find(posture);
    if (!(speed > 0.0f && speed <= 1.0f))
        throw std::runtime_error("the speed fraction must be above 0 and at most 1, not "
                                 + std::to_string(speed));
    MotionService *motion = robot().serviceAs<MotionService>(MotionService::kName);
    if (!motion)
        throw std::runtime_error("no VXMotion on this robot");
    const wz::AnyValue body("Body");
    const std::vector<float> stiffness = motion->getStiffnesses(body);
    bool limp = false;
    for (float s : stiffness)
        limp = limp || s < 0.5f;
    if (limp) {
        if (!stiffenFirst) {
            wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__)
                << "refusing " << posture << ": the robot is limp";
            return false;
        }
        motion->stiffnessInterpolation(body, wz::AnyValue(1.0), wz::AnyValue(0.2));
    }
    wz::AnyValue::List targets;
    for (float a : def.angles)
        targets.push_back(wz::AnyValue(static_cast<double>(a)));
    motion->angleInterpolationWithSpeed(body, wz::AnyValue(targets), speed);
    publishFamily();
    const bool reached = getPostureFamily() == def.family;
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__)
        << posture << (reached ? " reached" : " not reached");
    return reached;
}

void RobotPostureService::publishFamily()
{
    const std::string family = getPostureFamily();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (family == m_lastFamily)
            return;
        m_lastFamily = family;
    }
    try {
        robot().memory().raiseEvent(kFamilyEvent, wz::AnyValue(family));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
            << "cannot raise " << kFamilyEvent << ": " << e.what();
    }
}

void RobotPostureService::watch()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        m_wake.wait_for(lock, kWatchPeriod);
        if (m_stopping)
            return;
        lock.unlock();
        publishFamily();
        lock.lock();
    }
}

} // namespace sim
