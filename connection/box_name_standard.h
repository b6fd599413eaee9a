#pragma once

#include <connection/nimiob_export.h>

#include <QString>

/// How the parts of a behaviour box's name are put together. Constants,
/// readable from any thread once the library is loaded.
struct NIMIOB_EXPORT BoxNameStandard
{
    /// Separates the parts of a box's name in an output signal: "__".
    static const QString a_pathSeparator;
    /// Prefix of a box's input methods: "onInput_".
    static const QString a_inputMethodPrefix;
};
