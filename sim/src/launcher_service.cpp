#include <sim/launcher_service.h>
#include <sim/robot.h>

#include "pause.h"

#include <stdexcept>

namespace sim {

LauncherService::LauncherService() : Service("VXLauncher"), m_pause(std::make_unique<Pause>())
{
    reset();
}

LauncherService::~LauncherService() = default;

void LauncherService::describe(ServiceBuilder &b)
{
    b.method("_launchWait",
             [this](const std::string &command, const std::vector<std::string> &args) {
                 return launchWait(command, args);
             });
}

void LauncherService::configure(const wz::AnyValue &settings)
{
    using Kind = wz::AnyValue::Kind;
    for (const auto &field : settings.toMap()) {
        if (field.first == "durationScale") {
            if (field.second.kind() != Kind::Float && field.second.kind() != Kind::Int)
                throw std::runtime_error("durationScale needs a number");
            setDurationScale(field.second.toDouble());
        } else if (field.first == "commands" && field.second.kind() == Kind::Map) {
            for (const auto &c : field.second.toMap()) {
                Command command;
                if (c.second.kind() != Kind::Map)
                    throw std::runtime_error("command \"" + c.first
                                             + "\" needs {\"exit\", \"ms\"}");
                for (const auto &f : c.second.toMap()) {
                    if (f.second.kind() != Kind::Int)
                        throw std::runtime_error(c.first + "." + f.first + " needs an integer");
                    if (f.first == "exit")
                        command.exitCode = static_cast<int>(f.second.toInt());
                    else if (f.first == "ms" && f.second.toInt() >= 0)
                        command.duration = std::chrono::milliseconds(f.second.toInt());
                    else
                        throw std::runtime_error("unknown setting \"" + c.first + "." + f.first
                                                 + "\"");
                }
                addCommand(c.first, command);
            }
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

std::map<std::string, LauncherService::Command> LauncherService::table()
{
    using std::chrono::milliseconds;
    return {
        {"true", {0, milliseconds(0)}},         {"false", {1, milliseconds(0)}},
        {"uptime", {0, milliseconds(50)}},      {"sync", {0, milliseconds(300)}},
        {"self-check", {3, milliseconds(800)}}, {"segfault", {-11, milliseconds(100)}},
    };
}

int LauncherService::launchWait(const std::string &command, const std::vector<std::string> &args)
{
    Command found;
    double scale;
    size_t index;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_launches.push_back(Launch {command, args, 0, false});
        index = m_launches.size() - 1;
        auto it = m_commands.find(command);
        if (it == m_commands.end())
            throw std::runtime_error("command not found: " + command);
        found = it->second;
        scale = m_scale;
    }
    const auto duration = std::chrono::milliseconds(
        static_cast<long long>(static_cast<double>(found.duration.count()) * scale));
    const bool completed = m_pause->wait(duration, robot());
    std::lock_guard<std::mutex> lock(m_mutex);
    // A reset() meanwhile forgot this launch.
    if (index < m_launches.size() && m_launches[index].command == command) {
        m_launches[index].exitCode = found.exitCode;
        m_launches[index].completed = completed;
    }
    if (!completed)
        throw std::runtime_error("command interrupted: " + command);
    return found.exitCode;
}

void LauncherService::addCommand(const std::string &name, Command command)
{
    if (name.empty())
        throw std::invalid_argument("a command needs a name");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_commands[name] = command;
}

double LauncherService::durationScale() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_scale;
}

void LauncherService::setDurationScale(double scale)
{
    if (!(scale >= 0))
        throw std::invalid_argument("a duration scale is 0 or more");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scale = scale;
}

std::vector<LauncherService::Launch> LauncherService::launches() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_launches;
}

void LauncherService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_commands = table();
    m_scale = 1.0;
    m_launches.clear();
}

} // namespace sim
