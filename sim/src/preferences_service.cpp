#include <sim/preferences_service.h>

#include <stdexcept>

namespace sim {

PreferencesService::PreferencesService() : Service("VXPreferences")
{
    reset();
}

void PreferencesService::describe(ServiceBuilder &b)
{
    b.method("readPrefFile", [this](const std::string &name, bool) { return readFile(name); });
    b.method("writePrefFile", [this](const std::string &name, const wz::AnyValue &value, bool) {
        writeFile(name, value);
    });
}

void PreferencesService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first != "files" || field.second.kind() != wz::AnyValue::Kind::Map)
            throw std::runtime_error("VXPreferences takes only {\"files\": {name: value}}");
        for (const auto &file : field.second.toMap())
            writeFile(file.first, file.second);
    }
}

wz::AnyValue PreferencesService::readFile(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_files.find(name);
    if (it == m_files.end())
        throw std::runtime_error("no preference file \"" + name + "\"");
    return it->second;
}

void PreferencesService::writeFile(const std::string &name, const wz::AnyValue &value)
{
    if (name.empty())
        throw std::invalid_argument("a preference file needs a name");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files[name] = value;
}

void PreferencesService::removeFile(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files.erase(name);
}

wz::AnyValue PreferencesService::resourceManagerPreset()
{
    using L = wz::AnyValue::List;
    return L {
        L {"Head", "VXMotion", 1},
        L {"LeftArm", "VXMotion", 1},
        L {"RightArm", "VXMotion", 1},
        L {"AudioOut", "VXTextToSpeech", 2},
    };
}

void PreferencesService::reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files.clear();
    m_files["vxresourcemanager"] = resourceManagerPreset();
}

} // namespace sim
