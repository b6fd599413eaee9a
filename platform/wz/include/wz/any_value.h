#pragma once

#include <wz/api.h>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace wz {

class Object;
class GenericObject;

// Immutable shared bytes: copying a Buffer never copies its bytes, so a large
// camera frame travels from the socket to the caller without being duplicated.
class WZ_API Buffer
{
public:
    Buffer();
    explicit Buffer(std::string bytes);
    Buffer(const char *data, size_t size);
    // Views `size` bytes at `data`, kept alive by `owner` (no copy).
    Buffer(std::shared_ptr<const void> owner, const char *data, size_t size);

    const char *data() const { return m_data; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::string str() const { return std::string(m_data, m_size); }
    bool operator==(const Buffer &other) const;
    bool operator!=(const Buffer &other) const { return !(*this == other); }

private:
    std::shared_ptr<const void> m_owner;
    const char *m_data;
    size_t m_size;
};

// A conversion that does not fit; the text says from what to what.
class WZ_API TypeError : public std::runtime_error
{
public:
    explicit TypeError(const std::string &what);
};

class WZ_API AnyValue
{
public:
    enum class Kind { Invalid, Bool, Int, Float, String, Binary, List, Map, Object };
    using List = std::vector<AnyValue>;
    using Map = std::map<std::string, AnyValue>; // records with named fields, maps

    AnyValue();
    AnyValue(bool v);
    AnyValue(int v);
    AnyValue(unsigned v);
    AnyValue(long v);
    AnyValue(unsigned long v); // throws TypeError above the signed 64-bit range
    AnyValue(long long v);
    AnyValue(unsigned long long v); // throws TypeError above the signed 64-bit range
    AnyValue(float v);
    AnyValue(double v);
    AnyValue(const char *v);
    AnyValue(std::string v);
    AnyValue(Buffer v);
    AnyValue(List v);
    AnyValue(Map v);
    AnyValue(Object v);

    AnyValue(const AnyValue &) = default;
    AnyValue(AnyValue &&) noexcept = default;
    AnyValue &operator=(const AnyValue &) = default;
    AnyValue &operator=(AnyValue &&) noexcept = default;
    ~AnyValue();

    Kind kind() const { return m_kind; }
    bool isValid() const { return m_kind != Kind::Invalid; }

    // Each throws TypeError when the value is of another kind.
    bool toBool() const;
    int64_t toInt() const;
    double toDouble() const; // Int accepted
    const std::string &toStr() const;
    const Buffer &toBinary() const;
    const List &toList() const;
    const Map &toMap() const;
    Object toObject() const;
    const boost::shared_ptr<GenericObject> &toGenericObject() const;

    // Map lookup; nullptr when absent or when this is not a Map.
    const AnyValue *find(const std::string &field) const;

    // Readable text for logs and errors: strings quoted, lists in brackets.
    std::string repr() const;

    bool operator==(const AnyValue &other) const;
    bool operator!=(const AnyValue &other) const { return !(*this == other); }

    static const char *kindName(Kind kind);

private:
    [[noreturn]] void mismatch(Kind wanted) const;

    Kind m_kind = Kind::Invalid;
    union {
        bool m_bool;
        int64_t m_int;
        double m_float;
    };
    // String, Binary, List, Map and Object share immutable storage, so a copy
    // of a large list is a reference count increment.
    std::shared_ptr<const void> m_ptr;
    boost::shared_ptr<GenericObject> m_object;
};

// Conversion traits between C++ types and AnyValue. Specialise for your own
// types: static AnyValue toAny(const T &); static T fromAny(const AnyValue &)
// (throwing TypeError).
template<typename T, typename Enable = void>
struct TypeConverter;

template<typename T>
AnyValue toAny(const T &value)
{
    return TypeConverter<T>::toAny(value);
}

template<typename T>
T fromAny(const AnyValue &value)
{
    return TypeConverter<T>::fromAny(value);
}

namespace detail {
WZ_API std::string typeErrorText(const char *from, const char *to);
WZ_API std::string integerRangeText(const AnyValue &value, bool isSigned, unsigned bits);
} // namespace detail

template<>
struct TypeConverter<AnyValue>
{
    static AnyValue toAny(const AnyValue &v) { return v; }
    static AnyValue fromAny(const AnyValue &v) { return v; }
};

template<>
struct TypeConverter<bool>
{
    static AnyValue toAny(bool v) { return AnyValue(v); }
    static bool fromAny(const AnyValue &v) { return v.toBool(); }
};

// Every integer type, range checked both ways.
template<typename T>
struct TypeConverter<T,
                     std::enable_if_t<std::is_integral<T>::value && !std::is_same<T, bool>::value>>
{
    static AnyValue toAny(T v)
    {
        if (std::is_signed<T>::value)
            return AnyValue(static_cast<long long>(v));
        return AnyValue(static_cast<unsigned long long>(v));
    }
    static T fromAny(const AnyValue &v)
    {
        const int64_t i = v.toInt();
        bool fits;
        if (std::is_signed<T>::value) {
            fits = i >= static_cast<int64_t>(std::numeric_limits<T>::min())
                && i <= static_cast<int64_t>(std::numeric_limits<T>::max());
        } else {
            fits = i >= 0
                && static_cast<uint64_t>(i) <= static_cast<uint64_t>(std::numeric_limits<T>::max());
        }
        if (!fits)
            throw TypeError(detail::integerRangeText(v, std::is_signed<T>::value, sizeof(T) * 8));
        return static_cast<T>(i);
    }
};

template<>
struct TypeConverter<float>
{
    static AnyValue toAny(float v) { return AnyValue(v); }
    static float fromAny(const AnyValue &v) { return static_cast<float>(v.toDouble()); }
};

template<>
struct TypeConverter<double>
{
    static AnyValue toAny(double v) { return AnyValue(v); }
    static double fromAny(const AnyValue &v) { return v.toDouble(); }
};

template<>
struct TypeConverter<std::string>
{
    static AnyValue toAny(const std::string &v) { return AnyValue(v); }
    static std::string fromAny(const AnyValue &v) { return v.toStr(); }
};

template<>
struct TypeConverter<const char *>
{
    static AnyValue toAny(const char *v) { return AnyValue(v); }
};

template<>
struct TypeConverter<char *>
{
    static AnyValue toAny(const char *v) { return AnyValue(v); }
};

// String literals passed straight as call arguments.
template<std::size_t N>
struct TypeConverter<char[N]>
{
    static AnyValue toAny(const char *v) { return AnyValue(v); }
};

template<>
struct TypeConverter<Buffer>
{
    static AnyValue toAny(const Buffer &v) { return AnyValue(v); }
    static Buffer fromAny(const AnyValue &v) { return v.toBinary(); }
};

template<typename T>
struct TypeConverter<std::vector<T>>
{
    static AnyValue toAny(const std::vector<T> &v)
    {
        AnyValue::List out;
        out.reserve(v.size());
        for (const auto &e : v)
            out.push_back(TypeConverter<T>::toAny(e));
        return AnyValue(std::move(out));
    }
    static std::vector<T> fromAny(const AnyValue &v)
    {
        const AnyValue::List &in = v.toList();
        std::vector<T> out;
        out.reserve(in.size());
        for (const auto &e : in)
            out.push_back(TypeConverter<T>::fromAny(e));
        return out;
    }
};

template<>
struct TypeConverter<AnyValue::List>
{
    static AnyValue toAny(const AnyValue::List &v) { return AnyValue(v); }
    static AnyValue::List fromAny(const AnyValue &v) { return v.toList(); }
};

template<typename T>
struct TypeConverter<std::map<std::string, T>>
{
    static AnyValue toAny(const std::map<std::string, T> &v)
    {
        AnyValue::Map out;
        for (const auto &e : v)
            out.emplace(e.first, TypeConverter<T>::toAny(e.second));
        return AnyValue(std::move(out));
    }
    static std::map<std::string, T> fromAny(const AnyValue &v)
    {
        std::map<std::string, T> out;
        for (const auto &e : v.toMap())
            out.emplace(e.first, TypeConverter<T>::fromAny(e.second));
        return out;
    }
};

template<>
struct TypeConverter<AnyValue::Map>
{
    static AnyValue toAny(const AnyValue::Map &v) { return AnyValue(v); }
    static AnyValue::Map fromAny(const AnyValue &v) { return v.toMap(); }
};

// A pair travels as a list of two values.
template<typename A, typename B>
struct TypeConverter<std::pair<A, B>>
{
    static AnyValue toAny(const std::pair<A, B> &v)
    {
        return AnyValue(
            AnyValue::List {TypeConverter<A>::toAny(v.first), TypeConverter<B>::toAny(v.second)});
    }
    static std::pair<A, B> fromAny(const AnyValue &v)
    {
        const AnyValue::List &l = v.toList();
        if (l.size() != 2)
            throw TypeError("cannot convert a List of " + std::to_string(l.size())
                            + " element(s) to a pair");
        return std::pair<A, B>(TypeConverter<A>::fromAny(l[0]), TypeConverter<B>::fromAny(l[1]));
    }
};

} // namespace wz
