// The behavior manager's instances: loading, starting and stopping behaviors,
// their boxes as objects, and the thread that plays their timelines.

#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/object_builder.h>
#include <wz/session.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace sim {

namespace {

const char *const kCategory = "sim.behavior";

wz::AnyValue eventValue(const std::string &text)
{
    return text.empty() ? wz::AnyValue() : wz::AnyValue(text);
}

} // namespace

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

std::vector<std::string> BehaviorManagerService::runningBehaviors() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return runningLocked();
}

std::vector<std::string> BehaviorManagerService::runningLocked() const
{
    return m_runOrder;
}

bool BehaviorManagerService::isRunning(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_loaded.find(fullName(name));
    return it != m_loaded.end() && it->second.running;
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

std::string BehaviorManagerService::frameManagerId(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string full = fullName(name);
    scriptLocked(full);
    auto it = m_loaded.find(full);
    return it == m_loaded.end() ? std::string() : it->second.id;
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
