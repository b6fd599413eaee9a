#pragma once

#include <connection/nimiob_export.h>

#include <QString>

// How the parts of a behaviour box's name are put together.
struct NIMIOB_EXPORT BoxNameStandard
{
    // Separates the parts of a box's name in an output signal.
    static const QString a_pathSeparator;
    // Prefix of a box's input methods.
    static const QString a_inputMethodPrefix;
};
