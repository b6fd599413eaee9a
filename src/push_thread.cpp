#include "push_thread_p.h"

#include "http_helpers_p.h"

#include <wz/log.h>

#include <QHostAddress>
#include <QTcpSocket>

#include <climits>
#include <cstdio>

namespace RK {

namespace {

const char *const k_category = "con.projectSync";

// A project is a directory: its target ends in "/", as standard servers
// want for a collection.
QString directoryTarget(const QString &path)
{
    QString target = HttpHelpers::normalizeTarget(path);
    if (!target.endsWith(QLatin1Char('/')))
        target += QLatin1Char('/');
    return target;
}

} // namespace

PushThread::PushThread(const std::string &host, int port, const PushTask &task, QObject *parent)
    : SynchronizationThread(host, port, parent)
{
    m_tasks.append(task);
}

void PushThread::setMergeOption(bool merge)
{
    m_tasks.last().merge = merge;
}

QString PushThread::refusal() const
{
    for (const PushTask &task : m_tasks) {
        bool climbs = false;
        HttpHelpers::normalizeTarget(task.path, &climbs);
        // The whole store is never a project: refused before asking.
        if (climbs || (!task.merge && HttpHelpers::namesStoreRoot(task.path)))
            return tr("Could not DELETE remote project.") + QLatin1Char('\n')
                + tr("The path \"%1\" names the robot's whole store.").arg(task.path);
    }
    return QString();
}

void PushThread::onConnected()
{
    wz::log::LogStream(wz::LogLevel_Verbose, k_category, __FUNCTION__)
        << "initiated push transaction"
        << " from " << m_http->socket()->localAddress().toString().toStdString() << ":"
        << m_http->socket()->localPort() << " to "
        << m_http->socket()->peerAddress().toString().toStdString() << ":"
        << m_http->socket()->peerPort();
    if (isInterrupting())
        return;
    HttpResponse response;
    for (const PushTask &task : qAsConst(m_tasks)) {
        if (!task.merge) {
            step(tr("Deleting existing behavior"), 0, 0, 0);
            const QString target = directoryTarget(task.path);
            if (!m_http->del(target, response)) {
                fail(tr("Could not DELETE remote project %1: %2").arg(target, m_http->error()));
                return;
            }
            // Nothing there is as good as deleted; any other refusal would
            // leave stale files under the new project.
            if (!response.ok() && response.code != 404) {
                fail(tr("Could not DELETE remote project %1: the robot answered %2")
                         .arg(target, response.status()));
                return;
            }
        }
        if (!task.model)
            continue;
        step(tr("Listing project files"), 0, 0, 0);
        const QStringList files = task.model->getFileList(QString(), true, true, false);
        step(tr("Computing project size"), 0, files.size(), 0);
        quint64 total = 0;
        for (int i = 0; i < files.size(); ++i) {
            try {
                total += task.model->fileSize(files.at(i));
            } catch (const wz::project::PathNotFound &e) {
                fail(tr("Could not open project file %1 to send it:\n%2")
                         .arg(files.at(i), QString::fromUtf8(e.what())));
                return;
            }
            emit valueChanged(i + 1);
        }
        m_progressShift = 0;
        while ((total >> m_progressShift) > quint64(INT_MAX))
            ++m_progressShift;
        m_reported = 0;
        emit valueChanged(0);
        emit rangeChanged(0, scaled(total));
        quint64 sent = 0;
        for (const QString &file : files) {
            const QString error = sendFile(sent, task, file, total);
            if (!error.isEmpty()) {
                fail(error);
                return;
            }
            if (isInterrupting())
                return;
        }
        emit valueChanged(scaled(total));
        const QMap<QString, QString> metadata = task.model->getMetadata();
        if (!metadata.isEmpty()) {
            // The bar stays full: only the words change.
            emit stateChanged(tr("Sending metadata"));
            QByteArray content;
            for (auto it = metadata.begin(); it != metadata.end(); ++it)
                content += it.key().toUtf8() + ": " + it.value().toUtf8() + '\n';
            const QString target = directoryTarget(task.path) + QStringLiteral(".metadata");
            if (!m_http->put(target, content, response)) {
                fail(tr("Could not send metadata file:\n%1").arg(m_http->error()));
                return;
            }
            if (!response.ok()) {
                fail(tr("Could not send metadata file:\n%1")
                         .arg(tr("the robot answered %1").arg(response.status())));
                return;
            }
        }
    }
    exit(0);
}

void PushThread::report(quint64 sent, quint64 total)
{
    // Every gain of 0.1% of the whole transaction, across files, and the end.
    if (sent == total || (sent - m_reported) * 1000 > total) {
        m_reported = sent;
        emit valueChanged(scaled(sent));
    }
}

QString PushThread::sendFile(quint64 &sent, const PushTask &task, const QString &file,
                             const quint64 &total)
{
    emit stateChanged(tr("Sending behavior files (%1)").arg(file));
    std::FILE *f = task.model->fopen(file, QStringLiteral("rb"));
    if (!f)
        return tr("Could not open project file %1 for sending.").arg(file);
    struct Closer
    {
        std::FILE *f;
        ~Closer() { std::fclose(f); }
    } closer {f};
    off_t size = -1;
    if (fseeko(f, 0, SEEK_END) == 0)
        size = ftello(f);
    if (size < 0 || fseeko(f, 0, SEEK_SET) != 0)
        return tr("Could not open project file %1 for sending.").arg(file);

    const QString remote = HttpHelpers::normalizeTarget(task.path) + QLatin1Char('/') + file;
    HttpResponse response;
    const quint64 before = sent;
    const bool ok = m_http->putFile(remote, f, quint64(size), response, [&](quint64 done) {
        sent = before + done;
        report(sent, total);
    });
    if (isInterrupting())
        return QString();
    if (!ok) {
        const QString why = m_http->error();
        switch (m_http->putStage()) {
        case HttpConnection::PutStage::Head:
        case HttpConnection::PutStage::Interim:
            return tr("Could not read 100-continue for file %1: %2").arg(file, why);
        case HttpConnection::PutStage::Refused:
            return tr("Didn't get expected 100-continue for file %1: %2").arg(file, why);
        case HttpConnection::PutStage::Body:
            return tr("Could not send data for file %1: %2").arg(file, why);
        case HttpConnection::PutStage::Final:
            return tr("Could not read request result for file %1: %2").arg(file, why);
        }
    }
    if (response.ok())
        return QString();
    const QString body = QString::fromUtf8(response.body).trimmed();
    // The server's own words when it gave some, else its status.
    return tr("Could not PUT file %1:\n%2").arg(file, body.isEmpty() ? response.status() : body);
}

} // namespace RK
