#include "future_list_watcher_p.h"
#include <connection/future_interface.h>

#include <QMutexLocker>
#include <QSignalMapper>
#include <QThread>

namespace RK {

FutureListWatcher::FutureListWatcher() : m_mapper(new QSignalMapper(this))
{
    connect(m_mapper, &QSignalMapper::mappedObject, this, &FutureListWatcher::onFutureFinished);
}

FutureListWatcher::~FutureListWatcher()
{
    disconnect(m_mapper, nullptr, this, nullptr);
    for (;;) {
        FutureBase *future = nullptr;
        {
            QMutexLocker lock(&m_mutex);
            if (m_futures.isEmpty())
                break;
            future = m_futures.takeFirst();
        }
        // Calls in progress are waited for, never cancelled: the remote call
        // under them ends by itself or throws when the connection goes.
        // A failed call rethrows its error from the wait; nobody is left to
        // hear it, and an exception here would end the program.
        try {
            if (future->isRunning())
                future->waitForFinished();
        } catch (...) { }
        delete future;
    }
}

void FutureListWatcher::append(FutureBase *future)
{
    // The wrapper reports on this object's thread, where it is also deleted.
    if (future->thread() != thread())
        future->moveToThread(thread());
    {
        QMutexLocker lock(&m_mutex);
        m_futures.append(future);
    }
    if (QThread::currentThread() == thread()) {
        watch(future);
    } else {
        // The mapper belongs to this thread; the destructor still finds the
        // wrapper in the list if this never runs.
        QMetaObject::invokeMethod(
            this, [this, future]() { watch(future); }, Qt::QueuedConnection);
    }
}

void FutureListWatcher::watch(FutureBase *future)
{
    m_mapper->setMapping(future, future);
    // Queued, so that the wrapper is deleted outside its own signal.
    connect(future, &FutureBase::finished, m_mapper, qOverload<>(&QSignalMapper::map),
            Qt::QueuedConnection);
    if (future->isFinished())
        onFutureFinished(future);
}

int FutureListWatcher::count() const
{
    QMutexLocker lock(&m_mutex);
    return m_futures.size();
}

void FutureListWatcher::onFutureFinished(QObject *object)
{
    FutureBase *future = static_cast<FutureBase *>(object);
    {
        QMutexLocker lock(&m_mutex);
        if (m_futures.removeAll(future) == 0)
            return;
    }
    delete future;
}

} // namespace RK
