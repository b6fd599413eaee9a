#include <sim/memory_service.h>
#include <sim/robot.h>

#include "scheduler.h"

#include <wz/log.h>
#include <wz/object_builder.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace sim {

namespace {

const char *const kCategory = "sim";

// Lets stop() wait for the calls in progress and refuse new ones, so that no
// method runs on a service that is being destroyed. Objects handed to the
// framework may outlive the robot: they hold the gate, never the robot.
class CallGate
{
public:
    bool enter()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed)
            return false;
        ++m_inFlight;
        return true;
    }
    void leave()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_inFlight == 0)
            m_cond.notify_all();
    }
    // Sleeps unless the gate closes first; false once it is closed.
    bool sleepFor(std::chrono::milliseconds delay)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return !m_cond.wait_for(lock, delay, [this]() { return m_closed; });
    }
    void close()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_closed = true;
        m_cond.notify_all();
        if (!m_cond.wait_for(lock, std::chrono::seconds(5), [this]() { return m_inFlight == 0; })) {
            wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
                << m_inFlight << " call(s) still running; waiting for them";
            m_cond.wait(lock, [this]() { return m_inFlight == 0; });
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    int m_inFlight = 0;
    bool m_closed = false;
};

std::string describeArgs(const Args &args)
{
    std::string out;
    for (size_t i = 0; i < args.size(); ++i) {
        if (i)
            out += ", ";
        out += args[i].repr();
        if (out.size() > 200) {
            out.resize(200);
            out += "...";
            break;
        }
    }
    return out;
}

} // namespace

struct Robot::Impl
{
    struct Slot
    {
        std::unique_ptr<Service> service;
        ServiceBuilder defs;
        wz::Object object;
        unsigned id = 0;
    };

    explicit Impl(Robot &robot) : q(robot), gate(std::make_shared<CallGate>()) { }

    wz::Object buildObject(const std::string &name, const Slot &slot);
    wz::AnyValue invoke(const std::string &service, const std::string &method, const MethodFn &fn,
                        const Args &args);
    void applyReadinessLocked();

    Robot &q;
    mutable std::mutex mutex; // the slots' objects and registrations
    std::vector<std::string> order;
    std::map<std::string, Slot> slots;
    MemoryService *memory = nullptr;
    std::shared_ptr<CallGate> gate;
    Scheduler scheduler;
    std::atomic<bool> running {false};
    bool started = false;
    bool stopped = false;
    wz::Url url;
    std::atomic<int> httpPort {0};
    wz::SignalLink arrivedLink = wz::SignalBase::invalidSignalLink;
    wz::SignalLink leftLink = wz::SignalBase::invalidSignalLink;

    std::mutex readyMutex;
    uint64_t readyGeneration = 0;
    bool readyHeld = false;
    std::chrono::milliseconds readyDelay {0};
};

namespace {
// Set on the I/O thread when a direct getter was let run there, for the call
// that follows at once.
thread_local bool t_servedDirect = false;
} // namespace

wz::Object Robot::Impl::buildObject(const std::string &name, const Slot &slot)
{
    wz::DynamicObjectBuilder builder(name);
    const std::set<std::string> removed = q.m_scenario.removedMethods(name);
    std::vector<MethodDef> methods;
    for (const MethodDef &m : slot.defs.methods()) {
        if (!removed.count(m.name))
            methods.push_back(m);
    }
    for (MethodDef &m : q.m_scenario.addedMethods(name)) {
        auto same = [&m](const MethodDef &o) { return o.name == m.name && o.arity == m.arity; };
        methods.erase(std::remove_if(methods.begin(), methods.end(), same), methods.end());
        methods.push_back(std::move(m));
    }
    std::shared_ptr<CallGate> g = gate;
    for (const MethodDef &m : methods) {
        MethodFn fn = m.fn;
        std::string method = m.name;
        Impl *self = this;
        auto call = [g, self, name, method, fn](const Args &args) {
            if (!g->enter())
                throw std::runtime_error("robot stopped");
            struct Leave
            {
                CallGate *g;
                ~Leave() { g->leave(); }
            } leave {g.get()};
            return self->invoke(name, method, fn, args);
        };
        if (m.direct) {
            // A rule may delay or hold the call, or replace it with anything:
            // those calls go to a framework thread like any other.
            Scenario *scenario = &q.m_scenario;
            builder.advertiseMethod(m.name, m.arity, call, [scenario, name, method] {
                t_servedDirect = !scenario->ruleFor(name, method);
                return t_servedDirect;
            });
        } else {
            builder.advertiseMethod(m.name, m.arity, call);
        }
    }
    for (const SignalDef &s : slot.defs.signals())
        builder.advertiseSignal(s.name, s.arity);
    for (const PropertyDef &p : slot.defs.properties())
        builder.advertiseProperty(p.name, p.initial);
    wz::Object object = builder.object();
    object->setDisplayName(name);
    return object;
}

wz::AnyValue Robot::Impl::invoke(const std::string &service, const std::string &method,
                                 const MethodFn &fn, const Args &args)
{
    // A call let onto the I/O thread keeps the rules it arrived under: one
    // set since must not make it sleep there.
    const bool direct = std::exchange(t_servedDirect, false);
    const std::optional<MethodRule> rule
        = direct ? std::nullopt : q.m_scenario.ruleFor(service, method);
    // A handle taken before the method was removed still sees it gone.
    if (rule && rule->removed)
        throw std::runtime_error(wz::methodNotFoundText(method, args.size(), service));
    q.m_scenario.recordCall(service, method, args);
    if (q.m_options.verbose) {
        wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__)
            << service << "." << method << "(" << describeArgs(args) << ") from "
            << wz::Session::currentCaller();
    }
    if (rule && rule->delay.count() > 0)
        gate->sleepFor(rule->delay);
    // A held call looks at its rule every few ms: the scenario has no hook
    // into the gate, and a release need not be prompter than that.
    if (rule && rule->held) {
        while (q.m_scenario.isHeld(service, method)
               && gate->sleepFor(std::chrono::milliseconds(5))) { }
    }
    if (rule && rule->failText)
        throw std::runtime_error(*rule->failText);
    if (rule && rule->replacement)
        return rule->replacement(args);
    return fn(args);
}

void Robot::Impl::applyReadinessLocked()
{
    const uint64_t generation = ++readyGeneration;
    if (readyHeld || readyDelay.count() > 0) {
        memory->insertData(MemoryService::kReadyKey, false);
    } else {
        memory->insertData(MemoryService::kReadyKey, true);
        return;
    }
    if (readyHeld)
        return;
    scheduler.schedule(readyDelay, [this, generation]() {
        std::lock_guard<std::mutex> lock(readyMutex);
        if (generation == readyGeneration)
            memory->insertData(MemoryService::kReadyKey, true);
    });
}

Robot::Robot(RobotOptions options)
    : m_options(std::move(options)),
      m_session(boost::make_shared<wz::Session>()),
      m_scenario(*this),
      d(std::make_unique<Impl>(*this))
{
    std::vector<ServiceEntry> entries = m_options.services;
    if (entries.empty())
        entries = defaultServices();
    for (ServiceEntry &e : entries) {
        if (d->slots.count(e.name))
            throw std::invalid_argument("service \"" + e.name + "\" listed twice");
        Impl::Slot slot;
        slot.service = e.factory();
        if (!slot.service)
            throw std::invalid_argument("no service made for \"" + e.name + "\"");
        slot.service->m_name = e.name;
        slot.service->m_robot = this;
        slot.service->describe(slot.defs);
        if (auto *m = dynamic_cast<MemoryService *>(slot.service.get()))
            d->memory = m;
        d->order.push_back(e.name);
        d->slots.emplace(e.name, std::move(slot));
    }
    if (!d->memory)
        throw std::invalid_argument("a robot needs a VXMemory service");
    d->memory->setVersion(m_options.version);
    d->readyHeld = m_options.holdReadiness;
    d->readyDelay = m_options.readyDelay;
}

Robot::~Robot()
{
    stop();
}

void Robot::start()
{
    const wz::Url url(m_options.listenUrl);
    if (!url.isValid())
        throw std::runtime_error("invalid listen address \"" + m_options.listenUrl
                                 + "\": " + url.error());
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->started)
            throw std::logic_error("a robot starts once");
        d->started = true;
    }
    d->arrivedLink = m_session->clientConnected.connect([](const std::string &peer) {
        wz::log::LogStream(wz::LogLevel_Info, kCategory, "clientConnected")
            << "client arrived: " << peer;
    });
    d->leftLink = m_session->clientDisconnected.connect([](const std::string &peer) {
        wz::log::LogStream(wz::LogLevel_Info, kCategory, "clientDisconnected")
            << "client left: " << peer;
    });
    // A robot that takes over the port of one just stopped may find the old
    // listener not yet closed: the framework closes it asynchronously.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (true) {
        try {
            m_session->listen(url).value();
            break;
        } catch (const std::exception &e) {
            const bool inUse = std::string(e.what()).find("in use") != std::string::npos;
            if (!inUse || url.port() == 0 || std::chrono::steady_clock::now() > giveUp)
                throw std::runtime_error("cannot listen on " + url.str() + ": " + e.what());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::vector<wz::Url> endpoints = m_session->endpoints();
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->url = endpoints.empty() ? url : endpoints.front();
    }
    d->scheduler.start();
    for (const std::string &name : d->order)
        d->slots.at(name).service->start();
    {
        std::lock_guard<std::mutex> lock(d->readyMutex);
        d->applyReadinessLocked();
    }
    d->running = true;
    for (const std::string &name : d->order)
        refreshService(name);
    wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__)
        << "robot listening on " << d->url.str();
}

void Robot::stop()
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->started || d->stopped)
            return;
        d->stopped = true;
    }
    d->running = false;
    {
        std::lock_guard<std::mutex> lock(d->readyMutex);
        ++d->readyGeneration;
    }
    d->scheduler.stop();
    d->gate->close();
    for (auto it = d->order.rbegin(); it != d->order.rend(); ++it)
        d->slots.at(*it).service->stop();
    m_session->clientConnected.disconnect(d->arrivedLink);
    m_session->clientDisconnected.disconnect(d->leftLink);
    m_session->close().wait();
    wz::log::LogStream(wz::LogLevel_Info, kCategory, __FUNCTION__) << "robot stopped";
}

bool Robot::isRunning() const
{
    return d->running;
}

wz::Url Robot::url() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->url;
}

MemoryService &Robot::memory() const
{
    return *d->memory;
}

Service *Robot::service(const std::string &name) const
{
    auto it = d->slots.find(name);
    return it == d->slots.end() ? nullptr : it->second.service.get();
}

std::vector<std::string> Robot::serviceNames() const
{
    return d->order;
}

bool Robot::isRegistered(const std::string &service) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    auto it = d->slots.find(service);
    return it != d->slots.end() && it->second.id != 0;
}

bool Robot::offersMethod(const std::string &service, const std::string &method) const
{
    auto it = d->slots.find(service);
    if (it == d->slots.end())
        return false;
    for (const MethodDef &m : it->second.defs.methods()) {
        if (m.name == method)
            return true;
    }
    for (const MethodDef &m : m_scenario.addedMethods(service)) {
        if (m.name == method)
            return true;
    }
    return false;
}

wz::Object Robot::serviceObject(const std::string &service) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    auto it = d->slots.find(service);
    return it == d->slots.end() ? wz::Object() : it->second.object;
}

int Robot::httpTransferPort() const
{
    return d->httpPort;
}

void Robot::setHttpTransferPort(int port)
{
    d->httpPort = port;
}

void Robot::schedule(std::chrono::milliseconds delay, std::function<void()> task)
{
    d->scheduler.schedule(delay, std::move(task));
}

void Robot::setReadiness(bool held, std::chrono::milliseconds delay)
{
    std::lock_guard<std::mutex> lock(d->readyMutex);
    d->readyHeld = held;
    d->readyDelay = delay;
    bool live;
    {
        std::lock_guard<std::mutex> slots(d->mutex);
        live = d->started && !d->stopped;
    }
    if (live)
        d->applyReadinessLocked();
}

void Robot::refreshService(const std::string &name)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    auto it = d->slots.find(name);
    if (it == d->slots.end())
        throw std::invalid_argument("the robot has no service \"" + name + "\"");
    if (!d->started || d->stopped)
        return;
    Impl::Slot &slot = it->second;
    if (slot.id != 0) {
        try {
            m_session->unregisterService(slot.id).value();
        } catch (const std::exception &e) {
            wz::log::LogStream(wz::LogLevel_Warning, kCategory, __FUNCTION__)
                << "cannot unregister " << name << ": " << e.what();
        }
        slot.id = 0;
        slot.object.reset();
    }
    if (m_scenario.isOmitted(name))
        return;
    slot.object = d->buildObject(name, slot);
    try {
        slot.id = m_session->registerService(name, slot.object).value();
    } catch (const std::exception &e) {
        // A client may hold the name (it registered it first); the robot goes on without it.
        wz::log::LogStream(wz::LogLevel_Error, kCategory, __FUNCTION__)
            << "cannot register " << name << ": " << e.what();
        slot.object.reset();
    }
}

} // namespace sim
