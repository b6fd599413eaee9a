#include "behavior_manager_executer_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"

#include <connection/connection.h>
#include <connection/sartel_module.h>

#include <vx/vxproxy.h>
#include <wz/log.h>

#include <stdexcept>

namespace RK {

namespace {

const char *const k_category = "con.behvrMngrE";
const char *const k_userPrefix = "User/";

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

QStringList toList(const std::vector<std::string> &names)
{
    QStringList out;
    out.reserve(static_cast<int>(names.size()));
    for (const std::string &n : names)
        out << fromUtf8(n);
    return out;
}

void logError(const char *function, const std::string &text)
{
    wz::log::LogStream(wz::LogLevel_Error, k_category, function) << text << "\n";
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
        out << fromUtf8(n.rfind(k_userPrefix, 0) == 0 ? n.substr(5) : n);
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

void BehaviorManagerExecuter::getBehaviors()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> proxy
        = connection ? connection->behaviorManager() : boost::shared_ptr<VX::VXProxy>();
    if (!proxy)
        return;
    try {
        const std::vector<std::string> names
            = proxy->call<std::vector<std::string>>("getInstalledBehaviors");
        QStringList list;
        for (const std::string &n : names) {
            emit behaviorPresent(fromUtf8(n), true);
            list << fromUtf8(n);
        }
        emit behaviorsReceived(list);
    } catch (const std::exception &) {
        // An older robot only knows the names.
        try {
            emit behaviorsReceived(
                toList(proxy->call<std::vector<std::string>>("getBehaviorNames")));
        } catch (const std::exception &e) {
            logError(__FUNCTION__, e.what());
        }
    }
}

#define RK_BEHAVIOR_PROXY_OR_RETURN(...) \
    const boost::shared_ptr<Connection> connection = m_connection.lock(); \
    const boost::shared_ptr<VX::VXProxy> proxy \
        = connection ? connection->behaviorManager() : boost::shared_ptr<VX::VXProxy>(); \
    if (!proxy) \
        return __VA_ARGS__;

void BehaviorManagerExecuter::getDefaultBehaviors()
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        emit defaultBehaviorsReceived(
            withoutUserPrefix(proxy->call<std::vector<std::string>>("getDefaultBehaviors")));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::getRunningBehaviors()
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        emit runningBehaviorsUpdated(
            withoutUserPrefix(proxy->call<std::vector<std::string>>("getRunningBehaviors")));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::getInstalledBoxLibraries()
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        emit installedBoxLibrariesReceived(
            toList(proxy->call<std::vector<std::string>>("_getInstalledBoxLibraries")));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::isBehaviorPresent(QString behavior)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        emit behaviorPresent(behavior, proxy->call<bool>("isBehaviorInstalled", utf8(behavior)));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::preloadBehavior(QString behaviorToPlay)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<bool>("preloadBehavior", utf8(behaviorToPlay));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
        throw;
    }
}

void BehaviorManagerExecuter::playBehavior(QString behaviorToPlay)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>("startBehavior", utf8(behaviorToPlay));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, "Failed to start " + utf8(behaviorToPlay) + ", reason: " + e.what());
    }
}

void BehaviorManagerExecuter::startBehavior(QString behaviorToPlay)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        throw std::runtime_error("connection lost");
    const boost::shared_ptr<VX::VXProxy> proxy = connection->behaviorManager();
    if (!proxy)
        throw std::runtime_error("service \"VXBehaviorManager\" not found");
    try {
        proxy->call<void>("startBehavior", utf8(behaviorToPlay));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, "Failed to start " + utf8(behaviorToPlay) + ", reason: " + e.what());
        throw;
    }
}

void BehaviorManagerExecuter::stopBehavior(QString behaviorToStop)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>("stopBehavior", utf8(behaviorToStop));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::deleteBehavior(QString behaviorToDelete)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>("removeBehavior", utf8(behaviorToDelete));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::changeBehaviorDefaultFlag(QString behavior, bool isDefault)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>(isDefault ? "addDefaultBehavior" : "removeDefaultBehavior",
                          utf8(behavior));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::getBehaviorFrameManagerID(QString name)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        emit behaviorFrameManagerIDReceived(
            name, fromUtf8(proxy->call<std::string>("_getBehaviorFrameManagerId", utf8(name))));
    } catch (const std::exception &e) {
        logError(__FUNCTION__,
                 std::string("Failed to resolve behavior instance ")
                     + "from behavior name, reason: " + e.what());
    }
}

void BehaviorManagerExecuter::stopAllBehaviors()
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>("stopAllBehaviors");
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
}

void BehaviorManagerExecuter::deleteBoxLibrary(QString name)
{
    RK_BEHAVIOR_PROXY_OR_RETURN()
    try {
        proxy->call<void>("_removeBoxLibrary", utf8(name));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
    }
    getInstalledBoxLibraries();
}

QStringList BehaviorManagerExecuter::behaviorsInstalled()
{
    RK_BEHAVIOR_PROXY_OR_RETURN(QStringList())
    try {
        return toList(proxy->call<std::vector<std::string>>("getInstalledBehaviors"));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
        return QStringList();
    }
}

QStringList BehaviorManagerExecuter::behaviorTags()
{
    RK_BEHAVIOR_PROXY_OR_RETURN(QStringList())
    try {
        return toList(proxy->call<std::vector<std::string>>("getTagList"));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
        return QStringList();
    }
}

bool BehaviorManagerExecuter::isBehaviorRunning(QString name) const
{
    RK_BEHAVIOR_PROXY_OR_RETURN(false)
    try {
        return proxy->call<bool>("isBehaviorRunning", utf8(name));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, e.what());
        return false;
    }
}

bool BehaviorManagerExecuter::installBehavior(QString name)
{
    RK_BEHAVIOR_PROXY_OR_RETURN(false)
    try {
        return proxy->call<bool>("installBehavior", utf8(name));
    } catch (const std::exception &) {
        emit behaviorListChanged();
        return true;
    }
}

bool BehaviorManagerExecuter::installBehavior(QString first, QString second, bool flag)
{
    RK_BEHAVIOR_PROXY_OR_RETURN(false)
    try {
        return proxy->call<bool>("installBehavior", utf8(first), utf8(second), flag);
    } catch (const std::exception &) {
        emit behaviorListChanged();
        return true;
    }
}

QString BehaviorManagerExecuter::getBehaviorNature(QString name)
{
    RK_BEHAVIOR_PROXY_OR_RETURN(a_natureError)
    try {
        const wz::Object object = proxy->object();
        if (!object)
            throw std::runtime_error("This object is null");
        // An older robot has no natures at all: not an error.
        if (object.metaObject().findMethod("getBehaviorNature").empty())
            return QString();
        return fromUtf8(proxy->call<std::string>("getBehaviorNature", utf8(name)));
    } catch (const std::exception &e) {
        logError(__FUNCTION__, "Failed to get " + utf8(name) + "'s nature, reason: " + e.what());
        return a_natureError;
    }
}

#undef RK_BEHAVIOR_PROXY_OR_RETURN

} // namespace RK
