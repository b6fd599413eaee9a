#pragma once

#include <vx/api.h>
#include <vx/vxerror.h>

#include <wz/any_value.h>

#include <cstddef>
#include <iosfwd>
#include <limits>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace VX {

// The platform's dynamic value: invalid, bool, int, float, string (UTF-8
// bytes), binary or an array of values. Reading it as the wrong type throws
// VXError; nothing converts silently between strings and numbers.
class VX_API VXValue
{
public:
    enum Type { TypeInvalid, TypeBool, TypeInt, TypeFloat, TypeString, TypeBinary, TypeArray };

    VXValue();
    VXValue(bool value);
    VXValue(int value);
    VXValue(float value);
    VXValue(double value); // stored as float: the value has no double type
    VXValue(const char *value);
    VXValue(std::string value);
    VXValue(wz::Buffer bytes); // binary, shared, not copied
    VXValue(const void *data, std::size_t size); // binary, copied once
    VXValue(const std::vector<bool> &values);
    VXValue(const std::vector<int> &values);
    VXValue(const std::vector<float> &values);
    VXValue(const std::vector<double> &values);
    VXValue(const std::vector<std::string> &values);
    VXValue(std::vector<VXValue> values);
    VXValue(const std::vector<unsigned char> &bytes); // binary

    // Other integer types (long, unsigned, size_t...): range checked to int.
    template<typename T,
             typename = std::enable_if_t<std::is_integral<T>::value && !std::is_same<T, bool>::value
                                         && !std::is_same<T, int>::value>>
    VXValue(T value) : VXValue(narrowInt(value))
    { }

    VXValue(const VXValue &) = default;
    VXValue(VXValue &&) noexcept = default;
    VXValue &operator=(const VXValue &) = default;
    VXValue &operator=(VXValue &&) noexcept = default;
    ~VXValue();

    Type getType() const { return static_cast<Type>(m_data.index()); }
    static const char *typeName(Type type);
    bool isValid() const { return getType() != TypeInvalid; }
    bool isArray() const { return getType() == TypeArray; }
    bool isBool() const { return getType() == TypeBool; }
    bool isInt() const { return getType() == TypeInt; }
    bool isFloat() const { return getType() == TypeFloat; }
    bool isString() const { return getType() == TypeString; }
    bool isBinary() const { return getType() == TypeBinary; }

    // Elements of an array, bytes of a binary or of a string, 0 otherwise.
    int getSize() const;

    // Array access; anything but an array, or an index out of range, throws.
    const VXValue &operator[](int index) const;
    VXValue &operator[](int index);

    // Array edits. An invalid value becomes an empty array first, so that an
    // array can be built from a default VXValue.
    void arrayPush(VXValue value);
    void arrayPopFront(); // throws on anything but a non-empty array
    void arraySetSize(int size); // new elements are invalid
    void clear(); // back to invalid

    // Strict readers. toBool: bool, or int (non-zero is true). toInt: int,
    // bool, or a finite float in range (truncated toward zero). toFloat:
    // float or int. toStdString: string only, the raw bytes.
    bool toBool() const;
    int toInt() const;
    float toFloat() const;
    std::string toStdString() const;
    wz::Buffer toBinary() const; // binary only

    operator bool() const { return toBool(); }
    operator int() const { return toInt(); }
    operator float() const { return toFloat(); }
    operator std::string() const { return toStdString(); }
    operator std::vector<float>() const { return ToFloatArray(); }
    operator std::vector<int>() const { return ToIntArray(); }
    operator std::vector<std::string>() const { return ToStringArray(); }

    // Arrays of one type. An array whose elements do not all convert throws
    // with the index of the first that does not; a non-array throws too.
    std::vector<float> ToFloatArray() const;
    void ToFloatArray(std::vector<float> &out) const;
    std::vector<int> ToIntArray() const;
    void ToIntArray(std::vector<int> &out) const;
    std::vector<std::string> ToStringArray() const;
    void ToStringArray(std::vector<std::string> &out) const;

    // Bytes of a binary value; its length is getSize(). Throws on other types.
    const void *GetBinary() const;

    // Stable readable text. Verbosity 0 and 1: plain; strings quoted with C
    // escapes, arrays in brackets, floats always with a point ("2.0"),
    // binary as <binary N bytes>, invalid as <invalid>. Verbosity 2 and up
    // puts the type before each scalar and shows the first bytes of a binary.
    std::string toString(int verbosity) const;

    bool operator==(const VXValue &other) const;
    bool operator!=(const VXValue &other) const { return !(*this == other); }

private:
    template<typename T>
    static int narrowInt(T value)
    {
        if constexpr (std::is_signed<T>::value) {
            const long long v = value;
            if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max())
                throwOutOfIntRange(std::to_string(v));
        } else {
            const unsigned long long v = value;
            if (v > static_cast<unsigned long long>(std::numeric_limits<int>::max()))
                throwOutOfIntRange(std::to_string(v));
        }
        return static_cast<int>(value);
    }
    [[noreturn]] static void throwOutOfIntRange(const std::string &value);
    [[noreturn]] void wrongType(const char *wanted) const;

    std::variant<std::monostate, bool, int, float, std::string, wz::Buffer, std::vector<VXValue>>
        m_data;
};

// Writes toString(1), so that a value can go straight into a log line.
VX_API std::ostream &operator<<(std::ostream &out, const VXValue &value);

} // namespace VX

namespace wz {

// VXValue on the wire: Invalid, Bool, Int (as int), Float (as float),
// String, Binary (shared, not copied) and List map one to one. A Map arrives
// as an array of [name, value] pairs in name order; an Object reference or an
// integer beyond the int range is refused with TypeError.
template<>
struct VX_API TypeConverter<VX::VXValue>
{
    static AnyValue toAny(const VX::VXValue &value);
    static VX::VXValue fromAny(const AnyValue &value);
};

} // namespace wz
