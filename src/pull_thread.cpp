#include "pull_thread_p.h"

#include "http_helpers_p.h"

#include <wz/log.h>

#include <QFileInfo>
#include <QHostAddress>
#include <QTcpSocket>

#include <cerrno>
#include <cstdio>
#include <cstring>

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
        << " from " << m_http->socket()->localAddress().toString().toStdString() << ":"
        << m_http->socket()->localPort() << " to "
        << m_http->socket()->peerAddress().toString().toStdString() << ":"
        << m_http->socket()->peerPort();
    if (isInterrupting())
        return;
    step(tr("Listing files"), 0, 0, 0);
    QStringList files;
    if (!m_http->listTree(m_path, files)) {
        if (isInterrupting())
            return;
        wz::log::LogStream(wz::LogLevel_Warning, k_category, __FUNCTION__)
            << "listing " << m_path.toStdString() << " failed: " << m_http->error().toStdString();
        fail(tr("could not check for remote files") + QLatin1Char('\n') + m_http->error());
        return;
    }
    if (files.isEmpty()) {
        fail(tr("no remote file found at %1").arg(m_path));
        return;
    }
    QString root = HttpHelpers::normalizeTarget(m_path);
    if (!root.endsWith(QLatin1Char('/')))
        root += QLatin1Char('/');
    step(tr("Getting files"), 0, files.size() * kUnitsPerFile, 0);
    for (int i = 0; i < files.size(); ++i) {
        const QString &f = files.at(i);
        // The metadata comes last, through the model's own record of it.
        if (f != QLatin1String(".metadata")) {
            const QString error = fetch(root, f, i);
            if (isInterrupting())
                return;
            if (!error.isEmpty()) {
                fail(error);
                return;
            }
        }
        emit valueChanged((i + 1) * kUnitsPerFile);
    }
    // The bar stays full: only the words change.
    emit stateChanged(tr("Getting metadata"));
    HttpResponse response;
    if (!m_http->get(root + QStringLiteral(".metadata"), response)) {
        fail(tr("Could not retrieve metadata file: %1").arg(m_http->error()));
        return;
    }
    // A project without metadata is whole all the same.
    if (response.ok()) {
        for (const QByteArray &line : response.body.split('\n')) {
            const int sep = line.indexOf(": ");
            if (sep < 0)
                continue;
            m_model->setMetadata(QString::fromUtf8(line.left(sep)),
                                 QString::fromUtf8(line.mid(sep + 2)));
        }
    }
    exit(0);
}

QString PullThread::fetch(const QString &root, const QString &f, int index)
{
    const QFileInfo info(f);
    const QString dir = info.path();
    if (dir != QLatin1String(".") && !m_model->mkdir(dir, true))
        return tr("Could not open project file %1 to receive it.").arg(f);
    // Beside the target, so the rename stays on one file system; nothing
    // partial ever stands under the real name.
    const QString partial = (dir == QLatin1String(".") ? QString() : dir + QLatin1Char('/'))
        + QLatin1Char('.') + info.fileName() + QStringLiteral(".nimiob-part");
    std::FILE *out = m_model->fopen(partial, QStringLiteral("wb"));
    if (!out)
        return tr("Could not open project file %1 to receive it.").arg(f);
    const QString local = m_model->rootPath() + QLatin1Char('/');
    auto discard = [&]() { std::remove((local + partial).toLocal8Bit().constData()); };

    qint64 length = -1;
    qint64 got = 0;
    int shown = index * kUnitsPerFile;
    bool writeFailed = false;
    HttpResponse response;
    const bool ok = m_http->get(
        root + f, response,
        [&](const char *data, qint64 size) {
            if (std::fwrite(data, 1, size_t(size), out) != size_t(size)) {
                writeFailed = true;
                return false;
            }
            got += size;
            if (length > 0) {
                const int now = index * kUnitsPerFile + int(got * kUnitsPerFile / length);
                if (now > shown) {
                    shown = now;
                    emit valueChanged(now);
                }
            }
            return true;
        },
        [&](qint64 announced) { length = announced; });
    const bool closed = std::fclose(out) == 0;
    if (!ok || !response.ok() || !closed || writeFailed) {
        discard();
        if (writeFailed || (ok && response.ok()))
            return tr("Could not write data to file %1.").arg(f);
        if (!ok)
            return tr("Could not retrieve file %1: %2").arg(f, m_http->error());
        const QString body = QString::fromUtf8(response.body.left(1024)).trimmed();
        return tr("Could not retrieve file %1: %2")
            .arg(f,
                 tr("the robot answered %1").arg(response.status())
                     + (body.isEmpty() ? QString() : QLatin1Char('\n') + body));
    }
    if (std::rename((local + partial).toLocal8Bit().constData(),
                    (local + f).toLocal8Bit().constData())
        != 0) {
        const QString why = QString::fromLocal8Bit(std::strerror(errno));
        discard();
        return tr("Could not write data to file %1.").arg(f) + QLatin1Char(' ') + why;
    }
    return QString();
}

} // namespace RK
