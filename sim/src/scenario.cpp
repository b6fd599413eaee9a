#include <sim/memory_service.h>
#include <sim/robot.h>
#include <sim/scenario.h>

#include <wz/log.h>

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QString>

#include <cmath>
#include <stdexcept>

namespace sim {

namespace {

wz::AnyValue fromJsonValue(const QJsonValue &v, const std::string &where)
{
    switch (v.type()) {
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return wz::AnyValue();
    case QJsonValue::Bool:
        return wz::AnyValue(v.toBool());
    case QJsonValue::Double: {
        const double d = v.toDouble();
        // JSON has one number type: whole numbers that fit are integers.
        if (std::floor(d) == d && std::fabs(d) < 9007199254740992.0)
            return wz::AnyValue(static_cast<long long>(d));
        return wz::AnyValue(d);
    }
    case QJsonValue::String:
        return wz::AnyValue(v.toString().toStdString());
    case QJsonValue::Array: {
        wz::AnyValue::List out;
        const QJsonArray a = v.toArray();
        for (int i = 0; i < a.size(); ++i)
            out.push_back(fromJsonValue(a.at(i), where + "[" + std::to_string(i) + "]"));
        return wz::AnyValue(std::move(out));
    }
    case QJsonValue::Object: {
        const QJsonObject o = v.toObject();
        if (o.size() == 1 && o.contains("$float")) {
            if (!o.value("$float").isDouble())
                throw std::runtime_error(where + ": \"$float\" needs a number");
            return wz::AnyValue(o.value("$float").toDouble());
        }
        if (o.size() == 1 && o.contains("$binary")) {
            if (!o.value("$binary").isString())
                throw std::runtime_error(where + ": \"$binary\" needs a base64 text");
            const QByteArray bytes
                = QByteArray::fromBase64(o.value("$binary").toString().toLatin1());
            return wz::AnyValue(wz::Buffer(bytes.constData(), static_cast<size_t>(bytes.size())));
        }
        wz::AnyValue::Map out;
        for (auto it = o.begin(); it != o.end(); ++it)
            out.emplace(it.key().toStdString(),
                        fromJsonValue(it.value(), where + "." + it.key().toStdString()));
        return wz::AnyValue(std::move(out));
    }
    }
    return wz::AnyValue();
}

QJsonDocument parseDocument(const std::string &json)
{
    QJsonParseError error;
    const QJsonDocument doc
        = QJsonDocument::fromJson(QByteArray(json.data(), static_cast<int>(json.size())), &error);
    if (error.error != QJsonParseError::NoError)
        throw std::runtime_error("scenario is not valid JSON at offset "
                                 + std::to_string(error.offset) + ": "
                                 + error.errorString().toStdString());
    return doc;
}

std::chrono::milliseconds millis(const QJsonValue &v, const std::string &where)
{
    if (!v.isDouble() || v.toDouble() < 0 || v.toDouble() > 1e9)
        throw std::runtime_error(where + ": needs a number of milliseconds");
    return std::chrono::milliseconds(static_cast<long long>(v.toDouble()));
}

std::string text(const QJsonValue &v, const std::string &where)
{
    if (!v.isString())
        throw std::runtime_error(where + ": needs a text");
    return v.toString().toStdString();
}

QJsonObject object(const QJsonValue &v, const std::string &where)
{
    if (!v.isObject())
        throw std::runtime_error(where + ": needs an object");
    return v.toObject();
}

void onlyKeys(const QJsonObject &o, std::initializer_list<const char *> allowed,
              const std::string &where)
{
    for (auto it = o.begin(); it != o.end(); ++it) {
        bool known = false;
        for (const char *a : allowed)
            known = known || it.key() == QLatin1String(a);
        if (!known)
            throw std::runtime_error(where + ": unknown entry \"" + it.key().toStdString() + "\"");
    }
}

} // namespace

wz::AnyValue anyFromJson(const std::string &json)
{
    // Wrapped so that a bare value (a number, a text) parses too.
    const QJsonDocument doc = parseDocument("[" + json + "]");
    return fromJsonValue(doc.array().at(0), "value");
}

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
    }
    for (const std::string &module : blocked)
        m_robot.memory().setDeliveryBlocked(module, false);
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

void Scenario::loadFile(const std::string &path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error("cannot read scenario " + path + ": "
                                 + file.errorString().toStdString());
    // A scenario is a few lines; anything this large is not one.
    if (file.size() > 16 * 1024 * 1024)
        throw std::runtime_error("scenario " + path + " is too large");
    const QByteArray bytes = file.readAll();
    try {
        applyJson(std::string(bytes.constData(), static_cast<size_t>(bytes.size())));
    } catch (const std::exception &e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

void Scenario::applyJson(const std::string &json)
{
    const QJsonDocument doc = parseDocument(json);
    if (!doc.isObject())
        throw std::runtime_error("a scenario is a JSON object");
    const QJsonObject root = doc.object();
    onlyKeys(root,
             {"version", "readiness", "omitServices", "blockCallbacks", "keys", "methods", "events",
              "services"},
             "scenario");

    // Everything is checked before anything is applied, so that a bad file
    // leaves the robot as it was.
    std::vector<std::function<void()>> changes;

    if (root.contains("version")) {
        const std::string v = text(root.value("version"), "version");
        changes.push_back([this, v]() { m_robot.memory().setVersion(v); });
    }
    if (root.contains("readiness")) {
        const QJsonObject r = object(root.value("readiness"), "readiness");
        onlyKeys(r, {"hold", "delayMs"}, "readiness");
        if (r.contains("hold") && !r.value("hold").isBool())
            throw std::runtime_error("readiness.hold: needs true or false");
        const bool hold = r.value("hold").toBool(false);
        const std::chrono::milliseconds delay = r.contains("delayMs")
            ? millis(r.value("delayMs"), "readiness.delayMs")
            : std::chrono::milliseconds(0);
        changes.push_back([this, hold, delay]() { m_robot.setReadiness(hold, delay); });
    }
    if (root.contains("omitServices")) {
        if (!root.value("omitServices").isArray())
            throw std::runtime_error("omitServices: needs a list of service names");
        for (const QJsonValue &v : root.value("omitServices").toArray()) {
            const std::string name = text(v, "omitServices");
            if (!m_robot.service(name))
                throw std::runtime_error("omitServices: the robot has no service \"" + name + "\"");
            changes.push_back([this, name]() { omitService(name); });
        }
    }
    if (root.contains("blockCallbacks")) {
        if (!root.value("blockCallbacks").isArray())
            throw std::runtime_error("blockCallbacks: needs a list of module names");
        for (const QJsonValue &v : root.value("blockCallbacks").toArray()) {
            const std::string module = text(v, "blockCallbacks");
            changes.push_back([this, module]() { blockCallbacks(module); });
        }
    }
    if (root.contains("keys")) {
        const QJsonObject keys = object(root.value("keys"), "keys");
        for (auto it = keys.begin(); it != keys.end(); ++it) {
            const std::string key = it.key().toStdString();
            const wz::AnyValue value = fromJsonValue(it.value(), "keys." + key);
            changes.push_back([this, key, value]() { setKey(key, value); });
        }
    }
    if (root.contains("methods")) {
        const QJsonObject methods = object(root.value("methods"), "methods");
        for (auto it = methods.begin(); it != methods.end(); ++it) {
            const std::string full = it.key().toStdString();
            const std::string where = "methods." + full;
            const size_t dot = full.find('.');
            if (dot == std::string::npos || dot == 0 || dot + 1 == full.size())
                throw std::runtime_error(where + ": name it as Service.method");
            const std::string service = full.substr(0, dot);
            const std::string method = full.substr(dot + 1);
            if (!m_robot.service(service))
                throw std::runtime_error(where + ": the robot has no service \"" + service + "\"");
            if (!m_robot.offersMethod(service, method))
                throw std::runtime_error(where + ": service \"" + service + "\" has no method \""
                                         + method + "\"");
            const QJsonObject rule = object(it.value(), where);
            onlyKeys(rule, {"remove", "fail", "delayMs"}, where);
            if (rule.contains("remove")) {
                if (!rule.value("remove").isBool())
                    throw std::runtime_error(where + ".remove: needs true or false");
                if (rule.value("remove").toBool())
                    changes.push_back([this, service, method]() { removeMethod(service, method); });
            }
            if (rule.contains("fail")) {
                const std::string failText = text(rule.value("fail"), where + ".fail");
                changes.push_back(
                    [this, service, method, failText]() { failMethod(service, method, failText); });
            }
            if (rule.contains("delayMs")) {
                const auto delay = millis(rule.value("delayMs"), where + ".delayMs");
                changes.push_back(
                    [this, service, method, delay]() { delayMethod(service, method, delay); });
            }
        }
    }
    if (root.contains("events")) {
        if (!root.value("events").isArray())
            throw std::runtime_error("events: needs a list");
        const QJsonArray events = root.value("events").toArray();
        for (int i = 0; i < events.size(); ++i) {
            const std::string where = "events[" + std::to_string(i) + "]";
            const QJsonObject e = object(events.at(i), where);
            onlyKeys(e, {"name", "value", "micro", "atMs"}, where);
            const std::string name = text(e.value("name"), where + ".name");
            const wz::AnyValue value = fromJsonValue(e.value("value"), where + ".value");
            if (e.contains("micro") && !e.value("micro").isBool())
                throw std::runtime_error(where + ".micro: needs true or false");
            const bool micro = e.value("micro").toBool(false);
            const auto at = e.contains("atMs") ? millis(e.value("atMs"), where + ".atMs")
                                               : std::chrono::milliseconds(0);
            changes.push_back([this, name, value, micro, at]() {
                MemoryService &memory = m_robot.memory();
                m_robot.schedule(at, [&memory, name, value, micro]() {
                    if (micro)
                        memory.raiseMicroEvent(name, value);
                    else
                        memory.raiseEvent(name, value);
                });
            });
        }
    }
    if (root.contains("services")) {
        const QJsonObject services = object(root.value("services"), "services");
        for (auto it = services.begin(); it != services.end(); ++it) {
            const std::string name = it.key().toStdString();
            Service *service = m_robot.service(name);
            if (!service)
                throw std::runtime_error("services: the robot has no service \"" + name + "\"");
            const wz::AnyValue settings
                = fromJsonValue(object(it.value(), "services." + name), "services." + name);
            changes.push_back([service, settings, name]() {
                try {
                    service->configure(settings);
                } catch (const std::exception &e) {
                    throw std::runtime_error("services." + name + ": " + e.what());
                }
            });
        }
    }
    for (auto &change : changes)
        change();
}

} // namespace sim
