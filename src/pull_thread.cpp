#include "pull_thread_p.h"

#include "http_helpers_p.h"

#include <wz/log.h>

#include <QFileInfo>
#include <QHostAddress>
#include <QTcpSocket>

#include <cstdio>

namespace RK {

namespace {
const char *const k_category = "con.projectSync";
} // namespace

PullThread::PullThread(const std::string &host, int port, const QString &path,
                       wz::project::ProjectModel *model, wz::project::ArchiveFormat format,
                       QObject *parent)
    : SynchronizationThread(host, port, parent), m_path(path), m_model(model), m_format(format)
{ }

void PullThread::onConnected()
{
    wz::log::LogStream(wz::LogLevel_Verbose, k_category, __FUNCTION__)
        << "initiated pull transaction"
        << " from " << m_socket->localAddress().toString().toStdString() << ":"
        << m_socket->localPort() << " to " << m_socket->peerAddress().toString().toStdString()
        << ":" << m_socket->peerPort();
    if (isInterrupting())
        return;
    step(tr("Listing files"), 0, 0, 0);
    QStringList files;
    QString why;
    if (!HttpHelpers::blockingReadRemoteDirectoryRecursively(m_socket, m_path, files, &why)) {
        if (isInterrupting())
            return;
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "listing " << m_path.toStdString() << " failed: " << why.toStdString();
        fail(tr("could not check for remote files") + QLatin1Char('\n') + why + timeoutNote());
        return;
    }
    if (files.isEmpty()) {
        fail(tr("no remote file found at %1").arg(m_path));
        return;
    }
    step(tr("Getting files"), 0, files.size(), 0);
    emit rangeChanged(0, files.size());
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    QByteArray body;
    int done = 0;
    for (const QString &f : qAsConst(files)) {
        if (f == QLatin1String(".metadata")) {
            emit valueChanged(++done);
            continue;
        }
        const QString dir = QFileInfo(f).path();
        if (dir != QLatin1String(".") && !m_model->mkdir(dir, true)) {
            fail(tr("Could not open project file %1 to receive it.").arg(f));
            return;
        }
        std::FILE *file = m_model->fopen(f, QStringLiteral("wb"));
        if (!file) {
            fail(tr("Could not open project file %1 to receive it.").arg(f));
            return;
        }
        if (!HttpHelpers::blockingGet(m_socket, m_path + QLatin1Char('/') + f, code, text, headers,
                                      body)) {
            std::fclose(file);
            fail(tr("Could not retrieve file %1: %2").arg(f, tr("error in HTTP GET."))
                 + timeoutNote());
            return;
        }
        if (code < 200 || code > 299) {
            std::fclose(file);
            fail(tr("Could not retrieve file %1: %2").arg(f, QString::fromUtf8(body)));
            return;
        }
        for (qint64 at = 0; at < body.size();) {
            const size_t n = std::fwrite(body.constData() + at, 1, size_t(body.size() - at), file);
            if (n == 0) {
                std::fclose(file);
                fail(tr("Could not write data to file %1.").arg(f));
                return;
            }
            at += qint64(n);
        }
        if (std::fclose(file) != 0) {
            fail(tr("Could not write data to file %1.").arg(f));
            return;
        }
        emit valueChanged(++done);
    }
    step(tr("Getting metadata"), 0, 0, 0);
    if (!HttpHelpers::blockingGet(m_socket, m_path + QStringLiteral("/.metadata"), code, text,
                                  headers, body)) {
        fail(tr("Could not retrieve metadata file: %1").arg(tr("error in HTTP GET."))
             + timeoutNote());
        return;
    }
    if (code >= 200 && code <= 299) {
        for (const QByteArray &line : body.split('\n')) {
            const int sep = line.indexOf(": ");
            if (sep < 0)
                continue;
            m_model->setMetadata(QString::fromUtf8(line.left(sep)),
                                 QString::fromUtf8(line.mid(sep + 2)));
        }
    }
    exit(0);
}

} // namespace RK
