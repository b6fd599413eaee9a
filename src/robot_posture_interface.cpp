#include "robot_posture_executer_p.h"

#include "connection_p.h"
#include "executer_thread_p.h"
#include "morvane_interface_p.h"
#include <connection/robot_posture_interface.h>
#include <connection/sartel_module.h>

#include <wz/log.h>

namespace RK {

const QString RobotPostureInterface::a_postureFamilyKey = QStringLiteral("PostureFamilyChanged");

RobotPostureInterface::RobotPostureInterface(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), MorvaneInterface(connection, QStringLiteral("RobotPostureInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<VX::VXValue>("VX::VXValue");

    using E = RobotPostureExecuter;
    using I = RobotPostureInterface;
    request(this, &I::goToPoseRequested, &E::onGoToPoseRequested);
    request(this, &I::setPoseRequested, &E::onSetPoseRequested);
    forward(&E::robotPoseReached, this, &I::robotPoseReached);
    QObject::connect(executer(), &E::error, this, &I::onError);

    const boost::shared_ptr<SartelModuleInterface> module
        = connection ? connection->sartelModuleInterface() : nullptr;
    if (module) {
        emit module->subscribeToMicroEventRequested(a_postureFamilyKey);
        QObject::connect(module.get(), &SartelModuleInterface::dataSubscribedChanged, this,
                         &I::onDataChanged);
    }
}

RobotPostureInterface::~RobotPostureInterface() = default;

void RobotPostureInterface::goToPose(QString poseName, float actuatorVelocity)
{
    emit goToPoseRequested(poseName, actuatorVelocity);
}

void RobotPostureInterface::setPose(QString poseName, float actuatorVelocity)
{
    emit setPoseRequested(poseName, actuatorVelocity);
}

QFuture<QString> RobotPostureInterface::postureFamily()
{
    return run(&RobotPostureExecuter::postureFamily);
}

void RobotPostureInterface::onDataChanged(QString dataName, VX::VXValue value)
{
    if (dataName != a_postureFamilyKey)
        return;
    try {
        emit postureFamilyChanged(QString::fromUtf8(value.toStdString().c_str()));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "desktop.robotposture", __FUNCTION__)
            << dataName.toUtf8().toStdString() << " data not "
            << "formatted as expected: " << e.what();
    }
}

void RobotPostureInterface::onError(QString title, QString contents, QString details)
{
    emit displayErrorRequested(title, contents, details, false);
}

} // namespace RK
