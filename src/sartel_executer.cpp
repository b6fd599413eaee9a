#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include <connection/connection.h>
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QMetaObject>
#include <QTimer>

#include <boost/make_shared.hpp>

#include <wz/log.h>

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

std::string ascii(const QString &text)
{
    return text.toLatin1().toStdString();
}

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

// The robot's module `name`, looked up in the session each time.
boost::shared_ptr<VX::VXProxy> proxyByName(const Connection &connection, const QString &name)
{
    wz::Session *session = connection.session();
    if (!session)
        throw std::runtime_error("no session");
    const std::string module = ascii(name);
    wz::Object object = session->service(module, "").value(wz::FutureTimeout_Infinite);
    return boost::make_shared<VX::VXProxy>(object, module);
}

} // namespace

const QString VXSartelExecuter::a_sentenceSaidSTMName
    = QStringLiteral("VXTextToSpeech/CurrentSentence");
const QString VXSartelExecuter::a_sentenceHeardSTMName = QStringLiteral("WordRecognized");

VXSartelExecuter::VXSartelExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
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

bool VXSartelExecuter::callProxy(QString proxyName, QString methodName, VX::VXValue param,
                                 bool checkEnable, bool showDialogOnError)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return false;
    try {
        const boost::shared_ptr<VX::VXProxy> proxy = proxyByName(*connection, proxyName);
        if (checkEnable && !proxy->call<bool>("_isEnabled")) {
            if (showDialogOnError)
                onCallFailed(proxyName, methodName, VX::VXValue(),
                             tr("Box is disabled and therefore cannot be called. Check that the "
                                "behavior keyframe parent is loaded."));
            return false;
        }
        proxy->pCall(ascii(methodName), param);
        return true;
    } catch (const std::exception &e) {
        if (showDialogOnError)
            onCallFailed(proxyName, methodName, VX::VXValue(), QString::fromUtf8(e.what()));
        return false;
    }
}

bool VXSartelExecuter::callProxy(QString proxyName, bool checkEnable, bool showDialogOnError,
                                 QString methodName, VX::VXValue param1, VX::VXValue param2,
                                 VX::VXValue param3, VX::VXValue param4, VX::VXValue param5,
                                 VX::VXValue param6)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return false;
    try {
        const boost::shared_ptr<VX::VXProxy> proxy = proxyByName(*connection, proxyName);
        // This form asks without the leading underscore, unlike the other.
        if (checkEnable && !proxy->call<bool>("isEnabled")) {
            if (showDialogOnError)
                onCallFailed(proxyName, methodName, VX::VXValue(),
                             tr("Box is disabled and therefore cannot be called. Check that the "
                                "behavior keyframe parent is loaded."));
            return false;
        }
        const VX::VXValue *const params[] = {&param1, &param2, &param3, &param4, &param5, &param6};
        int count = 0;
        while (count < 6 && params[count]->isValid())
            ++count;
        const std::string method = ascii(methodName);
        switch (count) {
        case 0:
            return false;
        case 1:
            proxy->pCall(method, param1);
            break;
        case 2:
            proxy->pCall(method, param1, param2);
            break;
        case 3:
            proxy->pCall(method, param1, param2, param3);
            break;
        case 4:
            proxy->pCall(method, param1, param2, param3, param4);
            break;
        case 5:
            proxy->pCall(method, param1, param2, param3, param4, param5);
            break;
        default:
            proxy->pCall(method, param1, param2, param3, param4, param5, param6);
            break;
        }
        return true;
    } catch (const std::exception &e) {
        if (showDialogOnError)
            onCallFailed(proxyName, methodName, VX::VXValue(), QString::fromUtf8(e.what()));
        return false;
    }
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
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return;
    try {
        memory->subscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName), "",
                                      "dataChanged");
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Info, k_category, __FUNCTION__)
            << "VXMemory::subscribeToMicroEvent on " << utf8(name) << " call failed : " << e.what()
            << std::endl;
    }
}

void VXSartelExecuter::unsubscribeToMicroEvent(QString name)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory || !m_module)
        return;
    try {
        memory->unsubscribeToMicroEvent(utf8(name), utf8(VXSartel::a_sartelModuleName));
    } catch (const std::exception &) {
        // Not subscribed, or the robot has gone: nothing to undo either way.
    }
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
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMemoryProxy> memory = connection->memory();
    if (!memory)
        return;
    try {
        memory->raiseEvent(utf8(eventName), val);
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Info, k_category, __FUNCTION__)
            << "VXMemory::raiseEvent on " << utf8(eventName) << " call failed : " << e.what()
            << std::endl;
    }
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

void VXSartelExecuter::createTimeline(QString timelineStr)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> frameManager = connection->frameManager();
    if (!frameManager)
        return;
    stopCurrentTimeline();
    try {
        m_currentTimeline = QString::fromLatin1(
            frameManager->call<std::string>("createTimeline", ascii(timelineStr)).c_str());
        updateEventFilter();
    } catch (const std::exception &e) {
        emit error(tr("Error"), tr("Failed to create timeline"), QString::fromUtf8(e.what()));
    }
    // After a failure the empty name goes in too; its first poll fails and
    // takes it out again.
    if (const boost::shared_ptr<SartelModuleInterface> module = connection->sartelModuleInterface())
        emit module->addWatchedDataRequested(m_currentTimeline);
}

void VXSartelExecuter::stopCurrentTimeline()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> frameManager = connection->frameManager();
    if (!frameManager)
        return;
    if (m_currentTimeline.isEmpty()) {
        emit currentFrameChanged(-1);
        return;
    }
    if (const boost::shared_ptr<SartelModuleInterface> module = connection->sartelModuleInterface())
        emit module->removeWatchedDataRequested(m_currentTimeline);
    emit currentFrameChanged(-1);
    try {
        frameManager->call<void>("deleteBehavior", ascii(m_currentTimeline));
    } catch (const std::exception &) {
        // Gone already, or the robot with it: the desktop forgets it anyway.
    }
    m_currentTimeline.clear();
    updateEventFilter();
}

void VXSartelExecuter::playCurrentTimeline()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> frameManager = connection->frameManager();
    if (!frameManager || m_currentTimeline.isEmpty())
        return;
    try {
        frameManager->call<void>("playTimeline", ascii(m_currentTimeline));
    } catch (const std::exception &e) {
        emit error(tr("Error"), tr("Failed to play timeline"), QString::fromUtf8(e.what()));
    }
}

void VXSartelExecuter::pauseCurrentTimeline()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> frameManager = connection->frameManager();
    if (!frameManager || m_currentTimeline.isEmpty())
        return;
    try {
        frameManager->call<void>("stopTimeline", ascii(m_currentTimeline));
    } catch (const std::exception &e) {
        emit error(tr("Error"), tr("Failed to pause in timeline"), QString::fromUtf8(e.what()));
    }
}

void VXSartelExecuter::gotoFrameCurrentTimeline(int frame)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> frameManager = connection->frameManager();
    if (!frameManager)
        return;
    // Asked even without a current timeline: the robot then says what is wrong.
    try {
        frameManager->call<void>("gotoAndStop", ascii(m_currentTimeline), frame);
    } catch (const std::exception &e) {
        emit error(tr("Error"), tr("Failed to do a goto in timeline"), QString::fromUtf8(e.what()));
    }
}

} // namespace RK
