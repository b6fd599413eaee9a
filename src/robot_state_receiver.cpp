#include "robot_state_executer_p.h"

#include "executer_thread_p.h"
#include "morvane_interface_p.h"
#include <connection/robot_state_receiver.h>

#include <QMetaType>

namespace RK {

RobotStateReceiver::RobotStateReceiver(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), MorvaneInterface(connection, QStringLiteral("RobotStateReceiver"))
{
    forwardFailures(this);
    qRegisterMetaType<RobotPose>("RobotPose");

    using E = RobotStateExecuter;
    using I = RobotStateReceiver;
    request(this, &I::changeAnglesWithSpeedRequested, &E::changeAnglesWithSpeed);
    QObject::connect(this, &I::gotoAnglesWithSpeedRequested, executer(),
                     [executer = executer()](RobotPose values, float speed) {
                         executer->gotoAnglesWithSpeed(values, speed, true);
                     });
    // Holds the caller until the motion has ended.
    QObject::connect(this, &I::gotoAnglesWithSpeedBlockingRequested, executer(),
                     &E::gotoAnglesWithSpeedBlocking, Qt::BlockingQueuedConnection);
    request(this, &I::restRequested, &E::rest);
    request(this, &I::wakeUpRequested, &E::wakeUp);
}

RobotStateReceiver::~RobotStateReceiver() = default;

void RobotStateReceiver::changeMotorAngles(RobotPose motorChanges, float motorSpeed)
{
    if (motorChanges.isEmpty())
        return;
    emit changeAnglesWithSpeedRequested(motorChanges, motorSpeed);
}

void RobotStateReceiver::sendMotorAngles(RobotPose motorValues, float motorSpeed)
{
    if (motorValues.isEmpty())
        return;
    emit gotoAnglesWithSpeedRequested(motorValues, motorSpeed);
}

void RobotStateReceiver::sendMotorAnglesBlocking(RobotPose motorValues, float motorSpeed)
{
    if (motorValues.isEmpty())
        return;
    emit gotoAnglesWithSpeedBlockingRequested(motorValues, motorSpeed);
}

void RobotStateReceiver::rest()
{
    emit restRequested();
}

void RobotStateReceiver::wakeUp()
{
    emit wakeUpRequested();
}

QFuture<void> RobotStateReceiver::setStiffness(QString name, bool on)
{
    return run(&RobotStateExecuter::setStiffness, name, on);
}

} // namespace RK
