#include "http_connection_p.h"

#include "http_helpers_p.h"

#include <QHostAddress>
#include <QQueue>
#include <QTcpSocket>
#include <QUrl>

namespace RK {

namespace {

constexpr qint64 k_piece = 64 * 1024;
// Written out a batch at a time: waiting after every piece costs more than the copy.
constexpr qint64 k_writeBacklog = 256 * 1024;
// A body nobody streams (a listing, an error text) is kept whole up to this.
constexpr qint64 k_maxKept = 64 << 20;
constexpr int k_maxInterim = 5;

QString quoted(const QByteArray &bytes)
{
    return QLatin1Char('"') + QString::fromUtf8(bytes.left(80)).trimmed().toHtmlEscaped()
        + QLatin1Char('"');
}

} // namespace

HttpConnection::HttpConnection(const std::string &host, int port, const TransferLimits &limits)
    : m_host(host), m_port(port), m_limits(limits), m_socket(new QTcpSocket)
{
    m_window.start();
}

HttpConnection::~HttpConnection()
{
    m_socket->abort();
}

bool HttpConnection::fail(const QString &why)
{
    m_error = why;
    // Whatever stood half-read on the connection spoils it for the next request.
    m_closeAnnounced = true;
    return false;
}

bool HttpConnection::failWait(const HttpHelper &helper, const QString &what)
{
    switch (helper.wake()) {
    case HttpHelper::Wake::Closed:
        m_lost = true;
        m_socketError = QAbstractSocket::RemoteHostClosedError;
        return fail(QStringLiteral("the robot closed the connection") + what);
    case HttpHelper::Wake::SocketError:
        m_lost = true;
        m_socketError = m_socket->error();
        return fail(QStringLiteral("the connection failed (%1)").arg(m_socket->errorString())
                    + what);
    case HttpHelper::Wake::Timeout:
        return fail(
            QStringLiteral("no data from the robot for %1 s").arg(m_limits.noDataTimeout / 1000.0)
            + what);
    case HttpHelper::Wake::Exit:
        return fail(QStringLiteral("interrupted"));
    case HttpHelper::Wake::Data:
        break;
    }
    return fail(QStringLiteral("the robot sent a line longer than %1 bytes")
                    .arg(HttpHelpers::kMaxLine - 1));
}

bool HttpConnection::open()
{
    m_socket->abort();
    m_closeAnnounced = false;
    m_exchanges = 0;
    m_socket->connectToHost(QString::fromStdString(m_host), quint16(m_port & 0xffff),
                            QIODevice::ReadWrite);
    HttpHelper helper(m_socket.get(), m_limits.noDataTimeout);
    if (!helper.blockingConnect()) {
        if (helper.wake() == HttpHelper::Wake::Exit)
            return fail(QStringLiteral("interrupted"));
        m_lost = true;
        m_socketError = helper.wake() == HttpHelper::Wake::Timeout
            ? int(QAbstractSocket::SocketTimeoutError)
            : int(m_socket->error());
        m_socket->abort();
        return fail(
            QStringLiteral("could not connect to %1:%2 (%3)")
                .arg(QString::fromStdString(m_host))
                .arg(m_port)
                .arg(helper.wake() == HttpHelper::Wake::Timeout
                         ? QStringLiteral("no answer for %1 s").arg(m_limits.noDataTimeout / 1000.0)
                         : m_socket->errorString()));
    }
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return true;
}

bool HttpConnection::ensureOpen(bool &fresh)
{
    fresh = m_exchanges == 0;
    if (!m_closeAnnounced && m_socket->state() == QAbstractSocket::ConnectedState)
        return true;
    fresh = true;
    return open();
}

bool HttpConnection::count(qint64 bytes)
{
    m_windowBytes += bytes;
    if (m_limits.speedFloor <= 0 || m_window.elapsed() < m_limits.speedWindow)
        return true;
    if (m_windowBytes * 1000 < m_limits.speedFloor * m_window.elapsed())
        return fail(QStringLiteral("the transfer ran slower than %1 bytes/s for %2 s")
                        .arg(m_limits.speedFloor)
                        .arg(m_limits.speedWindow / 1000.0));
    restartSpeedWindow();
    return true;
}

void HttpConnection::restartSpeedWindow()
{
    m_window.start();
    m_windowBytes = 0;
}

bool HttpConnection::write(const char *data, qint64 size)
{
    if (m_socket->write(data, size) != size)
        return fail(QStringLiteral("the connection failed (%1)").arg(m_socket->errorString()));
    if (m_socket->bytesToWrite() > k_writeBacklog) {
        HttpHelper helper(m_socket.get(), m_limits.noDataTimeout);
        if (!helper.blockingFlush(k_writeBacklog))
            return failWait(helper, QString());
    }
    return count(size);
}

bool HttpConnection::sendHead(const char *method, const QString &target, const QByteArray &extra)
{
    QByteArray host = QByteArray::fromStdString(m_host);
    host.replace('\r', "").replace('\n', "");
    const QByteArray head = QByteArray(method) + ' ' + HttpHelpers::encodePath(target)
        + " HTTP/1.1\r\nHost: " + host + ':' + QByteArray::number(m_port) + "\r\n" + extra + "\r\n";
    if (!write(head.constData(), head.size()))
        return false;
    m_socket->flush();
    return true;
}

bool HttpConnection::readHead(HttpResponse &response, bool &nothing)
{
    response = HttpResponse();
    nothing = false;
    char buffer[HttpHelpers::kMaxLine];
    bool haveStatus = false;
    QString version;
    HttpHelper helper(m_socket.get(), m_limits.noDataTimeout);
    for (int lines = 0; lines <= HttpHelpers::kMaxHeaders + 1; ++lines) {
        const qint64 n = helper.blockingReadLine(buffer, sizeof buffer);
        if (n <= 0) {
            nothing = n == 0 && lines == 0;
            return failWait(helper, QString());
        }
        if (!count(n))
            return false;
        const QByteArray line(buffer, int(n));
        switch (HttpHelpers::parseResponseLine(line, haveStatus, response.code, response.text,
                                               response.headers, &version)) {
        case HttpHelpers::LineResult::Bad:
            return fail(QStringLiteral("the robot's answer is not HTTP: %1").arg(quoted(line)));
        case HttpHelpers::LineResult::End:
            if (response.code >= 200)
                m_closeAnnounced = !HttpHelpers::keepsAlive(version, response.headers);
            return true;
        default:
            haveStatus = true;
        }
    }
    return fail(QStringLiteral("the robot's answer has more than %1 header lines")
                    .arg(HttpHelpers::kMaxHeaders));
}

bool HttpConnection::readBody(const char *method, HttpResponse &response, const Sink &sink)
{
    qint64 length = 0;
    const HttpHelpers::Framing framing
        = HttpHelpers::framingOf(method, response.code, response.headers, length);
    if (framing == HttpHelpers::Framing::Bad)
        return fail(
            QStringLiteral("the robot's answer has a bad length: %1")
                .arg(quoted(response.headers.value(QStringLiteral("content-length")).toUtf8())));
    if (framing == HttpHelpers::Framing::None)
        return true;
    const bool streamed = sink && response.ok();
    auto deliver = [&](const char *data, qint64 n) {
        if (!count(n))
            return false;
        if (streamed) {
            if (!sink(data, n))
                return fail(QStringLiteral("the body could not be stored"));
            return true;
        }
        if (response.body.size() + n > k_maxKept)
            return fail(
                QStringLiteral("the robot's answer is larger than %1 bytes").arg(k_maxKept));
        response.body.append(data, int(n));
        return true;
    };
    HttpHelper helper(m_socket.get(), m_limits.noDataTimeout);
    QByteArray buffer(int(k_piece), Qt::Uninitialized);
    // Exactly `size` bytes; never past them, what follows is the next answer's.
    auto readExactly = [&](qint64 size) {
        for (qint64 got = 0; got < size;) {
            const qint64 n = helper.blockingRead(buffer.data(), qMin(k_piece, size - got));
            if (n <= 0)
                return failWait(helper, QStringLiteral(" after %1 of %2 bytes").arg(got).arg(size));
            if (!deliver(buffer.constData(), n))
                return false;
            got += n;
        }
        return true;
    };
    auto readLine = [&](QByteArray &line) {
        char text[HttpHelpers::kMaxLine];
        const qint64 n = helper.blockingReadLine(text, sizeof text);
        if (n <= 0)
            return failWait(helper, QStringLiteral(" in a chunked body"));
        line = QByteArray(text, int(n));
        return true;
    };

    switch (framing) {
    case HttpHelpers::Framing::Length:
        return readExactly(length);
    case HttpHelpers::Framing::Chunked:
        for (int trailers = 0;;) {
            QByteArray line;
            qint64 size = 0;
            if (!readLine(line))
                return false;
            if (!HttpHelpers::parseChunkSize(line, size))
                return fail(
                    QStringLiteral("the robot sent a bad chunk size: %1").arg(quoted(line)));
            if (size == 0) {
                // Trailer lines, up to the blank one.
                do {
                    if (!readLine(line))
                        return false;
                    if (++trailers > HttpHelpers::kMaxHeaders)
                        return fail(QStringLiteral("the robot sent too many trailer lines"));
                } while (!line.trimmed().isEmpty());
                return true;
            }
            if (!readExactly(size) || !readLine(line))
                return false;
            if (!line.trimmed().isEmpty())
                return fail(QStringLiteral("the robot sent a chunk longer than announced"));
        }
    case HttpHelpers::Framing::UntilClose:
        m_closeAnnounced = true;
        for (;;) {
            const qint64 n = helper.blockingRead(buffer.data(), k_piece);
            if (n <= 0)
                return helper.wake() == HttpHelper::Wake::Closed ? true
                                                                 : failWait(helper, QString());
            if (!deliver(buffer.constData(), n))
                return false;
        }
    default:
        return true;
    }
}

bool HttpConnection::roundTrip(const char *method, const QString &path, const QByteArray *body,
                               HttpResponse &response, const Sink &sink, const HeadSeen &head)
{
    QString target = HttpHelpers::normalizeTarget(path);
    m_lost = false;
    restartSpeedWindow();
    for (int hop = 0;; ++hop) {
        m_error.clear();
        for (bool retried = false;; retried = true) {
            bool fresh = false;
            if (!ensureOpen(fresh))
                return false;
            const QByteArray extra = body
                ? "Content-Length: " + QByteArray::number(body->size()) + "\r\n"
                : QByteArray();
            bool nothing = false;
            bool ok = sendHead(method, target, extra)
                && (!body || body->isEmpty() || write(body->constData(), body->size()));
            if (ok) {
                m_socket->flush();
                ok = readHead(response, nothing);
            }
            for (int interim = 0; ok && response.code >= 100 && response.code <= 199; ++interim)
                ok = interim < k_maxInterim ? readHead(response, nothing)
                                            : fail(QStringLiteral("too many interim answers"));
            if (ok)
                break;
            // A kept-alive connection the server closed before this request
            // arrived: once more on a new one (the three methods are idempotent).
            if (!nothing || fresh || retried)
                return false;
            m_lost = false;
            m_closeAnnounced = true;
        }
        ++m_exchanges;
        const int code = response.code;
        const QString location = response.headers.value(QStringLiteral("location"));
        const bool redirect = (code == 301 || code == 302 || code == 307 || code == 308)
            && qstrcmp(method, "GET") == 0 && !location.isEmpty();
        if (!redirect) {
            if (head && response.ok()) {
                qint64 length = -1;
                if (HttpHelpers::framingOf(method, code, response.headers, length)
                    != HttpHelpers::Framing::Length)
                    length = -1;
                head(length);
            }
            return readBody(method, response, sink);
        }
        if (!readBody(method, response, Sink()))
            return false;
        if (hop >= kMaxRedirects)
            return fail(
                QStringLiteral("more than %1 redirects from %2").arg(kMaxRedirects).arg(path));
        QUrl base;
        base.setScheme(QStringLiteral("http"));
        base.setHost(QString::fromStdString(m_host));
        base.setPort(m_port);
        base.setPath(target);
        const QUrl next = base.resolved(QUrl::fromEncoded(location.toUtf8()));
        const bool sameHost = next.scheme() == QLatin1String("http") && next.port(80) == m_port
            && (next.host().compare(base.host(), Qt::CaseInsensitive) == 0
                || QHostAddress(next.host()) == m_socket->peerAddress());
        if (!sameHost)
            return fail(QStringLiteral("the robot redirected %1 to another server: %2")
                            .arg(target, location));
        target = HttpHelpers::normalizeTarget(next.path(QUrl::FullyDecoded));
    }
}

bool HttpConnection::get(const QString &path, HttpResponse &response, const Sink &sink,
                         const HeadSeen &head)
{
    return roundTrip("GET", path, nullptr, response, sink, head);
}

bool HttpConnection::del(const QString &path, HttpResponse &response)
{
    return roundTrip("DELETE", path, nullptr, response, Sink(), HeadSeen());
}

bool HttpConnection::put(const QString &path, const QByteArray &body, HttpResponse &response)
{
    return roundTrip("PUT", path, &body, response, Sink(), HeadSeen());
}

bool HttpConnection::putFile(const QString &path, std::FILE *file, quint64 size,
                             HttpResponse &response, const Sent &sent)
{
    const QString target = HttpHelpers::normalizeTarget(path);
    m_error.clear();
    m_lost = false;
    restartSpeedWindow();
    for (bool retried = false;; retried = true) {
        bool fresh = false;
        m_putStage = PutStage::Head;
        if (!ensureOpen(fresh))
            return false;
        if (!sendHead("PUT", target,
                      "Content-Length: " + QByteArray::number(size)
                          + "\r\nExpect: 100-continue\r\n"))
            return false;
        m_putStage = PutStage::Interim;
        bool nothing = false;
        if (readHead(response, nothing))
            break;
        if (!nothing || fresh || retried)
            return false;
        m_lost = false;
        m_closeAnnounced = true;
    }
    if (response.code != 100) {
        // A final answer instead of the interim one: the body is not sent,
        // and the server may still wait for it, so the connection goes.
        readBody("PUT", response, Sink());
        m_putStage = PutStage::Refused;
        return fail(QStringLiteral("the robot answered %1 %2 instead of 100 Continue")
                        .arg(response.code)
                        .arg(response.text));
    }
    if (!readBody("PUT", response, Sink()))
        return false;
    m_putStage = PutStage::Body;
    QByteArray buffer(int(k_piece), Qt::Uninitialized);
    // Exactly the announced size, even if the file changes meanwhile.
    for (quint64 done = 0; done < size;) {
        const size_t n = std::fread(buffer.data(), 1,
                                    size_t(qMin<quint64>(quint64(k_piece), size - done)), file);
        if (n == 0)
            return fail(QStringLiteral("the file ended after %1 of %2 bytes").arg(done).arg(size));
        if (!write(buffer.constData(), qint64(n)))
            return false;
        done += n;
        if (sent)
            sent(done);
    }
    HttpHelper flusher(m_socket.get(), m_limits.noDataTimeout);
    if (!flusher.blockingFlush(0))
        return failWait(flusher, QString());
    m_putStage = PutStage::Final;
    bool nothing = false;
    for (int interim = 0;; ++interim) {
        if (!readHead(response, nothing))
            return false;
        if (response.code >= 200 || response.code < 100)
            break;
        if (interim >= k_maxInterim)
            return fail(QStringLiteral("too many interim answers"));
    }
    ++m_exchanges;
    return readBody("PUT", response, Sink());
}

bool HttpConnection::listTree(const QString &path, QStringList &files)
{
    QString root = HttpHelpers::normalizeTarget(path);
    if (!root.endsWith(QLatin1Char('/')))
        root += QLatin1Char('/');
    struct Entry
    {
        QString relative; // "" or "a/b/"
        int depth;
    };
    QQueue<Entry> queue;
    queue.enqueue({QString(), 0});
    files.clear();
    int entries = 0;
    while (!queue.isEmpty()) {
        const Entry entry = queue.dequeue();
        // Directories are asked with their "/", as standard servers want.
        const QString target = root + entry.relative;
        HttpResponse response;
        if (!get(target, response))
            return fail(QStringLiteral("GET %1: %2").arg(target, m_error));
        if (!response.ok())
            return fail(QStringLiteral("GET %1 answered %2 %3")
                            .arg(target)
                            .arg(response.code)
                            .arg(response.text));
        if (response.headers.value(QStringLiteral("morvane-file-type"))
            != QLatin1String("directory"))
            return fail(QStringLiteral("the answer to GET %1 is no directory listing (it lacks "
                                       "the header \"morvane-file-type: directory\")")
                            .arg(target));
        QStringList names;
        QString why;
        if (!HttpHelpers::parseListing(response.body, names, why))
            return fail(why);
        for (const QString &name : qAsConst(names)) {
            if (++entries > HttpHelpers::kMaxEntries)
                return fail(QStringLiteral("the robot listed more than %1 entries")
                                .arg(HttpHelpers::kMaxEntries));
            if (!name.endsWith(QLatin1Char('/'))) {
                files.append(entry.relative + name);
            } else if (entry.depth + 1 > HttpHelpers::kMaxDepth) {
                return fail(QStringLiteral("the robot listed directories deeper than %1 levels")
                                .arg(HttpHelpers::kMaxDepth));
            } else {
                queue.enqueue({entry.relative + name, entry.depth + 1});
            }
        }
    }
    return true;
}

} // namespace RK
