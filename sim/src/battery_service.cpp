#include <sim/device_services.h>

#include <cstdint>
#include <stdexcept>

namespace sim {

BatteryService::BatteryService() : Service("VXBattery") { }

void BatteryService::describe(ServiceBuilder &b)
{
    b.method(
        "getBatteryCharge", [this]() { return charge(); }, wz::MethodFlag_Direct);
    b.method(
        "getBatteryLevel", [this]() { return level(); }, wz::MethodFlag_Direct);
}

void BatteryService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first != "charge")
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        if (field.second.kind() != wz::AnyValue::Kind::Int)
            throw std::runtime_error("charge needs an integer");
        const int64_t percent = field.second.toInt();
        if (percent < 0 || percent > 100)
            throw std::runtime_error("charge is 0 to 100 percent, not " + std::to_string(percent));
        setCharge(static_cast<int>(percent));
    }
}

void BatteryService::setCharge(int percent)
{
    if (percent < 0 || percent > 100)
        throw std::invalid_argument("a charge is 0 to 100 percent, not " + std::to_string(percent));
    m_charge = percent;
}

} // namespace sim
