#pragma once

#include <wz/project/api.h>

#include <vx/vxvalue.h>
#include <wz/any_value.h>

#include <map>
#include <string>
#include <vector>

namespace wz {

// Records exchanged with the package manager. On the wire each is a Map with
// these field names. Reading one accepts a Map or the form a Map takes
// inside a VX::VXValue (an array of [name, value] pairs); a missing field
// keeps its default, a field of the wrong type is a TypeError naming it, and
// unknown fields are ignored.
struct WZPROJECT_API WebInfo
{
    std::string path;
    bool operator==(const WebInfo &o) const { return path == o.path; }
};

struct WZPROJECT_API RobotRequirement
{
    std::string model;
    std::string minHeadVersion;
    std::string maxHeadVersion;
    std::string minBodyVersion;
    std::string maxBodyVersion;
    bool operator==(const RobotRequirement &o) const;
};

struct WZPROJECT_API MorvaneRequirement
{
    std::string minVersion;
    std::string maxVersion;
    bool operator==(const MorvaneRequirement &o) const;
};

struct WZPROJECT_API PackageService
{
    std::string execStart;
    std::string name;
    bool autoRun = false;
    bool operator==(const PackageService &o) const;
};

struct WZPROJECT_API PackageInfo2
{
    std::string uuid;
    std::string version;
    std::string author;
    std::string channel;
    std::string organization;
    std::string date;
    std::string typeVersion;
    std::string installer;
    std::string path;
    std::map<std::string, AnyValue> elems; // everything else, by name
    bool operator==(const PackageInfo2 &o) const;
};

// One installed or installable package, as the desktop holds it. Built from
// the value the package manager returns (see platform/README.md for its
// shape); a value that is not a package gives an empty record (no uuid) and
// a log line, never an exception, so one bad entry cannot spoil a list.
class WZPROJECT_API PackageInfo
{
public:
    PackageInfo();
    explicit PackageInfo(const VX::VXValue &value);
    explicit PackageInfo(PackageInfo2 record);
    PackageInfo(const PackageInfo &) = default;
    PackageInfo(PackageInfo &&) noexcept = default;
    PackageInfo &operator=(const PackageInfo &) = default;
    PackageInfo &operator=(PackageInfo &&) noexcept = default;
    ~PackageInfo();

    bool isValid() const { return !m_record.uuid.empty(); }
    const std::string &uuid() const { return m_record.uuid; }
    const std::string &version() const { return m_record.version; }
    const std::string &author() const { return m_record.author; }
    const std::string &channel() const { return m_record.channel; }
    const std::string &organization() const { return m_record.organization; }
    const std::string &date() const { return m_record.date; }
    const std::string &typeVersion() const { return m_record.typeVersion; }
    const std::string &installer() const { return m_record.installer; }
    const std::string &path() const { return m_record.path; }
    const std::map<std::string, AnyValue> &elems() const { return m_record.elems; }
    const AnyValue *elem(const std::string &name) const; // nullptr when absent

    // The well-known elements, read on demand. Absent: empty. Malformed:
    // TypeError naming the element.
    std::string name() const; // elem "name", a string
    std::vector<RobotRequirement> robotRequirements() const; // elem "robotRequirements"
    std::vector<MorvaneRequirement> morvaneRequirements() const; // elem "morvaneRequirements"
    std::vector<PackageService> services() const; // elem "services"
    WebInfo webInfo() const; // elem "webInfo"

    const PackageInfo2 &record() const { return m_record; }
    VX::VXValue toValue() const; // the documented value shape

    bool operator==(const PackageInfo &o) const { return m_record == o.m_record; }
    bool operator!=(const PackageInfo &o) const { return !(*this == o); }

private:
    PackageInfo2 m_record;
};

template<>
struct WZPROJECT_API TypeConverter<WebInfo>
{
    static AnyValue toAny(const WebInfo &v);
    static WebInfo fromAny(const AnyValue &v);
};

template<>
struct WZPROJECT_API TypeConverter<RobotRequirement>
{
    static AnyValue toAny(const RobotRequirement &v);
    static RobotRequirement fromAny(const AnyValue &v);
};

template<>
struct WZPROJECT_API TypeConverter<MorvaneRequirement>
{
    static AnyValue toAny(const MorvaneRequirement &v);
    static MorvaneRequirement fromAny(const AnyValue &v);
};

template<>
struct WZPROJECT_API TypeConverter<PackageService>
{
    static AnyValue toAny(const PackageService &v);
    static PackageService fromAny(const AnyValue &v);
};

template<>
struct WZPROJECT_API TypeConverter<PackageInfo2>
{
    static AnyValue toAny(const PackageInfo2 &v);
    static PackageInfo2 fromAny(const AnyValue &v);
};

// A PackageInfo travels as its PackageInfo2 record.
template<>
struct WZPROJECT_API TypeConverter<PackageInfo>
{
    static AnyValue toAny(const PackageInfo &v);
    static PackageInfo fromAny(const AnyValue &v);
};

} // namespace wz
