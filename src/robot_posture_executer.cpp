#include "robot_posture_executer_p.h"

#include <connection/connection.h>

#include <vx/vxproxy.h>
#include <wz/log.h>

#include <string>

namespace RK {

namespace {
const char *const k_category = "desktop.robotposture";
}

RobotPostureExecuter::RobotPostureExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

RobotPostureExecuter::~RobotPostureExecuter() = default;

void RobotPostureExecuter::onGoToPoseRequested(QString poseName, float actuatorVelocity)
{
    robotPostureModuleCall("goToPosture", poseName, actuatorVelocity);
}

void RobotPostureExecuter::onSetPoseRequested(QString poseName, float actuatorVelocity)
{
    robotPostureModuleCall("applyPosture", poseName, actuatorVelocity);
}

void RobotPostureExecuter::robotPostureModuleCall(const char *method, const QString &poseName,
                                                  float actuatorVelocity)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    const boost::shared_ptr<VX::VXProxy> proxy = connection ? connection->robotPosture() : nullptr;
    if (!proxy)
        return;
    bool reached = false;
    try {
        reached = proxy->call<bool>(method, poseName.toUtf8().toStdString(), actuatorVelocity);
    } catch (const std::exception &e) {
        emit error(QStringLiteral("VXRobotPosture error"),
                   tr("Function call for %1 failed").arg(QString::fromLatin1(method)),
                   QString::fromUtf8(e.what()));
        return;
    }
    emit robotPoseReached(reached);
}

QString RobotPostureExecuter::postureFamily()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return QString();
    const boost::shared_ptr<VX::VXProxy> proxy = connection->robotPosture();
    std::string family;
    try {
        if (proxy)
            family = proxy->call<std::string>("getPostureFamily");
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "Could not call getPostureFamily: " << e.what();
    }
    return QString::fromUtf8(family.data(), static_cast<int>(family.size()));
}

} // namespace RK
