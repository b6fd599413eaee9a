#include <connection/doc_link.h>

#include <QFileInfo>
#include <QUrl>

#include <wz/path.h>

namespace RK {

namespace {

QString localLink(const QString &path)
{
    return QString::fromLatin1(QUrl::fromLocalFile(DocLink::getSdkPath() + path).toEncoded());
}

} // namespace

QString DocLink::getSdkPath()
{
    return QFileInfo(QString::fromStdString(wz::path::sdkPrefix())).canonicalFilePath();
}

QString DocLink::animationModeDoc()
{
    // The fragment goes on after the encoding, so its '#' stays a '#'.
    return localLink(QStringLiteral("/share/doc/software/sartel/animation_mode.html"))
        + QStringLiteral("#sartel-howto-use-animation-mode");
}

QString DocLink::sartelDoc()
{
    return localLink(QStringLiteral("/share/doc/software/sartel/index.html"));
}

QString DocLink::connectionDoc()
{
    return localLink(QStringLiteral("/share/doc/software/sartel/connection_widget.html"));
}

QString DocLink::generalDoc()
{
    return localLink(QStringLiteral("/share/doc/index.html"));
}

QString DocLink::apiDoc()
{
    return localLink(QStringLiteral("/share/doc/morvane/index.html"));
}

QString DocLink::documentationUrl(const QString &relativePath)
{
    return localLink(QStringLiteral("/share/doc/") + relativePath);
}

} // namespace RK
