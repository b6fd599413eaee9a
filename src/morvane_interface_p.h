#pragma once

// The members of MorvaneInterface. Included by the .cpp of each interface,
// where its executer is a complete type.

#include "connection_p.h"
#include <connection/future_interface.h>
#include <connection/morvane_interface.h>
#include <connection/operation_error.h>

#include "executer_thread_p.h"
#include "future_list_watcher_p.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFuture>
#include <QObject>
#include <QThread>
#include <QtConcurrentRun>

#include <boost/make_shared.hpp>

#include <utility>

namespace RK {

// connectionEnded() of `self` when `connection` is destroyed, on the thread
// that destroys it; nothing once `self` has gone.
template<typename Interface>
void watchConnectionEnd(QObject *connection, Interface *self, void (Interface::*ended)())
{
    QObject::connect(connection, &QObject::destroyed, self, ended, Qt::DirectConnection);
}

template<typename Executer, typename Thread>
MorvaneInterface<Executer, Thread>::MorvaneInterface(boost::shared_ptr<Connection> connection,
                                                     const QString &name)
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
    m_executerObject = m_executer.get();
    if (!name.isEmpty())
        m_thread->setObjectName(QStringLiteral("%1 thread").arg(name));
    m_thread->start(QThread::InheritPriority);
}

template<typename Executer, typename Thread>
MorvaneInterface<Executer, Thread>::~MorvaneInterface()
{
    delete m_futureListWatcher;
    m_futureListWatcher = nullptr;
    m_thread->exit(0);
    // Requests already queued could still be delivered with the slot that
    // is running; drop them, so that only that slot is waited for.
    QCoreApplication::removePostedEvents(m_executer.get(), QEvent::MetaCall);
    m_thread->join();
    m_executer.reset();
    m_thread.reset();
    m_connection.reset();
}

template<typename Executer, typename Thread>
int MorvaneInterface<Executer, Thread>::pendingFutures() const
{
    return m_futureListWatcher->count();
}

template<typename Executer, typename Thread>
template<typename Interface, typename Signal, typename Slot>
void MorvaneInterface<Executer, Thread>::request(Interface *self, Signal signal, Slot slot)
{
    QObject::connect(self, signal, m_executer.get(), slot);
}

template<typename Executer, typename Thread>
template<typename ExecuterSignal, typename Interface, typename InterfaceSignal>
void MorvaneInterface<Executer, Thread>::forward(ExecuterSignal from, Interface *self,
                                                 InterfaceSignal to)
{
    QObject::connect(m_executer.get(), from, self, to);
}

template<typename Executer, typename Thread>
template<typename Interface>
void MorvaneInterface<Executer, Thread>::forwardFailures(Interface *self)
{
    QObject::connect(m_executer.get(), &Executer::errorOccurred, self, &Interface::errorOccurred,
                     Qt::DirectConnection);
    if (const boost::shared_ptr<Connection> connection = m_connection.lock())
        watchConnectionEnd(connection.get(), self, &Interface::connectionEnded);
}

template<typename Executer, typename Thread>
template<typename Method, typename... Args>
auto MorvaneInterface<Executer, Thread>::run(Method method, Args &&...args)
{
    auto future = QtConcurrent::run(method, m_executer.get(), std::forward<Args>(args)...);
    watch(future);
    return future;
}

template<typename Executer, typename Thread>
template<typename T>
void MorvaneInterface<Executer, Thread>::watch(const QFuture<T> &future)
{
    m_futureListWatcher->append(new FutureWatcherInterface<T>(future));
}

} // namespace RK
