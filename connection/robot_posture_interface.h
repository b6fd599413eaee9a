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

/// Named postures of the robot and the family of its present stance. Moves are
/// queued one after the other on the executer's thread; the family is asked on
/// the thread pool, so a move in progress does not hold it up.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::robotPostureInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT RobotPostureInterface
    : public QObject,
      public MorvaneInterface<RobotPostureExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// The robot's event naming the new posture family: "PostureFamilyChanged".
    static const QString a_postureFamilyKey;

    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::robotPostureInterface().
    explicit RobotPostureInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~RobotPostureInterface() override;

    /// Moves to the posture from wherever the robot is; stiffens it first.
    void goToPose(QString poseName, float actuatorVelocity);
    /// Moves to the posture; the robot refuses when limp.
    void setPose(QString poseName, float actuatorVelocity);
    /// Empty when the robot cannot tell.
    QFuture<QString> postureFamily();

public slots:
    /// Emits postureFamilyChanged() for a_postureFamilyKey; connected to the
    /// desktop module's events by the constructor.
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
    /// Carries goToPose() to the executer's thread.
    void goToPoseRequested(QString poseName, float actuatorVelocity);
    /// Carries setPose() to the executer's thread.
    void setPoseRequested(QString poseName, float actuatorVelocity);
    /// A move ended: \p success is the robot's answer, false when it could
    /// not reach the posture.
    void robotPoseReached(bool success);
    /// The texts of a failed move, for a dialog, beside errorOccurred() (which
    /// carries the same texts): an application that listens to both shows
    /// one error twice. \p checkWarningEnable is always false.
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
    /// The family of the robot's present stance ("Standing", "Sitting", ...)
    /// changed, as the robot's event said.
    void postureFamilyChanged(QString family);

private slots:
    void onError(QString title, QString contents, QString details);
};

} // namespace RK
