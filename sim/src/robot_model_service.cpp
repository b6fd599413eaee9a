#include <sim/robot_model_service.h>

#include <stdexcept>

namespace sim {

RobotModelService::RobotModelService() : Service("VXRobotModel")
{
    reset();
}

void RobotModelService::describe(ServiceBuilder &b)
{
    b.method("getConfig", [this]() { return config(); });
    b.method("getConfigFile", [this]() { return configFile(); });
}

void RobotModelService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.second.kind() != wz::AnyValue::Kind::String)
            throw std::runtime_error(field.first + " needs a text");
        if (field.first == "config")
            setConfig(field.second.toStr());
        else if (field.first == "configFile")
            setConfigFile(field.second.toStr());
        else
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
    }
}

std::string RobotModelService::config() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_config;
}

std::string RobotModelService::configFile() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_configFile;
}

void RobotModelService::setConfig(const std::string &text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_config = text;
}

void RobotModelService::setConfigFile(const std::string &text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_configFile = text;
}

void RobotModelService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_config = "Pelvon body type H25, version 6.0, head version 6.0, 25 joints, "
               "\xc3\xa9"
               "dition simul\xc3\xa9"
               "e";
    m_configFile = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                   "<robot name=\"Pelvon\" body=\"H25\" version=\"6.0\">\n"
                   "  <head version=\"6.0\"/>\n"
                   "  <joints count=\"25\"/>\n"
                   "</robot>\n";
}

} // namespace sim
