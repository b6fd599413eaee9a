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

/// Joint name to target angle in radians; joints reach the robot in the
/// map's order.
typedef QMap<QString, double> RobotPose;

namespace RK {

/// Commands to the robot's joints and motors. Every operation returns at
/// once; sendMotorAnglesBlocking() holds the executer's thread, so the
/// requests after it wait until its motion has ended. Reading joints is the
/// pose polling of the desktop module (SartelModuleInterface).
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::robotStateReceiver(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods may be called from any
/// thread.
///
/// Angles are in radians; a speed is a fraction of the joints' maximum
/// speed, from 0 (exclusive) to 1.
class NIMIOB_EXPORT RobotStateReceiver : public QObject,
                                         public MorvaneInterface<RobotStateExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::robotStateReceiver().
    explicit RobotStateReceiver(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~RobotStateReceiver() override;

    /// Relative to where the joints are.
    void changeMotorAngles(RobotPose motorChanges, float motorSpeed);
    /// Posted: the robot starts moving and the call returns.
    void sendMotorAngles(RobotPose motorValues, float motorSpeed);
    /// Like sendMotorAngles(), but the executer's thread waits for the end of
    /// the motion before it takes the next request; the call itself returns at
    /// once.
    void sendMotorAnglesBlocking(RobotPose motorValues, float motorSpeed);
    /// Posted: the robot's "rest", which leaves its joints limp.
    void rest();
    /// Posted: the robot's "wakeUp", which stiffens its joints.
    void wakeUp();
    /// A joint or a chain, switched on or off over 0.2 s.
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
    /// Carries changeMotorAngles() to the executer's thread.
    void changeAnglesWithSpeedRequested(RobotPose motorChanges, float motorSpeed);
    /// Carries sendMotorAngles() to the executer's thread.
    void gotoAnglesWithSpeedRequested(RobotPose motorValues, float motorSpeed);
    /// Carries sendMotorAnglesBlocking() to the executer's thread.
    void gotoAnglesWithSpeedBlockingRequested(RobotPose motorValues, float motorSpeed);
    /// Carries rest() to the executer's thread.
    void restRequested();
    /// Carries wakeUp() to the executer's thread.
    void wakeUpRequested();
};

} // namespace RK
