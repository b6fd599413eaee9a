#include <connection/autonomous_life_interface.h>
#include <connection/connection.h>
#include <connection/future_interface.h>
#include <connection/meta_types.h>
#include <connection/sartel_module.h>

#include "future_list_watcher_p.h"

#include <QtConcurrentRun>

#include <boost/make_shared.hpp>

#include <vx/vxproxy.h>
#include <wz/log.h>
#include <wz/session.h>

#include <map>

namespace RK {

namespace {

const char *const k_category = "Connection.AutonomousLife";
const char *const k_stateKey = "AutonomousLife/State";

const std::map<std::string, LifeState> &stateMap()
{
    static const std::map<std::string, LifeState> map {
        {"disabled", LifeStateDisabled},
        {"solitary", LifeStateSolitary},
        {"interactive", LifeStateInteractive},
        {"reflex", LifeStateReflex},
    };
    return map;
}

// Built when the library is loaded, as the robot's texts are constants.
const bool k_stateMapBuilt = !stateMap().empty();

// A fresh proxy for one call; throws the framework's error when the service is missing.
boost::shared_ptr<VX::VXProxy> lifeProxy(Connection &connection)
{
    wz::Object object = connection.session()->service("VXAutonomousLife", "").value();
    return boost::make_shared<VX::VXProxy>(object, "VXAutonomousLife");
}

} // namespace

AutonomousLifeInterface::AutonomousLifeInterface(boost::shared_ptr<Connection> connection,
                                                 wz::Object life)
    : m_connection(connection), m_futureListWatcher(new FutureListWatcher)
{
    (void)life;
    (void)k_stateMapBuilt;
    qRegisterMetaType<RK::LifeState>("RK::LifeState");
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    const boost::shared_ptr<SartelModuleInterface> module = connection
        ? connection->sartelModuleInterface()
        : boost::shared_ptr<SartelModuleInterface>();
    if (module) {
        connect(module.get(), &SartelModuleInterface::dataSubscribedChanged, this,
                &AutonomousLifeInterface::onStateChanged);
        emit module->subscribeToMicroEventRequested(QString::fromLatin1(k_stateKey));
    }
}

AutonomousLifeInterface::~AutonomousLifeInterface()
{
    delete m_futureListWatcher;
}

LifeState AutonomousLifeInterface::stateFromString(const std::string &text)
{
    auto it = stateMap().find(text);
    return it == stateMap().end() ? LifeStateUnknown : it->second;
}

std::string AutonomousLifeInterface::stateToString(LifeState state)
{
    switch (state) {
    case LifeStateDisabled:
        return "disabled";
    case LifeStateSolitary:
        return "solitary";
    case LifeStateInteractive:
        return "interactive";
    case LifeStateReflex:
        return "reflex";
    default:
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "invalid state (" << static_cast<int>(state) << ") conversion.";
        return std::string();
    }
}

QFuture<LifeState> AutonomousLifeInterface::state()
{
    QFuture<LifeState> future = QtConcurrent::run(&AutonomousLifeInterface::_state, this);
    m_futureListWatcher->append(new FutureWatcherInterface<LifeState>(future));
    return future;
}

QFuture<void> AutonomousLifeInterface::setState(LifeState state)
{
    QFuture<void> future = QtConcurrent::run(&AutonomousLifeInterface::_setState, this, state);
    m_futureListWatcher->append(new FutureWatcherInterface<void>(future));
    return future;
}

QFuture<void> AutonomousLifeInterface::switchFocus(QString name)
{
    QFuture<void> future = QtConcurrent::run(&AutonomousLifeInterface::_switchFocus, this, name);
    m_futureListWatcher->append(new FutureWatcherInterface<void>(future));
    return future;
}

LifeState AutonomousLifeInterface::_state()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return LifeStateUnknown;
    try {
        return stateFromString(lifeProxy(*connection)->call<std::string>("getState"));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "Failed to get autonomous life state, error: " << e.what();
        return LifeStateUnknown;
    }
}

void AutonomousLifeInterface::_setState(LifeState state)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    try {
        lifeProxy(*connection)->call<void>("setState", stateToString(state));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "Failed to set autonomous life state, error: " << e.what();
    }
}

void AutonomousLifeInterface::_switchFocus(QString name)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    // Not caught: the error travels in the future to whoever waits for it.
    lifeProxy(*connection)->call<void>("switchFocus", std::string(name.toUtf8().constData()));
}

void AutonomousLifeInterface::onStateChanged(QString keyName, VX::VXValue value)
{
    if (keyName != QLatin1String(k_stateKey))
        return;
    if (!value.isString()) {
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "ignoring a life state that is not a text: " << value.toString(1);
        return;
    }
    emit stateChanged(stateFromString(value.toStdString()));
}

} // namespace RK
