// The behavior manager's catalogue: what is installed, from the built-ins, the
// scenario's texts or a directory, and the default and box-library lists.
// Loaded and running behaviors are in behavior_manager_instances.cpp.

#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/object_builder.h>
#include <wz/session.h>

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sim {

namespace {

const char *const kUserPrefix = "User/";

const char *const kWave = "nature interactive\n"
                          "length 1.2\n"
                          "box Say in onStart out said onStopped\n"
                          "box Arms disabled in onStart out done\n"
                          "timeline Timeline fps 25 frames 25\n"
                          "output 0.2 Say said hello\n"
                          "output 1.0 Say onStopped\n"
                          "answer Say onStart said\n"
                          "tag greeting\n";

const char *const kIdle = "length forever\n"
                          "box Loop in onStart out tick\n"
                          "timeline Timeline fps 10 frames 100\n"
                          "answer Loop onStart tick\n"
                          "tag idle\n";

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("no behavior file at \"" + path + "\"");
    std::string text;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        text.append(buffer, static_cast<size_t>(in.gcount()));
        if (text.size() > BehaviorScript::kMaxTextSize)
            throw std::runtime_error("behavior file \"" + path + "\" is too large");
    }
    return text;
}

std::string baseName(const std::string &path)
{
    std::string base = path.substr(path.find_last_of('/') + 1);
    const size_t dot = base.rfind('.');
    if (dot != std::string::npos && dot > 0)
        base.erase(dot);
    return base;
}

} // namespace

BehaviorManagerService::BehaviorManagerService() : Service(kName), m_hook(std::make_shared<Hook>())
{
    m_hook->service = this;
    installBuiltIns();
}

BehaviorManagerService::~BehaviorManagerService()
{
    stop();
    std::lock_guard<std::mutex> lock(m_hook->mutex);
    m_hook->service = nullptr;
}

void BehaviorManagerService::installBuiltIns()
{
    m_installed["User/wave"] = std::make_shared<BehaviorScript>(BehaviorScript::parse(kWave));
    m_installed["User/idle"] = std::make_shared<BehaviorScript>(BehaviorScript::parse(kIdle));
    m_boxLibraries = {"Common", "Dialog"};
}

std::string BehaviorManagerService::fullName(const std::string &name)
{
    return name.find('/') == std::string::npos ? kUserPrefix + name : name;
}

void BehaviorManagerService::describe(ServiceBuilder &b)
{
    using Names = std::vector<std::string>;
    b.method("getInstalledBehaviors", [this]() -> Names { return installedBehaviors(); });
    b.method("getBehaviorNames", [this]() -> Names { return installedBehaviors(); });
    b.method("getDefaultBehaviors", [this]() -> Names { return defaultBehaviors(); });
    b.method("getRunningBehaviors", [this]() -> Names { return runningBehaviors(); });
    b.method("_getInstalledBoxLibraries", [this]() -> Names { return boxLibraries(); });
    b.method("getTagList", [this]() -> Names { return tags(); });
    b.method("isBehaviorInstalled", [this](const std::string &n) { return isInstalled(n); });
    b.method("isBehaviorRunning", [this](const std::string &n) { return isRunning(n); });
    b.method("getBehaviorNature", [this](const std::string &n) { return nature(n); });
    b.method("preloadBehavior", [this](const std::string &n) {
        preload(n);
        return true;
    });
    b.method("startBehavior", [this](const std::string &n) { startBehavior(n); });
    b.method("stopBehavior", [this](const std::string &n) { stopBehavior(n); });
    b.method("stopAllBehaviors", [this]() { stopAll(); });
    b.method("removeBehavior", [this](const std::string &n) { removeBehavior(n); });
    b.method("addDefaultBehavior", [this](const std::string &n) { addDefault(n); });
    b.method("removeDefaultBehavior", [this](const std::string &n) { removeDefault(n); });
    b.method("_removeBoxLibrary", [this](const std::string &n) { removeBoxLibrary(n); });
    b.method("_getBehaviorFrameManagerId",
             [this](const std::string &n) { return frameManagerId(n); });
    // The one-argument form installs a behaviour file found on the robot;
    // the other installs the file `path` under `name`, replacing it only
    // when `overwrite` is true.
    b.method("installBehavior", [this](const std::string &path) {
        return install(fullName(baseName(path)), readFile(path), true);
    });
    b.method("installBehavior",
             [this](const std::string &path, const std::string &name, bool overwrite) {
                 return install(name, readFile(path), overwrite);
             });
}

void BehaviorManagerService::configure(const wz::AnyValue &settings)
{
    if (settings.kind() != wz::AnyValue::Kind::Map)
        throw std::runtime_error("VXBehaviorManager settings must be an object");
    for (const auto &entry : settings.toMap()) {
        const std::string &key = entry.first;
        const wz::AnyValue &v = entry.second;
        if (key == "behaviors" && v.kind() == wz::AnyValue::Kind::Map) {
            for (const auto &b : v.toMap()) {
                if (b.second.kind() != wz::AnyValue::Kind::String)
                    throw std::runtime_error("behavior \"" + b.first + "\" needs its text");
                install(fullName(b.first), b.second.toStr(), true);
            }
        } else if (key == "directory" && v.kind() == wz::AnyValue::Kind::String) {
            installDirectory(v.toStr());
        } else if ((key == "defaults" || key == "boxLibraries")
                   && v.kind() == wz::AnyValue::Kind::List) {
            for (const wz::AnyValue &n : v.toList()) {
                if (n.kind() != wz::AnyValue::Kind::String)
                    throw std::runtime_error(key + " must list names");
                if (key == "defaults")
                    addDefault(n.toStr());
                else
                    addBoxLibrary(n.toStr());
            }
        } else {
            throw std::runtime_error("VXBehaviorManager does not take \"" + key + "\" (" + v.repr()
                                     + ")");
        }
    }
}

std::vector<std::string> BehaviorManagerService::installedBehaviors() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &b : m_installed)
        out.push_back(b.first);
    return out;
}

std::vector<std::string> BehaviorManagerService::defaultBehaviors() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::vector<std::string>(m_defaults.begin(), m_defaults.end());
}

std::vector<std::string> BehaviorManagerService::boxLibraries() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::vector<std::string>(m_boxLibraries.begin(), m_boxLibraries.end());
}

std::vector<std::string> BehaviorManagerService::tags() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::set<std::string> out;
    for (const auto &b : m_installed)
        out.insert(b.second->tags.begin(), b.second->tags.end());
    return std::vector<std::string>(out.begin(), out.end());
}

bool BehaviorManagerService::isInstalled(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_installed.count(fullName(name)) > 0;
}

const BehaviorScript &BehaviorManagerService::scriptLocked(const std::string &full) const
{
    auto it = m_installed.find(full);
    if (it == m_installed.end())
        throw std::runtime_error("behavior \"" + full + "\" is not installed");
    return *it->second;
}

std::string BehaviorManagerService::nature(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return scriptLocked(fullName(name)).nature;
}

void BehaviorManagerService::removeBehavior(const std::string &name)
{
    const std::string full = fullName(name);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        scriptLocked(full);
    }
    stopBehavior(full);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_installed.erase(full))
            throw std::runtime_error("behavior \"" + full + "\" is not installed");
        m_defaults.erase(full);
    }
    robot().memory().raiseMicroEvent(kRemovedEvent, wz::AnyValue(full));
}

void BehaviorManagerService::addDefault(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string full = fullName(name);
    scriptLocked(full);
    m_defaults.insert(full);
}

void BehaviorManagerService::removeDefault(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string full = fullName(name);
    scriptLocked(full);
    m_defaults.erase(full);
}

void BehaviorManagerService::addBoxLibrary(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_boxLibraries.insert(name);
}

void BehaviorManagerService::removeBoxLibrary(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_boxLibraries.erase(name))
        throw std::runtime_error("box library \"" + name + "\" is not installed");
}

bool BehaviorManagerService::install(const std::string &name, const std::string &text,
                                     bool overwrite)
{
    const std::string full = fullName(name);
    auto script = std::make_shared<BehaviorScript>(BehaviorScript::parse(text));
    bool replaced = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_installed.find(full);
        replaced = it != m_installed.end();
        if (replaced && !overwrite)
            return false;
        if (!replaced && m_installed.size() >= kMaxBehaviors)
            throw std::runtime_error("too many behaviors installed");
        m_installed[full] = std::move(script);
    }
    if (replaced)
        robot().memory().raiseMicroEvent(kUpdatedEvent, wz::AnyValue(full));
    else
        robot().memory().raiseMicroEvent(kAddedEvent, wz::AnyValue(full));
    return true;
}

void BehaviorManagerService::installDirectory(const std::string &dir)
{
    DIR *d = opendir(dir.c_str());
    if (!d)
        throw std::runtime_error("cannot read behavior directory \"" + dir + "\"");
    std::vector<std::string> files;
    while (dirent *e = readdir(d)) {
        const std::string file = e->d_name;
        if (file.size() > 4 && file.compare(file.size() - 4, 4, ".bhv") == 0)
            files.push_back(file);
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    for (const std::string &file : files) {
        const std::string text = readFile(dir + "/" + file);
        BehaviorScript parsed;
        try {
            parsed = BehaviorScript::parse(text);
        } catch (const std::exception &e) {
            throw std::runtime_error(dir + "/" + file + ": " + e.what());
        }
        const std::string name = parsed.name.empty() ? kUserPrefix + baseName(file) : parsed.name;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_installed[fullName(name)] = std::make_shared<BehaviorScript>(std::move(parsed));
        }
    }
}

void BehaviorManagerService::reset()
{
    stopAll();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_installed.clear();
    m_defaults.clear();
    installBuiltIns();
}

} // namespace sim
