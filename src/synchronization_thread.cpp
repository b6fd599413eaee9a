#include "synchronization_thread_p.h"

#include "http_helpers_p.h"

#include <wz/log.h>

#include <QMutexLocker>
#include <QTcpSocket>
#include <QTimer>

namespace RK {

SynchronizationThread::SynchronizationThread(const std::string &host, int port, QObject *parent)
    : QThread(parent), m_host(host), m_port(port)
{ }

SynchronizationThread::~SynchronizationThread()
{
    delete m_socket;
}

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

void SynchronizationThread::transfer()
{
    m_lastError.clear();
    delete m_socket;
    HttpHelpers::setNoDataTimeout(m_noDataTimeout);
    m_socket = new QTcpSocket;
    connect(
        m_socket, &QTcpSocket::connected, this, [this] { onConnected(); }, Qt::DirectConnection);
    connect(m_socket, &QAbstractSocket::errorOccurred, this, &SynchronizationThread::onSocketError,
            Qt::DirectConnection);
    step(tr("Connecting to %1").arg(QString::fromStdString(m_host)), 0, 0, 0);
    m_socket->connectToHost(QString::fromStdString(m_host), quint16(m_port & 0xffff),
                            QIODevice::ReadWrite);
    // Connecting has its limit too.
    QTimer connectLimit;
    connectLimit.setSingleShot(true);
    connect(&connectLimit, &QTimer::timeout, m_socket, [this]() {
        if (m_socket->state() != QAbstractSocket::ConnectedState)
            exit(~int(QAbstractSocket::SocketTimeoutError));
    });
    connectLimit.start(m_noDataTimeout);
    const int code = exec();
    connectLimit.stop();
    disconnect(m_socket, nullptr, this, nullptr);
    if (code < 0) {
        wz::log::LogStream(wz::LogLevel_Warning, "con.projectSync", "transfer")
            << QString::fromLatin1(metaObject()->className())
                   .section(QStringLiteral("::"), -1)
                   .toStdString()
            << " couldn't connect to robot. " << m_host << ":" << m_port
            << ". Connection was lost.";
        m_lastError = connectionLostText(m_socket->error());
        m_socket->abort();
        emit connectionLost();
    } else {
        if (m_socket->isOpen())
            m_socket->close();
        if (code == 0 || code == 2)
            m_lastError.clear();
    }
    if (m_socket->state() != QAbstractSocket::UnconnectedState)
        m_socket->waitForDisconnected(1000);
    delete m_socket;
    m_socket = nullptr;
}

QString SynchronizationThread::connectionLostText(QAbstractSocket::SocketError) const
{
    return tr("could not connect to robot");
}

void SynchronizationThread::fail(const QString &text)
{
    if (isInterrupting())
        return;
    m_lastError = text;
    exit(1);
}

void SynchronizationThread::onSocketError(QAbstractSocket::SocketError error)
{
    // The first ending counts: an error after the transaction ended changes nothing.
    if (!isInterrupting())
        exit(~int(error));
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
