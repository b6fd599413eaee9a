#include "connection_p.h"
#include <connection/autonomous_life_interface.h>
#include <connection/future_interface.h>
#include <connection/meta_types.h>
#include <connection/sartel_module.h>

#include "executer_call_p.h"
#include "future_list_watcher_p.h"
#include "morvane_interface_p.h"

#include <QtConcurrentRun>

#include <boost/make_shared.hpp>

#include <vx/vxproxy.h>
#include <wz/log.h>
#include <wz/object.h>
#include <wz/session.h>

#include <map>
#include <stdexcept>

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

// A fresh proxy for one call; null when the robot has no such service.
boost::shared_ptr<VX::VXProxy> lifeProxy(Connection &connection)
{
    if (!connection.session())
        throw CallFailure(ErrorCode::ConnectionLost, "no session");
    const wz::Future<wz::Object> found = connection.session()->service("VXAutonomousLife", "");
    if (found.hasError()) {
        const std::string text = found.error();
        if (text.find(wz::serviceNotFoundText("VXAutonomousLife")) != std::string::npos)
            return nullptr;
        throw std::runtime_error(text);
    }
    return boost::make_shared<VX::VXProxy>(found.value(), "VXAutonomousLife");
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
    if (connection)
        watchConnectionEnd(connection.get(), this, &AutonomousLifeInterface::connectionEnded);
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
    return executerCall(this, m_connection, "state")
        .log(k_category, wz::LogLevel_Warning, "Failed to get autonomous life state, error: ")
        .run(
            lifeProxy,
            [](VX::VXProxy &life) { return stateFromString(life.call<std::string>("getState")); },
            LifeStateUnknown);
}

void AutonomousLifeInterface::_setState(LifeState state)
{
    executerCall(this, m_connection, "setState")
        .log(k_category, wz::LogLevel_Warning, "Failed to set autonomous life state, error: ")
        .run(lifeProxy,
             [state](VX::VXProxy &life) { life.call<void>("setState", stateToString(state)); });
}

void AutonomousLifeInterface::_switchFocus(QString name)
{
    // The error travels in the future too, to whoever waits for it.
    executerCall(this, m_connection, "switchFocus")
        .rethrowing()
        .run(lifeProxy, [&name](VX::VXProxy &life) {
            life.call<void>("switchFocus", std::string(name.toUtf8().constData()));
        });
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
