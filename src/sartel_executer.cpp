#include "connection_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QMetaObject>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <vx/vxproxy.h>
#include <wz/log.h>
#include <wz/object.h>
#include <wz/session.h>

#include <algorithm>
#include <stdexcept>

namespace RK {

namespace {

const char *const k_connectionCategory = "con.connection";
const char *const k_category = "con.srtE";
const char *const a_keyRemovedName = "VXMemory/KeyRemoved";
const int a_slowPeriodMs = 1000;
// A recognised word counts only above this confidence.
const double a_minimumWordConfidence = 0.3;

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

// The robot's module `name`, looked up in the session each time. A module
// the robot does not have is a missing service, with the framework's text.
boost::shared_ptr<VX::VXProxy> proxyByName(const Connection &connection, const QString &name)
{
    wz::Session *session = connection.session();
    if (!session)
        throw CallFailure(ErrorCode::ConnectionLost, "no session");
    const std::string module = utf8(name);
    const wz::Future<wz::Object> found = session->service(module, "");
    if (found.hasError()) {
        const std::string text = found.error();
        if (text.find(wz::serviceNotFoundText(module)) != std::string::npos)
            throw CallFailure(ErrorCode::ServiceMissing, text);
        throw std::runtime_error(text);
    }
    return boost::make_shared<VX::VXProxy>(found.value(), module);
}

} // namespace

const QString VXSartelExecuter::a_sentenceSaidSTMName
    = QStringLiteral("VXTextToSpeech/CurrentSentence");
const QString VXSartelExecuter::a_sentenceHeardSTMName = QStringLiteral("WordRecognized");

VXSartelExecuter::VXSartelExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr),
      m_connection(connection),
      m_posted(
          std::make_unique<PostedCallWatch>([this](const OperationError &failure, bool withSignal) {
              if (withSignal)
                  emit error(failure.title, failure.contents, failure.details);
              emit errorOccurred(failure);
          }))
{
    wz::Session *session = connection->session();
    m_module = boost::make_shared<VXSartel>(session, nullptr);
    m_module->setTestLimit(connection->timing().connectionTestLimitMs);
    if (!session)
        throw std::runtime_error("the desktop module needs a session to register in");
    const wz::Object object = wz::makeObject(m_module);
    m_moduleServiceId = session->registerService(utf8(m_module->objectName()), object)
                            .value(wz::FutureTimeout_Infinite);

    m_events = EventRelay::create(this, [this](const QString &name, const VX::VXValue &value) {
        onDataChanged(name, value);
    });
    updateEventFilter();
    m_module->addRelay(m_events);
    initPollingTimers(connection->timing());
    subscribeToMicroEvent(QString::fromLatin1(a_keyRemovedName));
}

VXSartelExecuter::~VXSartelExecuter()
{
    m_destroying = true;
    // Nobody is left to hear what the way out reports.
    QObject::disconnect(this, nullptr, nullptr, nullptr);
    m_module->removeRelaysTo(this);
    m_events->detach();
    if (const boost::shared_ptr<Connection> connection = m_connection.lock()) {
        wz::Session *session = connection->session();
        if (session && session->isConnected() && m_moduleServiceId != 0) {
            try {
                // Bounded: a robot that does not answer drops the name
                // itself when the session closes.
                session->unregisterService(m_moduleServiceId)
                    .wait(std::max(0, connection->timing().unregisterLimitMs));
            } catch (const std::exception &) {
                // The session is going: the directory drops the name with it.
            }
        }
    }
    stopCurrentTimeline();
}

void VXSartelExecuter::initPollingTimers(const ConnectionTiming &timing)
{
    m_slowTimer = new QTimer(this);
    m_mediumTimer = new QTimer(this);
    m_fastTimer = new QTimer(this);
    m_slowTimer->setInterval(a_slowPeriodMs);
    m_mediumTimer->setInterval(timing.mediumPollMs);
    m_fastTimer->setInterval(timing.fastPollMs);
    connect(m_mediumTimer, &QTimer::timeout, this, &VXSartelExecuter::onMediumTimeout);
    connect(m_fastTimer, &QTimer::timeout, this, &VXSartelExecuter::onFastTimeout);
    // Started by the executer's own loop: timers started here would move to
    // that thread still running, and Qt's hand-over of running timers is a
    // queued call that leaks when the thread ends before its loop turns.
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_slowTimer->start();
            m_mediumTimer->start();
            m_fastTimer->start();
        },
        Qt::QueuedConnection);
}

void VXSartelExecuter::stopPolling()
{
    m_slowTimer->stop();
    m_mediumTimer->stop();
    m_fastTimer->stop();
}

// ---- calls by name ----------------------------------------------------------

// The call is posted; the robot's failure of it, when it comes, is told as
// the failure of the call. The dialog, when asked for, tells every failure
// found before posting; one that comes later is told by errorOccurred only
// when no dialog was asked for, and by both otherwise.
template<typename Post>
bool VXSartelExecuter::callByName(const QString &proxyName, const QString &methodName,
                                  const char *enabledMethod, bool checkEnable,
                                  bool showDialogOnError, Post post)
{
    auto call = executerCall(this, m_connection, "callProxy");
    if (showDialogOnError)
        call.signal(tr("Failed to call IO"),
                    tr("Make sure the behavior has been played and check that you do not have "
                       "feedback errors from your robot."));
    call.quietly();
    const bool posted = call.attempt(
        [&proxyName](Connection &connection) { return proxyByName(connection, proxyName); },
        [&](VX::VXProxy &proxy) {
            if (checkEnable && !proxy.call<bool>(enabledMethod))
                throw CallFailure(ErrorCode::RobotFailed,
                                  tr("Box is disabled and therefore cannot be called. Check "
                                     "that the behavior keyframe parent is loaded.")
                                      .toStdString());
            post(proxy, call.report());
        });
    if (!posted) {
        const OperationError failure = call.lastFailure();
        if (showDialogOnError)
            onCallFailed(proxyName, methodName, VX::VXValue(), failure.details);
        emit errorOccurred(failure);
    }
    return posted;
}

bool VXSartelExecuter::callProxy(QString proxyName, QString methodName, VX::VXValue param,
                                 bool checkEnable, bool showDialogOnError)
{
    return callByName(proxyName, methodName, "_isEnabled", checkEnable, showDialogOnError,
                      [&](VX::VXProxy &proxy, const FailureReport &texts) {
                          m_posted->post(proxy, "callProxy", texts, utf8(methodName),
                                         {wz::toAny(param)});
                      });
}

bool VXSartelExecuter::callProxy(QString proxyName, bool checkEnable, bool showDialogOnError,
                                 QString methodName, VX::VXValue param1, VX::VXValue param2,
                                 VX::VXValue param3, VX::VXValue param4, VX::VXValue param5,
                                 VX::VXValue param6)
{
    const VX::VXValue *const params[] = {&param1, &param2, &param3, &param4, &param5, &param6};
    std::vector<wz::AnyValue> args;
    while (args.size() < 6 && params[args.size()]->isValid())
        args.push_back(wz::toAny(*params[args.size()]));
    if (args.empty()) {
        executerCall(this, m_connection, "callProxy")
            .fail(ErrorCode::RobotFailed, QStringLiteral("no argument to pass"));
        return false;
    }
    // This form asks without the leading underscore, unlike the other.
    return callByName(proxyName, methodName, "isEnabled", checkEnable, showDialogOnError,
                      [&](VX::VXProxy &proxy, const FailureReport &texts) {
                          m_posted->post(proxy, "callProxy", texts, utf8(methodName),
                                         std::move(args));
                      });
}

void VXSartelExecuter::onCallFailed(const QString &proxyName, const QString &methodName,
                                    const VX::VXValue &param, const QString &error)
{
    emit this->error(
        tr("Failed to call IO"),
        tr("Make sure the behavior has been played and check that you do not have "
           "feedback errors from your robot."),
        tr("Tried to call:\n%1::%2(%3)\n\nError:\n%4")
            .arg(proxyName, methodName, QString::fromLatin1(param.toString(1).c_str()), error));
}

// ---- micro events and watched keys -----------------------------------------

void VXSartelExecuter::subscribeToMicroEvent(QString name)
{
    executerCall(this, m_connection, "subscribeToMicroEvent")
        .log(k_category, wz::LogLevel_Info,
             "VXMemory::subscribeToMicroEvent on " + utf8(name) + " call failed : ")
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory) {
            memory.subscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName), "",
                                         "dataChanged");
        });
}

void VXSartelExecuter::unsubscribeToMicroEvent(QString name)
{
    executerCall(this, m_connection, "unsubscribeToMicroEvent")
        .run(&Connection::memory, [&](VX::VXMemoryProxy &memory) {
            memory.unsubscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName));
        });
}

void VXSartelExecuter::subscribeToMicroEvents(QStringList nameList)
{
    for (const QString &name : nameList)
        subscribeToMicroEvent(name);
}

void VXSartelExecuter::unsubscribeToMicroEvents(QStringList nameList)
{
    for (const QString &name : nameList)
        unsubscribeToMicroEvent(name);
}

void VXSartelExecuter::raiseEvent(QString eventName, VX::VXValue val)
{
    executerCall(this, m_connection, "raiseEvent")
        .log(k_category, wz::LogLevel_Info,
             "VXMemory::raiseEvent on " + utf8(eventName) + " call failed : ")
        .run(&Connection::memory,
             [&](VX::VXMemoryProxy &memory) { memory.raiseEvent(utf8(eventName), val); });
}

void VXSartelExecuter::addWatchedData(QString dataName)
{
    m_watchedData.append(dataName);
}

void VXSartelExecuter::removeWatchedData(QString dataName)
{
    m_watchedData.removeAll(dataName);
}

void VXSartelExecuter::updateEventFilter()
{
    m_events->acceptOnly({m_currentTimeline, a_sentenceSaidSTMName, a_sentenceHeardSTMName,
                          QString::fromLatin1(a_keyRemovedName)});
}

void VXSartelExecuter::onDataChanged(QString name, VX::VXValue value)
{
    if (name == m_currentTimeline) {
        // The same frame arrives by two routes; only a change is news.
        if (value.getType() != VX::VXValue::TypeInt)
            return;
        const int frame = value.toInt();
        if (frame != m_lastFrame) {
            m_lastFrame = frame;
            emit currentFrameChanged(frame);
        }
        return;
    }
    if (name == a_sentenceSaidSTMName) {
        if (value.isString())
            emit sentenceSaid(fromUtf8(value.toStdString()));
        return;
    }
    if (name == a_sentenceHeardSTMName) {
        if (!value.isArray())
            return;
        // [word, confidence]; anything else is the robot's mistake, not ours.
        if (value.getSize() < 2 || !value[0].isString()
            || (!value[1].isFloat() && !value[1].isInt())) {
            wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
                << "ignoring " << utf8(name) << ": expected [word, confidence], got "
                << value.toString(1);
            return;
        }
        const float confidence = value[1].toFloat();
        if (static_cast<double>(confidence) > a_minimumWordConfidence)
            emit sentenceHeard(fromUtf8(value[0].toStdString()));
        return;
    }
    if (name == QLatin1String(a_keyRemovedName) && value.isString()) {
        QString removed = QString::fromUtf8(value.toString(1).c_str());
        removed.remove(QLatin1Char('"'));
        if (removed == m_currentTimeline)
            emit currentTimelineStopped();
    }
}

// ---- polling ----------------------------------------------------------------

void VXSartelExecuter::setRobotPoseUpdateNeeded(bool updateNeeded)
{
    m_robotPoseUpdateNeeded = updateNeeded;
}

void VXSartelExecuter::onFastTimeout()
{
    if (m_robotPoseUpdateNeeded) {
        updateJointAngles();
        updateTorsoPosition();
    }
    updateDataPolled();
}

void VXSartelExecuter::onMediumTimeout()
{
    updateJointStiffness();
}

void VXSartelExecuter::reportLostConnection(const std::exception &e)
{
    wz::log::LogStream(wz::LogLevel_Warning, k_connectionCategory, "updatePose")
        << "An error has been received from Morvane! Connection is lost.\n"
        << e.what();
    emit connectionLost();
}

void VXSartelExecuter::ensureJointNames(VX::VXMotionProxy &motion)
{
    if (!m_jointNames.empty())
        return;
    try {
        m_jointNames = motion.getBodyNames("Body");
    } catch (const std::exception &) {
        // Older robots only know the former name of the question.
        m_jointNames = motion.getJointNames("Body");
    }
}

void VXSartelExecuter::updateJointAngles()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection->motion();
    if (!motion)
        return;
    try {
        ensureJointNames(*motion);
        // Sensor values where the robot has the device layer, commands otherwise.
        const bool useSensors = connection->hasDCM();
        const std::vector<float> angles = motion->getAngles(VX::VXValue("Body"), useSensors);
        emit motorAnglesChanged(m_jointNames, angles);
    } catch (const std::exception &e) {
        reportLostConnection(e);
    }
}

void VXSartelExecuter::updateJointStiffness()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection->motion();
    if (!motion)
        return;
    try {
        ensureJointNames(*motion);
        const std::vector<float> stiffnesses = motion->getStiffnesses(VX::VXValue("Body"));
        emit motorStiffnessesChanged(m_jointNames, stiffnesses);
        emit robotStateChanged(motion->robotIsWakeUp());
    } catch (const std::exception &e) {
        reportLostConnection(e);
    }
}

void VXSartelExecuter::updateTorsoPosition()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection->motion();
    if (!motion)
        return;
    try {
        std::vector<float> position;
        try {
            position = motion->getGenericProxy()->call<std::vector<float>>("_getRealTorsoInWorld");
        } catch (const std::exception &) {
            // A private method, not on every robot: asked again on every tick.
            position = connection->motion()->getPosition("Torso", 1, true);
        }
        emit torsoPositionChanged(position);
    } catch (const std::exception &e) {
        reportLostConnection(e);
    }
}

void VXSartelExecuter::updateDataPolled()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return;
    const QStringList watched = m_watchedData;
    for (const QString &name : watched) {
        try {
            emit dataSubscribedChanged(name, memory->getData(utf8(name)));
        } catch (const std::exception &) {
            // A key that cannot be read leaves the watch without a word.
            m_watchedData.removeAll(name);
        }
    }
}

// ---- timeline ---------------------------------------------------------------

ExecuterCall<VXSartelExecuter> VXSartelExecuter::timelineCall(const char *operation,
                                                              const QString &contents)
{
    ExecuterCall<VXSartelExecuter> call(this, m_connection, operation);
    call.signal(tr("Error"), contents);
    return call;
}

void VXSartelExecuter::createTimeline(QString timelineStr)
{
    timelineCall("createTimeline", tr("Failed to create timeline"))
        .run(&Connection::frameManager, [&](VX::VXProxy &frameManager, Connection &connection) {
            dropTimeline(frameManager, connection);
            // After a failure the empty name goes in too; its first poll
            // fails and takes it out again.
            struct Watch
            {
                VXSartelExecuter *self;
                Connection &connection;
                ~Watch()
                {
                    if (const auto module = connection.sartelModuleInterface())
                        emit module->addWatchedDataRequested(self->m_currentTimeline);
                }
            } watch {this, connection};
            m_currentTimeline = QString::fromLatin1(
                frameManager.call<std::string>("createTimeline", utf8(timelineStr)).c_str());
            updateEventFilter();
        });
}

void VXSartelExecuter::dropTimeline(VX::VXProxy &frameManager, Connection &connection)
{
    if (m_currentTimeline.isEmpty()) {
        emit currentFrameChanged(-1);
        return;
    }
    if (const boost::shared_ptr<SartelModuleInterface> module = connection.sartelModuleInterface())
        emit module->removeWatchedDataRequested(m_currentTimeline);
    emit currentFrameChanged(-1);
    try {
        frameManager.call<void>("deleteBehavior", utf8(m_currentTimeline));
    } catch (const std::exception &) {
        // Gone already, or the robot with it: the desktop forgets it anyway.
    }
    m_currentTimeline.clear();
    updateEventFilter();
}

void VXSartelExecuter::stopCurrentTimeline()
{
    auto call = executerCall(this, m_connection, "stopCurrentTimeline");
    // The executer going: nobody is left to tell.
    if (m_destroying)
        call.quietly();
    call.run(&Connection::frameManager, [this](VX::VXProxy &frameManager, Connection &connection) {
        dropTimeline(frameManager, connection);
    });
}

void VXSartelExecuter::playCurrentTimeline()
{
    timelineCommand("playCurrentTimeline", tr("Failed to play timeline"), "playTimeline");
}

void VXSartelExecuter::pauseCurrentTimeline()
{
    timelineCommand("pauseCurrentTimeline", tr("Failed to pause in timeline"), "stopTimeline");
}

// Without a current timeline there is nothing to ask the robot: that is told
// as the operation's failure, but shown to nobody.
void VXSartelExecuter::timelineCommand(const char *operation, const QString &contents,
                                       const char *method)
{
    bool loaded = true;
    timelineCall(operation, contents).run(&Connection::frameManager, [&](VX::VXProxy &frames) {
        loaded = !m_currentTimeline.isEmpty();
        if (loaded)
            frames.call<void>(method, utf8(m_currentTimeline));
    });
    if (!loaded)
        executerCall(this, m_connection, operation)
            .fail(ErrorCode::RobotFailed, QStringLiteral("no timeline is loaded"));
}

void VXSartelExecuter::gotoFrameCurrentTimeline(int frame)
{
    // Asked even without a current timeline: the robot then says what is wrong.
    timelineCall("gotoFrameCurrentTimeline", tr("Failed to do a goto in timeline"))
        .run(&Connection::frameManager, [&](VX::VXProxy &frameManager) {
            frameManager.call<void>("gotoAndStop", utf8(m_currentTimeline), frame);
        });
}

} // namespace RK
