#pragma once

#include <QString>

// How the parts of a behaviour box's name are put together.
struct BoxNameStandard
{
    // Separates the parts of a box's name in an output signal.
    static const QString a_pathSeparator;
    // Prefix of a box's input methods.
    static const QString a_inputMethodPrefix;
};
