#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QEventLoop>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

namespace RK {

// One blocking wait on a socket owned by the calling thread: it spins a local
// event loop until data, a socket error, the thread's exit(), or the no-data
// limit. Lives on the stack for one read or one write.
class HttpHelper : public QObject
{
    Q_OBJECT

public:
    // Why the last wait ended.
    enum class Wake { Data, Closed, SocketError, Timeout, Exit };

    // `noDataTimeout` in milliseconds.
    HttpHelper(QAbstractSocket *socket, int noDataTimeout);

    // What QIODevice::read gives, or 0 when the wait failed.
    qint64 blockingRead(char *data, qint64 maxSize);
    // The bytes of one line, terminator included and NUL-terminated; -1 when
    // the wait failed or the line does not fit.
    qint64 blockingReadLine(char *data, qint64 maxSize);
    // Waits until at most `backlog` bytes are left to write; false when the
    // wait failed.
    bool blockingFlush(qint64 backlog);
    // Waits for the socket to connect (it is connecting).
    bool blockingConnect();
    Wake wake() const { return m_wake; }

public slots:
    void onReadyRead();
    void onSocketError(QAbstractSocket::SocketError error);

private:
    bool run();
    bool waitForData();

    QEventLoop m_loop;
    QAbstractSocket *m_socket;
    QTimer m_timer;
    int m_noDataTimeout;
    Wake m_wake = Wake::Data;
    bool m_woken = false;
};

// The parsing half of the client side of the robot's HTTP dialect: no socket,
// so that the fuzz target and its corpus replay can run it on raw bytes.
namespace HttpHelpers {

// Limits that keep a hostile answer from costing unbounded memory or time.
constexpr int kMaxLine = 1024;
constexpr int kMaxHeaders = 100;
constexpr qint64 kMaxBody = qint64(1) << 40;
constexpr int kMaxDepth = 64;
constexpr int kMaxEntries = 100000;

// The origin-form target of a robot path: a leading "/", dot segments
// removed as RFC 3986 section 5.2.4 says, repeated slashes as one, a trailing
// "/" kept. `climbsAboveRoot` tells whether a ".." went above "/" on the way.
QString normalizeTarget(const QString &path, bool *climbsAboveRoot = nullptr);
// Whether a target names the store itself (or above it): never deleted or
// written as a whole.
bool namesStoreRoot(const QString &path);
// The target as it goes on the wire: UTF-8, percent-encoded but for "/".
QByteArray encodePath(const QString &path);

enum class LineResult { Status, Header, End, Bad };
// One response line, terminator included: the status line while
// `haveStatus` is false, a header or the blank end after it. The status
// text and header values come without their terminator.
LineResult parseResponseLine(const QByteArray &line, bool haveStatus, int &code, QString &text,
                             QMap<QString, QString> &headers, QString *version = nullptr);
// A Content-Length value: decimal digits only, at most kMaxBody.
bool parseContentLength(const QString &value, qint64 &length);
// The size of a chunk line of the chunked coding (hex, extensions ignored).
bool parseChunkSize(const QByteArray &line, qint64 &size);

// How a response's body is delimited (RFC 9112 section 6.3).
enum class Framing { None, Length, Chunked, UntilClose, Bad };
Framing framingOf(const char *method, int code, const QMap<QString, QString> &headers,
                  qint64 &length);
// Whether the server keeps the connection open after this answer.
bool keepsAlive(const QString &version, const QMap<QString, QString> &headers);

// A directory answer's names; false with the reason for a name that could
// leave the directory or break a request.
bool parseListing(const QByteArray &body, QStringList &names, QString &error);
// Runs all of the above over raw bytes, as a response arriving on a socket.
bool parseResponseBytes(const QByteArray &bytes);

} // namespace HttpHelpers

} // namespace RK

// Entry point of the response reader's fuzz target and corpus replay.
int nimiobFuzzHttpResponse(const unsigned char *data, size_t size);
