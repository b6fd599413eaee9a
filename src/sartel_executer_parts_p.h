#pragma once

// Shared by the source files of VXSartelExecuter only.

#include <QString>

#include <string>

namespace RK {

inline constexpr const char *a_keyRemovedName = "VXMemory/KeyRemoved";

inline std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

} // namespace RK
