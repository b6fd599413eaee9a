#pragma once

#include <wz/any_value.h>
#include <wz/api.h>
#include <wz/future.h>
#include <wz/log.h>
#include <wz/object.h>
#include <wz/signal.h>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

namespace wz {

// Client side of a log listener, the object that "LogManager".getListener
// hands out: a signal of log messages, a verbosity and per-category filters.
// Every operation on a proxy whose object is null throws std::runtime_error
// "This object is null".
class WZ_API LogListenerProxy
{
public:
    explicit LogListenerProxy(Object object);
    ~LogListenerProxy();

    const Object &object() const { return m_object; }

    // Signal `onLogMessage`. A message that does not read as a LogMessage is
    // logged (category "wz.log") and dropped; `cb` runs on a framework thread.
    class WZ_API MessageSignal
    {
    public:
        Future<SignalLink> connect(std::function<void(const LogMessage &)> cb) const;
        Future<void> disconnect(SignalLink link) const;

    private:
        friend class LogListenerProxy;
        explicit MessageSignal(const Object *object) : m_object(object) { }
        const Object *m_object;
    };

    // Property `verbosity`: the level of categories that no filter names.
    class WZ_API VerbosityProperty
    {
    public:
        Future<LogLevel> get() const;
        Future<void> set(LogLevel level) const;

    private:
        friend class LogListenerProxy;
        explicit VerbosityProperty(const Object *object) : m_object(object) { }
        const Object *m_object;
    };

    MessageSignal onLogMessage;
    VerbosityProperty verbosity;

    // Level of one category; the category may hold '*' wildcards ("*" alone
    // names every category).
    Future<void> setCategory(const std::string &category, LogLevel level) const;
    Future<void> clearFilters() const;

private:
    LogListenerProxy(const LogListenerProxy &) = delete;
    LogListenerProxy &operator=(const LogListenerProxy &) = delete;

    Object m_object;
};

// Server side: a new listener object fed by this process's log sink (so it
// sees what passes the process-wide level, see wz::log::setLogLevel), with
// the signal "onLogMessage", the property "verbosity" (default info), and the
// methods "setCategory"(category, level) and "clearFilters"(). A message is
// sent when its level is at most that of the most specific filter matching
// its category (an exact name beats a pattern, a longer pattern a shorter
// one), or, with no filter matching, at most the verbosity. Messages are sent
// from a thread of the listener's own, never from the thread that logged; if
// subscribers fall 10000 messages behind, the oldest are dropped and a
// warning says how many. The listener stops when its last reference goes.
WZ_API Object makeLogListenerObject();

// A log message on the wire: a Map with "source", "level", "category",
// "location", "message", "timestamp" (microseconds) and "id". Missing fields
// keep their defaults; a field of the wrong kind is a TypeError.
template<>
struct WZ_API TypeConverter<LogMessage>
{
    static AnyValue toAny(const LogMessage &v);
    static LogMessage fromAny(const AnyValue &v);
};

// A level is an Int from 0 (silent) to 6 (debug); anything else is refused.
template<>
struct WZ_API TypeConverter<LogLevel>
{
    static AnyValue toAny(LogLevel v);
    static LogLevel fromAny(const AnyValue &v);
};

// A listener arrives as an object reference:
// object.call<boost::shared_ptr<LogListenerProxy>>("getListener"). An invalid
// value gives a null pointer.
template<>
struct WZ_API TypeConverter<boost::shared_ptr<LogListenerProxy>>
{
    static AnyValue toAny(const boost::shared_ptr<LogListenerProxy> &v);
    static boost::shared_ptr<LogListenerProxy> fromAny(const AnyValue &v);
};

} // namespace wz
