#include <wz/any_value.h>
#include <wz/object.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace wz {

Buffer::Buffer() : m_data(""), m_size(0) { }

Buffer::Buffer(std::string bytes)
{
    auto owned = std::make_shared<const std::string>(std::move(bytes));
    m_data = owned->data();
    m_size = owned->size();
    m_owner = std::move(owned);
}

Buffer::Buffer(const char *data, size_t size) : Buffer(std::string(data, size)) { }

Buffer::Buffer(std::shared_ptr<const void> owner, const char *data, size_t size)
    : m_owner(std::move(owner)), m_data(data ? data : ""), m_size(data ? size : 0)
{ }

bool Buffer::operator==(const Buffer &other) const
{
    return m_size == other.m_size
        && (m_size == 0 || std::memcmp(m_data, other.m_data, m_size) == 0);
}

TypeError::TypeError(const std::string &what) : std::runtime_error(what) { }

namespace detail {

std::string typeErrorText(const char *from, const char *to)
{
    return std::string("cannot convert ") + from + " to " + to;
}

std::string integerRangeText(const AnyValue &value, bool isSigned, unsigned bits)
{
    return "cannot convert " + value.repr() + " to " + (isSigned ? "a signed " : "an unsigned ")
        + std::to_string(bits) + "-bit integer: out of range";
}

} // namespace detail

namespace {
const int64_t kMaxSigned = std::numeric_limits<int64_t>::max();

int64_t checkedUnsigned(unsigned long long v)
{
    if (v > static_cast<unsigned long long>(kMaxSigned))
        throw TypeError("cannot convert unsigned integer " + std::to_string(v)
                        + " to Int: out of the signed 64-bit range");
    return static_cast<int64_t>(v);
}
} // namespace

AnyValue::AnyValue() : m_int(0) { }
AnyValue::AnyValue(bool v) : m_kind(Kind::Bool), m_int(0)
{
    m_bool = v;
}
AnyValue::AnyValue(int v) : m_kind(Kind::Int), m_int(v) { }
AnyValue::AnyValue(unsigned v) : m_kind(Kind::Int), m_int(v) { }
AnyValue::AnyValue(long v) : m_kind(Kind::Int), m_int(v) { }
AnyValue::AnyValue(unsigned long v) : m_kind(Kind::Int), m_int(checkedUnsigned(v)) { }
AnyValue::AnyValue(long long v) : m_kind(Kind::Int), m_int(v) { }
AnyValue::AnyValue(unsigned long long v) : m_kind(Kind::Int), m_int(checkedUnsigned(v)) { }
AnyValue::AnyValue(float v) : m_kind(Kind::Float), m_float(v) { }
AnyValue::AnyValue(double v) : m_kind(Kind::Float), m_float(v) { }
AnyValue::AnyValue(const char *v) : AnyValue(std::string(v ? v : "")) { }
AnyValue::AnyValue(std::string v)
    : m_kind(Kind::String), m_int(0), m_ptr(std::make_shared<const std::string>(std::move(v)))
{ }
AnyValue::AnyValue(Buffer v)
    : m_kind(Kind::Binary), m_int(0), m_ptr(std::make_shared<const Buffer>(std::move(v)))
{ }
AnyValue::AnyValue(List v)
    : m_kind(Kind::List), m_int(0), m_ptr(std::make_shared<const List>(std::move(v)))
{ }
AnyValue::AnyValue(Map v)
    : m_kind(Kind::Map), m_int(0), m_ptr(std::make_shared<const Map>(std::move(v)))
{ }
AnyValue::AnyValue(Object v) : m_int(0), m_object(v.asGenericObject())
{
    // A null object is no value at all, so that it cannot reach the wire.
    m_kind = m_object ? Kind::Object : Kind::Invalid;
}

AnyValue::~AnyValue() = default;

const char *AnyValue::kindName(Kind kind)
{
    switch (kind) {
    case Kind::Invalid:
        return "Invalid";
    case Kind::Bool:
        return "Bool";
    case Kind::Int:
        return "Int";
    case Kind::Float:
        return "Float";
    case Kind::String:
        return "String";
    case Kind::Binary:
        return "Binary";
    case Kind::List:
        return "List";
    case Kind::Map:
        return "Map";
    case Kind::Object:
        return "Object";
    }
    return "?";
}

void AnyValue::mismatch(Kind wanted) const
{
    throw TypeError(detail::typeErrorText(kindName(m_kind), kindName(wanted)));
}

bool AnyValue::toBool() const
{
    if (m_kind != Kind::Bool)
        mismatch(Kind::Bool);
    return m_bool;
}

int64_t AnyValue::toInt() const
{
    if (m_kind != Kind::Int)
        mismatch(Kind::Int);
    return m_int;
}

double AnyValue::toDouble() const
{
    if (m_kind == Kind::Int)
        return static_cast<double>(m_int);
    if (m_kind != Kind::Float)
        mismatch(Kind::Float);
    return m_float;
}

const std::string &AnyValue::toStr() const
{
    if (m_kind != Kind::String)
        mismatch(Kind::String);
    return *static_cast<const std::string *>(m_ptr.get());
}

const Buffer &AnyValue::toBinary() const
{
    if (m_kind != Kind::Binary)
        mismatch(Kind::Binary);
    return *static_cast<const Buffer *>(m_ptr.get());
}

const AnyValue::List &AnyValue::toList() const
{
    if (m_kind != Kind::List)
        mismatch(Kind::List);
    return *static_cast<const List *>(m_ptr.get());
}

const AnyValue::Map &AnyValue::toMap() const
{
    if (m_kind != Kind::Map)
        mismatch(Kind::Map);
    return *static_cast<const Map *>(m_ptr.get());
}

Object AnyValue::toObject() const
{
    if (m_kind != Kind::Object)
        mismatch(Kind::Object);
    return Object(m_object);
}

const boost::shared_ptr<GenericObject> &AnyValue::toGenericObject() const
{
    if (m_kind != Kind::Object)
        mismatch(Kind::Object);
    return m_object;
}

const AnyValue *AnyValue::find(const std::string &field) const
{
    if (m_kind != Kind::Map)
        return nullptr;
    const Map &m = *static_cast<const Map *>(m_ptr.get());
    auto it = m.find(field);
    return it == m.end() ? nullptr : &it->second;
}

namespace {

void quote(std::ostream &out, const std::string &s)
{
    out << '"';
    for (unsigned char c : s) {
        switch (c) {
        case '"':
            out << "\\\"";
            break;
        case '\\':
            out << "\\\\";
            break;
        case '\n':
            out << "\\n";
            break;
        case '\t':
            out << "\\t";
            break;
        case '\r':
            out << "\\r";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02x", c);
                out << buf;
            } else {
                out << static_cast<char>(c);
            }
        }
    }
    out << '"';
}

void reprInto(std::ostream &out, const AnyValue &v)
{
    switch (v.kind()) {
    case AnyValue::Kind::Invalid:
        out << "<invalid>";
        break;
    case AnyValue::Kind::Bool:
        out << (v.toBool() ? "true" : "false");
        break;
    case AnyValue::Kind::Int:
        out << v.toInt();
        break;
    case AnyValue::Kind::Float: {
        const double d = v.toDouble();
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.9g", d);
        std::string s = buf;
        // Keep floats recognisable next to ints.
        if (std::isfinite(d) && s.find_first_of(".eE") == std::string::npos)
            s += ".0";
        out << s;
        break;
    }
    case AnyValue::Kind::String:
        quote(out, v.toStr());
        break;
    case AnyValue::Kind::Binary:
        out << "<binary " << v.toBinary().size() << " bytes>";
        break;
    case AnyValue::Kind::List: {
        out << '[';
        bool first = true;
        for (const AnyValue &e : v.toList()) {
            if (!first)
                out << ", ";
            first = false;
            reprInto(out, e);
        }
        out << ']';
        break;
    }
    case AnyValue::Kind::Map: {
        out << '{';
        bool first = true;
        for (const auto &e : v.toMap()) {
            if (!first)
                out << ", ";
            first = false;
            quote(out, e.first);
            out << ": ";
            reprInto(out, e.second);
        }
        out << '}';
        break;
    }
    case AnyValue::Kind::Object:
        out << "<object \"" << v.toGenericObject()->displayName() << "\">";
        break;
    }
}

} // namespace

std::string AnyValue::repr() const
{
    std::ostringstream out;
    reprInto(out, *this);
    return out.str();
}

bool AnyValue::operator==(const AnyValue &other) const
{
    if (m_kind != other.m_kind)
        return false;
    switch (m_kind) {
    case Kind::Invalid:
        return true;
    case Kind::Bool:
        return m_bool == other.m_bool;
    case Kind::Int:
        return m_int == other.m_int;
    case Kind::Float:
        return m_float == other.m_float;
    case Kind::String:
        return toStr() == other.toStr();
    case Kind::Binary:
        return toBinary() == other.toBinary();
    case Kind::List:
        return m_ptr == other.m_ptr || toList() == other.toList();
    case Kind::Map:
        return m_ptr == other.m_ptr || toMap() == other.toMap();
    case Kind::Object:
        return m_object == other.m_object;
    }
    return false;
}

} // namespace wz
