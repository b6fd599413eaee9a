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

const char *const kCategory = "sim.behavior";
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

wz::AnyValue eventValue(const std::string &text)
{
    return text.empty() ? wz::AnyValue() : wz::AnyValue(text);
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

void BehaviorManagerService::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running)
        return;
    m_running = true;
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
}

void BehaviorManagerService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running)
            return;
        m_running = false;
        m_stopping = true;
        m_loaded.clear();
        m_runOrder.clear();
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    std::lock_guard<std::mutex> lock(m_hook->mutex);
    m_hook->service = nullptr;
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

std::vector<std::string> BehaviorManagerService::runningBehaviors() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return runningLocked();
}

std::vector<std::string> BehaviorManagerService::runningLocked() const
{
    return m_runOrder;
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

bool BehaviorManagerService::isRunning(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_loaded.find(fullName(name));
    return it != m_loaded.end() && it->second.running;
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

void BehaviorManagerService::loadLocked(const std::string &full, std::unique_lock<std::mutex> &lock)
{
    if (m_loaded.count(full))
        return;
    auto it = m_installed.find(full);
    if (it == m_installed.end())
        throw std::runtime_error("behavior \"" + full + "\" is not installed");
    const std::shared_ptr<const BehaviorScript> script = it->second;
    if (!script->preloadError.empty())
        throw std::runtime_error("failed to load behavior " + full + "\n" + script->preloadError
                                 + "\n(From : VXBehaviorManager::preloadBehavior)\n\t\tat load");
    if (m_loaded.size() >= kMaxLoaded)
        throw std::runtime_error("too many behaviors loaded (" + std::to_string(kMaxLoaded) + ")");
    int &number = m_ids[full];
    if (number == 0)
        number = m_nextId++;
    Instance inst;
    inst.name = full;
    inst.id = "behavior_" + std::to_string(number) + "_";
    inst.script = script;
    MemoryService &memory = robot().memory();
    for (const BehaviorScript::Box &box : script->boxes) {
        for (const std::string &io : box.inputs)
            memory.raiseMicroEvent(inst.id + box.name + "__" + io, wz::AnyValue());
        for (const std::string &io : box.outputs)
            memory.raiseMicroEvent(inst.id + box.name + "__" + io, wz::AnyValue());
    }
    if (!script->timeline.empty())
        memory.insertData(inst.id + script->timeline, wz::AnyValue(0));
    const std::string id = inst.id;
    m_loaded.emplace(full, std::move(inst));
    // The boxes' services are registered without the lock: a box call in
    // progress needs it.
    std::vector<std::pair<std::string, wz::Object>> objects;
    for (const BehaviorScript::Box &box : script->boxes)
        objects.emplace_back(id + box.name, boxObject(full, id, box));
    lock.unlock();
    std::vector<unsigned> ids;
    for (auto &o : objects) {
        try {
            ids.push_back(robot().session().registerService(o.first, o.second).value());
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
                << "cannot register box " << o.first << ": " << e.what();
        }
    }
    lock.lock();
    auto loaded = m_loaded.find(full);
    if (loaded != m_loaded.end() && loaded->second.id == id) {
        loaded->second.serviceIds = ids;
        return;
    }
    // Stopped while its boxes were being registered.
    lock.unlock();
    for (unsigned serviceId : ids) {
        try {
            robot().session().unregisterService(serviceId).value();
        } catch (const std::exception &) { }
    }
    lock.lock();
}

BehaviorManagerService::Instance BehaviorManagerService::unloadLocked(std::string full)
{
    auto it = m_loaded.find(full);
    Instance inst = std::move(it->second);
    m_loaded.erase(it);
    m_runOrder.erase(std::remove(m_runOrder.begin(), m_runOrder.end(), full), m_runOrder.end());
    return inst;
}

void BehaviorManagerService::release(Instance &inst, bool wasRunning)
{
    for (unsigned id : inst.serviceIds) {
        try {
            robot().session().unregisterService(id).value();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__)
                << "box service " << id << ": " << e.what();
        }
    }
    MemoryService &memory = robot().memory();
    auto quietly = [](const std::function<void()> &f) {
        try {
            f();
        } catch (const std::exception &) {
            // Removed by a client in between: gone all the same.
        }
    };
    for (const BehaviorScript::Box &box : inst.script->boxes) {
        for (const auto *list : {&box.inputs, &box.outputs}) {
            for (const std::string &io : *list)
                quietly([&] { memory.removeMicroEvent(inst.id + box.name + "__" + io); });
        }
    }
    if (!inst.script->timeline.empty())
        quietly([&] { memory.removeData(inst.id + inst.script->timeline); });
    if (wasRunning)
        raiseRunning(runningBehaviors());
}

void BehaviorManagerService::raiseRunning(const std::vector<std::string> &list)
{
    // What a robot's own log says when its behaviours change.
    std::string names;
    for (const std::string &name : list)
        names += (names.empty() ? "" : ", ") + name;
    wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__)
        << "running behaviors: " << (names.empty() ? "none" : names);
    robot().memory().raiseMicroEvent(kRunEvent, wz::toAny(list));
}

void BehaviorManagerService::preload(const std::string &name)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    loadLocked(fullName(name), lock);
}

void BehaviorManagerService::startBehavior(const std::string &name)
{
    const std::string full = fullName(name);
    std::vector<std::string> list;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_running)
            throw std::runtime_error("VXBehaviorManager is not running");
        loadLocked(full, lock);
        auto it = m_loaded.find(full);
        if (it == m_loaded.end())
            throw std::runtime_error("behavior \"" + full + "\" was unloaded while starting");
        Instance &inst = it->second;
        if (inst.running)
            throw std::runtime_error("behavior \"" + full + "\" is already running");
        inst.running = true;
        inst.startedAt = Clock::now();
        inst.frame = 0;
        inst.nextOutput = 0;
        inst.nextFailure = 0;
        m_runOrder.push_back(full);
        list = runningLocked();
    }
    m_changed.notify_all();
    raiseRunning(list);
}

void BehaviorManagerService::stopBehavior(const std::string &name)
{
    const std::string full = fullName(name);
    Instance inst;
    bool wasRunning = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        scriptLocked(full);
        auto it = m_loaded.find(full);
        if (it == m_loaded.end())
            return;
        wasRunning = it->second.running;
        inst = unloadLocked(full);
    }
    release(inst, wasRunning);
}

void BehaviorManagerService::finishBehavior(const std::string &name)
{
    const std::string full = fullName(name);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_loaded.find(full);
        if (it == m_loaded.end() || !it->second.running)
            throw std::runtime_error("behavior \"" + full + "\" is not running");
    }
    stopBehavior(full);
}

void BehaviorManagerService::stopAll()
{
    std::vector<std::pair<Instance, bool>> all;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        while (!m_loaded.empty()) {
            const bool wasRunning = m_loaded.begin()->second.running;
            all.emplace_back(unloadLocked(m_loaded.begin()->first), wasRunning);
        }
    }
    bool anyRunning = false;
    for (auto &i : all) {
        release(i.first, false);
        anyRunning = anyRunning || i.second;
    }
    if (anyRunning)
        raiseRunning(runningBehaviors());
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

std::string BehaviorManagerService::frameManagerId(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string full = fullName(name);
    scriptLocked(full);
    auto it = m_loaded.find(full);
    return it == m_loaded.end() ? std::string() : it->second.id;
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

wz::AnyValue BehaviorManagerService::parameter(const std::string &name, const std::string &box,
                                               const std::string &param) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_loaded.find(fullName(name));
    if (it == m_loaded.end())
        return wz::AnyValue();
    auto b = it->second.parameters.find(box);
    if (b == it->second.parameters.end())
        return wz::AnyValue();
    auto p = b->second.find(param);
    return p == b->second.end() ? wz::AnyValue() : p->second;
}

int BehaviorManagerService::currentFrame(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_loaded.find(fullName(name));
    if (it == m_loaded.end() || it->second.script->timeline.empty())
        return -1;
    return it->second.frame;
}

wz::Object BehaviorManagerService::boxObject(const std::string &full, const std::string &id,
                                             const BehaviorScript::Box &box)
{
    wz::DynamicObjectBuilder b(id + box.name);
    const std::shared_ptr<Hook> hook = m_hook;
    auto method = [&b, hook, id, box](const std::string &name, unsigned arity) {
        const std::string boxName = box.name;
        b.advertiseMethod(name, arity, [hook, id, boxName, name](const Args &args) {
            std::lock_guard<std::mutex> lock(hook->mutex);
            if (!hook->service)
                throw std::runtime_error("the behavior manager has stopped");
            return hook->service->boxCall(id, boxName, name, args);
        });
    };
    (void)full;
    method("_isEnabled", 0);
    method("isEnabled", 0);
    method("setParameter", 2);
    method("getParameter", 1);
    for (const std::string &in : box.inputs)
        method("onInput_" + in, 1);
    for (const std::string &out : box.outputs)
        method(out, 1);
    wz::Object object = b.object();
    object->setDisplayName(id + box.name);
    return object;
}

wz::AnyValue BehaviorManagerService::boxCall(const std::string &id, const std::string &boxName,
                                             const std::string &method, const Args &args)
{
    std::vector<std::pair<std::string, wz::AnyValue>> raise;
    wz::AnyValue result;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Instance *inst = nullptr;
        for (auto &l : m_loaded) {
            if (l.second.id == id)
                inst = &l.second;
        }
        if (!inst)
            throw std::runtime_error("box " + id + boxName + " is not loaded");
        const BehaviorScript::Box *box = inst->script->box(boxName);
        if (!box)
            throw std::runtime_error("no box " + boxName);
        const std::string prefix = id + boxName + "__";
        if (method == "_isEnabled" || method == "isEnabled") {
            result = wz::AnyValue(!box->disabled);
        } else if (method == "setParameter") {
            if (args[0].kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("a parameter's name must be a string, not "
                                         + args[0].repr());
            inst->parameters[boxName][args[0].toStr()] = args[1];
        } else if (method == "getParameter") {
            if (args[0].kind() != wz::AnyValue::Kind::String)
                throw std::runtime_error("a parameter's name must be a string");
            const auto &params = inst->parameters[boxName];
            auto p = params.find(args[0].toStr());
            result = p == params.end() ? wz::AnyValue() : p->second;
        } else if (box->disabled) {
            throw std::runtime_error("box " + id + boxName + " is disabled");
        } else if (method.rfind("onInput_", 0) == 0) {
            const std::string input = method.substr(8);
            raise.emplace_back(prefix + input, args[0]);
            for (const BehaviorScript::Answer &a : inst->script->answers) {
                if (a.box == boxName && a.input == input)
                    raise.emplace_back(prefix + a.output, args[0]);
            }
        } else {
            raise.emplace_back(prefix + method, args[0]);
        }
    }
    for (const auto &r : raise)
        robot().memory().raiseMicroEvent(r.first, r.second);
    return result;
}

void BehaviorManagerService::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = Clock::time_point::max();
        std::vector<std::string> ended;
        std::vector<std::pair<std::string, wz::AnyValue>> events;
        for (auto &entry : m_loaded) {
            Instance &inst = entry.second;
            if (!inst.running)
                continue;
            const BehaviorScript &s = *inst.script;
            const double elapsed = std::chrono::duration<double>(now - inst.startedAt).count();
            auto at = [&inst](double seconds) {
                return inst.startedAt
                    + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(seconds));
            };
            bool failed = false;
            while (inst.nextFailure < s.failures.size()
                   && s.failures[inst.nextFailure].at <= elapsed) {
                const BehaviorScript::Failure &f = s.failures[inst.nextFailure++];
                events.emplace_back(kFailedEvent,
                                    wz::toAny(std::vector<std::string> {inst.name, f.box, f.text}));
                failed = true;
            }
            while (inst.nextOutput < s.outputs.size() && s.outputs[inst.nextOutput].at <= elapsed) {
                const BehaviorScript::Output &o = s.outputs[inst.nextOutput++];
                events.emplace_back(inst.id + o.box + "__" + o.output, eventValue(o.value));
            }
            if (!s.timeline.empty()) {
                const long long due = std::min<long long>(
                    s.frames - 1, static_cast<long long>(std::floor(elapsed * s.fps)));
                if (due > inst.frame) {
                    inst.frame = static_cast<int>(due);
                    robot().memory().insertData(inst.id + s.timeline, wz::AnyValue(inst.frame));
                }
                if (inst.frame < s.frames - 1)
                    next = std::min(next, at(static_cast<double>(inst.frame + 1) / s.fps));
            }
            if (failed || (!s.runsUntilStopped() && elapsed >= s.length)) {
                ended.push_back(entry.first);
                continue;
            }
            if (inst.nextOutput < s.outputs.size())
                next = std::min(next, at(s.outputs[inst.nextOutput].at));
            if (inst.nextFailure < s.failures.size())
                next = std::min(next, at(s.failures[inst.nextFailure].at));
            if (!s.runsUntilStopped())
                next = std::min(next, at(s.length));
        }
        if (!events.empty() || !ended.empty()) {
            lock.unlock();
            for (const auto &e : events)
                robot().memory().raiseMicroEvent(e.first, e.second);
            for (const std::string &name : ended) {
                try {
                    stopBehavior(name);
                } catch (const std::exception &e) {
                    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__)
                        << name << ": " << e.what();
                }
            }
            lock.lock();
            continue;
        }
        if (next == Clock::time_point::max())
            m_changed.wait(lock);
        else
            m_changed.wait_until(lock, next);
    }
}

} // namespace sim
