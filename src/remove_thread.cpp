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

QString RemoveThread::refusal() const
{
    // The whole store is never a project: refused before connecting.
    if (HttpHelpers::namesStoreRoot(m_path))
        return tr("Could not DELETE remote project.") + QLatin1Char('\n')
            + tr("The path \"%1\" names the robot's whole store.").arg(m_path);
    return QString();
}

QString RemoveThread::connectionLostText() const
{
    return tr("Could not connect to robot.");
}

void RemoveThread::onConnected()
{
    QTcpSocket *socket = m_http->socket();
    wz::log::LogStream(wz::LogLevel_Info, k_category, __FUNCTION__)
        << "initiated remove transaction"
        << " from " << socket->localAddress().toString().toStdString() << ":" << socket->localPort()
        << " to " << socket->peerAddress().toString().toStdString() << ":" << socket->peerPort();
    // A project is a directory: asked with its "/", as standard servers want
    // for a collection.
    QString target = HttpHelpers::normalizeTarget(m_path);
    if (!target.endsWith(QLatin1Char('/')))
        target += QLatin1Char('/');
    HttpResponse response;
    if (!m_http->del(target, response)) {
        fail(tr("Could not DELETE remote project %1: %2").arg(target, m_http->error()));
        return;
    }
    // A project that is not there is as good as removed.
    if (!response.ok() && response.code != 404) {
        fail(tr("Could not DELETE remote project %1: the robot answered %2 %3")
                 .arg(target)
                 .arg(response.code)
                 .arg(response.text));
        return;
    }
    exit(0);
}

} // namespace RK
