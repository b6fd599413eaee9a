#include "behavior_manager_executer_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "text_p.h"

#include "connection_p.h"
#include <connection/sartel_module.h>

#include <vx/vxproxy.h>
#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "con.behvrMngrE";
const char *const k_userPrefixUtf8 = "User/";

QStringList toList(const std::vector<std::string> &names)
{
    QStringList out;
    out.reserve(static_cast<int>(names.size()));
    for (const std::string &n : names)
        out << fromUtf8(n);
    return out;
}

// Names in events come as strings; anything else is shown as the robot's text.
QString eventText(const VX::VXValue &value)
{
    if (value.isString())
        return fromUtf8(value.toStdString());
    return fromUtf8(value.toString(1));
}

} // namespace

const QString BehaviorManagerExecuter::a_natureError = QStringLiteral("getBehaviorNatureError");

BehaviorManagerExecuter::BehaviorManagerExecuter(boost::shared_ptr<Connection> connection)
    : m_connection(connection)
{
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    const boost::shared_ptr<SartelModuleInterface> module = connection
        ? connection->sartelModuleInterface()
        : boost::shared_ptr<SartelModuleInterface>();
    if (!module)
        return;
    const QStringList keys {QStringLiteral("BehaviorsRun"),
                            QStringLiteral("VXBehaviorManager/BehaviorAdded"),
                            QStringLiteral("VXBehaviorManager/BehaviorUpdated"),
                            QStringLiteral("VXBehaviorManager/BehaviorRemoved"),
                            QStringLiteral("VXBehaviorManager/BehaviorFailed")};
    m_events = relayModuleEvents(
        *module, this, keys,
        [this](const QString &name, const VX::VXValue &value) { onDataChanged(name, value); });
    for (const QString &key : keys)
        emit module->subscribeToMicroEventRequested(key);
}

BehaviorManagerExecuter::~BehaviorManagerExecuter()
{
    if (m_events)
        m_events->detach();
}

QStringList BehaviorManagerExecuter::withoutUserPrefix(const std::vector<std::string> &names)
{
    QStringList out;
    for (const std::string &n : names)
        out << fromUtf8(n.rfind(k_userPrefixUtf8, 0) == 0 ? n.substr(5) : n);
    return out;
}

void BehaviorManagerExecuter::onDataChanged(QString name, VX::VXValue value)
{
    const std::string key = utf8(name);
    // A value of the wrong shape is the robot's mistake: it is logged and
    // dropped here, never thrown out of the slot.
    try {
        if (key == "BehaviorsRun") {
            emit runningBehaviorsUpdated(withoutUserPrefix(value.ToStringArray()));
        } else if (key == "VXBehaviorManager/BehaviorFailed") {
            if (!value.isArray() || value.getSize() < 3)
                throw std::runtime_error("expected [behavior, box, error], got "
                                         + value.toString(1));
            emit behaviorFailed(fromUtf8(value[0].toStdString()), fromUtf8(value[1].toStdString()),
                                fromUtf8(value[2].toStdString()));
        } else if (key == "VXBehaviorManager/BehaviorAdded") {
            emit behaviorAdded(eventText(value));
            emit behaviorListChanged();
        } else if (key == "VXBehaviorManager/BehaviorRemoved") {
            emit behaviorRemoved(eventText(value));
            emit behaviorListChanged();
        } else if (key == "VXBehaviorManager/BehaviorUpdated") {
            emit behaviorListChanged();
        }
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "ignoring malformed " << key << ": " << e.what();
    }
}

ExecuterCall<BehaviorManagerExecuter> BehaviorManagerExecuter::call(const char *operation)
{
    ExecuterCall<BehaviorManagerExecuter> call(this, m_connection, operation);
    call.log(k_category);
    return call;
}

void BehaviorManagerExecuter::getBehaviors()
{
    call("requestBehaviors").run(&Connection::behaviorManager, [this](VX::VXProxy &proxy) {
        std::vector<std::string> names;
        try {
            names = proxy.call<std::vector<std::string>>("getInstalledBehaviors");
        } catch (const std::exception &) {
            // An older robot only knows the names.
            emit behaviorsReceived(
                toList(proxy.call<std::vector<std::string>>("getBehaviorNames")));
            return;
        }
        QStringList list;
        for (const std::string &n : names) {
            emit behaviorPresent(fromUtf8(n), true);
            list << fromUtf8(n);
        }
        emit behaviorsReceived(list);
    });
}

void BehaviorManagerExecuter::getDefaultBehaviors()
{
    call("requestDefaultBehaviors").run(&Connection::behaviorManager, [this](VX::VXProxy &proxy) {
        emit defaultBehaviorsReceived(
            withoutUserPrefix(proxy.call<std::vector<std::string>>("getDefaultBehaviors")));
    });
}

void BehaviorManagerExecuter::getRunningBehaviors()
{
    call("requestRunningBehaviors").run(&Connection::behaviorManager, [this](VX::VXProxy &proxy) {
        emit runningBehaviorsUpdated(
            withoutUserPrefix(proxy.call<std::vector<std::string>>("getRunningBehaviors")));
    });
}

void BehaviorManagerExecuter::getInstalledBoxLibraries()
{
    call("requestInstalledBoxLibraries")
        .run(&Connection::behaviorManager, [this](VX::VXProxy &proxy) {
            emit installedBoxLibrariesReceived(
                toList(proxy.call<std::vector<std::string>>("_getInstalledBoxLibraries")));
        });
}

void BehaviorManagerExecuter::isBehaviorPresent(QString behavior)
{
    call("isBehaviorPresent").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        emit behaviorPresent(behavior, proxy.call<bool>("isBehaviorInstalled", utf8(behavior)));
    });
}

void BehaviorManagerExecuter::preloadBehavior(QString behaviorToPlay)
{
    call("preloadBehavior").rethrowing().run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<bool>("preloadBehavior", utf8(behaviorToPlay));
    });
}

void BehaviorManagerExecuter::playBehavior(QString behaviorToPlay)
{
    call("playBehavior").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<void>("startBehavior", utf8(behaviorToPlay));
    });
}

void BehaviorManagerExecuter::startBehavior(QString behaviorToPlay)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        throw std::runtime_error("connection lost");
    const boost::shared_ptr<VX::VXProxy> proxy = connection->behaviorManager();
    if (!proxy)
        throw std::runtime_error("service \"VXBehaviorManager\" not found");
    // The robot's refusal goes back to the caller as it came: the instance
    // manager that asked reports it, once.
    proxy->call<void>("startBehavior", utf8(behaviorToPlay));
}

void BehaviorManagerExecuter::stopBehavior(QString behaviorToStop)
{
    call("stopBehavior").rethrowing().run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<void>("stopBehavior", utf8(behaviorToStop));
    });
}

void BehaviorManagerExecuter::deleteBehavior(QString behaviorToDelete)
{
    call("deleteBehavior").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<void>("removeBehavior", utf8(behaviorToDelete));
    });
}

void BehaviorManagerExecuter::changeBehaviorDefaultFlag(QString behavior, bool isDefault)
{
    call("changeBehaviorDefaultFlag").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<void>(isDefault ? "addDefaultBehavior" : "removeDefaultBehavior",
                         utf8(behavior));
    });
}

void BehaviorManagerExecuter::getBehaviorFrameManagerID(QString name)
{
    call("requestBehaviorFrameManagerID")
        .run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
            emit behaviorFrameManagerIDReceived(
                name, fromUtf8(proxy.call<std::string>("_getBehaviorFrameManagerId", utf8(name))));
        });
}

void BehaviorManagerExecuter::stopAllBehaviors()
{
    call("stopAll").run(&Connection::behaviorManager,
                        [](VX::VXProxy &proxy) { proxy.call<void>("stopAllBehaviors"); });
}

void BehaviorManagerExecuter::deleteBoxLibrary(QString name)
{
    call("deleteBoxLibrary").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        proxy.call<void>("_removeBoxLibrary", utf8(name));
    });
    // The list comes whatever the removal did: it is what the application shows.
    getInstalledBoxLibraries();
}

QStringList BehaviorManagerExecuter::behaviorsInstalled()
{
    return call("behaviorsInstalled").run(&Connection::behaviorManager, [](VX::VXProxy &proxy) {
        return toList(proxy.call<std::vector<std::string>>("getInstalledBehaviors"));
    });
}

QStringList BehaviorManagerExecuter::behaviorTags()
{
    return call("behaviorTags").run(&Connection::behaviorManager, [](VX::VXProxy &proxy) {
        return toList(proxy.call<std::vector<std::string>>("getTagList"));
    });
}

bool BehaviorManagerExecuter::isBehaviorRunning(QString name)
{
    return call("isBehaviorRunning").run(&Connection::behaviorManager, [&](VX::VXProxy &proxy) {
        return proxy.call<bool>("isBehaviorRunning", utf8(name));
    });
}

// A failed install answers true, and the list is read again: the robot may
// have installed part of it. The failure itself is told.
bool BehaviorManagerExecuter::installBehavior(QString name)
{
    bool reached = false;
    bool installed = false;
    if (!call("installBehavior")
             .attempt(&Connection::behaviorManager,
                      [&](VX::VXProxy &proxy) {
                          reached = true;
                          installed = proxy.call<bool>("installBehavior", utf8(name));
                      })
        && reached) {
        emit behaviorListChanged();
        installed = true;
    }
    return installed;
}

bool BehaviorManagerExecuter::installBehavior(QString first, QString second, bool flag)
{
    bool reached = false;
    bool installed = false;
    if (!call("installBehavior")
             .attempt(&Connection::behaviorManager,
                      [&](VX::VXProxy &proxy) {
                          reached = true;
                          installed = proxy.call<bool>("installBehavior", utf8(first), utf8(second),
                                                       flag);
                      })
        && reached) {
        emit behaviorListChanged();
        installed = true;
    }
    return installed;
}

QString BehaviorManagerExecuter::getBehaviorNature(QString name)
{
    return call("behaviorNature")
        .run(
            &Connection::behaviorManager,
            [&](VX::VXProxy &proxy) {
                const wz::Object object = proxy.object();
                if (!object)
                    throw std::runtime_error("This object is null");
                // An older robot has no natures at all: not an error.
                if (object.metaObject().findMethod("getBehaviorNature").empty())
                    return QString();
                return fromUtf8(proxy.call<std::string>("getBehaviorNature", utf8(name)));
            },
            a_natureError);
}

} // namespace RK
