#include "http_helpers_p.h"

namespace RK {

HttpHelper::HttpHelper(QAbstractSocket *socket, int noDataTimeout)
    : QObject(socket), m_socket(socket), m_noDataTimeout(noDataTimeout)
{
    connect(socket, &QAbstractSocket::readyRead, this, &HttpHelper::onReadyRead,
            Qt::DirectConnection);
    connect(socket, &QAbstractSocket::bytesWritten, this, &HttpHelper::onReadyRead,
            Qt::DirectConnection);
    connect(socket, &QAbstractSocket::connected, this, &HttpHelper::onReadyRead,
            Qt::DirectConnection);
    connect(socket, &QAbstractSocket::errorOccurred, this, &HttpHelper::onSocketError,
            Qt::DirectConnection);
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this]() {
        m_wake = Wake::Timeout;
        m_woken = true;
        m_loop.exit(0);
    });
}

void HttpHelper::onReadyRead()
{
    m_wake = Wake::Data;
    m_woken = true;
    m_loop.exit(0);
}

void HttpHelper::onSocketError(QAbstractSocket::SocketError error)
{
    m_wake = error == QAbstractSocket::RemoteHostClosedError ? Wake::Closed : Wake::SocketError;
    m_woken = true;
    m_loop.exit(0);
}

bool HttpHelper::run()
{
    // Whoever leaves the loop says why; a loop left with nobody saying so was
    // ended by the thread's exit(), which also ends every later loop at once.
    m_woken = false;
    m_timer.start(m_noDataTimeout);
    m_loop.exec();
    m_timer.stop();
    if (!m_woken)
        m_wake = Wake::Exit;
    return m_wake == Wake::Data;
}

bool HttpHelper::waitForData()
{
    if (m_socket->bytesAvailable() > 0)
        return true;
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        m_wake = m_socket->error() == QAbstractSocket::RemoteHostClosedError
                || m_socket->error() == QAbstractSocket::UnknownSocketError
            ? Wake::Closed
            : Wake::SocketError;
        return false;
    }
    // Data that arrived meanwhile wakes the loop; a readyRead without new
    // bytes (the close, for instance) goes round again.
    while (m_socket->bytesAvailable() == 0) {
        if (!run())
            return false;
        if (m_socket->bytesAvailable() == 0
            && m_socket->state() != QAbstractSocket::ConnectedState) {
            m_wake = Wake::Closed;
            return false;
        }
    }
    return true;
}

qint64 HttpHelper::blockingRead(char *data, qint64 maxSize)
{
    if (!waitForData())
        return 0;
    return m_socket->read(data, maxSize);
}

qint64 HttpHelper::blockingReadLine(char *data, qint64 maxSize)
{
    qint64 total = 0;
    for (;;) {
        if (maxSize - total < 2)
            return -1; // longer than the buffer: refused, never cut
        if (!m_socket->canReadLine() && m_socket->bytesAvailable() == 0 && !waitForData())
            // 0: the connection ended before any byte of the line.
            return total == 0 && (m_wake == Wake::Closed || m_wake == Wake::SocketError) ? 0 : -1;
        const qint64 n = m_socket->readLine(data + total, maxSize - total);
        if (n < 0)
            return -1;
        total += n;
        if (total > 0 && data[total - 1] == '\n')
            return total;
        if (n == 0 && !waitForData())
            return -1;
    }
}

bool HttpHelper::blockingFlush(qint64 backlog)
{
    m_socket->flush();
    while (m_socket->bytesToWrite() > backlog) {
        if (m_socket->state() != QAbstractSocket::ConnectedState) {
            m_wake = Wake::Closed;
            return false;
        }
        if (!run())
            return false;
    }
    return true;
}

bool HttpHelper::blockingConnect()
{
    while (m_socket->state() != QAbstractSocket::ConnectedState) {
        if (m_socket->state() == QAbstractSocket::UnconnectedState) {
            m_wake = Wake::SocketError;
            return false;
        }
        if (!run() && m_wake != Wake::Data)
            return false;
    }
    return true;
}

} // namespace RK
