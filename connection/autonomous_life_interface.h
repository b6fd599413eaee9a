#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QMetaType>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <wz/object.h>

namespace RK {

class Connection;
class FutureListWatcher;

// The robot's autonomous mode, as the robot names it.
enum LifeState {
    LifeStateUnknown = 0,
    LifeStateDisabled = 1,
    LifeStateSolitary = 2,
    LifeStateInteractive = 3,
    LifeStateReflex = 4,
};

// Reads and changes the robot's autonomous life and hands its focus to a
// behaviour. No executer: each operation runs on the thread pool with a
// proxy of its own, and the object waits for them when it goes. The state is
// not cached; stateChanged follows the robot's "AutonomousLife/State".
class NIMIOB_EXPORT AutonomousLifeInterface : public QObject
{
    Q_OBJECT

public:
    // `life` is the service as the connection found it; each call looks it up again.
    AutonomousLifeInterface(boost::shared_ptr<Connection> connection, wz::Object life);
    ~AutonomousLifeInterface() override;

    // LifeStateUnknown when the robot cannot say.
    QFuture<LifeState> state();
    QFuture<void> setState(LifeState state);
    // The robot's error, if any, comes out of the future's wait.
    QFuture<void> switchFocus(QString name);

    static LifeState stateFromString(const std::string &text);
    static std::string stateToString(LifeState state);

public slots:
    void onStateChanged(QString keyName, VX::VXValue value);

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
    void stateChanged(RK::LifeState newState);

private:
    LifeState _state();
    void _setState(LifeState state);
    void _switchFocus(QString name);

    boost::weak_ptr<Connection> m_connection;
    FutureListWatcher *m_futureListWatcher;
};

} // namespace RK

Q_DECLARE_METATYPE(RK::LifeState)
