#pragma once

#include <connection/nimiob_export.h>

#include <QVariant>

namespace VX {
class VXValue;
}

namespace RK {

/// A robot value as a QVariant, for a user interface. Bool, int, float and
/// string values become the same QVariant type; anything else (arrays,
/// binary, invalid) becomes its text, so nested values reach the user
/// interface readable rather than converted. Callable from any thread.
NIMIOB_EXPORT QVariant qVariantFromVXValue(const VX::VXValue &value);

} // namespace RK
