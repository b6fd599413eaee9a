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

/// The robot's autonomous mode, as the robot names it.
enum LifeState {
    /// Not known: the robot did not say, or named a state not listed here.
    LifeStateUnknown = 0,
    /// "disabled": autonomous life is off.
    LifeStateDisabled = 1,
    /// "solitary".
    LifeStateSolitary = 2,
    /// "interactive".
    LifeStateInteractive = 3,
    /// "reflex".
    LifeStateReflex = 4,
};

/// Reads and changes the robot's autonomous life and hands its focus to a
/// behaviour. No executer: each operation runs on the thread pool with a
/// proxy of its own, and the object waits for them when it goes. The state is
/// not cached; stateChanged() follows the robot's "AutonomousLife/State".
///
/// \b Thread: lives on the connection worker's thread; stateChanged() is
/// emitted there, errorOccurred() on a pool thread. Connect them with a
/// receiver object. The methods may be called from any thread.
///
/// \b Ownership: shared by the connection and the holders of
/// ConnectionManager::autonomousLifeInterface() (null when the robot lacks
/// "VXAutonomousLife"). New at every connection: drop the pointer on
/// ConnectionManager::disconnected(); one kept longer fails every request
/// with ErrorCode::ConnectionLost.
class NIMIOB_EXPORT AutonomousLifeInterface : public QObject
{
    Q_OBJECT

public:
    /// Made by the connection. \p life is the service as the connection
    /// found it; each call looks it up again.
    AutonomousLifeInterface(boost::shared_ptr<Connection> connection, wz::Object life);
    /// Waits for the calls it started.
    ~AutonomousLifeInterface() override;

    /// The robot's state; LifeStateUnknown when the robot cannot say.
    QFuture<LifeState> state();
    /// Asks the robot for \p state; the robot's stateChanged() follows.
    /// LifeStateUnknown is not a state to ask for.
    QFuture<void> setState(LifeState state);
    /// Hands the robot's focus to the behaviour \p name (its path in the
    /// behaviour store). The robot's error, if any, comes out of the future's
    /// wait (QFuture::waitForFinished() rethrows it) as well as
    /// errorOccurred().
    QFuture<void> switchFocus(QString name);

    /// The state the robot's name stands for ("solitary", ...);
    /// LifeStateUnknown for any other text.
    static LifeState stateFromString(const std::string &text);
    /// The robot's name of \p state; empty (and an error logged) for
    /// LifeStateUnknown.
    static std::string stateToString(LifeState state);

public slots:
    /// Emits stateChanged() for the key "AutonomousLife/State"; connected to
    /// the desktop module's events by the constructor.
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
    /// The robot's state is now \p newState.
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
