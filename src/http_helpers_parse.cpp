// The pure parsing half of the HTTP helpers: no socket, so that the fuzz
// target and its corpus replay can run it on raw bytes.
#include "http_helpers_p.h"

#include <QUrl>

#include <cctype>

namespace RK {
namespace HttpHelpers {

namespace {

// Dot segments removed (RFC 3986 section 5.2.4) from a path of "/"-separated
// segments; empty segments go too, the robot's store has no empty names.
QString removeDotSegments(const QString &path, bool &climbed)
{
    climbed = false;
    QStringList out;
    const QStringList segments = path.split(QLatin1Char('/'));
    bool trailing = false;
    for (int i = 0; i < segments.size(); ++i) {
        const QString &s = segments.at(i);
        const bool last = i + 1 == segments.size();
        trailing = false;
        if (s == QLatin1String("..")) {
            if (out.isEmpty())
                climbed = true;
            else
                out.removeLast();
            trailing = last;
        } else if (s == QLatin1String(".") || s.isEmpty()) {
            trailing = last && i > 0;
        } else {
            out.append(s);
        }
    }
    QString result = QLatin1Char('/') + out.join(QLatin1Char('/'));
    if (trailing && !out.isEmpty())
        result += QLatin1Char('/');
    return result;
}

} // namespace

QString normalizeTarget(const QString &path, bool *climbsAboveRoot)
{
    bool climbed = false;
    const QString target = removeDotSegments(path, climbed);
    if (climbsAboveRoot)
        *climbsAboveRoot = climbed;
    return target;
}

bool namesStoreRoot(const QString &path)
{
    bool climbed = false;
    return normalizeTarget(path, &climbed) == QLatin1String("/") || climbed;
}

QByteArray encodePath(const QString &path)
{
    // CR, LF, space, "%", "?" and "#" are escaped with the rest: a name can
    // never end the request line or add a request.
    return QUrl::toPercentEncoding(path, "/");
}

LineResult parseResponseLine(const QByteArray &raw, bool haveStatus, int &code, QString &text,
                             QMap<QString, QString> &headers, QString *version)
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
        if (version)
            *version = s.left(first);
        return LineResult::Status;
    }
    // "Name: value", and "Name:value" as standard servers may send it.
    const int colon = s.indexOf(QLatin1Char(':'));
    if (colon <= 0)
        return LineResult::Bad;
    const QString key = s.left(colon).trimmed().toLower();
    const QString value = s.mid(colon + 1).trimmed();
    // Repeated list headers (RFC 9110 section 5.3) combine; a repeated
    // Content-Length must agree, which framingOf checks.
    if (headers.contains(key)
        && (key == QLatin1String("transfer-encoding") || key == QLatin1String("connection")
            || key == QLatin1String("content-length")))
        headers[key] += QLatin1String(", ") + value;
    else
        headers.insert(key, value);
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

bool parseChunkSize(const QByteArray &raw, qint64 &size)
{
    QByteArray line = raw;
    const int extension = line.indexOf(';');
    if (extension >= 0)
        line.truncate(extension);
    line = line.trimmed();
    if (line.isEmpty() || line.size() > 10)
        return false;
    for (const char c : line)
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    bool ok = false;
    size = line.toLongLong(&ok, 16);
    return ok && size >= 0 && size <= kMaxBody;
}

Framing framingOf(const char *method, int code, const QMap<QString, QString> &headers,
                  qint64 &length)
{
    length = 0;
    if (qstrcmp(method, "HEAD") == 0 || (code >= 100 && code <= 199) || code == 204 || code == 304)
        return Framing::None;
    const auto te = headers.find(QStringLiteral("transfer-encoding"));
    if (te != headers.end()) {
        // Chunked must be the last coding; any other coding is read to the close.
        const QString last = te.value().section(QLatin1Char(','), -1).trimmed().toLower();
        return last == QLatin1String("chunked") ? Framing::Chunked : Framing::UntilClose;
    }
    const auto cl = headers.find(QStringLiteral("content-length"));
    if (cl != headers.end()) {
        // "5, 5" from a repeated header is one length; "5, 6" is no answer.
        const QStringList values = cl.value().split(QLatin1Char(','));
        for (const QString &v : values) {
            qint64 one = 0;
            if (!parseContentLength(v, one) || (v != values.first() && one != length))
                return Framing::Bad;
            length = one;
        }
        return Framing::Length;
    }
    return Framing::UntilClose;
}

bool keepsAlive(const QString &version, const QMap<QString, QString> &headers)
{
    const QStringList tokens = headers.value(QStringLiteral("connection"))
                                   .toLower()
                                   .split(QLatin1Char(','), Qt::SkipEmptyParts);
    auto has = [&](const char *token) {
        for (const QString &t : tokens)
            if (t.trimmed() == QLatin1String(token))
                return true;
        return false;
    };
    if (has("close"))
        return false;
    // HTTP/1.0 closes unless it says otherwise.
    return version != QLatin1String("HTTP/1.0") || has("keep-alive");
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
    QString version;
    QMap<QString, QString> headers;
    bool haveStatus = false;
    int at = 0;
    auto nextLine = [&](QByteArray &line) {
        const int end = bytes.indexOf('\n', at);
        if (end < 0 || end - at + 1 > kMaxLine - 1)
            return false;
        line = bytes.mid(at, end - at + 1);
        at = end + 1;
        return true;
    };
    for (int lines = 0;; ++lines) {
        QByteArray line;
        if (lines > kMaxHeaders + 1 || !nextLine(line))
            return false;
        const LineResult r = parseResponseLine(line, haveStatus, code, text, headers, &version);
        if (r == LineResult::Bad)
            return false;
        if (r == LineResult::End)
            break;
        haveStatus = true;
    }
    keepsAlive(version, headers);
    QByteArray body;
    qint64 length = 0;
    switch (framingOf("GET", code, headers, length)) {
    case Framing::Bad:
        return false;
    case Framing::None:
        break;
    case Framing::Length:
        if (length > bytes.size() - at)
            return false;
        body = bytes.mid(at, int(length));
        break;
    case Framing::UntilClose:
        body = bytes.mid(at);
        break;
    case Framing::Chunked:
        for (;;) {
            QByteArray line;
            qint64 size = 0;
            if (!nextLine(line) || !parseChunkSize(line, size) || size > bytes.size() - at)
                return false;
            if (size == 0)
                break;
            body += bytes.mid(at, int(size));
            at += int(size);
            if (!nextLine(line) || line.trimmed().size() != 0)
                return false;
        }
        break;
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
