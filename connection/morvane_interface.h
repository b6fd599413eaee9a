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

/// The common base of every interface object: it ties the object, which the
/// application holds and which never blocks, to its executer, which makes the
/// blocking remote calls on a thread of its own.
///
/// \section life Life of an interface object
///
/// - \b Made by the connection's worker thread as the connection comes up,
///   one object per service the robot offers, and handed out by
///   ConnectionManager (videoDeviceInterface(), memoryInterface(), ...) as a
///   boost::shared_ptr. The pointer is null when the robot lacks the service.
/// - \b New at every connection: take the pointers and connect their signals
///   again on each ConnectionManager::connectionEstablished(), and drop the
///   pointers on ConnectionManager::disconnected(). The connection lets go of
///   its own share right after; a pointer kept longer stays safe to use, but
///   every request on it then fails at once with ErrorCode::ConnectionLost.
///   The object is deleted on its own thread when the last pointer goes.
/// - \b Threads: the object lives on the connection's worker thread; its
///   executer lives on a thread of its own (executerThread()), and methods
///   returning a QFuture run on Qt's global thread pool. Result signals are
///   emitted on the worker thread (the executer's are queued there);
///   errorOccurred() on the executer's thread or a pool thread, where the
///   failure is known; connectionEnded() on the thread that destroys the
///   connection. None comes on the application's thread: connect each with a
///   receiver object living on the GUI thread, and Qt delivers it there,
///   queued. A lambda connected without a receiver runs on the library's
///   thread, where it must not touch a widget. The public methods may be
///   called from any thread.
///
/// \section outcomes Outcomes
///
/// Every operation that an interface starts ends in exactly one outcome that
/// the application can see: its result (a result signal, or the future's
/// value) or one errorOccurred(const RK::OperationError &) of that interface.
/// Every interface declares two signals for this:
///
/// \code
/// void errorOccurred(const RK::OperationError &error);
/// void connectionEnded();
/// \endcode
///
/// - A request whose call is posted (a motion, a recording, a call by name)
///   reports the robot's failure of it when the answer comes; its success
///   has no signal.
/// - A request to a service the robot lacks fails at once with
///   ErrorCode::ServiceMissing; a request after the connection ended fails
///   at once with ErrorCode::ConnectionLost, and so does one whose link is
///   lost or closed while it runs.
/// - A method that returns a QFuture always finishes it: with its value, or
///   after a failure with the default value its documentation names. The
///   failure itself comes, once, as errorOccurred(), before the future
///   finishes. So an application that waits on a future and wants to know of
///   a failure listens to errorOccurred() too (its operation field names the
///   method). Two futures also carry the robot's exception, as their headers
///   say: BehaviorManagerInterface::preloadBehavior and
///   AutonomousLifeInterface::switchFocus.
/// - connectionEnded() is emitted once, when the connection of the interface
///   is gone: the object is then of no more use, and the application may drop
///   it.
///
/// The executer keeps its error(title, contents, details) signal, reachable
/// through executerObject(); the same three texts are in the OperationError,
/// so an application needs only errorOccurred().
///
/// \section writing Writing an interface
///
/// A concrete interface derives from QObject first and from this second. The
/// executer and its thread are internal: the public header only declares
/// them, and the interface's constructor, destructor and every method that
/// reaches the executer are defined in its .cpp, which includes
/// "morvane_interface_p.h" for the members below. The executer is a
/// parentless QObject constructible from boost::shared_ptr<Connection>; it
/// keeps the connection as a weak pointer and locks it for each call.
///
/// \code
/// BatteryInterface::BatteryInterface(boost::shared_ptr<Connection> connection)
///     : MorvaneInterface(connection, "BatteryInterface")
/// {
///     request(this, &BatteryInterface::getBatteryLevelRequested,
///             &BatteryExecuter::onGetBatteryLevel);
///     forward(&BatteryExecuter::updateBatteryLevelRequested, this,
///             &BatteryInterface::updateBatteryLevelRequested);
/// }
/// \endcode
///
/// \tparam Executer the internal class that makes the remote calls.
/// \tparam Thread the internal thread class the executer runs on.
template<typename Executer, typename Thread>
class MorvaneInterface
{
public:
    /// Starts the executer's thread and makes the executer on it.
    /// \param connection the connection the executer calls through; only a
    ///        weak pointer is kept.
    /// \param name the interface's name, given to its thread.
    MorvaneInterface(boost::shared_ptr<Connection> connection, const QString &name);
    /// Waits for the pool calls still running, then for the executer's
    /// thread; requests queued but not started are dropped with its loop.
    virtual ~MorvaneInterface();

    MorvaneInterface(const MorvaneInterface &) = delete;
    MorvaneInterface &operator=(const MorvaneInterface &) = delete;

    /// The thread the executer lives on; owned by this object, valid as long
    /// as it is.
    Thread *executerThread() const { return m_thread.get(); }
    /// The executer, an internal class; owned by this object. Its failures
    /// reach the application as the interface's errorOccurred().
    Executer *executer() const { return m_executer.get(); }
    /// The executer as a QObject, for its signals that the interface does not
    /// forward (its error(title, contents, details) among them); they are
    /// emitted on the executer's thread. Owned by this object.
    QObject *executerObject() const { return m_executerObject; }
    /// How many futures this object has handed out and not yet seen finish;
    /// its destructor waits for them. Callable from any thread.
    int pendingFutures() const;

protected:
    /// Request by signal: the interface's \p signal reaches the executer's
    /// \p slot on the executer's thread, queued.
    template<typename Interface, typename Signal, typename Slot>
    void request(Interface *self, Signal signal, Slot slot);

    /// Result by signal: the executer's signal \p from is re-emitted by the
    /// interface as \p to, queued to the interface's own thread.
    template<typename ExecuterSignal, typename Interface, typename InterfaceSignal>
    void forward(ExecuterSignal from, Interface *self, InterfaceSignal to);

    /// Request by future: the executer's \p method runs on the global thread
    /// pool, beside the executer's slots, with the arguments taken by value.
    /// The future is watched (see watch()).
    template<typename Method, typename... Args>
    auto run(Method method, Args &&...args);

    /// Failures of the executer become the interface's errorOccurred(), and
    /// the end of the connection its connectionEnded(). Direct connections:
    /// the interface's own thread (the connection worker) may have ended by
    /// the time an application still asks something of it.
    template<typename Interface>
    void forwardFailures(Interface *self);

    /// Keeps a future that this interface must wait for before it goes.
    template<typename T>
    void watch(const QFuture<T> &future);

    /// The connection, weak: the interface never keeps it alive.
    boost::weak_ptr<Connection> m_connection;
    /// The executer's thread, owned.
    boost::shared_ptr<Thread> m_thread;
    /// The executer, owned; deleted on its own thread.
    boost::shared_ptr<Executer> m_executer;
    /// The futures still running (see watch()), owned.
    FutureListWatcher *m_futureListWatcher;
    /// The executer as a QObject; see executerObject().
    QObject *m_executerObject = nullptr;
};

} // namespace RK
