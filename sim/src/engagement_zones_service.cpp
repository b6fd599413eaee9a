#include <sim/engagement_zones_service.h>

#include <cmath>
#include <stdexcept>

namespace sim {

namespace {
float checked(float v, const char *what)
{
    if (!std::isfinite(v) || v < 0.0f)
        throw std::runtime_error(std::string(what) + " must be a finite number of at least 0, not "
                                 + std::to_string(v));
    return v;
}
} // namespace

EngagementZonesService::EngagementZonesService() : Service(kName) { }

void EngagementZonesService::describe(ServiceBuilder &b)
{
    b.method("getFirstLimitDistance", [this]() { return firstLimit(); });
    b.method("getSecondLimitDistance", [this]() { return secondLimit(); });
    b.method("getLimitAngle", [this]() { return limitAngle(); });
    b.method("setFirstLimitDistance", [this](float d) { setFirstLimit(d); });
    b.method("setSecondLimitDistance", [this](float d) { setSecondLimit(d); });
    b.method("setLimitAngle", [this](float a) { setLimitAngle(a); });
    b.signal("firstLimitChanged", 1);
    b.signal("secondLimitChanged", 1);
    b.signal("limitAngleChanged", 1);
}

void EngagementZonesService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.second.kind() != wz::AnyValue::Kind::Float
            && field.second.kind() != wz::AnyValue::Kind::Int)
            throw std::runtime_error(field.first + " needs a number");
        const float v = static_cast<float>(field.second.toDouble());
        if (field.first == "firstLimit")
            m_first = checked(v, "firstLimit");
        else if (field.first == "secondLimit")
            m_second = checked(v, "secondLimit");
        else if (field.first == "limitAngle")
            m_angle = checked(v, "limitAngle");
        else
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
    }
}

void EngagementZonesService::setFirstLimit(float distance)
{
    m_first = checked(distance, "a limit distance");
    emitSignal("firstLimitChanged", {distance});
}

void EngagementZonesService::setSecondLimit(float distance)
{
    m_second = checked(distance, "a limit distance");
    emitSignal("secondLimitChanged", {distance});
}

void EngagementZonesService::setLimitAngle(float angle)
{
    m_angle = checked(angle, "a limit angle");
    emitSignal("limitAngleChanged", {angle});
}

void EngagementZonesService::resetLimits()
{
    m_first = 1.2f;
    m_second = 2.8f;
    m_angle = 60.0f;
}

} // namespace sim
