#pragma once

#include <QMutex>
#include <QString>
#include <QThread>

#include <mutex>

namespace RK {

// Base of the transfer threads: an interrupting flag under a mutex, the
// progress signals, and exit codes that tell how a transaction ended
// (0 done, 1 failed with lastError(), 2 cancelled, below 0 the complement of
// a socket error).
class SynchronizationThread : public QThread
{
    Q_OBJECT

public:
    explicit SynchronizationThread(QObject *parent = nullptr);

    virtual QString lastError() const = 0;
    // Marks the thread interrupting first, then ends every event loop of it,
    // nested waits included, so a failing wait always sees why.
    virtual void exit(int code);
    bool isInterrupting() const;
    void step(const QString &text, int minimum, int maximum, int value);
    // How long a wait may see no byte before it fails.
    void setNoDataTimeout(int milliseconds) { m_noDataTimeout = milliseconds; }
    // wait(), then a lock the transfer released as its last act: everything
    // it wrote is then ordered before what the caller reads, also for tools
    // that cannot see QThread's own hand-over.
    void join();

signals:
    void connectionLost();
    void stateChanged(const QString &text);
    void rangeChanged(int minimum, int maximum);
    void valueChanged(int value);

protected:
    // The transfer itself, on this thread.
    virtual void transfer() = 0;
    // " (no data from the robot for N s)" after a wait ran out, else "".
    QString timeoutNote() const;

    int m_noDataTimeout = 30000;

private:
    void run() final;

    std::mutex m_endMutex;
    mutable QMutex m_mutex;
    bool m_interrupting = false;
};

} // namespace RK
