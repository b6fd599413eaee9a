#pragma once

#include <connection/nimiob_export.h>
#include <connection/operation_error.h>

#include <QFuture>
#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {

class Connection;
class FutureListWatcher;

// Ties an interface object, which the application holds and which never
// blocks, to its executer, which makes the blocking remote calls on a thread
// of its own. A concrete interface derives from QObject first and from this
// second:
//
//   class NIMIOB_EXPORT BatteryInterface : public QObject,
//                            public MorvaneInterface<BatteryExecuter, ExecuterThread>
//   {
//       ...
//       explicit BatteryInterface(boost::shared_ptr<Connection> connection);
//       ~BatteryInterface() override;
//       void getBatteryLevel() { emit getBatteryLevelRequested(); }
//       QFuture<int> batteryLevel();
//   };
//
// The executer and its thread are internal: the public header only declares
// them, and the interface's constructor, destructor and every method that
// reaches the executer are defined in its .cpp, which includes
// "morvane_interface_p.h" for the members below:
//
//   BatteryInterface::BatteryInterface(boost::shared_ptr<Connection> connection)
//       : MorvaneInterface(connection, "BatteryInterface")
//   {
//       request(this, &BatteryInterface::getBatteryLevelRequested,
//               &BatteryExecuter::onGetBatteryLevel);
//       forward(&BatteryExecuter::updateBatteryLevelRequested, this,
//               &BatteryInterface::updateBatteryLevelRequested);
//   }
//   QFuture<int> BatteryInterface::batteryLevel() { return run(&BatteryExecuter::batteryLevel); }
//
// The executer is a parentless QObject constructible from
// boost::shared_ptr<Connection>; it keeps the connection as a weak pointer
// and locks it for each call.
//
// Outcomes. Every operation that an interface starts ends in exactly one
// outcome that the application can see: its result (a result signal, or
// the future's value) or one errorOccurred(const RK::OperationError &) of
// that interface. Every interface declares two signals for this:
//
//   void errorOccurred(const RK::OperationError &error);
//   void connectionEnded();
//
// - A request whose call is posted (a motion, a recording, a call by name)
//   reports the robot's failure of it when the answer comes; its success
//   has no signal.
// - A request to a service the robot lacks fails at once with
//   ErrorCode::ServiceMissing; a request after the connection ended fails at
//   once with ErrorCode::ConnectionLost, and so does one whose link is lost
//   or closed while it runs.
// - A method that returns a QFuture always finishes it: with its value, or
//   after a failure with the default value its documentation names. The
//   failure itself comes, once, as errorOccurred(), before the future
//   finishes. So an application that waits on a future and wants to know
//   of a failure listens to errorOccurred() too (its operation field names
//   the method). Two futures also carry the robot's exception, as their
//   headers say: BehaviorManagerInterface::preloadBehavior and
//   AutonomousLifeInterface::switchFocus.
// - connectionEnded() is emitted once, when the connection of the interface
//   is gone: the object is then of no more use, and the application may
//   drop it.
// - Both are emitted on the library thread where the failure or the end is
//   known (the executer's thread, a pool thread, the thread destroying the
//   connection), never on the application's: connect them with a receiver
//   object, and Qt delivers them on the receiver's thread, queued.
//
// The executer keeps its error(title, contents, details) signal; the same
// three texts are in the OperationError.
template<typename Executer, typename Thread>
class MorvaneInterface
{
public:
    MorvaneInterface(boost::shared_ptr<Connection> connection, const QString &name);
    // Waits for the pool calls still running, then for the executer's
    // thread; requests queued but not started are dropped with its loop.
    virtual ~MorvaneInterface();

    MorvaneInterface(const MorvaneInterface &) = delete;
    MorvaneInterface &operator=(const MorvaneInterface &) = delete;

    // The executer and its thread. The executer's class is internal; its
    // failures reach the application as the interface's errorOccurred(),
    // and executerObject() remains for its other signals.
    Thread *executerThread() const { return m_thread.get(); }
    Executer *executer() const { return m_executer.get(); }
    QObject *executerObject() const { return m_executerObject; }
    int pendingFutures() const;

protected:
    // Request by signal: the interface's signal reaches the executer's slot on
    // the executer's thread.
    template<typename Interface, typename Signal, typename Slot>
    void request(Interface *self, Signal signal, Slot slot);

    // Result by signal: the executer's signal is re-emitted by the interface
    // under the same name.
    template<typename ExecuterSignal, typename Interface, typename InterfaceSignal>
    void forward(ExecuterSignal from, Interface *self, InterfaceSignal to);

    // Request by future: the executer's method runs on the global thread pool,
    // beside the executer's slots, with the arguments taken by value.
    template<typename Method, typename... Args>
    auto run(Method method, Args &&...args);

    // Failures of the executer become the interface's errorOccurred(), and
    // the end of the connection its connectionEnded(). Direct connections:
    // the interface's own thread (the connection worker) may have ended by
    // the time an application still asks something of it.
    template<typename Interface>
    void forwardFailures(Interface *self);

    // Keeps a future that this interface must wait for before it goes.
    template<typename T>
    void watch(const QFuture<T> &future);

    boost::weak_ptr<Connection> m_connection;
    boost::shared_ptr<Thread> m_thread;
    boost::shared_ptr<Executer> m_executer;
    FutureListWatcher *m_futureListWatcher;
    QObject *m_executerObject = nullptr;
};

} // namespace RK
