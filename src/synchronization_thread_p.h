#pragma once

#include <QAbstractSocket>
#include <QMutex>
#include <QString>
#include <QThread>

#include <mutex>
#include <string>

class QTcpSocket;

namespace RK {

// Base of the transfer threads: the robot's file server they talk to, an
// interrupting flag under a mutex, the progress signals, and exit codes that
// tell how a transaction ended (0 done, 1 failed with lastError(), 2
// cancelled, below 0 the complement of a socket error).
class SynchronizationThread : public QThread
{
    Q_OBJECT

public:
    SynchronizationThread(const std::string &host, int port, QObject *parent = nullptr);
    ~SynchronizationThread() override;

    QString lastError() const { return m_lastError; }
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
    // The transfer itself, on this thread. By default: connect to the robot,
    // run onConnected() inside this thread's event loop until it ends the
    // loop with an exit code (or a socket error or the connect limit does),
    // then close.
    virtual void transfer();
    // The transaction, once connected; ends with exit(code) or fail(text).
    virtual void onConnected() { }
    // What lastError() says after the connection broke.
    virtual QString connectionLostText(QAbstractSocket::SocketError error) const;
    // Ends the transaction with `text` as the error, unless it is already
    // being interrupted.
    void fail(const QString &text);
    // " (no data from the robot for N s)" after a wait ran out, else "".
    QString timeoutNote() const;

    int m_noDataTimeout = 30000;
    QString m_lastError;
    const std::string m_host;
    const int m_port;
    QTcpSocket *m_socket = nullptr;

private:
    void run() final;
    void onSocketError(QAbstractSocket::SocketError error);

    std::mutex m_endMutex;
    mutable QMutex m_mutex;
    bool m_interrupting = false;
};

} // namespace RK
