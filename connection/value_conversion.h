#pragma once

#include <connection/nimiob_export.h>

#include <QVariant>

namespace VX {
class VXValue;
}

namespace RK {

// Bool, int, float and string values become the same QVariant type; anything
// else (arrays, binary, invalid) becomes its text, so nested values reach the
// user interface readable rather than converted.
NIMIOB_EXPORT QVariant qVariantFromVXValue(const VX::VXValue &value);

} // namespace RK
