#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXMotionRecorder": records poses of chosen joints of VXMotion, either at a
// fixed time step (periodic, while other joints replay given angles) or one
// pose each time the robot is asked to store one (interactive). It tells the
// desktop what happens through memory events and through the desktop's own
// module "VXSartelRecorder", which it calls back by posts.
class SIM_API MotionRecorderService : public Service
{
public:
    static constexpr const char *kName = "VXMotionRecorder";
    static constexpr const char *kRecordingKey = "VXMotionRecorder/Recording";
    static constexpr const char *kCurrentFrameKey = "VXMotionRecorder/CurrentFrame";
    static constexpr const char *kStorePositionKey = "VXMotionRecorder/StorePositionRequested";
    static constexpr const char *kDesktopModule = "VXSartelRecorder";
    static constexpr int kMaxPoses = 10000;

    MotionRecorderService();
    ~MotionRecorderService() override;

    void describe(ServiceBuilder &builder) override;
    void stop() override;

    // The C++ side of the remote methods; failures throw std::runtime_error.
    void startInteractiveRecording(const std::vector<std::string> &joints, int nbPoses,
                                   bool extensionAllowed, int mode);
    void startPeriodicRecording(const std::vector<std::string> &joints, int nbPoses,
                                bool extensionAllowed, float timeStep,
                                const std::vector<std::string> &jointsToReplay,
                                const wz::AnyValue &replayData);
    // [[joint names...], [[angles of pose 0...], [angles of pose 1...], ...]]
    wz::AnyValue stopAndGetRecording();

    // The robot's own request to store a pose (its button, in an interactive
    // recording); throws when no interactive recording runs.
    void requestStorePosition();
    bool isRecording() const;
    // Ends any recording and forgets its poses.
    void reset();

private:
    enum class Mode { Idle, Interactive, Periodic };

    void begin(Mode mode, const std::vector<std::string> &joints, int nbPoses,
               bool extensionAllowed);
    // A pose of the recorded joints; the number of poses after it.
    int storePose();
    // Ends the recording: "Recording" false and, when `tellDesktop`, the
    // desktop's motionRecorderStopped().
    void finish(bool tellDesktop);
    void callDesktop(const std::string &method, const Args &args);
    void runPeriodic(float timeStep, std::vector<std::string> jointsToReplay,
                     std::vector<std::vector<float>> replay);
    void joinWorker();

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    Mode m_mode = Mode::Idle;
    std::vector<std::string> m_joints;
    int m_nbPoses = 0;
    bool m_extensionAllowed = false;
    std::vector<std::vector<float>> m_poses;
    bool m_stopping = false;
    uint64_t m_generation = 0;
    std::thread m_worker;
};

} // namespace sim
