#include <wz/log_listener.h>

#include <wz/object_builder.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <pthread.h>
#include <stdexcept>
#include <thread>

namespace wz {

namespace {

const char *const kCategory = "wz.log";
const std::size_t kMaxQueued = 10000;

// Set on a listener's delivery thread: what that thread logs (the framework
// reporting on the emission, say) must not be fed back to a listener.
thread_local bool t_delivering = false;

const Object &checked(const Object *object)
{
    if (!object || !*object)
        throw std::runtime_error("This object is null");
    return *object;
}

void readString(const AnyValue::Map &m, const char *field, std::string &out)
{
    auto it = m.find(field);
    if (it == m.end())
        return;
    if (it->second.kind() != AnyValue::Kind::String)
        throw TypeError(std::string("log message field \"") + field + "\" must be a String, not "
                        + AnyValue::kindName(it->second.kind()));
    out = it->second.toStr();
}

// '*' matches any run of characters, including none.
bool globMatch(const std::string &pattern, const std::string &text)
{
    std::size_t p = 0, t = 0, star = std::string::npos, mark = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

// Everything the delivery thread touches; it outlives the listener object if
// the thread is still finishing.
struct ListenerShared
{
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<LogMessage> queue;
    uint64_t dropped = 0;
    bool stopping = false;
    std::map<std::string, LogLevel> filters;
    boost::weak_ptr<GenericObject> object;

    void push(const LogMessage &m)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
        if (queue.size() >= kMaxQueued) {
            queue.pop_front();
            ++dropped;
        }
        queue.push_back(m);
        wake.notify_one();
    }

    // With the mutex held.
    bool passes(const LogMessage &m, LogLevel verbosity) const
    {
        auto exact = filters.find(m.category);
        if (exact != filters.end())
            return m.level <= exact->second;
        const std::pair<const std::string, LogLevel> *best = nullptr;
        for (const auto &f : filters) {
            if (f.first.find('*') != std::string::npos && globMatch(f.first, m.category)
                && (!best || f.first.size() > best->first.size()))
                best = &f;
        }
        return m.level <= (best ? best->second : verbosity);
    }

    void run()
    {
        t_delivering = true;
        for (;;) {
            std::deque<LogMessage> batch;
            uint64_t lost = 0;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return stopping || !queue.empty(); });
                if (stopping)
                    return;
                batch.swap(queue);
                lost = dropped;
                dropped = 0;
            }
            boost::shared_ptr<GenericObject> self = object.lock();
            if (!self)
                return;
            LogLevel verbosity = LogLevel_Info;
            try {
                verbosity = fromAny<LogLevel>(self->property("verbosity").value());
            } catch (const std::exception &e) {
                log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                    << "log listener verbosity unreadable, info assumed: " << e.what();
            }
            if (lost > 0) {
                LogMessage note;
                note.source = __FUNCTION__;
                note.level = LogLevel_Warning;
                note.category = kCategory;
                note.location = "log listener";
                note.message
                    = std::to_string(lost) + " log message(s) dropped: subscribers too slow";
                batch.push_front(note);
            }
            for (const LogMessage &m : batch) {
                bool send;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (stopping)
                        return;
                    send = passes(m, verbosity);
                }
                if (!send)
                    continue;
                try {
                    self->emitSignal("onLogMessage", {toAny(m)});
                } catch (const std::exception &e) {
                    log::LogStream(LogLevel_Warning, kCategory, __FUNCTION__)
                        << "log listener could not emit: " << e.what();
                }
            }
        }
    }
};

// Owns the sink handler and the thread; goes with the listener object.
class ListenerState
{
public:
    ListenerState() : m_shared(std::make_shared<ListenerShared>()) { }

    ~ListenerState()
    {
        log::removeHandler(m_handler);
        {
            std::lock_guard<std::mutex> lock(m_shared->mutex);
            m_shared->stopping = true;
            m_shared->queue.clear();
        }
        m_shared->wake.notify_all();
        if (m_thread.joinable()) {
            // The last reference may be dropped by the delivery thread itself.
            if (m_thread.get_id() == std::this_thread::get_id())
                m_thread.detach();
            else
                m_thread.join();
        }
    }

    void start(const Object &object)
    {
        m_shared->object = object.asGenericObject();
        std::weak_ptr<ListenerShared> weak = m_shared;
        m_handler = log::addHandler([weak](const LogMessage &m) {
            if (t_delivering)
                return;
            if (auto s = weak.lock())
                s->push(m);
        });
        std::shared_ptr<ListenerShared> shared = m_shared;
        m_thread = std::thread([shared] {
            pthread_setname_np(pthread_self(), "wz log sender");
            shared->run();
        });
    }

    void setCategory(const std::string &category, LogLevel level)
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->filters[category] = level;
    }

    void clearFilters()
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->filters.clear();
    }

private:
    std::shared_ptr<ListenerShared> m_shared;
    uint64_t m_handler = 0;
    std::thread m_thread;
};

} // namespace

// ---- client proxy ------------------------------------------------------------

LogListenerProxy::LogListenerProxy(Object object)
    : onLogMessage(&m_object), verbosity(&m_object), m_object(std::move(object))
{ }

LogListenerProxy::~LogListenerProxy() = default;

Future<SignalLink>
LogListenerProxy::MessageSignal::connect(std::function<void(const LogMessage &)> cb) const
{
    return checked(m_object).connect(
        "onLogMessage", GenericCallback([cb](const std::vector<AnyValue> &args) {
            LogMessage m;
            try {
                if (args.size() != 1)
                    throw TypeError("onLogMessage carries one value, not "
                                    + std::to_string(args.size()));
                m = fromAny<LogMessage>(args[0]);
            } catch (const std::exception &e) {
                log::LogStream(LogLevel_Warning, kCategory, "onLogMessage")
                    << "malformed log message dropped: " << e.what();
                return;
            }
            cb(m);
        }));
}

Future<void> LogListenerProxy::MessageSignal::disconnect(SignalLink link) const
{
    return checked(m_object).disconnect(link);
}

Future<LogLevel> LogListenerProxy::VerbosityProperty::get() const
{
    return checked(m_object).property<LogLevel>("verbosity");
}

Future<void> LogListenerProxy::VerbosityProperty::set(LogLevel level) const
{
    return checked(m_object).setProperty("verbosity", level);
}

Future<void> LogListenerProxy::setCategory(const std::string &category, LogLevel level) const
{
    return checked(&m_object).async<void>("setCategory", category, level);
}

Future<void> LogListenerProxy::clearFilters() const
{
    return checked(&m_object).async<void>("clearFilters");
}

// ---- server object -----------------------------------------------------------

Object makeLogListenerObject()
{
    auto state = std::make_shared<ListenerState>();
    DynamicObjectBuilder builder("LogListener");
    builder.advertiseSignal("onLogMessage", 1);
    builder.advertiseProperty("verbosity", toAny(LogLevel_Info));
    builder.advertiseMethod("setCategory", [state](const std::string &category, LogLevel level) {
        state->setCategory(category, level);
    });
    builder.advertiseMethod("clearFilters", [state]() { state->clearFilters(); });
    Object object = builder.object();
    state->start(object);
    return object;
}

// ---- conversions -------------------------------------------------------------

AnyValue TypeConverter<LogMessage>::toAny(const LogMessage &v)
{
    return AnyValue(AnyValue::Map {{"source", v.source},
                                   {"level", TypeConverter<LogLevel>::toAny(v.level)},
                                   {"category", v.category},
                                   {"location", v.location},
                                   {"message", v.message},
                                   {"timestamp", static_cast<long long>(v.timestampUs)},
                                   {"id", static_cast<unsigned long long>(v.id)}});
}

LogMessage TypeConverter<LogMessage>::fromAny(const AnyValue &v)
{
    if (v.kind() != AnyValue::Kind::Map)
        throw TypeError(std::string("cannot read a ") + AnyValue::kindName(v.kind())
                        + " as a log message");
    const AnyValue::Map &m = v.toMap();
    LogMessage out;
    readString(m, "source", out.source);
    readString(m, "category", out.category);
    readString(m, "location", out.location);
    readString(m, "message", out.message);
    if (const AnyValue *level = v.find("level"))
        out.level = TypeConverter<LogLevel>::fromAny(*level);
    if (const AnyValue *ts = v.find("timestamp"))
        out.timestampUs = ts->toInt();
    if (const AnyValue *id = v.find("id"))
        out.id = static_cast<uint64_t>(id->toInt());
    return out;
}

AnyValue TypeConverter<LogLevel>::toAny(LogLevel v)
{
    if (v < LogLevel_Silent || v > LogLevel_Debug)
        throw TypeError("log level " + std::to_string(static_cast<int>(v))
                        + " out of range 0 (silent) to 6 (debug)");
    return AnyValue(static_cast<int>(v));
}

LogLevel TypeConverter<LogLevel>::fromAny(const AnyValue &v)
{
    const int64_t i = v.toInt();
    if (i < LogLevel_Silent || i > LogLevel_Debug)
        throw TypeError("log level " + std::to_string(i) + " out of range 0 (silent) to 6 (debug)");
    return static_cast<LogLevel>(i);
}

AnyValue TypeConverter<boost::shared_ptr<LogListenerProxy>>::toAny(
    const boost::shared_ptr<LogListenerProxy> &v)
{
    return v ? AnyValue(v->object()) : AnyValue();
}

boost::shared_ptr<LogListenerProxy>
TypeConverter<boost::shared_ptr<LogListenerProxy>>::fromAny(const AnyValue &v)
{
    if (!v.isValid())
        return boost::shared_ptr<LogListenerProxy>();
    return boost::make_shared<LogListenerProxy>(v.toObject());
}

} // namespace wz
