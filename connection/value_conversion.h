#pragma once

#include <QVariant>

namespace VX {
class VXValue;
}

namespace RK {

// Bool, int, float and string values become the same QVariant type; anything
// else (arrays, binary, invalid) becomes its text, so nested values reach the
// user interface readable rather than converted.
QVariant qVariantFromVXValue(const VX::VXValue &value);

} // namespace RK
