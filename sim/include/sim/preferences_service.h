#pragma once

#include <sim/api.h>
#include <sim/service.h>

#include <map>
#include <mutex>
#include <string>

namespace sim {

// "VXPreferences": preference files by name. `readPrefFile(name, ignoreCache)`
// answers the file's value and fails for an unknown name;
// `writePrefFile(name, value, ignoreCache)` replaces it. The file
// "vxresourcemanager" is there from the start: a list of
// [resource, owner, priority] entries.
class SIM_API PreferencesService : public Service
{
public:
    PreferencesService();
    void describe(ServiceBuilder &builder) override;
    // Settings: {"files": {NAME: VALUE, ...}} added to the files.
    void configure(const wz::AnyValue &settings) override;

    wz::AnyValue readFile(const std::string &name) const;
    void writeFile(const std::string &name, const wz::AnyValue &value);
    void removeFile(const std::string &name);
    // Only the preset file again.
    void reset();
    static wz::AnyValue resourceManagerPreset();

private:
    mutable std::mutex m_mutex;
    std::map<std::string, wz::AnyValue> m_files;
};

} // namespace sim
