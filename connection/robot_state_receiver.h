#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class ExecuterThread;
class RobotStateExecuter;

} // namespace RK

// Joint name to target angle; joints reach the robot in the map's order.
typedef QMap<QString, double> RobotPose;

namespace RK {

// Commands to the robot's joints and motors. Every operation returns at once
// except sendMotorAnglesBlocking, which waits for the end of the motion and
// must not be called from the receiver's own executer thread. Reading joints
// is the pose polling of the desktop module.
class NIMIOB_EXPORT RobotStateReceiver : public QObject,
                                         public MorvaneInterface<RobotStateExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit RobotStateReceiver(boost::shared_ptr<Connection> connection);
    ~RobotStateReceiver() override;

    // Relative to where the joints are.
    void changeMotorAngles(RobotPose motorChanges, float motorSpeed);
    // Posted: the robot starts moving and the call returns.
    void sendMotorAngles(RobotPose motorValues, float motorSpeed);
    void sendMotorAnglesBlocking(RobotPose motorValues, float motorSpeed);
    void rest();
    void wakeUp();
    // A joint or a chain, switched on or off over 0.2 s.
    QFuture<void> setStiffness(QString name, bool on);

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void changeAnglesWithSpeedRequested(RobotPose motorChanges, float motorSpeed);
    void gotoAnglesWithSpeedRequested(RobotPose motorValues, float motorSpeed);
    void gotoAnglesWithSpeedBlockingRequested(RobotPose motorValues, float motorSpeed);
    void restRequested();
    void wakeUpRequested();
};

} // namespace RK
