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

// One blocking read on a socket owned by the calling thread: it spins a local
// event loop until data, a socket error, the thread's exit, or the no-data
// limit (HttpHelpers::setNoDataTimeout).
class HttpHelper : public QObject
{
    Q_OBJECT

public:
    explicit HttpHelper(QAbstractSocket *socket);

    // What QIODevice::read gives, or 0 when the wait failed.
    qint64 blockingRead(char *data, qint64 maxSize);
    // The bytes of one line, terminator included and NUL-terminated; -1 when
    // the wait failed or the line does not fit.
    qint64 blockingReadLine(char *data, qint64 maxSize);

public slots:
    void onReadyRead();
    void onSocketError(QAbstractSocket::SocketError error);

private:
    bool waitForData();

    QEventLoop m_loop;
    QAbstractSocket *m_socket;
    bool m_dataAvailable;
    QTimer m_timer;
};

// The client side of the robot's small HTTP dialect. Every function answers
// true for a complete exchange, whatever its status code.
namespace HttpHelpers {

// Limits that keep a hostile answer from costing unbounded memory or time.
constexpr int kMaxLine = 1024;
constexpr int kMaxHeaders = 100;
constexpr qint64 kMaxBody = qint64(2) << 30;
constexpr int kMaxDepth = 64;
constexpr int kMaxEntries = 100000;

// How long a wait may see no byte before the exchange fails, for the calling
// thread (30 s unless set).
void setNoDataTimeout(int milliseconds);
int noDataTimeout();
// Whether the last failed wait of this thread failed for lack of data.
bool lastWaitTimedOut();

// The path as it goes on the wire: UTF-8, percent-encoded but for "/".
QByteArray encodePath(const QString &path);

// Parsing shared by the socket reader and the fuzz target.
enum class LineResult { Status, Header, End, Bad };
// One response line, terminator included: the status line while
// `haveStatus` is false, a header or the blank end after it. The status
// text and header values come without their terminator.
LineResult parseResponseLine(const QByteArray &line, bool haveStatus, int &code, QString &text,
                             QMap<QString, QString> &headers);
// A Content-Length value: decimal digits only, at most kMaxBody.
bool parseContentLength(const QString &value, qint64 &length);
// A directory answer's names; false with the reason for a name that could
// leave the directory or break a request.
bool parseListing(const QByteArray &body, QStringList &names, QString &error);
// Runs all of the above over raw bytes, as a response arriving on a socket.
bool parseResponseBytes(const QByteArray &bytes);

bool blockingReadResponse(QAbstractSocket *socket, int &code, QString &text,
                          QMap<QString, QString> &headers);
bool blockingGet(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, QByteArray &body);
bool blockingDel(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, QByteArray &body);
bool blockingPut(QAbstractSocket *socket, const QString &path, int &code, QString &text,
                 QMap<QString, QString> &headers, const QByteArray &body);
// Reads exactly the body that `headers` announce; kept in `body` when not null.
bool blockingReadBody(QAbstractSocket *socket, const QMap<QString, QString> &headers,
                      QByteArray *body);
// Head of a request: request line, Host, and the given extra lines.
QByteArray requestHead(QAbstractSocket *socket, const char *method, const QString &path,
                       const QByteArray &extra);
// Every file below `path`, relative to it; `error` says why when it fails.
bool blockingReadRemoteDirectoryRecursively(QAbstractSocket *socket, const QString &path,
                                            QStringList &files, QString *error = nullptr);

} // namespace HttpHelpers

} // namespace RK

// Entry point of the response reader's fuzz target and corpus replay.
int nimiobFuzzHttpResponse(const unsigned char *data, size_t size);
