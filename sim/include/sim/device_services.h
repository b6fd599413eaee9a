#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <wz/log.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace sim {

// "VXBattery": a charge in percent; `getBatteryLevel` gives it in steps of
// 20 percent (0 to 5).
class SIM_API BatteryService : public Service
{
public:
    BatteryService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"charge": 0..100}.
    void configure(const wz::AnyValue &settings) override;
    int charge() const { return m_charge; }
    int level() const { return m_charge / 20; }
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
// A chatter source writes numbered messages to that log, for tests and
// benchmarks: "chatter N" at a rate, in a category, at a level.
class SIM_API LogManagerService : public Service
{
public:
    struct Chatter
    {
        int rate = 0; // messages a second; 0 is off
        std::string category = "sim.chatter";
        wz::LogLevel level = wz::LogLevel_Warning;
    };

    LogManagerService();
    ~LogManagerService() override;
    void describe(ServiceBuilder &builder) override;
    void start() override;
    void stop() override;
    // Settings: {"chatter": {"rate": N, "category": TEXT, "level": 0..6}}.
    void configure(const wz::AnyValue &settings) override;

    // Starts, changes or (rate 0) stops the chatter; numbering goes on.
    void setChatter(const Chatter &chatter);
    Chatter chatter() const;
    // Messages written so far; the next one is "chatter <sent()>".
    uint64_t sent() const { return m_sent; }

private:
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_cond;
    Chatter m_chatter;
    bool m_running = false;
    uint64_t m_changes = 0;
    std::atomic<uint64_t> m_sent {0};
    std::thread m_thread;
};

} // namespace sim
