#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

// "VXRobotPosture": named postures of the whole body, reached by moving the
// joints of VXMotion, and the family of the present stance, raised as the
// event "PostureFamilyChanged" whenever it changes, however the joints moved.
class SIM_API RobotPostureService : public Service
{
public:
    static constexpr const char *kName = "VXRobotPosture";
    static constexpr const char *kFamilyEvent = "PostureFamilyChanged";
    static constexpr const char *kUnknownFamily = "Unknown";
    // A stance fits a posture when no joint is further from it than this.
    static constexpr float kTolerance = 0.1f;
    // How often the family is looked at.
    static constexpr std::chrono::milliseconds kWatchPeriod {50};

    RobotPostureService();
    ~RobotPostureService() override;

    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;

    // Posture names, and the family of each.
    static std::vector<std::string> postureNames();
    static std::string familyOf(const std::string &posture);
    // The 25 angles of a posture in VXMotion's joint order; throws for an
    // unknown name.
    static std::vector<float> anglesOf(const std::string &posture);

    // The C++ side of the remote methods. goToPosture stiffens a limp robot
    // first; applyPosture answers false on a limp one. Both answer whether the
    // posture was reached; an unknown name or a bad speed throws.
    bool goToPosture(const std::string &posture, float speed);
    bool applyPosture(const std::string &posture, float speed);
    std::string getPostureFamily() const;

private:
    bool reach(const std::string &posture, float speed, bool stiffenFirst);
    void watch();
    // Raises the event when the family differs from the last one raised.
    void publishFamily();

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::string m_lastFamily;
    bool m_stopping = false;
    std::thread m_watcher;
};

} // namespace sim
