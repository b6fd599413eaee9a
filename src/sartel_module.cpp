#include <connection/doc_link.h>
#include <connection/sartel_module.h>

#include "morvane_interface_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"

#include <QMetaObject>
#include <QMetaType>
#include <QThread>

namespace RK {

std::shared_ptr<EventRelay> relayModuleEvents(SartelModuleInterface &module, QObject *target,
                                              QStringList names, EventRelay::Deliver deliver)
{
    std::shared_ptr<EventRelay> relay = EventRelay::create(target, std::move(deliver));
    relay->acceptOnly(std::move(names));
    module.executer()->module()->addRelay(relay);
    return relay;
}

SartelModuleInterface::SartelModuleInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), MorvaneInterface(connection, QStringLiteral("SartelModuleInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    qRegisterMetaType<std::vector<float>>("std::vector<float>");

    using E = VXSartelExecuter;
    using I = SartelModuleInterface;
    request(
        this,
        static_cast<void (I::*)(QString, QString, VX::VXValue, bool, bool)>(&I::callProxyRequested),
        static_cast<bool (E::*)(QString, QString, VX::VXValue, bool, bool)>(&E::callProxy));
    request(
        this,
        static_cast<void (I::*)(QString, bool, bool, QString, VX::VXValue, VX::VXValue, VX::VXValue,
                                VX::VXValue, VX::VXValue, VX::VXValue)>(&I::callProxyRequested),
        static_cast<bool (E::*)(QString, bool, bool, QString, VX::VXValue, VX::VXValue, VX::VXValue,
                                VX::VXValue, VX::VXValue, VX::VXValue)>(&E::callProxy));
    request(this, &I::addWatchedDataRequested, &E::addWatchedData);
    request(this, &I::removeWatchedDataRequested, &E::removeWatchedData);
    request(this, &I::subscribeToMicroEventRequested, &E::subscribeToMicroEvent);
    request(this, &I::unsubscribeToMicroEventRequested, &E::unsubscribeToMicroEvent);
    request(this, &I::subscribeToMicroEventsRequested, &E::subscribeToMicroEvents);
    request(this, &I::unsubscribeToMicroEventsRequested, &E::unsubscribeToMicroEvents);
    request(this, &I::raiseEventRequested, &E::raiseEvent);
    // Batched like the module's own events (below): one wake of the
    // executer's thread per burst, not per event.
    connect(
        this, &I::dataSubscribedChanged, this,
        [relay = m_executer->eventRelay()](const QString &name, const VX::VXValue &value) {
            relay->push(name, value);
        },
        Qt::DirectConnection);
    request(this, &I::createTimelineRequested, &E::createTimeline);
    request(this, &I::stopCurrentTimelineRequested, &E::stopCurrentTimeline);
    request(this, &I::playCurrentTimelineRequested, &E::playCurrentTimeline);
    request(this, &I::pauseCurrentTimelineRequested, &E::pauseCurrentTimeline);
    request(this, &I::gotoFrameCurrentTimelineRequested, &E::gotoFrameCurrentTimeline);
    request(this, &I::robotPoseUpdateNeedChanged, &E::setRobotPoseUpdateNeeded);

    connect(m_executer.get(), &E::error, this, &I::displayErrorDialog);
    forward(&E::currentFrameChanged, this, &I::currentFrameChanged);
    forward(&E::currentTimelineStopped, this, &I::currentTimelineStopped);
    forward(&E::sentenceSaid, this, &I::sentenceSaid);
    forward(&E::sentenceHeard, this, &I::sentenceHeard);
    forward(&E::motorAnglesChanged, this, &I::motorAnglesChanged);
    forward(&E::motorStiffnessesChanged, this, &I::motorStiffnessesChanged);
    forward(&E::torsoPositionChanged, this, &I::torsoPositionChanged);
    forward(&E::robotStateChanged, this, &I::robotStateChanged);
    forward(&E::dataSubscribedChanged, this, &I::dataSubscribedChanged);
    forward(&E::connectionLost, this, &I::connectionLost);

    // Events reach the executer straight from the module as well as through
    // dataSubscribedChanged here: each is dispatched twice, by design.
    VXSartel *module = m_executer->module().get();
    module->addRelay(
        EventRelay::create(this, [this](const QString &name, const VX::VXValue &value) {
            emit dataSubscribedChanged(name, value);
        }));
    connect(module, &VXSartel::disconnectRequested, this, &I::disconnectRequested);
    connect(module, &VXSartel::connectionLost, this, &I::connectionLost);
    connect(module, &VXSartel::connectionTested, this, &I::onConnectionTested);

    // The polling timers stop on their own thread, just before it ends.
    E *executer = m_executer.get();
    m_thread->atLoopEnd([executer] { executer->stopPolling(); });

    // Spoken sentences are always followed.
    emit subscribeToMicroEventRequested(VXSartelExecuter::a_sentenceSaidSTMName);
}

SartelModuleInterface::~SartelModuleInterface()
{
    // The module may outlive this interface (the framework can hold it last).
    m_executer->module()->removeRelaysTo(this);
}

void SartelModuleInterface::raiseEvent(const QString &eventName, const VX::VXValue &val)
{
    emit raiseEventRequested(eventName, val);
}

void SartelModuleInterface::testConnection()
{
    VXSartel *module = m_executer->module().get();
    QMetaObject::invokeMethod(
        module, [module] { module->triggerConnectionTest(); }, Qt::QueuedConnection);
}

boost::shared_ptr<VXSartel> SartelModuleInterface::sartelModule() const
{
    return m_executer->module();
}

void SartelModuleInterface::robotPoseUpdateNeeded(bool updateNeeded)
{
    emit robotPoseUpdateNeedChanged(updateNeeded);
}

void SartelModuleInterface::displayErrorDialog(QString title, QString contents, QString details)
{
    emit displayErrorRequested(title, contents, details, false);
}

void SartelModuleInterface::onConnectionTested(bool success)
{
    if (!success) {
        displayErrorDialog(
            tr("Connection error"),
            tr("The robot cannot connect to Sartel.<br>For more details, see <a "
               "href=\"%1\">connection</a> troubleshooting.")
                .arg(DocLink::connectionDoc()),
            tr("The Morvane software running on the robot is not able to connect to Sartel "
               "through the network. Your firewall rules may be preventing that incoming "
               "connection, or you may have bad network conditions."));
    }
    emit connectionTested(success);
}

} // namespace RK
