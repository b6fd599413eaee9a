#include <wz/package_info.h>

#include <wz/log.h>

#include <functional>

namespace wz {

namespace {

const char *const kCategory = "wz.package";

using Fields = std::map<std::string, AnyValue>;

bool isPair(const AnyValue &e)
{
    return e.kind() == AnyValue::Kind::List && e.toList().size() == 2
        && e.toList()[0].kind() == AnyValue::Kind::String;
}

// The fields of a record: a Map, or the array of [name, value] pairs that a
// Map becomes inside a VX::VXValue.
Fields fieldsOf(const AnyValue &v, const std::string &record)
{
    if (v.kind() == AnyValue::Kind::Map)
        return v.toMap();
    if (v.kind() == AnyValue::Kind::List) {
        Fields out;
        const AnyValue::List &list = v.toList();
        for (std::size_t i = 0; i < list.size(); ++i) {
            if (!isPair(list[i]))
                throw TypeError(record + ": element " + std::to_string(i)
                                + " is not a [name, value] pair: " + list[i].repr());
            out[list[i].toList()[0].toStr()] = list[i].toList()[1];
        }
        return out;
    }
    throw TypeError("cannot read a " + std::string(AnyValue::kindName(v.kind())) + " as a " + record
                    + " record");
}

// Reads one field when present; a wrong kind goes to `fail`, which throws or
// logs depending on the caller.
using Fail = std::function<void(const std::string &)>;

void readString(const Fields &f, const char *name, std::string &out, const std::string &record,
                const Fail &fail)
{
    auto it = f.find(name);
    if (it == f.end())
        return;
    if (it->second.kind() != AnyValue::Kind::String) {
        fail(record + " field \"" + name + "\" must be a String, not "
             + AnyValue::kindName(it->second.kind()));
        return;
    }
    out = it->second.toStr();
}

void readBool(const Fields &f, const char *name, bool &out, const std::string &record,
              const Fail &fail)
{
    auto it = f.find(name);
    if (it == f.end())
        return;
    if (it->second.kind() != AnyValue::Kind::Bool) {
        fail(record + " field \"" + name + "\" must be a Bool, not "
             + AnyValue::kindName(it->second.kind()));
        return;
    }
    out = it->second.toBool();
}

const Fail kThrow = [](const std::string &text) { throw TypeError(text); };

PackageInfo2 readPackage(const AnyValue &v, const Fail &fail)
{
    PackageInfo2 p;
    Fields f;
    try {
        f = fieldsOf(v, "PackageInfo2");
    } catch (const TypeError &e) {
        fail(e.what());
        return p;
    }
    static const char *const strings[]
        = {"uuid", "version",     "author",    "channel", "organization",
           "date", "typeVersion", "installer", "path"};
    std::string *targets[] = {&p.uuid, &p.version,     &p.author,    &p.channel, &p.organization,
                              &p.date, &p.typeVersion, &p.installer, &p.path};
    for (std::size_t i = 0; i < 9; ++i)
        readString(f, strings[i], *targets[i], "PackageInfo2", fail);

    auto elems = f.find("elems");
    if (elems != f.end()) {
        try {
            p.elems = fieldsOf(elems->second, "PackageInfo2 elems");
        } catch (const TypeError &e) {
            fail(e.what());
        }
    }
    // Fields this version does not know are kept, as elements.
    for (const auto &field : f) {
        bool known = field.first == "elems";
        for (const char *s : strings)
            known = known || field.first == s;
        if (!known)
            p.elems.emplace(field.first, field.second);
    }
    return p;
}

template<typename T>
std::vector<T> readList(const PackageInfo &p, const char *name)
{
    const AnyValue *v = p.elem(name);
    if (!v)
        return {};
    if (v->kind() != AnyValue::Kind::List)
        throw TypeError(std::string("package element \"") + name + "\" must be a List, not "
                        + AnyValue::kindName(v->kind()));
    std::vector<T> out;
    for (const AnyValue &e : v->toList())
        out.push_back(TypeConverter<T>::fromAny(e));
    return out;
}

} // namespace

bool RobotRequirement::operator==(const RobotRequirement &o) const
{
    return model == o.model && minHeadVersion == o.minHeadVersion
        && maxHeadVersion == o.maxHeadVersion && minBodyVersion == o.minBodyVersion
        && maxBodyVersion == o.maxBodyVersion;
}

bool MorvaneRequirement::operator==(const MorvaneRequirement &o) const
{
    return minVersion == o.minVersion && maxVersion == o.maxVersion;
}

bool PackageService::operator==(const PackageService &o) const
{
    return execStart == o.execStart && name == o.name && autoRun == o.autoRun;
}

bool PackageInfo2::operator==(const PackageInfo2 &o) const
{
    return uuid == o.uuid && version == o.version && author == o.author && channel == o.channel
        && organization == o.organization && date == o.date && typeVersion == o.typeVersion
        && installer == o.installer && path == o.path && elems == o.elems;
}

AnyValue TypeConverter<WebInfo>::toAny(const WebInfo &v)
{
    return AnyValue(AnyValue::Map {{"path", v.path}});
}

WebInfo TypeConverter<WebInfo>::fromAny(const AnyValue &v)
{
    const Fields f = fieldsOf(v, "WebInfo");
    WebInfo out;
    readString(f, "path", out.path, "WebInfo", kThrow);
    return out;
}

AnyValue TypeConverter<RobotRequirement>::toAny(const RobotRequirement &v)
{
    return AnyValue(AnyValue::Map {{"model", v.model},
                                   {"minHeadVersion", v.minHeadVersion},
                                   {"maxHeadVersion", v.maxHeadVersion},
                                   {"minBodyVersion", v.minBodyVersion},
                                   {"maxBodyVersion", v.maxBodyVersion}});
}

RobotRequirement TypeConverter<RobotRequirement>::fromAny(const AnyValue &v)
{
    const Fields f = fieldsOf(v, "RobotRequirement");
    RobotRequirement out;
    readString(f, "model", out.model, "RobotRequirement", kThrow);
    readString(f, "minHeadVersion", out.minHeadVersion, "RobotRequirement", kThrow);
    readString(f, "maxHeadVersion", out.maxHeadVersion, "RobotRequirement", kThrow);
    readString(f, "minBodyVersion", out.minBodyVersion, "RobotRequirement", kThrow);
    readString(f, "maxBodyVersion", out.maxBodyVersion, "RobotRequirement", kThrow);
    return out;
}

AnyValue TypeConverter<MorvaneRequirement>::toAny(const MorvaneRequirement &v)
{
    return AnyValue(AnyValue::Map {{"minVersion", v.minVersion}, {"maxVersion", v.maxVersion}});
}

MorvaneRequirement TypeConverter<MorvaneRequirement>::fromAny(const AnyValue &v)
{
    const Fields f = fieldsOf(v, "MorvaneRequirement");
    MorvaneRequirement out;
    readString(f, "minVersion", out.minVersion, "MorvaneRequirement", kThrow);
    readString(f, "maxVersion", out.maxVersion, "MorvaneRequirement", kThrow);
    return out;
}

AnyValue TypeConverter<PackageService>::toAny(const PackageService &v)
{
    return AnyValue(
        AnyValue::Map {{"execStart", v.execStart}, {"name", v.name}, {"autoRun", v.autoRun}});
}

PackageService TypeConverter<PackageService>::fromAny(const AnyValue &v)
{
    const Fields f = fieldsOf(v, "PackageService");
    PackageService out;
    readString(f, "execStart", out.execStart, "PackageService", kThrow);
    readString(f, "name", out.name, "PackageService", kThrow);
    readBool(f, "autoRun", out.autoRun, "PackageService", kThrow);
    return out;
}

AnyValue TypeConverter<PackageInfo2>::toAny(const PackageInfo2 &v)
{
    return AnyValue(AnyValue::Map {{"uuid", v.uuid},
                                   {"version", v.version},
                                   {"author", v.author},
                                   {"channel", v.channel},
                                   {"organization", v.organization},
                                   {"date", v.date},
                                   {"typeVersion", v.typeVersion},
                                   {"installer", v.installer},
                                   {"path", v.path},
                                   {"elems", AnyValue(AnyValue::Map(v.elems))}});
}

PackageInfo2 TypeConverter<PackageInfo2>::fromAny(const AnyValue &v)
{
    return readPackage(v, kThrow);
}

AnyValue TypeConverter<PackageInfo>::toAny(const PackageInfo &v)
{
    return TypeConverter<PackageInfo2>::toAny(v.record());
}

PackageInfo TypeConverter<PackageInfo>::fromAny(const AnyValue &v)
{
    return PackageInfo(TypeConverter<PackageInfo2>::fromAny(v));
}

PackageInfo::PackageInfo() = default;

PackageInfo::PackageInfo(PackageInfo2 record) : m_record(std::move(record)) { }

PackageInfo::PackageInfo(const VX::VXValue &value)
{
    if (!value.isValid())
        return;
    const Fail logIt = [](const std::string &text) {
        log::LogStream(LogLevel_Warning, kCategory, "PackageInfo") << "bad package value: " << text;
    };
    m_record = readPackage(TypeConverter<VX::VXValue>::toAny(value), logIt);
}

PackageInfo::~PackageInfo() = default;

const AnyValue *PackageInfo::elem(const std::string &name) const
{
    auto it = m_record.elems.find(name);
    return it == m_record.elems.end() ? nullptr : &it->second;
}

std::string PackageInfo::name() const
{
    const AnyValue *v = elem("name");
    if (!v)
        return std::string();
    if (v->kind() != AnyValue::Kind::String)
        throw TypeError(std::string("package element \"name\" must be a String, not ")
                        + AnyValue::kindName(v->kind()));
    return v->toStr();
}

std::vector<RobotRequirement> PackageInfo::robotRequirements() const
{
    return readList<RobotRequirement>(*this, "robotRequirements");
}

std::vector<MorvaneRequirement> PackageInfo::morvaneRequirements() const
{
    return readList<MorvaneRequirement>(*this, "morvaneRequirements");
}

std::vector<PackageService> PackageInfo::services() const
{
    return readList<PackageService>(*this, "services");
}

WebInfo PackageInfo::webInfo() const
{
    const AnyValue *v = elem("webInfo");
    return v ? TypeConverter<WebInfo>::fromAny(*v) : WebInfo();
}

VX::VXValue PackageInfo::toValue() const
{
    return TypeConverter<VX::VXValue>::fromAny(TypeConverter<PackageInfo2>::toAny(m_record));
}

} // namespace wz
