#include <connection/http_project_synchronizer.h>

#include "pull_thread_p.h"
#include "push_thread_p.h"
#include "remove_thread_p.h"

#include <QMetaObject>
#include <QMutexLocker>

namespace RK {

HttpProjectSynchronizer::HttpProjectSynchronizer(QObject *parent) : ProjectSynchronizer(parent) { }

HttpProjectSynchronizer::~HttpProjectSynchronizer()
{
    if (isBusy()) {
        cancel();
        wait();
    }
}

bool HttpProjectSynchronizer::isBusy() const
{
    QMutexLocker lock(&m_mutex);
    return m_thread != nullptr;
}

void HttpProjectSynchronizer::setNoDataTimeout(int milliseconds)
{
    m_noDataTimeout = milliseconds;
}

void HttpProjectSynchronizer::setSpeedFloor(qint64 bytesPerSecond, int windowMilliseconds)
{
    m_speedFloor = bytesPerSecond;
    m_speedWindow = windowMilliseconds;
}

bool HttpProjectSynchronizer::begin(SynchronizationThread *thread)
{
    QMutexLocker lock(&m_mutex);
    if (m_thread) {
        lock.unlock();
        emit aborted(tr("a project synchronization operation is in progress"));
        return false;
    }
    m_thread = thread;
    m_cancelled = false;
    // Set up and started under the lock: a wait() or cancel() from another
    // thread finds the thread running, never half made (a wait() would
    // otherwise delete it under this code).
    // The thread object belongs to this object's thread whoever started it
    // (the package manager starts transfers from the pool).
    if (thread->thread() != this->thread())
        thread->moveToThread(this->thread());
    TransferLimits limits;
    limits.noDataTimeout = m_noDataTimeout;
    limits.speedFloor = m_speedFloor;
    limits.speedWindow = m_speedWindow;
    thread->setLimits(limits);
    connect(thread, &QThread::finished, this, &HttpProjectSynchronizer::onFinished);
    connect(thread, &SynchronizationThread::connectionLost, this,
            &ProjectSynchronizer::connectionLost);
    connect(thread, &SynchronizationThread::stateChanged, this, &ProjectSynchronizer::stateChanged);
    connect(thread, &SynchronizationThread::rangeChanged, this, &ProjectSynchronizer::rangeChanged);
    // Progress never blocks the worker: the latest value is kept, and at most
    // one delivery is queued to this object's thread at a time.
    connect(
        thread, &SynchronizationThread::valueChanged, this,
        [this](int value) {
            m_latestValue = value;
            if (!m_valuePending.exchange(true)) {
                QMetaObject::invokeMethod(
                    this,
                    [this]() {
                        m_valuePending = false;
                        emit valueChanged(m_latestValue);
                    },
                    Qt::QueuedConnection);
            }
        },
        Qt::DirectConnection);
    thread->launch();
    return true;
}

void HttpProjectSynchronizer::push(const std::string &host, int port,
                                   wz::project::ProjectModel *model, const QString &path,
                                   wz::project::ArchiveFormat format)
{
    if (isBusy()) {
        emit aborted(tr("a project synchronization operation is in progress"));
        return;
    }
    PushTask task {path, format, model, QString(), false};
    auto *thread = new PushThread(host, port, task);
    if (!begin(thread))
        delete thread;
}

void HttpProjectSynchronizer::pushMerge(const std::string &host, int port,
                                        wz::project::ProjectModel *model, const QString &path,
                                        wz::project::ArchiveFormat format)
{
    if (isBusy()) {
        emit aborted(tr("a project synchronization operation is in progress"));
        return;
    }
    PushTask task {path, format, model, QString(), true};
    auto *thread = new PushThread(host, port, task);
    if (!begin(thread))
        delete thread;
}

void HttpProjectSynchronizer::pull(const std::string &host, int port, const QString &path,
                                   wz::project::ProjectModel *model,
                                   wz::project::ArchiveFormat format)
{
    if (isBusy()) {
        emit aborted(tr("a project synchronization operation is in progress"));
        return;
    }
    auto *thread = new PullThread(host, port, path, model, format);
    if (!begin(thread))
        delete thread;
}

void HttpProjectSynchronizer::remove(const std::string &host, int port, const QString &path,
                                     wz::project::ArchiveFormat format)
{
    if (isBusy()) {
        emit aborted(tr("a project synchronization operation is in progress"));
        return;
    }
    auto *thread = new RemoveThread(host, port, path, format);
    if (!begin(thread))
        delete thread;
}

void HttpProjectSynchronizer::cancel()
{
    QMutexLocker lock(&m_mutex);
    if (!m_thread)
        return;
    // The flag first: whatever ends the thread now is reported as a cancel.
    m_cancelled = true;
    m_thread->exit(2);
}

void HttpProjectSynchronizer::onFinished()
{
    SynchronizationThread *thread = nullptr;
    bool cancelled = false;
    {
        QMutexLocker lock(&m_mutex);
        if (sender() != m_thread || !m_thread || m_thread == m_waitedFor)
            return; // taken by wait()
        thread = m_thread;
        m_thread = nullptr;
        cancelled = m_cancelled;
    }
    thread->join();
    const QString error = thread->lastError();
    delete thread;
    if (!cancelled && error.isEmpty())
        emit done();
    else
        emit aborted(error);
}

QString HttpProjectSynchronizer::wait()
{
    SynchronizationThread *thread = nullptr;
    {
        QMutexLocker lock(&m_mutex);
        thread = m_thread;
        if (!thread || m_waitedFor)
            return QString();
        m_waitedFor = thread; // still busy until it has ended
    }
    disconnect(thread, &QThread::finished, this, &HttpProjectSynchronizer::onFinished);
    disconnect(thread, &SynchronizationThread::connectionLost, this,
               &ProjectSynchronizer::connectionLost);
    thread->join();
    const QString error = thread->lastError();
    bool cancelled = false;
    {
        QMutexLocker lock(&m_mutex);
        m_thread = nullptr;
        m_waitedFor = nullptr;
        cancelled = m_cancelled;
    }
    delete thread;
    if (!error.isEmpty())
        return error;
    return cancelled ? tr("cancelled") : QString();
}

} // namespace RK
