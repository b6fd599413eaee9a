#include "synchronization_thread_p.h"

#include "http_helpers_p.h"

#include <QMutexLocker>

namespace RK {

SynchronizationThread::SynchronizationThread(QObject *parent) : QThread(parent) { }

void SynchronizationThread::exit(int code)
{
    {
        QMutexLocker lock(&m_mutex);
        m_interrupting = true;
    }
    QThread::exit(code);
}

void SynchronizationThread::run()
{
    std::lock_guard<std::mutex> end(m_endMutex);
    // QThread::start() forgets an exit() that came before it: a cancel made
    // as the transfer was being started would otherwise wait for the robot.
    if (isInterrupting())
        return;
    transfer();
}

void SynchronizationThread::join()
{
    wait();
    std::lock_guard<std::mutex> end(m_endMutex);
}

bool SynchronizationThread::isInterrupting() const
{
    QMutexLocker lock(&m_mutex);
    return m_interrupting;
}

void SynchronizationThread::step(const QString &text, int minimum, int maximum, int value)
{
    emit valueChanged(value);
    emit rangeChanged(minimum, maximum);
    emit stateChanged(text);
}

QString SynchronizationThread::timeoutNote() const
{
    if (!HttpHelpers::lastWaitTimedOut())
        return QString();
    return tr(" (no data from the robot for %1 s)").arg(m_noDataTimeout / 1000.0);
}

} // namespace RK
