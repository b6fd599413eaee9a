#include "http_helpers_p.h"

#include <QHostAddress>
#include <QQueue>

namespace RK {

namespace {

thread_local int t_noDataTimeout = 30000;
thread_local bool t_timedOut = false;

// Exit codes of the helper's own loop; the thread's exit() ends it with its own code.
constexpr int kLoopData = 0;
constexpr int kLoopSocketError = 1;
constexpr int kLoopTimeout = 3;

} // namespace

HttpHelper::HttpHelper(QAbstractSocket *socket)
    : QObject(socket), m_socket(socket), m_dataAvailable(socket->bytesAvailable() != 0)
{
    connect(socket, &QAbstractSocket::readyRead, this, &HttpHelper::onReadyRead,
            Qt::DirectConnection);
    connect(socket, &QAbstractSocket::errorOccurred, this, &HttpHelper::onSocketError,
            Qt::DirectConnection);
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this]() { m_loop.exit(kLoopTimeout); });
}

void HttpHelper::onReadyRead()
{
    m_dataAvailable = true;
    m_loop.exit(kLoopData);
}

void HttpHelper::onSocketError(QAbstractSocket::SocketError)
{
    m_loop.exit(kLoopSocketError);
}

bool HttpHelper::waitForData()
{
    t_timedOut = false;
    if (m_socket->bytesAvailable() > 0)
        return true;
    if (m_socket->state() != QAbstractSocket::ConnectedState)
        return false;
    m_dataAvailable = false;
    m_timer.start(t_noDataTimeout);
    const int code = m_loop.exec();
    m_timer.stop();
    t_timedOut = code == kLoopTimeout;
    return code == kLoopData && m_socket->bytesAvailable() > 0;
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
            return -1;
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

namespace HttpHelpers {

void setNoDataTimeout(int milliseconds)
{
    t_noDataTimeout = milliseconds;
}

int noDataTimeout()
{
    return t_noDataTimeout;
}

bool lastWaitTimedOut()
{
    return t_timedOut;
}

bool blockingReadResponse(QAbstractSocket *socket, int &code, QString &text,
                          QMap<QString, QString> &headers)
{
    text.clear();
    headers.clear();
    char buffer[kMaxLine];
    bool haveStatus = false;
    for (int lines = 0; lines <= kMaxHeaders + 1; ++lines) {
        qint64 n = 0;
        {
            HttpHelper helper(socket);
            n = helper.blockingReadLine(buffer, sizeof buffer);
        }
        if (n <= 0)
            return false;
        switch (parseResponseLine(QByteArray(buffer, int(n)), haveStatus, code, text, headers)) {
        case LineResult::Bad:
            return false;
        case LineResult::End:
            return true;
        default:
            haveStatus = true;
        }
    }
    return false;
}

bool blockingReadBody(QAbstractSocket *socket, const QMap<QString, QString> &headers,
                      QByteArray *body)
{
    const auto it = headers.find(QStringLiteral("content-length"));
    if (it == headers.end())
        return true;
    qint64 length = 0;
    if (!parseContentLength(it.value(), length))
        return false;
    if (body)
        body->reserve(int(qMin<qint64>(length, 64 << 20)));
    HttpHelper helper(socket);
    char chunk[1024];
    for (qint64 got = 0; got < length;) {
        // Never past the announced end: what follows belongs to the next answer.
        const qint64 n = helper.blockingRead(chunk, qMin<qint64>(sizeof chunk, length - got));
        if (n <= 0)
            return false;
        if (body)
            body->append(chunk, int(n));
        got += n;
    }
    return true;
}

QByteArray requestHead(QAbstractSocket *socket, const char *method, const QString &path,
                       const QByteArray &extra)
{
    QString host = socket->peerName();
    if (host.isEmpty())
        host = socket->peerAddress().toString();
    QByteArray hostBytes = host.toUtf8();
    hostBytes.replace('\r', "").replace('\n', "");
    return QByteArray(method) + ' ' + encodePath(path) + " HTTP/1.1\r\nHost: " + hostBytes + ':'
        + QByteArray::number(socket->peerPort()) + "\r\n" + extra + "\r\n";
}

namespace {

bool exchange(QAbstractSocket *socket, const char *method, const QString &path,
              const QByteArray *requestBody, QByteArray *responseBody, int &code, QString &text,
              QMap<QString, QString> &headers)
{
    QByteArray extra;
    if (requestBody)
        extra = "Content-Length: " + QByteArray::number(requestBody->size()) + "\r\n";
    socket->write(requestHead(socket, method, path, extra));
    if (requestBody && !requestBody->isEmpty())
        socket->write(*requestBody);
    socket->flush();
    // An interim 1xx answer is followed by the real one.
    for (int interim = 0;; ++interim) {
        if (!blockingReadResponse(socket, code, text, headers) || interim > 4)
            return false;
        if (code < 100 || code > 199)
            break;
        if (!blockingReadBody(socket, headers, nullptr))
            return false;
    }
    if (responseBody)
        responseBody->clear();
    return blockingReadBody(socket, headers, responseBody);
}

} // namespace

bool blockingGet(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, QByteArray &body)
{
    return exchange(socket, "GET", path, nullptr, &body, code, text, headers);
}

bool blockingDel(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, QByteArray &body)
{
    return exchange(socket, "DELETE", path, nullptr, &body, code, text, headers);
}

bool blockingPut(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, const QByteArray &body)
{
    return exchange(socket, "PUT", path, &body, nullptr, code, text, headers);
}

bool blockingReadRemoteDirectoryRecursively(QAbstractSocket *socket, const QString &path,
                                            QStringList &files, QString *error)
{
    auto fail = [&](const QString &why) {
        if (error)
            *error = why;
        return false;
    };
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    QByteArray body;
    if (!blockingGet(socket, path, code, text, headers, body))
        return fail(QStringLiteral("no answer to GET %1").arg(path));
    if (code < 200 || code > 299)
        return fail(QStringLiteral("GET %1 answered %2").arg(path).arg(code));
    struct Entry
    {
        QString relative;
        int depth;
    };
    QQueue<Entry> queue;
    queue.enqueue({QString(), 0});
    files.clear();
    int entries = 0;
    if (socket->state() != QAbstractSocket::ConnectedState)
        return fail(QStringLiteral("the connection closed"));
    while (!queue.isEmpty()) {
        const Entry entry = queue.dequeue();
        const QString target = path + QLatin1Char('/') + entry.relative;
        if (!blockingGet(socket, target, code, text, headers, body))
            return fail(QStringLiteral("no answer to GET %1").arg(target));
        if (code >= 200 && code <= 299
            && headers.value(QStringLiteral("morvane-file-type")) == QLatin1String("directory")) {
            QStringList names;
            QString why;
            if (!parseListing(body, names, why))
                return fail(why);
            for (const QString &name : names) {
                if (++entries > kMaxEntries)
                    return fail(
                        QStringLiteral("the robot listed more than %1 entries").arg(kMaxEntries));
                const bool directory = name.endsWith(QLatin1Char('/'));
                const QString bare = directory ? name.chopped(1) : name;
                const QString relative
                    = entry.relative.isEmpty() ? bare : entry.relative + QLatin1Char('/') + bare;
                if (!directory) {
                    files.append(relative);
                } else if (entry.depth + 1 > kMaxDepth) {
                    return fail(QStringLiteral("the robot listed directories deeper than %1 levels")
                                    .arg(kMaxDepth));
                } else {
                    queue.enqueue({relative, entry.depth + 1});
                }
            }
        }
        if (socket->state() != QAbstractSocket::ConnectedState)
            return fail(QStringLiteral("the connection closed"));
    }
    return true;
}

} // namespace HttpHelpers

} // namespace RK
