#include "executer_call_p.h"
#include "robot_posture_executer_p.h"

#include "connection_p.h"

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
    robotPostureModuleCall("goToPose", "goToPosture", poseName, actuatorVelocity);
}

void RobotPostureExecuter::onSetPoseRequested(QString poseName, float actuatorVelocity)
{
    robotPostureModuleCall("setPose", "applyPosture", poseName, actuatorVelocity);
}

void RobotPostureExecuter::robotPostureModuleCall(const char *operation, const char *method,
                                                  const QString &poseName, float actuatorVelocity)
{
    executerCall(this, m_connection, operation)
        .signal(QStringLiteral("VXRobotPosture error"),
                tr("Function call for %1 failed").arg(QString::fromLatin1(method)))
        .run(&Connection::robotPosture, [&](VX::VXProxy &proxy) {
            emit robotPoseReached(
                proxy.call<bool>(method, poseName.toUtf8().toStdString(), actuatorVelocity));
        });
}

QString RobotPostureExecuter::postureFamily()
{
    return executerCall(this, m_connection, "postureFamily")
        .log(k_category)
        .run(&Connection::robotPosture, [](VX::VXProxy &proxy) {
            const std::string family = proxy.call<std::string>("getPostureFamily");
            return QString::fromUtf8(family.data(), static_cast<int>(family.size()));
        });
}

} // namespace RK
