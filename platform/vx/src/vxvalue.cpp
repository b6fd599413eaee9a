#include <vx/vxvalue.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace VX {

VXError::VXError(std::string text) : m_text(std::move(text)) { }

VXError::~VXError() = default;

const char *VXError::what() const noexcept
{
    return m_text.c_str();
}

namespace {

using Array = std::vector<VXValue>;

std::string indexText(int index, int size)
{
    return "index " + std::to_string(index) + " out of range (size " + std::to_string(size) + ")";
}

// Shortest text that reads back as the same float, always with a point or an
// exponent so that a float never reads like an int.
std::string floatText(float f)
{
    if (std::isnan(f))
        return "nan";
    if (std::isinf(f))
        return f < 0 ? "-inf" : "inf";
    char buf[32];
    for (int precision = 1; precision <= 9; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, static_cast<double>(f));
        if (std::strtof(buf, nullptr) == f)
            break;
    }
    std::string out(buf);
    if (out.find_first_of(".e") == std::string::npos)
        out += ".0";
    return out;
}

void quote(std::string &out, const std::string &s)
{
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : s) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20 || c == 0x7f) {
                out += "\\x";
                out += hex[c >> 4];
                out += hex[c & 0xf];
            } else {
                out += static_cast<char>(c); // UTF-8 passes unchanged
            }
        }
    }
    out += '"';
}

void render(std::string &out, const VXValue &v, int verbosity)
{
    const bool typed = verbosity >= 2;
    switch (v.getType()) {
    case VXValue::TypeInvalid:
        out += "<invalid>";
        return;
    case VXValue::TypeBool:
        out += typed ? "bool " : "";
        out += v.toBool() ? "true" : "false";
        return;
    case VXValue::TypeInt:
        out += typed ? "int " : "";
        out += std::to_string(v.toInt());
        return;
    case VXValue::TypeFloat:
        out += typed ? "float " : "";
        out += floatText(v.toFloat());
        return;
    case VXValue::TypeString:
        out += typed ? "string " : "";
        quote(out, v.toStdString());
        return;
    case VXValue::TypeBinary: {
        const wz::Buffer b = v.toBinary();
        out += "<binary " + std::to_string(b.size()) + " bytes";
        if (typed && b.size() > 0) {
            static const char hex[] = "0123456789abcdef";
            out += ": ";
            const std::size_t shown = b.size() < 16 ? b.size() : 16;
            for (std::size_t i = 0; i < shown; ++i) {
                const unsigned char c = static_cast<unsigned char>(b.data()[i]);
                out += hex[c >> 4];
                out += hex[c & 0xf];
            }
            if (shown < b.size())
                out += "...";
        }
        out += '>';
        return;
    }
    case VXValue::TypeArray:
        out += '[';
        for (int i = 0; i < v.getSize(); ++i) {
            if (i)
                out += ", ";
            render(out, v[i], verbosity);
        }
        out += ']';
        return;
    }
}

} // namespace

VXValue::VXValue() = default;
VXValue::VXValue(bool value) : m_data(std::in_place_type<bool>, value) { }
VXValue::VXValue(int value) : m_data(std::in_place_type<int>, value) { }
VXValue::VXValue(float value) : m_data(std::in_place_type<float>, value) { }
VXValue::VXValue(double value) : m_data(std::in_place_type<float>, static_cast<float>(value)) { }
VXValue::VXValue(const char *value) : m_data(std::string(value ? value : "")) { }
VXValue::VXValue(std::string value) : m_data(std::move(value)) { }
VXValue::VXValue(wz::Buffer bytes) : m_data(std::move(bytes)) { }
VXValue::VXValue(const void *data, std::size_t size)
    : m_data(wz::Buffer(static_cast<const char *>(data), data ? size : 0))
{ }
VXValue::VXValue(const std::vector<unsigned char> &bytes)
    : m_data(wz::Buffer(reinterpret_cast<const char *>(bytes.data()), bytes.size()))
{ }

VXValue::VXValue(const std::vector<bool> &values) : m_data(Array(values.begin(), values.end())) { }
VXValue::VXValue(const std::vector<int> &values) : m_data(Array(values.begin(), values.end())) { }
VXValue::VXValue(const std::vector<float> &values) : m_data(Array(values.begin(), values.end())) { }
VXValue::VXValue(const std::vector<double> &values)
    : m_data(Array(values.begin(), values.end())) { }
VXValue::VXValue(const std::vector<std::string> &values)
    : m_data(Array(values.begin(), values.end()))
{ }
VXValue::VXValue(std::vector<VXValue> values) : m_data(std::move(values)) { }

VXValue::~VXValue() = default;

const char *VXValue::typeName(Type type)
{
    switch (type) {
    case TypeInvalid:
        return "invalid";
    case TypeBool:
        return "bool";
    case TypeInt:
        return "int";
    case TypeFloat:
        return "float";
    case TypeString:
        return "string";
    case TypeBinary:
        return "binary";
    case TypeArray:
        return "array";
    }
    return "?";
}

void VXValue::throwOutOfIntRange(const std::string &value)
{
    throw VXError("integer " + value + " does not fit in a VXValue int");
}

void VXValue::wrongType(const char *wanted) const
{
    throw VXError(std::string("cannot read a VXValue of type ") + typeName(getType()) + " as "
                  + wanted);
}

int VXValue::getSize() const
{
    switch (getType()) {
    case TypeArray:
        return static_cast<int>(std::get<Array>(m_data).size());
    case TypeBinary:
        return static_cast<int>(std::get<wz::Buffer>(m_data).size());
    case TypeString:
        return static_cast<int>(std::get<std::string>(m_data).size());
    default:
        return 0;
    }
}

const VXValue &VXValue::operator[](int index) const
{
    if (!isArray())
        wrongType("an array");
    const Array &a = std::get<Array>(m_data);
    if (index < 0 || static_cast<std::size_t>(index) >= a.size())
        throw VXError(indexText(index, static_cast<int>(a.size())));
    return a[static_cast<std::size_t>(index)];
}

VXValue &VXValue::operator[](int index)
{
    if (!isArray())
        wrongType("an array");
    Array &a = std::get<Array>(m_data);
    if (index < 0 || static_cast<std::size_t>(index) >= a.size())
        throw VXError(indexText(index, static_cast<int>(a.size())));
    return a[static_cast<std::size_t>(index)];
}

void VXValue::arrayPush(VXValue value)
{
    if (!isValid())
        m_data = Array();
    if (!isArray())
        wrongType("an array to push to");
    std::get<Array>(m_data).push_back(std::move(value));
}

void VXValue::arrayPopFront()
{
    if (!isArray())
        wrongType("an array to pop from");
    Array &a = std::get<Array>(m_data);
    if (a.empty())
        throw VXError("cannot pop the front of an empty array");
    a.erase(a.begin());
}

void VXValue::arraySetSize(int size)
{
    if (size < 0)
        throw VXError("negative array size " + std::to_string(size));
    if (!isValid())
        m_data = Array();
    if (!isArray())
        wrongType("an array to resize");
    std::get<Array>(m_data).resize(static_cast<std::size_t>(size));
}

void VXValue::clear()
{
    m_data = std::monostate();
}

bool VXValue::toBool() const
{
    switch (getType()) {
    case TypeBool:
        return std::get<bool>(m_data);
    case TypeInt:
        return std::get<int>(m_data) != 0;
    default:
        wrongType("bool");
    }
}

int VXValue::toInt() const
{
    switch (getType()) {
    case TypeInt:
        return std::get<int>(m_data);
    case TypeBool:
        return std::get<bool>(m_data) ? 1 : 0;
    case TypeFloat: {
        const float f = std::get<float>(m_data);
        // 2147483648.0f is the first float above the int range.
        if (!std::isfinite(f) || f >= 2147483648.0f || f < -2147483648.0f)
            throw VXError("float " + floatText(f) + " does not fit in an int");
        return static_cast<int>(f);
    }
    default:
        wrongType("int");
    }
}

float VXValue::toFloat() const
{
    switch (getType()) {
    case TypeFloat:
        return std::get<float>(m_data);
    case TypeInt:
        return static_cast<float>(std::get<int>(m_data));
    default:
        wrongType("float");
    }
}

std::string VXValue::toStdString() const
{
    if (!isString())
        wrongType("string");
    return std::get<std::string>(m_data);
}

wz::Buffer VXValue::toBinary() const
{
    if (!isBinary())
        wrongType("binary");
    return std::get<wz::Buffer>(m_data);
}

const void *VXValue::GetBinary() const
{
    if (!isBinary())
        wrongType("binary");
    return std::get<wz::Buffer>(m_data).data();
}

namespace {

template<typename T, typename Read>
void readArray(const VXValue &v, std::vector<T> &out, const char *what, Read read)
{
    if (!v.isArray())
        throw VXError(std::string("cannot read a VXValue of type ") + VXValue::typeName(v.getType())
                      + " as an array of " + what);
    std::vector<T> result;
    result.reserve(static_cast<std::size_t>(v.getSize()));
    for (int i = 0; i < v.getSize(); ++i) {
        try {
            result.push_back(read(v[i]));
        } catch (const VXError &e) {
            throw VXError("element " + std::to_string(i) + " of the array: " + e.text());
        }
    }
    out.swap(result);
}

} // namespace

std::vector<float> VXValue::ToFloatArray() const
{
    std::vector<float> out;
    ToFloatArray(out);
    return out;
}

void VXValue::ToFloatArray(std::vector<float> &out) const
{
    readArray(*this, out, "float", [](const VXValue &e) { return e.toFloat(); });
}

std::vector<int> VXValue::ToIntArray() const
{
    std::vector<int> out;
    ToIntArray(out);
    return out;
}

void VXValue::ToIntArray(std::vector<int> &out) const
{
    readArray(*this, out, "int", [](const VXValue &e) { return e.toInt(); });
}

std::vector<std::string> VXValue::ToStringArray() const
{
    std::vector<std::string> out;
    ToStringArray(out);
    return out;
}

void VXValue::ToStringArray(std::vector<std::string> &out) const
{
    readArray(*this, out, "string", [](const VXValue &e) { return e.toStdString(); });
}

std::string VXValue::toString(int verbosity) const
{
    std::string out;
    render(out, *this, verbosity);
    return out;
}

bool VXValue::operator==(const VXValue &other) const
{
    return m_data == other.m_data;
}

std::ostream &operator<<(std::ostream &out, const VXValue &value)
{
    return out << value.toString(1);
}

} // namespace VX

namespace wz {

AnyValue TypeConverter<VX::VXValue>::toAny(const VX::VXValue &value)
{
    switch (value.getType()) {
    case VX::VXValue::TypeInvalid:
        return AnyValue();
    case VX::VXValue::TypeBool:
        return AnyValue(value.toBool());
    case VX::VXValue::TypeInt:
        return AnyValue(value.toInt());
    case VX::VXValue::TypeFloat:
        return AnyValue(value.toFloat());
    case VX::VXValue::TypeString:
        return AnyValue(value.toStdString());
    case VX::VXValue::TypeBinary:
        return AnyValue(value.toBinary());
    case VX::VXValue::TypeArray: {
        AnyValue::List list;
        list.reserve(static_cast<std::size_t>(value.getSize()));
        for (int i = 0; i < value.getSize(); ++i)
            list.push_back(toAny(value[i]));
        return AnyValue(std::move(list));
    }
    }
    return AnyValue();
}

VX::VXValue TypeConverter<VX::VXValue>::fromAny(const AnyValue &value)
{
    switch (value.kind()) {
    case AnyValue::Kind::Invalid:
        return VX::VXValue();
    case AnyValue::Kind::Bool:
        return VX::VXValue(value.toBool());
    case AnyValue::Kind::Int: {
        const int64_t i = value.toInt();
        if (i < std::numeric_limits<int>::min() || i > std::numeric_limits<int>::max())
            throw TypeError("cannot convert the integer " + std::to_string(i)
                            + " to a VX::VXValue int (out of range)");
        return VX::VXValue(static_cast<int>(i));
    }
    case AnyValue::Kind::Float:
        return VX::VXValue(static_cast<float>(value.toDouble()));
    case AnyValue::Kind::String:
        return VX::VXValue(value.toStr());
    case AnyValue::Kind::Binary:
        return VX::VXValue(value.toBinary());
    case AnyValue::Kind::List: {
        const AnyValue::List &list = value.toList();
        std::vector<VX::VXValue> out;
        out.reserve(list.size());
        for (const AnyValue &e : list)
            out.push_back(fromAny(e));
        return VX::VXValue(std::move(out));
    }
    case AnyValue::Kind::Map: {
        std::vector<VX::VXValue> out;
        for (const auto &field : value.toMap())
            out.push_back(VX::VXValue(
                std::vector<VX::VXValue> {VX::VXValue(field.first), fromAny(field.second)}));
        return VX::VXValue(std::move(out));
    }
    case AnyValue::Kind::Object:
        throw TypeError("cannot convert an object reference to a VX::VXValue");
    }
    throw TypeError("cannot convert an unknown kind of value to a VX::VXValue");
}

} // namespace wz
