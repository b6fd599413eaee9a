#include "robot_state_executer_p.h"
#include "service_table_p.h"

#include <connection/connection.h>

#include <vx/vxproxies.h>
#include <wz/log.h>

#include <string>
#include <vector>

namespace RK {

namespace {

const char *const k_category = "desktop.motion";

// Names first, then angles, in the map's order.
void toArguments(const RobotPose &pose, VX::VXValue &names, VX::VXValue &angles)
{
    std::vector<std::string> nameList;
    std::vector<float> angleList;
    for (auto it = pose.constBegin(); it != pose.constEnd(); ++it) {
        nameList.push_back(it.key().toLatin1().toStdString());
        angleList.push_back(static_cast<float>(it.value()));
    }
    names = VX::VXValue(nameList);
    angles = VX::VXValue(angleList);
}

} // namespace

const float RobotStateExecuter::a_stiffnessTime = 0.2f;
const float RobotStateExecuter::a_stiffnessMax = 1.0f;
const float RobotStateExecuter::a_stiffnessMin = 0.0f;

RobotStateExecuter::RobotStateExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

RobotStateExecuter::~RobotStateExecuter() = default;

void RobotStateExecuter::changeAnglesWithSpeed(RobotPose motorChanges, float motorSpeed)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection ? connection->motion() : nullptr;
    if (!motion)
        return;
    try {
        VX::VXValue names;
        VX::VXValue changes;
        toArguments(motorChanges, names, changes);
        motion->changeAngles(names, changes, motorSpeed);
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "Failed to call changeAngles: " << e.what();
    }
}

void RobotStateExecuter::gotoAnglesWithSpeed(RobotPose motorValues, float motorSpeed, bool post)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection->motion();
    if (!motion || !connection->robotStateReceiver() || motorValues.isEmpty())
        return;
    try {
        VX::VXValue names;
        VX::VXValue angles;
        toArguments(motorValues, names, angles);
        if (post)
            motion->post.angleInterpolationWithSpeed(names, angles, motorSpeed);
        else
            motion->angleInterpolationWithSpeed(names, angles, motorSpeed);
    } catch (const std::exception &e) {
        emit error(QString::fromLatin1(serviceName(ServiceId::Motion)),
                   tr("Failed to call %1")
                       .arg(post ? QStringLiteral("post.angleInterpolationWithSpeed")
                                 : QStringLiteral("angleInterpolationWithSpeed")),
                   QString::fromUtf8(e.what()));
    }
}

void RobotStateExecuter::gotoAnglesWithSpeedBlocking(RobotPose motorValues, float motorSpeed)
{
    gotoAnglesWithSpeed(motorValues, motorSpeed, false);
}

void RobotStateExecuter::setStiffness(QString name, bool on)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection ? connection->motion() : nullptr;
    if (!motion)
        return;
    try {
        motion->post.stiffnessInterpolation(VX::VXValue(name.toUtf8().toStdString()),
                                            VX::VXValue(on ? a_stiffnessMax : a_stiffnessMin),
                                            VX::VXValue(a_stiffnessTime));
    } catch (const std::exception &e) {
        emit error(QString::fromLatin1(serviceName(ServiceId::Motion)),
                   tr("Failed to call %1").arg(QStringLiteral("post.stiffnessInterpolation")),
                   QString::fromUtf8(e.what()));
    }
}

void RobotStateExecuter::rest()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection ? connection->motion() : nullptr;
    if (!motion)
        return;
    try {
        motion->post.rest();
    } catch (const std::exception &e) {
        emit error(QString::fromLatin1(serviceName(ServiceId::Motion)),
                   tr("Failed to call %1").arg(QStringLiteral("rest")),
                   QString::fromUtf8(e.what()));
    }
}

void RobotStateExecuter::wakeUp()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXMotionProxy> motion = connection ? connection->motion() : nullptr;
    if (!motion)
        return;
    try {
        motion->post.wakeUp();
    } catch (const std::exception &e) {
        emit error(QString::fromLatin1(serviceName(ServiceId::Motion)),
                   tr("Failed to call %1").arg(QStringLiteral("wakeUp")),
                   QString::fromUtf8(e.what()));
    }
}

} // namespace RK
