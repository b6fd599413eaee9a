// A scenario read from JSON: the file, its keys, and the rules they set.

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
