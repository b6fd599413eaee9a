#pragma once

#include <connection/executer_thread.h>
#include <connection/future_interface.h>
#include <connection/future_list_watcher.h>

#include <QCoreApplication>
#include <QEvent>
#include <QFuture>
#include <QObject>
#include <QString>
#include <QThread>
#include <QtConcurrentRun>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <utility>

namespace RK {

class Connection;

// Ties an interface object, which the application holds and which never
// blocks, to its executer, which makes the blocking remote calls on a thread
// of its own. A concrete interface derives from QObject first and from this
// second:
//
//   class BatteryInterface : public QObject,
//                            public MorvaneInterface<BatteryExecuter, ExecuterThread>
//   {
//       ...
//       explicit BatteryInterface(boost::shared_ptr<Connection> connection)
//           : MorvaneInterface(connection, "BatteryInterface")
//       {
//           request(this, &BatteryInterface::getBatteryLevelRequested,
//                   &BatteryExecuter::onGetBatteryLevel);
//           forward(&BatteryExecuter::updateBatteryLevelRequested, this,
//                   &BatteryInterface::updateBatteryLevelRequested);
//       }
//       void getBatteryLevel() { emit getBatteryLevelRequested(); }
//       QFuture<int> batteryLevel() { return run(&BatteryExecuter::batteryLevel); }
//   };
//
// The executer is a parentless QObject constructible from
// boost::shared_ptr<Connection>; it keeps the connection as a weak pointer
// and locks it for each call.
template<typename Executer, typename Thread>
class MorvaneInterface
{
public:
    MorvaneInterface(boost::shared_ptr<Connection> connection, const QString &name)
        : m_connection(connection), m_futureListWatcher(new FutureListWatcher)
    {
        // An executer may throw (its module's name taken, the session gone):
        // no destructor runs then, so what was made so far goes here.
        try {
            m_executer = boost::make_shared<Executer>(connection);
            m_thread = boost::make_shared<Thread>(connection, m_executer);
        } catch (...) {
            delete m_futureListWatcher;
            m_futureListWatcher = nullptr;
            throw;
        }
        if (!name.isEmpty())
            m_thread->setObjectName(QStringLiteral("%1 thread").arg(name));
        m_thread->start(QThread::InheritPriority);
    }

    // Waits for the pool calls still running, then for the executer's
    // thread; requests queued but not started are dropped with its loop.
    virtual ~MorvaneInterface()
    {
        delete m_futureListWatcher;
        m_futureListWatcher = nullptr;
        m_thread->exit(0);
        // Requests already queued could still be delivered with the slot that
        // is running; drop them, so that only that slot is waited for.
        QCoreApplication::removePostedEvents(m_executer.get(), QEvent::MetaCall);
        m_thread->wait();
        m_executer.reset();
        m_thread.reset();
        m_connection.reset();
    }

    MorvaneInterface(const MorvaneInterface &) = delete;
    MorvaneInterface &operator=(const MorvaneInterface &) = delete;

    // For tests and diagnostics.
    Thread *executerThread() const { return m_thread.get(); }
    Executer *executer() const { return m_executer.get(); }
    int pendingFutures() const { return m_futureListWatcher->count(); }

protected:
    // Request by signal: the interface's signal reaches the executer's slot on
    // the executer's thread.
    template<typename Interface, typename Signal, typename Slot>
    void request(Interface *self, Signal signal, Slot slot)
    {
        QObject::connect(self, signal, m_executer.get(), slot);
    }

    // Result by signal: the executer's signal is re-emitted by the interface
    // under the same name.
    template<typename ExecuterSignal, typename Interface, typename InterfaceSignal>
    void forward(ExecuterSignal from, Interface *self, InterfaceSignal to)
    {
        QObject::connect(m_executer.get(), from, self, to);
    }

    // Request by future: the executer's method runs on the global thread pool,
    // beside the executer's slots, with the arguments taken by value.
    template<typename Method, typename... Args>
    auto run(Method method, Args &&...args)
    {
        auto future = QtConcurrent::run(method, m_executer.get(), std::forward<Args>(args)...);
        watch(future);
        return future;
    }

    // Keeps a future that this interface must wait for before it goes.
    template<typename T>
    void watch(const QFuture<T> &future)
    {
        m_futureListWatcher->append(new FutureWatcherInterface<T>(future));
    }

    boost::weak_ptr<Connection> m_connection;
    boost::shared_ptr<Thread> m_thread;
    boost::shared_ptr<Executer> m_executer;
    FutureListWatcher *m_futureListWatcher;
};

} // namespace RK
