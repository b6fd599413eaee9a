#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

class QTcpSocket;

namespace RK {

class HttpHelper;

// Time and speed limits of one transfer; the synchronizer lets tests shorten them.
struct TransferLimits
{
    int noDataTimeout = 30000; // ms a wait may see no byte
    // Like curl's speed limit: fewer than speedFloor bytes a second on
    // average over speedWindow ms fails the transfer. 0 turns it off.
    qint64 speedFloor = 1024;
    int speedWindow = 60000;
};

struct HttpResponse
{
    int code = 0;
    QString text;
    QMap<QString, QString> headers; // keys in lower case
    // The body, when no sink took it (always for a status outside 2xx).
    QByteArray body;
    bool ok() const { return code >= 200 && code <= 299; }
    // "404 Not Found", for messages.
    QString status() const { return QStringLiteral("%1 %2").arg(code).arg(text).trimmed(); }
};

// The client side of the robot's HTTP file dialect over one keep-alive
// connection, on the thread that made it. Each call blocks in a nested event
// loop, so the thread's exit() breaks it at once. A connection the server
// closed (or said it would close) is opened again, once, for the next
// request; a same-host redirect of a GET is followed a few hops.
//
// Every call answers true for a complete exchange, whatever its status; on
// false, error() says why in words and lost() whether the connection broke.
class HttpConnection
{
public:
    // Receives a 2xx body piece by piece; false stops the exchange.
    using Sink = std::function<bool(const char *data, qint64 size)>;
    // The announced body length of a 2xx answer (-1 when not announced).
    using HeadSeen = std::function<void(qint64 length)>;
    // Bytes of a request body sent so far in this call.
    using Sent = std::function<void(quint64 bytes)>;

    static constexpr int kMaxRedirects = 5;

    HttpConnection(const std::string &host, int port, const TransferLimits &limits);
    ~HttpConnection();
    HttpConnection(const HttpConnection &) = delete;
    HttpConnection &operator=(const HttpConnection &) = delete;

    QTcpSocket *socket() const { return m_socket.get(); }
    bool open();

    bool get(const QString &path, HttpResponse &response, const Sink &sink = Sink(),
             const HeadSeen &head = HeadSeen());
    bool del(const QString &path, HttpResponse &response);
    bool put(const QString &path, const QByteArray &body, HttpResponse &response);
    // A PUT of `size` bytes of `file` with "Expect: 100-continue": the body
    // goes only after the interim 100.
    bool putFile(const QString &path, std::FILE *file, quint64 size, HttpResponse &response,
                 const Sent &sent);
    // Every file below the directory `path`, relative to it.
    bool listTree(const QString &path, QStringList &files);

    QString error() const { return m_error; }
    bool lost() const { return m_lost; }
    int socketError() const { return m_socketError; }

    // Where putFile() stopped: sending the head, waiting for the interim
    // 100, refused with a final answer instead, sending the body, or reading
    // the final answer.
    enum class PutStage { Head, Interim, Refused, Body, Final };
    PutStage putStage() const { return m_putStage; }

private:
    struct Exchange;
    bool reopen();
    bool ensureOpen(bool &fresh);
    bool sendHead(const char *method, const QString &target, const QByteArray &extra);
    bool readHead(HttpResponse &response, bool &nothing);
    bool readBody(const char *method, HttpResponse &response, const Sink &sink);
    bool roundTrip(const char *method, const QString &path, const QByteArray *body,
                   HttpResponse &response, const Sink &sink, const HeadSeen &head);
    bool write(const char *data, qint64 size);
    bool fail(const QString &why);
    bool failWait(const HttpHelper &helper, const QString &what);
    // The speed floor: bytes moved, checked once a window has passed. Each
    // exchange starts a window of its own, so time spent between exchanges
    // never counts as slowness.
    bool count(qint64 bytes);
    void restartSpeedWindow();

    std::string m_host;
    int m_port;
    TransferLimits m_limits;
    std::unique_ptr<QTcpSocket> m_socket;
    bool m_closeAnnounced = false;
    int m_exchanges = 0; // on the current connection
    QString m_error;
    bool m_lost = false;
    int m_socketError = -1;
    PutStage m_putStage = PutStage::Head;
    QElapsedTimer m_window;
    qint64 m_windowBytes = 0;
};

} // namespace RK
