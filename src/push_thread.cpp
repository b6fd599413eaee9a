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
constexpr qint64 k_writeBacklog = 256 * 1024;
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

QString PushThread::connectionLostText(QAbstractSocket::SocketError error) const
{
    return error == QAbstractSocket::RemoteHostClosedError
        ? tr("has encountered a connection problem or the robot's hard drive may be full")
        : tr("could not connect to robot");
}

void PushThread::onConnected()
{
    wz::log::LogStream(wz::LogLevel_Verbose, k_category, __FUNCTION__)
        << "initiated push transaction"
        << " from " << m_socket->localAddress().toString().toStdString() << ":"
        << m_socket->localPort() << " to " << m_socket->peerAddress().toString().toStdString()
        << ":" << m_socket->peerPort();
    if (isInterrupting())
        return;
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    QByteArray body;
    for (const PushTask &task : qAsConst(m_tasks)) {
        if (!task.merge) {
            step(tr("Deleting existing behavior"), 0, 0, 0);
            // The whole store is never a project: refused before asking.
            if (task.path.split(QLatin1Char('/'), Qt::SkipEmptyParts).isEmpty()) {
                fail(tr("Could not DELETE remote project.") + QLatin1Char('\n')
                     + tr("The path \"%1\" names the robot's whole store.").arg(task.path));
                return;
            }
            if (!HttpHelpers::blockingDel(m_socket, task.path, code, text, headers, body)) {
                fail(tr("Could not DELETE remote project.") + timeoutNote());
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
        emit valueChanged(0);
        emit rangeChanged(0, scaled(total));
        quint64 sent = 0;
        for (const QString &file : files) {
            if (!sendFile(sent, task, file, total)) {
                if (!isInterrupting())
                    exit(1);
                return;
            }
        }
        const QMap<QString, QString> metadata = task.model->getMetadata();
        if (!metadata.isEmpty()) {
            step(tr("Sending metadata"), 0, 0, 0);
            QByteArray content;
            for (auto it = metadata.begin(); it != metadata.end(); ++it)
                content += it.key().toUtf8() + ": " + it.value().toUtf8() + '\n';
            if (!HttpHelpers::blockingPut(m_socket, task.path + QStringLiteral("/.metadata"), code,
                                          text, headers, content)) {
                fail(tr("Could not send metadata file:\n%1").arg(tr("Error in HTTP GET."))
                     + timeoutNote());
                return;
            }
        }
    }
    exit(0);
}

bool PushThread::sendFile(quint64 &sent, const PushTask &task, const QString &file,
                          const quint64 &total)
{
    emit stateChanged(tr("Sending behavior files (%1)").arg(file));
    std::FILE *f = task.model->fopen(file, QStringLiteral("rb"));
    if (!f) {
        m_lastError = tr("Could not open project file %1 for sending.").arg(file);
        return false;
    }
    struct Closer
    {
        std::FILE *f;
        ~Closer() { std::fclose(f); }
    } closer {f};
    auto failWith = [&](const QString &text) {
        if (!isInterrupting())
            m_lastError = text + timeoutNote();
        return false;
    };
    if (fseeko(f, 0, SEEK_END) != 0)
        return failWith(tr("Could not open project file %1 for sending.").arg(file));
    const off_t size = ftello(f);
    fseeko(f, 0, SEEK_SET);
    if (size < 0)
        return failWith(tr("Could not open project file %1 for sending.").arg(file));

    const QString remote = task.path + QLatin1Char('/') + file;
    m_socket->write(HttpHelpers::requestHead(m_socket, "PUT", remote,
                                             "Content-length: " + QByteArray::number(qint64(size))
                                                 + "\r\nExpect: 100-continue\r\n"));
    m_socket->flush();
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    if (!HttpHelpers::blockingReadResponse(m_socket, code, text, headers))
        return failWith(tr("Could not read 100-continue for file %1.").arg(file));
    if (code != 100)
        return failWith(tr("Didn't get expected 100-continue for file %1.").arg(file));
    if (!HttpHelpers::blockingReadBody(m_socket, headers, nullptr))
        return failWith(tr("Could not read 100-continue content for file %1.").arg(file));
    if (isInterrupting())
        return false;

    emit rangeChanged(0, scaled(total));
    float lastRatio = total ? float(sent) / float(total) : 0.f;
    char buffer[1024];
    // Exactly the announced size, even if the file changes meanwhile.
    for (quint64 left = quint64(size); left > 0;) {
        if (isInterrupting())
            return false;
        const size_t n = std::fread(buffer, 1, size_t(qMin<quint64>(sizeof buffer, left)), f);
        if (n == 0)
            return failWith(tr("Could not send data for file %1.").arg(file));
        if (m_socket->write(buffer, qint64(n)) != qint64(n))
            return failWith(tr("Could not send data for file %1.").arg(file));
        // Written out a batch at a time: one system call per kilobyte costs more than the copy.
        while (m_socket->bytesToWrite() > k_writeBacklog) {
            if (!m_socket->waitForBytesWritten(m_noDataTimeout) || isInterrupting())
                return failWith(tr("Could not send data for file %1.").arg(file));
        }
        left -= n;
        sent += n;
        const float ratio = float(sent) / float(total);
        if (ratio - lastRatio > 0.001f) {
            emit valueChanged(scaled(sent));
            lastRatio = ratio;
        }
    }
    m_socket->flush();
    if (isInterrupting())
        return false;
    if (!HttpHelpers::blockingReadResponse(m_socket, code, text, headers))
        return failWith(tr("Could not read request result for file %1.").arg(file));
    QByteArray body;
    if (!HttpHelpers::blockingReadBody(m_socket, headers, &body))
        return failWith(tr("Could not read 100-continue content for file %1.").arg(file));
    if (isInterrupting())
        return false;
    if (code >= 200 && code <= 299)
        return true;
    m_lastError = tr("Could not PUT file %1:\n%2").arg(file, QString::fromUtf8(body));
    return false;
}

} // namespace RK
