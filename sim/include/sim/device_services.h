#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <atomic>
#include <memory>

namespace sim {

// "VXBattery": a charge in percent.
class SIM_API BatteryService : public Service
{
public:
    BatteryService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"charge": 0..100}.
    void configure(const wz::AnyValue &settings) override;
    int charge() const { return m_charge; }
    void setCharge(int percent);

private:
    std::atomic<int> m_charge {87};
};

// "PackageManager": for now only the port of the HTTP side channel. Until a
// file server claims the port (Robot::setHttpTransferPort), a placeholder
// listener answers every request with 503.
class SIM_API PackageManagerService : public Service
{
public:
    PackageManagerService();
    ~PackageManagerService() override;
    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;

private:
    class Placeholder;
    std::unique_ptr<Placeholder> m_placeholder;
};

// "LogManager": getListener() hands out a new listener object fed by this
// process's log (signal "onLogMessage", property "verbosity", methods
// "setCategory" and "clearFilters"); each lives as long as its holder.
class SIM_API LogManagerService : public Service
{
public:
    LogManagerService();
    void describe(ServiceBuilder &builder) override;
};

} // namespace sim
