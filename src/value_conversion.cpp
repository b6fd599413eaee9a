#include <connection/value_conversion.h>

#include <QString>

#include <vx/vxvalue.h>

namespace RK {

QVariant qVariantFromVXValue(const VX::VXValue &value)
{
    QVariant result;
    switch (value.getType()) {
    case VX::VXValue::TypeBool:
        result = QVariant(value.toBool());
        break;
    case VX::VXValue::TypeInt:
        result = QVariant(value.toInt());
        break;
    case VX::VXValue::TypeFloat:
        result = QVariant(value.toFloat());
        break;
    case VX::VXValue::TypeString:
        result = QVariant(QString::fromStdString(value.toStdString()));
        break;
    default:
        result = QVariant(QString::fromStdString(value.toString(1)));
        break;
    }
    return result;
}

} // namespace RK
