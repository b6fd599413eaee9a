#pragma once

#include "http_connection_p.h"

#include <QAbstractSocket>
#include <QMutex>
#include <QString>
#include <QThread>

#include <memory>
#include <string>

namespace RK {

// Base of the transfer threads: the robot's file server they talk to, an
// interrupting flag under a mutex, the progress signals, and exit codes that
// tell how a transaction ended (0 done, 1 failed with lastError(), 2
// cancelled, below 0 the complement of a socket error: the connection broke).
class SynchronizationThread : public QThread
{
    Q_OBJECT

public:
    SynchronizationThread(const std::string &host, int port, QObject *parent = nullptr);
    ~SynchronizationThread() override;

    QString lastError() const { return m_lastError; }
    // Marks the thread interrupting first, then ends every event loop of it,
    // nested waits included, so a failing wait always sees why. The first
    // code given is the one the transfer ends with.
    virtual void exit(int code);
    bool isInterrupting() const;
    void step(const QString &text, int minimum, int maximum, int value);
    void setLimits(const TransferLimits &limits) { m_limits = limits; }
    // start(), for a transfer that join() will wait for.
    void launch();
    // Returns once the thread has ended and left Qt's code for good, so that
    // the object can be deleted: QThread::wait() can return while the
    // finished thread still runs Qt's last steps on this object.
    void join();

signals:
    void connectionLost();
    void stateChanged(const QString &text);
    void rangeChanged(int minimum, int maximum);
    void valueChanged(int value);

protected:
    // The transfer itself, on this thread: refuse what must not be sent,
    // connect to the robot, run onConnected(), close.
    virtual void transfer();
    // Why the request is refused before connecting, or "".
    virtual QString refusal() const { return QString(); }
    // The transaction, once connected; ends with exit(code) or fail(text).
    virtual void onConnected() { }
    // What lastError() says when the robot cannot be reached.
    virtual QString connectionLostText() const;
    // Ends the transaction with `text` as the error, unless it is already
    // being interrupted; when the connection broke, it ends as lost.
    void fail(const QString &text);
    // The name of the class, for log lines.
    std::string name() const;

    TransferLimits m_limits;
    QString m_lastError;
    const std::string m_host;
    const int m_port;
    HttpConnection *m_http = nullptr; // while transfer() runs

private:
    struct ExitLatch;
    void run() final;
    int exitCode() const;

    std::shared_ptr<ExitLatch> m_latch;
    bool m_launched = false;
    mutable QMutex m_mutex;
    bool m_interrupting = false;
    bool m_exited = false;
    int m_exitCode = 0;
};

} // namespace RK
