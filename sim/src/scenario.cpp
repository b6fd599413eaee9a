// A scenario's rules: which services and methods the robot lacks, fails, delays
// or holds, the calls it saw, and what tests ask of its memory and clients.
// Reading them from a JSON file is in scenario_file.cpp.

#include <sim/memory_service.h>
#include <sim/robot.h>
#include <sim/scenario.h>

#include <stdexcept>

namespace sim {

Scenario::Scenario(Robot &robot) : m_robot(robot) { }

void Scenario::omitService(const std::string &service)
{
    if (!m_robot.service(service))
        throw std::invalid_argument("the robot has no service \"" + service + "\"");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_omitted.insert(service);
    }
    m_robot.refreshService(service);
}

void Scenario::restoreService(const std::string &service)
{
    if (!m_robot.service(service))
        throw std::invalid_argument("the robot has no service \"" + service + "\"");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_omitted.erase(service))
            return;
    }
    m_robot.refreshService(service);
}

bool Scenario::isOmitted(const std::string &service) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_omitted.count(service) > 0;
}

MethodRule &Scenario::ruleLocked(const std::string &service, const std::string &method)
{
    return m_rules[Key(service, method)];
}

namespace {
void requireMethod(const Robot &robot, const std::string &service, const std::string &method)
{
    if (!robot.service(service))
        throw std::invalid_argument("the robot has no service \"" + service + "\"");
    if (!robot.offersMethod(service, method))
        throw std::invalid_argument("service \"" + service + "\" has no method \"" + method + "\"");
}
} // namespace

void Scenario::removeMethod(const std::string &service, const std::string &method)
{
    requireMethod(m_robot, service, method);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ruleLocked(service, method).removed = true;
    }
    m_robot.refreshService(service);
}

void Scenario::failMethod(const std::string &service, const std::string &method,
                          const std::string &text)
{
    requireMethod(m_robot, service, method);
    std::lock_guard<std::mutex> lock(m_mutex);
    ruleLocked(service, method).failText = text;
}

void Scenario::delayMethod(const std::string &service, const std::string &method,
                           std::chrono::milliseconds delay)
{
    requireMethod(m_robot, service, method);
    std::lock_guard<std::mutex> lock(m_mutex);
    ruleLocked(service, method).delay = delay;
}

void Scenario::holdMethod(const std::string &service, const std::string &method)
{
    requireMethod(m_robot, service, method);
    std::lock_guard<std::mutex> lock(m_mutex);
    ruleLocked(service, method).held = true;
}

bool Scenario::isHeld(const std::string &service, const std::string &method) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_rules.find(Key(service, method));
    return it != m_rules.end() && it->second.held;
}

void Scenario::replaceMethod(const std::string &service, const std::string &method, MethodFn fn)
{
    requireMethod(m_robot, service, method);
    std::lock_guard<std::mutex> lock(m_mutex);
    ruleLocked(service, method).replacement = std::move(fn);
}

void Scenario::addMethod(const std::string &service, const std::string &method, unsigned arity,
                         MethodFn fn)
{
    if (!m_robot.service(service))
        throw std::invalid_argument("the robot has no service \"" + service + "\"");
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_added[Key(service, method + "/" + std::to_string(arity))]
            = MethodDef {method, arity, std::move(fn)};
    }
    m_robot.refreshService(service);
}

void Scenario::restoreMethod(const std::string &service, const std::string &method)
{
    bool structural = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto rule = m_rules.find(Key(service, method));
        if (rule != m_rules.end()) {
            structural = rule->second.removed;
            m_rules.erase(rule);
        }
        for (auto it = m_added.begin(); it != m_added.end();) {
            if (it->first.first == service && it->second.name == method) {
                it = m_added.erase(it);
                structural = true;
            } else {
                ++it;
            }
        }
    }
    if (structural)
        m_robot.refreshService(service);
}

void Scenario::reset()
{
    std::set<std::string> touched;
    std::set<std::string> blocked;
    std::set<std::string> held;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto &r : m_rules) {
            if (r.second.removed)
                touched.insert(r.first.first);
        }
        for (const auto &a : m_added)
            touched.insert(a.first.first);
        touched.insert(m_omitted.begin(), m_omitted.end());
        m_rules.clear();
        m_added.clear();
        m_omitted.clear();
        m_calls.clear();
        blocked.swap(m_blocked);
        held.swap(m_held);
    }
    for (const std::string &module : blocked)
        m_robot.memory().setDeliveryBlocked(module, false);
    for (const std::string &module : held)
        m_robot.memory().setDeliveryHeld(module, false);
    for (const std::string &service : touched)
        m_robot.refreshService(service);
}

void Scenario::holdReadiness()
{
    m_robot.setReadiness(true, std::chrono::milliseconds(0));
}

void Scenario::holdReadinessFor(std::chrono::milliseconds delay)
{
    m_robot.setReadiness(false, delay);
}

void Scenario::releaseReadiness()
{
    m_robot.setReadiness(false, std::chrono::milliseconds(0));
}

void Scenario::setKey(const std::string &key, const wz::AnyValue &value)
{
    m_robot.memory().insertData(key, value);
}

void Scenario::removeKey(const std::string &key)
{
    m_robot.memory().removeData(key);
}

void Scenario::raiseEvent(const std::string &name, const wz::AnyValue &value)
{
    m_robot.memory().raiseEvent(name, value);
}

void Scenario::raiseMicroEvent(const std::string &name, const wz::AnyValue &value)
{
    m_robot.memory().raiseMicroEvent(name, value);
}

void Scenario::blockCallbacks(const std::string &module, bool blocked)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (blocked)
            m_blocked.insert(module);
        else
            m_blocked.erase(module);
    }
    m_robot.memory().setDeliveryBlocked(module, blocked);
}

void Scenario::holdCallbacks(const std::string &module, bool held)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (held)
            m_held.insert(module);
        else
            m_held.erase(module);
    }
    m_robot.memory().setDeliveryHeld(module, held);
}

std::vector<std::string> Scenario::clients() const
{
    return m_robot.session().clients();
}

void Scenario::dropClients()
{
    for (const std::string &peer : m_robot.session().clients())
        m_robot.session().closeClient(peer);
}

void Scenario::dropClient(const std::string &peer)
{
    m_robot.session().closeClient(peer);
}

void Scenario::stallClient(const std::string &peer, bool stalled)
{
    m_robot.session().stallClient(peer, stalled);
}

void Scenario::sendRaw(const std::string &peer, const std::string &bytes)
{
    m_robot.session().sendRaw(peer, bytes);
}

std::string Scenario::peerOf(const std::string &service) const
{
    const std::vector<wz::ServiceInfo> services = m_robot.session().services().value(10000);
    for (const wz::ServiceInfo &info : services) {
        if (info.name == service && info.endpoint != "local")
            return info.endpoint;
    }
    return "";
}

std::vector<Args> Scenario::calls(const std::string &service, const std::string &method) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_calls.find(Key(service, method));
    if (it == m_calls.end())
        return {};
    return std::vector<Args>(it->second.recent.begin(), it->second.recent.end());
}

uint64_t Scenario::callCount(const std::string &service, const std::string &method) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_calls.find(Key(service, method));
    return it == m_calls.end() ? 0 : it->second.total;
}

bool Scenario::waitForCalls(const std::string &service, const std::string &method, uint64_t count,
                            std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_callsChanged.wait_for(lock, timeout, [&]() {
        auto it = m_calls.find(Key(service, method));
        return it != m_calls.end() && it->second.total >= count;
    });
}

void Scenario::clearCalls()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
}

std::optional<MethodRule> Scenario::ruleFor(const std::string &service,
                                            const std::string &method) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_rules.find(Key(service, method));
    if (it == m_rules.end())
        return std::nullopt;
    return it->second;
}

std::vector<MethodDef> Scenario::addedMethods(const std::string &service) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<MethodDef> out;
    for (const auto &a : m_added) {
        if (a.first.first == service)
            out.push_back(a.second);
    }
    return out;
}

std::set<std::string> Scenario::removedMethods(const std::string &service) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::set<std::string> out;
    for (const auto &r : m_rules) {
        if (r.first.first == service && r.second.removed)
            out.insert(r.first.second);
    }
    return out;
}

void Scenario::recordCall(const std::string &service, const std::string &method, const Args &args)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        CallLog &log = m_calls[Key(service, method)];
        log.recent.push_back(args);
        if (log.recent.size() > kCallLogDepth)
            log.recent.pop_front();
        ++log.total;
    }
    m_callsChanged.notify_all();
}

} // namespace sim
