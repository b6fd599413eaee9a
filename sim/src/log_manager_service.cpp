#include <sim/device_services.h>

#include <wz/log.h>
#include <wz/object_builder.h>

#include <boost/weak_ptr.hpp>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace sim {

namespace {
const char *const kCategory = "sim.log";
const size_t kBacklogLimit = 10000;

// Per listener: the filters a client set. A category filter wins over the
// verbosity; "*" stands for every category.
struct Filters
{
    std::mutex mutex;
    std::map<std::string, int> categories;
};

struct Listener
{
    boost::weak_ptr<wz::GenericObject> object;
    std::shared_ptr<Filters> filters;
};

// Set while this thread emits records, so that what emitting logs is not fed back.
thread_local bool t_feeding = false;

// What the log handler shares with the feed: the handler may still run for a
// moment after it is removed, so it holds this and never the feed itself.
struct Inbox
{
    std::mutex mutex;
    std::condition_variable cond;
    std::deque<wz::LogMessage> backlog;
    std::vector<Listener> listeners;
    bool stopping = false;

    void take(const wz::LogMessage &m)
    {
        if (t_feeding)
            return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (listeners.empty() || stopping)
                return;
            if (backlog.size() >= kBacklogLimit)
                backlog.pop_front();
            backlog.push_back(m);
        }
        cond.notify_one();
    }
};

int levelFrom(int64_t level)
{
    if (level < wz::LogLevel_Silent || level > wz::LogLevel_Debug)
        throw std::runtime_error("a log level is 0 to 6, not " + std::to_string(level));
    return static_cast<int>(level);
}
} // namespace

// Takes this process's log records and emits them, on a thread of its own,
// to every listener handed out: the log call never waits for a client.
class LogManagerService::Feed
{
public:
    Feed() : m_inbox(std::make_shared<Inbox>())
    {
        std::shared_ptr<Inbox> inbox = m_inbox;
        m_handler = wz::log::addHandler([inbox](const wz::LogMessage &m) { inbox->take(m); });
        m_thread = std::thread([this]() { run(); });
    }
    ~Feed()
    {
        wz::log::removeHandler(m_handler);
        {
            std::lock_guard<std::mutex> lock(m_inbox->mutex);
            m_inbox->stopping = true;
        }
        m_inbox->cond.notify_all();
        m_thread.join();
    }

    wz::Object makeListener()
    {
        auto filters = std::make_shared<Filters>();
        wz::DynamicObjectBuilder b("LogListener");
        b.advertiseSignal("onLogMessage", 1);
        b.advertiseProperty("verbosity", wz::AnyValue(static_cast<int>(wz::LogLevel_Info)));
        b.advertiseMethod("setCategory", [filters](const std::string &category, int64_t level) {
            const int l = levelFrom(level);
            std::lock_guard<std::mutex> lock(filters->mutex);
            filters->categories[category] = l;
        });
        b.advertiseMethod("clearFilters", [filters]() {
            std::lock_guard<std::mutex> lock(filters->mutex);
            filters->categories.clear();
        });
        wz::Object object = b.object();
        std::lock_guard<std::mutex> lock(m_inbox->mutex);
        m_inbox->listeners.push_back(Listener {object.asGenericObject(), filters});
        return object;
    }

    size_t listenerCount()
    {
        std::lock_guard<std::mutex> lock(m_inbox->mutex);
        prune();
        return m_inbox->listeners.size();
    }

private:
    void prune()
    {
        std::vector<Listener> &l = m_inbox->listeners;
        l.erase(std::remove_if(l.begin(), l.end(),
                               [](const Listener &x) { return x.object.expired(); }),
                l.end());
    }

    static bool passes(const Listener &l, wz::GenericObject &object, const wz::LogMessage &m)
    {
        {
            std::lock_guard<std::mutex> lock(l.filters->mutex);
            auto it = l.filters->categories.find(m.category);
            if (it == l.filters->categories.end())
                it = l.filters->categories.find("*");
            if (it != l.filters->categories.end())
                return m.level <= it->second;
        }
        int verbosity = wz::LogLevel_Info;
        try {
            verbosity = static_cast<int>(object.property("verbosity").value(0).toInt());
        } catch (const std::exception &) { }
        return m.level <= verbosity;
    }

    void run()
    {
        Inbox &in = *m_inbox;
        std::unique_lock<std::mutex> lock(in.mutex);
        for (;;) {
            in.cond.wait(lock, [&in]() { return in.stopping || !in.backlog.empty(); });
            if (in.stopping)
                return;
            wz::LogMessage m = std::move(in.backlog.front());
            in.backlog.pop_front();
            prune();
            std::vector<Listener> listeners = in.listeners;
            lock.unlock();
            t_feeding = true;
            const wz::AnyValue record(wz::AnyValue::Map {
                {"source", wz::AnyValue(m.source)},
                {"level", wz::AnyValue(static_cast<int>(m.level))},
                {"timestamp", wz::AnyValue(static_cast<long long>(m.timestampUs))},
                {"category", wz::AnyValue(m.category)},
                {"location", wz::AnyValue(m.location)},
                {"message", wz::AnyValue(m.message)},
                {"id", wz::AnyValue(static_cast<unsigned long long>(m.id))}});
            for (const Listener &l : listeners) {
                boost::shared_ptr<wz::GenericObject> object = l.object.lock();
                if (!object || !passes(l, *object, m))
                    continue;
                try {
                    object->emitSignal("onLogMessage", {record});
                } catch (const std::exception &) {
                    // A listener that cannot take a record is not worth a
                    // record of its own: it would feed itself.
                }
            }
            t_feeding = false;
            lock.lock();
        }
    }

    std::shared_ptr<Inbox> m_inbox;
    uint64_t m_handler = 0;
    std::thread m_thread;
};

LogManagerService::LogManagerService() : Service("LogManager") { }

LogManagerService::~LogManagerService()
{
    stop();
}

void LogManagerService::describe(ServiceBuilder &b)
{
    b.method("getListener", [this]() -> wz::Object {
        std::shared_ptr<Feed> feed = std::atomic_load(&m_feed);
        if (!feed)
            throw std::runtime_error("LogManager is not running");
        return feed->makeListener();
    });
}

void LogManagerService::start()
{
    std::atomic_store(&m_feed, std::make_shared<Feed>());
    wz::log::LogStream(wz::LogLevel_Debug, kCategory, __FUNCTION__) << "log feed started";
}

void LogManagerService::stop()
{
    std::shared_ptr<Feed> feed = std::atomic_exchange(&m_feed, std::shared_ptr<Feed>());
    feed.reset();
}

size_t LogManagerService::listenerCount() const
{
    std::shared_ptr<Feed> feed = std::atomic_load(&m_feed);
    return feed ? feed->listenerCount() : 0;
}

} // namespace sim
