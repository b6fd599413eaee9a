#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

// "VXMotion": a humanoid of 25 named joints. Each joint has an angle and a
// stiffness that follow piecewise linear tracks in time, so that a command
// moves the joints over time and the next read sees where they are. Sensor
// readings lag the commanded angles by one servo period.
//
// Names given to the remote methods are a joint name, a chain name ("Head",
// "LArm", "RArm", "Pelvis", "LLeg", "RLeg") or "Body", or a list of those.
class SIM_API MotionService : public Service
{
public:
    static constexpr const char *kName = "VXMotion";
    // Fastest joint speed, in radians per second, at a speed fraction of 1.
    static constexpr float kMaxSpeed = 3.0f;
    // How far sensor readings lag behind the commanded angles.
    static constexpr std::chrono::milliseconds kSensorLag {20};
    // A stiffness ramp given by a caller may not be longer than this.
    static constexpr double kMaxRampSeconds = 60.0;

    MotionService();
    ~MotionService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"awake": bool, "stiffness": 0..1, "angles": {"JOINT": radians}};
    // applied at once, with no motion.
    void configure(const wz::AnyValue &settings) override;

    // The joint names in body order.
    static const std::vector<std::string> &jointNames();
    // Names of a joint, a chain or "Body"; throws std::runtime_error for others.
    static std::vector<std::string> bodyNames(const std::string &name);

    // The C++ side of the remote methods; failures throw std::runtime_error
    // with the text a caller receives.
    std::vector<float> getAngles(const wz::AnyValue &names, bool useSensors) const;
    std::vector<float> getStiffnesses(const wz::AnyValue &names) const;
    bool robotIsWakeUp() const;
    // [x, y, z, wx, wy, wz] of "Torso" in space 0 (torso), 1 (world) or 2 (robot).
    std::vector<float> getPosition(const std::string &name, int space, bool useSensors) const;

    // Commands. Each returns when its motion has ended (or when the robot stops);
    // posted, as soon as the motion is set up.
    void changeAngles(const wz::AnyValue &names, const wz::AnyValue &changes, float fraction);
    void setAngles(const wz::AnyValue &names, const wz::AnyValue &angles, float fraction);
    void angleInterpolationWithSpeed(const wz::AnyValue &names, const wz::AnyValue &targets,
                                     float fraction);
    void setStiffnesses(const wz::AnyValue &names, const wz::AnyValue &stiffnesses);
    // Per joint, a list of stiffnesses reached at the matching times (seconds
    // from now, increasing). A single value stands for a list of one, and a
    // single list for every joint.
    void stiffnessInterpolation(const wz::AnyValue &names, const wz::AnyValue &stiffnessLists,
                                const wz::AnyValue &timeLists);
    // Stiff, then up to the standing pose.
    void wakeUp();
    // Down to the resting pose, then limp.
    void rest();

    // Immediate changes, with no motion (tests, timelines, scenarios).
    void setAngleNow(const std::string &joint, float angle);
    // Resting pose, no stiffness, asleep.
    void resetPose();

private:
    using Clock = std::chrono::steady_clock;
    struct Key
    {
        Clock::time_point at;
        float value;
    };
    // A piecewise linear value in time; before the first key it holds the
    // first value, after the last one the last value.
    struct Track
    {
        std::vector<Key> keys;
        float at(Clock::time_point t) const;
        void set(Clock::time_point now, float value);
        void moveTo(Clock::time_point now, Clock::time_point end, float value);
    };
    struct Joint
    {
        std::string name;
        float min;
        float max;
        Track angle;
        Track stiffness;
    };

    std::vector<size_t> indexesOf(const wz::AnyValue &names) const;
    // One value per joint from a number or a list of the joints' length.
    static std::vector<float> perJoint(const wz::AnyValue &values, size_t count, const char *what);
    static float checkedFraction(float fraction);
    // Moves the joints to their targets at the given speed; returns the end.
    Clock::time_point moveLocked(const std::vector<size_t> &joints,
                                 const std::vector<float> &targets, float fraction,
                                 Clock::time_point now);
    void moveAndWait(const std::vector<size_t> &joints, const std::vector<float> &targets,
                     float fraction);
    void waitUntil(Clock::time_point end);
    float torsoAngle(const char *joint, Clock::time_point t) const;

    mutable std::mutex m_mutex;
    std::condition_variable m_stopped;
    std::vector<Joint> m_joints;
    bool m_awake = false;
    bool m_started = false;
    bool m_stopping = false;
};

} // namespace sim
