// The desktop module's executer: the slow, medium and fast ticks and what they ask the robot.

#include "connection_p.h"
#include "executer_call_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include "sartel_executer_parts_p.h"
#include <connection/platform.h>
#include <connection/sartel_module.h>

#include <QMetaObject>
#include <QTimer>

#include <vx/vxproxy.h>
#include <wz/log.h>

namespace RK {

namespace {

const char *const k_connectionCategory = "con.connection";
const int a_slowPeriodMs = 1000;

} // namespace

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

} // namespace RK
