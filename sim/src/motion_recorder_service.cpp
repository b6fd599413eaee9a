#include <sim/memory_service.h>
#include <sim/motion_recorder_service.h>
#include <sim/motion_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/session.h>

#include <chrono>
#include <cmath>
#include <stdexcept>

namespace sim {

namespace {
const char *const kCategory = "sim.recorder";
// Looking up the desktop's module in the robot's own directory is local.
const int kDesktopLookupTimeoutMs = 5000;
} // namespace

MotionRecorderService::MotionRecorderService() : Service(kName) { }

MotionRecorderService::~MotionRecorderService()
{
    stop();
}

void MotionRecorderService::describe(ServiceBuilder &b)
{
    b.method(
        "startInteractiveRecording",
        [this](const std::vector<std::string> &joints, int nbPoses, bool extensionAllowed,
               int mode) { startInteractiveRecording(joints, nbPoses, extensionAllowed, mode); });
    b.method("startPeriodicRecording",
             [this](const std::vector<std::string> &joints, int nbPoses, bool extensionAllowed,
                    float timeStep, const std::vector<std::string> &jointsToReplay,
                    const wz::AnyValue &replayData) {
                 startPeriodicRecording(joints, nbPoses, extensionAllowed, timeStep, jointsToReplay,
                                        replayData);
             });
    b.method("stopAndGetRecording", [this]() { return stopAndGetRecording(); });
    b.method("isRecording", [this]() { return isRecording(); });
}

void MotionRecorderService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        ++m_generation;
    }
    m_wake.notify_all();
    joinWorker();
}

void MotionRecorderService::joinWorker()
{
    if (m_worker.joinable() && m_worker.get_id() != std::this_thread::get_id())
        m_worker.join();
}

void MotionRecorderService::begin(Mode mode, const std::vector<std::string> &joints, int nbPoses,
                                  bool extensionAllowed)
{
    if (joints.empty())
        throw std::runtime_error("no joint to record");
    for (const std::string &j : joints) {
        if (MotionService::bodyNames(j).size() != 1)
            throw std::runtime_error("\"" + j + "\" is not one joint");
    }
    if (nbPoses < 1 || nbPoses > kMaxPoses)
        throw std::runtime_error("the number of poses is 1 to " + std::to_string(kMaxPoses)
                                 + ", not " + std::to_string(nbPoses));
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping)
        throw std::runtime_error("robot stopped");
    if (m_mode != Mode::Idle)
        throw std::runtime_error("a recording is already running");
    m_mode = mode;
    m_joints = joints;
    m_nbPoses = nbPoses;
    m_extensionAllowed = extensionAllowed;
    m_poses.clear();
}

void MotionRecorderService::startInteractiveRecording(const std::vector<std::string> &joints,
                                                      int nbPoses, bool extensionAllowed, int mode)
{
    (void)mode;
    begin(Mode::Interactive, joints, nbPoses, extensionAllowed);
    robot().memory().raiseMicroEvent(kRecordingKey, wz::AnyValue(true));
}

void MotionRecorderService::startPeriodicRecording(const std::vector<std::string> &joints,
                                                   int nbPoses, bool extensionAllowed,
                                                   float timeStep,
                                                   const std::vector<std::string> &jointsToReplay,
                                                   const wz::AnyValue &replayData)
{
    if (!(timeStep >= 0.01f && timeStep <= 10.0f))
        throw std::runtime_error("the time step is 0.01 to 10 seconds, not "
                                 + std::to_string(timeStep));
    for (const std::string &j : jointsToReplay) {
        if (MotionService::bodyNames(j).size() != 1)
            throw std::runtime_error("\"" + j + "\" is not one joint");
    }
    // One list of angles of the replayed joints per step; fewer steps than
    // poses hold the last one.
    std::vector<std::vector<float>> replay;
    if (!jointsToReplay.empty()) {
        if (replayData.kind() != wz::AnyValue::Kind::List)
            throw std::runtime_error("replay data must be a list of steps, not "
                                     + replayData.repr());
        for (const wz::AnyValue &step : replayData.toList()) {
            if (step.kind() != wz::AnyValue::Kind::List
                || step.toList().size() != jointsToReplay.size())
                throw std::runtime_error("each replay step needs "
                                         + std::to_string(jointsToReplay.size()) + " angle(s), got "
                                         + step.repr());
            std::vector<float> angles;
            for (const wz::AnyValue &a : step.toList()) {
                if (a.kind() != wz::AnyValue::Kind::Float && a.kind() != wz::AnyValue::Kind::Int)
                    throw std::runtime_error("a replayed angle must be a number, not " + a.repr());
                angles.push_back(static_cast<float>(a.toDouble()));
            }
            replay.push_back(std::move(angles));
        }
    }
    begin(Mode::Periodic, joints, nbPoses, extensionAllowed);
    joinWorker();
    robot().memory().raiseMicroEvent(kRecordingKey, wz::AnyValue(true));
    m_worker = std::thread([this, timeStep, jointsToReplay, replay]() {
        runPeriodic(timeStep, jointsToReplay, replay);
    });
}

int MotionRecorderService::storePose()
{
    std::vector<std::string> joints;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        joints = m_joints;
    }
    MotionService *motion = robot().serviceAs<MotionService>(MotionService::kName);
    std::vector<float> pose;
    if (motion) {
        wz::AnyValue::List names;
        for (const std::string &j : joints)
            names.push_back(wz::AnyValue(j));
        pose = motion->getAngles(wz::AnyValue(names), true);
    } else {
        pose.assign(joints.size(), 0.0f);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_poses.push_back(std::move(pose));
    return static_cast<int>(m_poses.size());
}

void MotionRecorderService::requestStorePosition()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_mode != Mode::Interactive)
            throw std::runtime_error("no interactive recording is running");
    }
    robot().memory().raiseMicroEvent(kStorePositionKey, wz::AnyValue(true));
    const int stored = storePose();
    robot().memory().raiseMicroEvent(kCurrentFrameKey, wz::AnyValue(stored - 1));
    bool full = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        full = stored >= m_nbPoses && !m_extensionAllowed;
    }
    if (full)
        finish(true);
}

void MotionRecorderService::runPeriodic(float timeStep, std::vector<std::string> jointsToReplay,
                                        std::vector<std::vector<float>> replay)
{
    uint64_t generation = 0;
    int nbPoses = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        generation = m_generation;
        nbPoses = m_nbPoses;
    }
    MotionService *motion = robot().serviceAs<MotionService>(MotionService::kName);
    const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(timeStep));
    auto next = std::chrono::steady_clock::now();
    for (int step = 0; step < nbPoses; ++step) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait_until(lock, next, [&]() { return m_generation != generation; });
            if (m_generation != generation)
                return;
        }
        next += period;
        if (motion && !replay.empty()) {
            const std::vector<float> &angles = replay[std::min<size_t>(step, replay.size() - 1)];
            for (size_t k = 0; k < jointsToReplay.size(); ++k)
                motion->setAngleNow(jointsToReplay[k], angles[k]);
            callDesktop("sendReplayedToStep", {wz::AnyValue(step)});
        }
        storePose();
        robot().memory().raiseMicroEvent(kCurrentFrameKey, wz::AnyValue(step));
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_generation != generation || m_mode != Mode::Periodic)
            return;
    }
    finish(true);
}

void MotionRecorderService::finish(bool tellDesktop)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_mode == Mode::Idle)
            return;
        m_mode = Mode::Idle;
        ++m_generation;
    }
    m_wake.notify_all();
    robot().memory().raiseMicroEvent(kRecordingKey, wz::AnyValue(false));
    if (tellDesktop)
        callDesktop("motionRecorderStopped", {});
}

wz::AnyValue MotionRecorderService::stopAndGetRecording()
{
    finish(false);
    joinWorker();
    std::lock_guard<std::mutex> lock(m_mutex);
    wz::AnyValue::List names;
    for (const std::string &j : m_joints)
        names.push_back(wz::AnyValue(j));
    wz::AnyValue::List poses;
    for (const std::vector<float> &pose : m_poses) {
        wz::AnyValue::List angles;
        for (float a : pose)
            angles.push_back(wz::AnyValue(static_cast<double>(a)));
        poses.push_back(wz::AnyValue(angles));
    }
    return wz::AnyValue(wz::AnyValue::List {wz::AnyValue(names), wz::AnyValue(poses)});
}

bool MotionRecorderService::isRecording() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_mode != Mode::Idle;
}

void MotionRecorderService::reset()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mode = Mode::Idle;
        ++m_generation;
    }
    m_wake.notify_all();
    joinWorker();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_poses.clear();
    m_joints.clear();
}

void MotionRecorderService::callDesktop(const std::string &method, const Args &args)
{
    // Posted, so that a slow desktop never holds the recording up.
    try {
        wz::Object desktop
            = robot().session().service(kDesktopModule).value(kDesktopLookupTimeoutMs);
        desktop->metaPost(method, args);
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
            << "cannot call " << kDesktopModule << "." << method << ": " << e.what();
    }
}

} // namespace sim
