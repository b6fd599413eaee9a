#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <mutex>
#include <string>

namespace sim {

// "VXRobotModel": the robot's configuration as a short text (`getConfig`)
// and as the text of its configuration file (`getConfigFile`).
class SIM_API RobotModelService : public Service
{
public:
    RobotModelService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"config": TEXT, "configFile": TEXT}.
    void configure(const wz::AnyValue &settings) override;

    std::string config() const;
    std::string configFile() const;
    void setConfig(const std::string &text);
    void setConfigFile(const std::string &text);
    void reset();

private:
    mutable std::mutex m_mutex;
    std::string m_config;
    std::string m_configFile;
};

} // namespace sim
