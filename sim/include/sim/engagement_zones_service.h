#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <atomic>
#include <mutex>
#include <string>

namespace sim {

// "VXEngagementZones": two limit distances and a limit angle, with getters,
// setters and a change signal each. A setter announces the value even when
// it has not changed.
class SIM_API EngagementZonesService : public Service
{
public:
    static constexpr const char *kName = "VXEngagementZones";

    EngagementZonesService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"firstLimit": n, "secondLimit": n, "limitAngle": n}.
    void configure(const wz::AnyValue &settings) override;

    void setFirstLimit(float distance);
    void setSecondLimit(float distance);
    void setLimitAngle(float angle);
    float firstLimit() const { return m_first; }
    float secondLimit() const { return m_second; }
    float limitAngle() const { return m_angle; }
    void resetLimits();

private:
    std::atomic<float> m_first {1.2f};
    std::atomic<float> m_second {2.8f};
    std::atomic<float> m_angle {60.0f};
};

} // namespace sim
