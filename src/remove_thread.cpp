#include "remove_thread_p.h"

#include "http_helpers_p.h"

#include <wz/log.h>

#include <QHostAddress>
#include <QTcpSocket>

namespace RK {

namespace {
const char *const k_category = "con.projectSync";
} // namespace

RemoveThread::RemoveThread(const std::string &host, int port, const QString &path,
                           wz::project::ArchiveFormat format, QObject *parent)
    : SynchronizationThread(host, port, parent), m_path(path), m_format(format)
{ }

void RemoveThread::transfer()
{
    m_lastError.clear();
    HttpHelpers::setNoDataTimeout(m_noDataTimeout);
    // The whole store is never a project: refused before connecting.
    if (m_path.split(QLatin1Char('/'), Qt::SkipEmptyParts).isEmpty()) {
        m_lastError = tr("Could not DELETE remote project.") + QLatin1Char('\n')
            + tr("The path \"%1\" names the robot's whole store.").arg(m_path);
        return;
    }
    QTcpSocket socket;
    socket.connectToHost(QString::fromStdString(m_host), quint16(m_port & 0xffff),
                         QIODevice::ReadWrite);
    if (!socket.waitForConnected(1000)) {
        m_lastError = tr("Could not connect to robot.");
        socket.abort();
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "RemoveThread couldn't connect to robot. " << m_host << ":" << m_port
            << ". Connection is lost.";
        emit connectionLost();
        return;
    }
    wz::log::LogStream(wz::LogLevel_Info, k_category, __FUNCTION__)
        << "initiated remove transaction"
        << " from " << socket.localAddress().toString().toStdString() << ":" << socket.localPort()
        << " to " << socket.peerAddress().toString().toStdString() << ":" << socket.peerPort();
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    QByteArray body;
    if (HttpHelpers::blockingDel(&socket, m_path, code, text, headers, body)) {
        socket.close();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(1000);
        m_lastError.clear();
    } else {
        if (!isInterrupting())
            m_lastError = tr("Could not DELETE remote project.") + timeoutNote();
        socket.abort();
    }
}

} // namespace RK
