#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

namespace RK {

class Connection;
class ExecuterThread;
class RobotPostureExecuter;

// Named postures of the robot and the family of its present stance. Moves are
// queued one after the other on the executer's thread; the family is asked on
// the thread pool, so a move in progress does not hold it up.
class NIMIOB_EXPORT RobotPostureInterface
    : public QObject,
      public MorvaneInterface<RobotPostureExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    static const QString a_postureFamilyKey;

    explicit RobotPostureInterface(boost::shared_ptr<Connection> connection);
    ~RobotPostureInterface() override;

    // Moves to the posture from wherever the robot is; stiffens it first.
    void goToPose(QString poseName, float actuatorVelocity);
    // Moves to the posture; the robot refuses when limp.
    void setPose(QString poseName, float actuatorVelocity);
    // Empty when the robot cannot tell.
    QFuture<QString> postureFamily();

public slots:
    void onDataChanged(QString dataName, VX::VXValue value);

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
    void goToPoseRequested(QString poseName, float actuatorVelocity);
    void setPoseRequested(QString poseName, float actuatorVelocity);
    void robotPoseReached(bool success);
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
    void postureFamilyChanged(QString family);

private slots:
    void onError(QString title, QString contents, QString details);
};

} // namespace RK
