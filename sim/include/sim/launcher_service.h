#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

class Pause;

// "VXLauncher": `_launchWait(command, args)` pretends to run a command and
// answers its exit code after its duration. Commands come from a fixed table
// (see table()); an unknown one fails with "command not found: NAME". Nothing
// ever runs on the host. Durations are multiplied by a scale that tests set
// low, and are cut short when the robot stops.
class SIM_API LauncherService : public Service
{
public:
    struct Command
    {
        int exitCode = 0;
        std::chrono::milliseconds duration {0};
    };
    struct Launch
    {
        std::string command;
        std::vector<std::string> args;
        int exitCode = 0;
        bool completed = false; // false when the robot's stop cut it short
    };

    LauncherService();
    ~LauncherService() override;
    void describe(ServiceBuilder &builder) override;
    // Settings: {"durationScale": NUMBER, "commands": {NAME: {"exit": N, "ms": N}}}.
    void configure(const wz::AnyValue &settings) override;

    static std::map<std::string, Command> table();
    int launchWait(const std::string &command, const std::vector<std::string> &args);
    void addCommand(const std::string &name, Command command);
    double durationScale() const;
    void setDurationScale(double scale);
    // Every launch asked for, oldest first, unknown commands included.
    std::vector<Launch> launches() const;
    // The fixed table, scale 1, nothing launched.
    void reset();

private:
    mutable std::mutex m_mutex;
    std::map<std::string, Command> m_commands;
    double m_scale = 1.0;
    std::vector<Launch> m_launches;
    std::unique_ptr<Pause> m_pause;
};

} // namespace sim
