#include <sim/memory_service.h>
#include <sim/memory_watcher_service.h>
#include <sim/robot.h>

#include <wz/log.h>
#include <wz/os.h>
#include <wz/session.h>

#include <algorithm>
#include <stdexcept>

namespace sim {

namespace {
const char *const kCategory = "sim.memorywatcher";
} // namespace

MemoryWatcherService::MemoryWatcherService() : Service(kName) { }

MemoryWatcherService::~MemoryWatcherService()
{
    stop();
}

int MemoryWatcherService::effectivePeriodMs(int requestedMs)
{
    return std::max(requestedMs, kMinPeriodMs);
}

void MemoryWatcherService::describe(ServiceBuilder &b)
{
    b.method("setPeriodMs", [this](int periodMs) { setPeriod(periodMs); });
    b.method("startWatching", [this]() { startWatching(); });
    b.method("stopWatching", [this]() { stopWatching(); });
    b.method("addListener", [this](const std::string &key) { addListeners({key}); });
    b.method("addListeners", [this](const std::vector<std::string> &keys) { addListeners(keys); });
    b.method("removeListener", [this](const std::string &key) { removeListeners({key}); });
    b.method("removeListeners",
             [this](const std::vector<std::string> &keys) { removeListeners(keys); });
    b.method("removeAllListeners", [this]() { removeAllListeners(); });
    b.method("getData", [this]() { return getData(); });
}

void MemoryWatcherService::start()
{
    m_clientWatch.start(robot().session(), [this](const std::string &peer) { onClientGone(peer); });
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_thread.joinable() && !m_stopping)
        m_thread = std::thread([this]() { run(); });
}

void MemoryWatcherService::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_clientWatch.stop();
}

void MemoryWatcherService::configure(const wz::AnyValue &settings)
{
    for (const auto &field : settings.toMap()) {
        if (field.first == "periodMs") {
            if (field.second.kind() != wz::AnyValue::Kind::Int)
                throw std::runtime_error("periodMs needs an integer");
            const int64_t period = field.second.toInt();
            if (period < 0 || period > 3600000)
                throw std::runtime_error("periodMs is 0 to 3600000, not " + std::to_string(period));
            std::lock_guard<std::mutex> lock(m_mutex);
            m_defaultPeriodMs = static_cast<int>(period);
        } else if (field.first == "results") {
            if (field.second.kind() != wz::AnyValue::Kind::List)
                throw std::runtime_error("results needs a list of getData answers");
            for (const wz::AnyValue &result : field.second.toList())
                queueResult(result);
        } else {
            throw std::runtime_error("unknown setting \"" + field.first + "\"");
        }
    }
}

std::vector<std::string> MemoryWatcherService::clients() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto &c : m_clients)
        out.push_back(c.first);
    return out;
}

MemoryWatcherService::ClientState MemoryWatcherService::clientState(const std::string &peer) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_clients.find(peer);
    if (it == m_clients.end())
        throw std::invalid_argument("no client \"" + peer + "\" of " + kName);
    ClientState state;
    state.periodMs = it->second.periodMs;
    state.watching = it->second.watching;
    for (const auto &h : it->second.histories) {
        state.listeners.insert(h.first);
        state.pendingSamples += h.second.size();
    }
    return state;
}

void MemoryWatcherService::queueResult(wz::AnyValue result)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queued.push_back(std::move(result));
}

size_t MemoryWatcherService::queuedResults() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queued.size();
}

void MemoryWatcherService::clearQueuedResults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queued.clear();
}

// Calls made from C++ on the robot's side have no peer; they share the
// client "".
MemoryWatcherService::Client &MemoryWatcherService::callerLocked()
{
    const std::string peer = wz::Session::currentCaller();
    auto it = m_clients.find(peer);
    if (it == m_clients.end()) {
        it = m_clients.emplace(peer, Client()).first;
        it->second.periodMs = m_defaultPeriodMs;
    }
    return it->second;
}

void MemoryWatcherService::setPeriod(int periodMs)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Client &client = callerLocked();
        client.periodMs = periodMs;
        client.due = Clock::now() + std::chrono::milliseconds(effectivePeriodMs(periodMs));
    }
    m_wake.notify_all();
}

void MemoryWatcherService::startWatching()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Client &client = callerLocked();
        if (client.watching)
            return;
        client.watching = true;
        client.due = Clock::now() + std::chrono::milliseconds(effectivePeriodMs(client.periodMs));
    }
    m_wake.notify_all();
}

void MemoryWatcherService::stopWatching()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    callerLocked().watching = false;
}

void MemoryWatcherService::addListeners(const std::vector<std::string> &keys)
{
    for (const std::string &key : keys) {
        if (key.empty())
            throw std::runtime_error("a listener needs a key name");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    Client &client = callerLocked();
    for (const std::string &key : keys)
        client.histories[key];
}

// Unknown keys are ignored: removing what is not listened changes nothing.
void MemoryWatcherService::removeListeners(const std::vector<std::string> &keys)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Client &client = callerLocked();
    for (const std::string &key : keys)
        client.histories.erase(key);
}

void MemoryWatcherService::removeAllListeners()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    callerLocked().histories.clear();
}

wz::AnyValue MemoryWatcherService::getData()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Client &client = callerLocked();
    if (!m_queued.empty()) {
        wz::AnyValue result = std::move(m_queued.front());
        m_queued.pop_front();
        return result;
    }
    wz::AnyValue::List entries;
    entries.reserve(client.histories.size());
    for (auto &h : client.histories) {
        wz::AnyValue::List history;
        history.reserve(h.second.size());
        for (Sample &s : h.second) {
            wz::AnyValue::List stamp {wz::AnyValue(s.seconds), wz::AnyValue(s.microseconds)};
            history.push_back(
                wz::AnyValue(wz::AnyValue::List {wz::AnyValue(std::move(stamp)), s.value}));
        }
        h.second.clear();
        entries.push_back(wz::AnyValue(
            wz::AnyValue::List {wz::AnyValue(h.first), wz::AnyValue(std::move(history))}));
    }
    m_overflowWarned = false;
    return wz::AnyValue(std::move(entries));
}

// One thread samples every watching client when its period is due.
void MemoryWatcherService::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = Clock::time_point::max();
        for (auto &c : m_clients) {
            Client &client = c.second;
            if (!client.watching)
                continue;
            if (client.due <= now) {
                sampleLocked(client);
                const auto period = std::chrono::milliseconds(effectivePeriodMs(client.periodMs));
                client.due += period;
                // A robot that fell behind skips the missed periods rather
                // than sampling them all at once.
                if (client.due <= now)
                    client.due = now + period;
            }
            next = std::min(next, client.due);
        }
        if (next == Clock::time_point::max())
            m_wake.wait(lock);
        else
            m_wake.wait_until(lock, next);
    }
}

void MemoryWatcherService::sampleLocked(Client &client)
{
    if (client.histories.empty())
        return;
    wz::os::timeval tv;
    wz::os::gettimeofday(&tv);
    const size_t perKey = std::max<size_t>(1, kPendingLimit / client.histories.size());
    MemoryService &memory = robot().memory();
    for (auto &h : client.histories) {
        wz::AnyValue value;
        try {
            value = memory.getData(h.first);
        } catch (const std::exception &) {
            // Not in memory (yet): sampled as invalid.
        }
        std::deque<Sample> &history = h.second;
        if (history.size() >= perKey) {
            history.pop_front();
            if (!m_overflowWarned) {
                m_overflowWarned = true;
                wz::log::LogStream(wz::LogLevel_Warning, kCategory, "sample")
                    << "a client is not reading its history; dropping the oldest samples";
            }
        }
        history.push_back(Sample {tv.tv_sec, tv.tv_usec, std::move(value)});
    }
}

void MemoryWatcherService::onClientGone(const std::string &peer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.erase(peer);
}

} // namespace sim
