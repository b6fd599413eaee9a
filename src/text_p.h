#pragma once

#include <QByteArray>
#include <QString>

#include <string>

namespace RK {

// The robot's strings are UTF-8 in std::string; the desktop's are QString.
inline QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

inline std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

} // namespace RK
