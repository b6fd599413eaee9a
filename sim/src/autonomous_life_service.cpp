#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <stdexcept>

namespace sim {

AutonomousLifeService::AutonomousLifeService() : Service(kName) { }

bool AutonomousLifeService::isState(const std::string &state)
{
    return state == "disabled" || state == "solitary" || state == "interactive"
        || state == "reflex";
}

void AutonomousLifeService::describe(ServiceBuilder &b)
{
    b.method("getState", [this]() { return state(); });
    b.method("setState", [this](const std::string &s) { setState(s); });
    b.method("switchFocus", [this](const std::string &name) { switchFocus(name); });
}

void AutonomousLifeService::configure(const wz::AnyValue &settings)
{
    const wz::AnyValue *state
        = settings.kind() == wz::AnyValue::Kind::Map ? settings.find("state") : nullptr;
    if (!state || state->kind() != wz::AnyValue::Kind::String || settings.toMap().size() != 1)
        throw std::runtime_error("VXAutonomousLife takes {\"state\": TEXT}, not "
                                 + settings.repr());
    setState(state->toStr());
}

std::string AutonomousLifeService::state() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

void AutonomousLifeService::setState(const std::string &state)
{
    if (!isState(state))
        throw std::runtime_error("\"" + state
                                 + "\" is not a life state (disabled, solitary, interactive, "
                                   "reflex)");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == state)
            return;
        m_state = state;
    }
    robot().memory().raiseMicroEvent(kStateEvent, wz::AnyValue(state));
}

void AutonomousLifeService::switchFocus(const std::string &name)
{
    auto *manager = robot().serviceAs<BehaviorManagerService>(BehaviorManagerService::kName);
    if (!manager || robot().scenario().isOmitted(BehaviorManagerService::kName))
        throw std::runtime_error("cannot switch focus to \"" + name
                                 + "\": no behavior manager on this robot");
    if (!manager->isInstalled(name))
        throw std::runtime_error("cannot switch focus to \"" + name + "\": it is not installed");
    if (!manager->isRunning(name))
        manager->startBehavior(name);
}

} // namespace sim
