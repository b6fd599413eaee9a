// The pure parsing half of the HTTP helpers: no socket, so that the fuzz
// target and its corpus replay can run it on raw bytes.
#include "http_helpers_p.h"

#include <QUrl>

namespace RK {
namespace HttpHelpers {

QByteArray encodePath(const QString &path)
{
    // CR, LF, space, "%", "?" and "#" are escaped with the rest: a name can
    // never end the request line or add a request.
    return QUrl::toPercentEncoding(path, "/");
}

LineResult parseResponseLine(const QByteArray &raw, bool haveStatus, int &code, QString &text,
                             QMap<QString, QString> &headers)
{
    QByteArray line = raw;
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return haveStatus ? LineResult::End : LineResult::Bad;
    if (line.contains('\0') || line.contains('\n') || line.contains('\r'))
        return LineResult::Bad;
    const QString s = QString::fromUtf8(line);
    if (!haveStatus) {
        // Anything else is not an answer: left-over bytes of an earlier body,
        // for instance.
        if (!s.startsWith(QLatin1String("HTTP/")))
            return LineResult::Bad;
        const int first = s.indexOf(QLatin1Char(' '));
        const int second = first < 0 ? -1 : s.indexOf(QLatin1Char(' '), first + 1);
        if (second < 0)
            return LineResult::Bad;
        bool ok = false;
        code = s.mid(first + 1, second - first - 1).toInt(&ok, 10);
        if (!ok)
            code = 0;
        text = s.mid(second + 1);
        return LineResult::Status;
    }
    // "Name: value", and "Name:value" as standard servers may send it.
    const int colon = s.indexOf(QLatin1Char(':'));
    if (colon <= 0)
        return LineResult::Bad;
    headers.insert(s.left(colon).trimmed().toLower(), s.mid(colon + 1).trimmed());
    return LineResult::Header;
}

bool parseContentLength(const QString &value, qint64 &length)
{
    const QString v = value.trimmed();
    if (v.isEmpty() || v.size() > 18)
        return false;
    for (const QChar c : v)
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
    length = v.toLongLong();
    return length <= kMaxBody;
}

bool parseListing(const QByteArray &body, QStringList &names, QString &error)
{
    names.clear();
    for (const QByteArray &part : body.split('\n')) {
        if (part.isEmpty())
            continue;
        QByteArray bare = part;
        if (bare.endsWith('/'))
            bare.chop(1);
        QString why;
        if (bare.isEmpty() || bare == "." || bare == "..")
            why = QStringLiteral("a name that is empty, \".\" or \"..\"");
        else if (bare.contains('/'))
            why = QStringLiteral("a name holding \"/\"");
        for (const char c : bare)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
                why = QStringLiteral("a name holding a control character");
        if (!why.isEmpty()) {
            error = QStringLiteral("the robot listed %1: \"%2\"")
                        .arg(why, QString::fromUtf8(part.left(80)).toHtmlEscaped());
            return false;
        }
        if (names.size() >= kMaxEntries) {
            error = QStringLiteral("the robot listed more than %1 names").arg(kMaxEntries);
            return false;
        }
        names.append(QString::fromUtf8(part));
    }
    return true;
}

bool parseResponseBytes(const QByteArray &bytes)
{
    int code = 0;
    QString text;
    QMap<QString, QString> headers;
    bool haveStatus = false;
    int at = 0;
    for (int lines = 0;; ++lines) {
        if (lines > kMaxHeaders + 1)
            return false;
        int end = bytes.indexOf('\n', at);
        if (end < 0 || end - at + 1 > kMaxLine - 1)
            return false;
        const LineResult r
            = parseResponseLine(bytes.mid(at, end - at + 1), haveStatus, code, text, headers);
        at = end + 1;
        if (r == LineResult::Bad)
            return false;
        if (r == LineResult::End)
            break;
        haveStatus = true;
    }
    QByteArray body;
    if (headers.contains(QStringLiteral("content-length"))) {
        qint64 length = 0;
        if (!parseContentLength(headers.value(QStringLiteral("content-length")), length)
            || length > bytes.size() - at)
            return false;
        body = bytes.mid(at, int(length));
    }
    if (headers.value(QStringLiteral("morvane-file-type")) == QLatin1String("directory")) {
        QStringList names;
        QString error;
        return parseListing(body, names, error);
    }
    return true;
}

} // namespace HttpHelpers
} // namespace RK

int nimiobFuzzHttpResponse(const unsigned char *data, size_t size)
{
    if (size > (size_t(1) << 20))
        return 0;
    RK::HttpHelpers::parseResponseBytes(
        QByteArray(reinterpret_cast<const char *>(data), static_cast<int>(size)));
    return 0;
}
