#pragma once

// The one way an executer reaches the robot: lock the connection, take the
// proxy, make the call, and tell a failure once, as an OperationError, on the
// executer's errorOccurred signal (which its interface forwards). The
// connection and the proxy are held for the length of the call, so that the
// connection cannot be destroyed under it.

#include "connection_p.h"
#include <connection/operation_error.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <wz/any_value.h>
#include <wz/log.h>

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace VX {
class VXProxy;
}

namespace RK {

// Thrown by the body of a call to end it with a failure of its own choosing
// (a reply the robot should not have given, a connection half torn down).
class CallFailure : public std::exception
{
public:
    CallFailure(ErrorCode code, std::string text) : m_code(code), m_text(std::move(text)) { }
    ErrorCode code() const { return m_code; }
    const char *what() const noexcept override { return m_text.c_str(); }

private:
    ErrorCode m_code;
    std::string m_text;
};

// Why a remote call threw: the link (lost, closed, the proxy released by
// the teardown) or the robot itself.
ErrorCode classifyFailure(const Connection *connection, const std::exception &e);

// The same from a failure's text alone, for answers that come as futures.
ErrorCode classifyFailureText(const std::string &text);

// The texts of a failure that an executer tells besides the typed signal: a
// log line in its category, its error(title, contents, details) signal, or both.
struct FailureReport
{
    const char *category = nullptr;
    wz::LogLevel level = wz::LogLevel_Error;
    // The log line's text before the failure's own; a generic one if empty.
    std::string logText;
    QString title;
    QString contents;
    bool signal = false;
};

// Logs the failure when the report has a category; the typed signal and the
// error signal are the caller's.
OperationError makeFailure(const char *operation, ErrorCode code, const QString &details,
                           const FailureReport &report);

namespace detail {

template<typename E, typename = void>
struct HasErrorSignal : std::false_type
{
};
template<typename E>
struct HasErrorSignal<E, std::void_t<decltype(&E::error)>> : std::true_type
{
};

template<typename Accessor>
using ProxyOf = typename std::decay_t<std::invoke_result_t<Accessor, Connection &>>::element_type;

template<typename Body, typename Proxy>
struct BodyResult
{
    using type = typename std::conditional_t<std::is_invocable_v<Body, Proxy &, Connection &>,
                                             std::invoke_result<Body, Proxy &, Connection &>,
                                             std::invoke_result<Body, Proxy &>>::type;
};

template<typename Body, typename Proxy>
decltype(auto) invokeBody(Body &body, Proxy &proxy, Connection &connection)
{
    if constexpr (std::is_invocable_v<Body, Proxy &, Connection &>)
        return body(proxy, connection);
    else
        return body(proxy);
}

} // namespace detail

// One call of an executer. Made by executerCall(); cheap to copy.
//
//   executerCall(this, m_connection, "getBatteryLevel")
//       .signal(QStringLiteral("VXSentinel"), tr("Failed to call"))
//       .run(&Connection::batteryDevice, [&](VX::VXProxy &battery) { ... });
//
// run() answers what the body answers, or `fallback` after a failure. The
// body may take (Proxy &) or (Proxy &, Connection &).
template<typename Executer>
class ExecuterCall
{
public:
    ExecuterCall(Executer *executer, const boost::weak_ptr<Connection> &connection,
                 const char *operation)
        : m_executer(executer), m_connection(connection), m_operation(operation)
    { }

    // A log line at error level in `category` for each failure.
    ExecuterCall &log(const char *category)
    {
        m_report.category = category;
        return *this;
    }
    // The same, at `level`, as `text` followed by the failure's own text.
    ExecuterCall &log(const char *category, wz::LogLevel level, std::string text)
    {
        m_report.category = category;
        m_report.level = level;
        m_report.logText = std::move(text);
        return *this;
    }
    // The failure, once told, also leaves the call as its exception: for a
    // future whose caller reads the robot's text from it.
    ExecuterCall &rethrowing()
    {
        m_rethrow = true;
        return *this;
    }
    // No signal at all, only the log line: for calls made while the
    // executer itself goes.
    ExecuterCall &quietly()
    {
        m_silent = true;
        return *this;
    }
    // The executer's error(title, contents, details) for each failure too.
    ExecuterCall &signal(const QString &title, const QString &contents)
    {
        m_report.title = title;
        m_report.contents = contents;
        m_report.signal = true;
        return *this;
    }

    // `accessor` gives the proxy from the connection: a proxy accessor of
    // Connection, or any callable taking Connection &; null means the robot
    // lacks the service.
    template<typename Accessor, typename Body,
             typename R = typename detail::BodyResult<Body, detail::ProxyOf<Accessor>>::type>
    R run(Accessor accessor, Body body)
    {
        using Proxy = detail::ProxyOf<Accessor>;
        if constexpr (std::is_void_v<R>)
            attempt(accessor, [&body](Proxy &proxy, Connection &connection) {
                detail::invokeBody(body, proxy, connection);
            });
        else
            return run(accessor, std::move(body), R());
    }

    template<typename Accessor, typename Body, typename R>
    R run(Accessor accessor, Body body, R fallback)
    {
        using Proxy = detail::ProxyOf<Accessor>;
        R result = std::move(fallback);
        attempt(accessor, [&body, &result](Proxy &proxy, Connection &connection) {
            result = detail::invokeBody(body, proxy, connection);
        });
        return result;
    }

    // The same, and true when the body ran to its end.
    template<typename Accessor, typename Body>
    bool attempt(Accessor accessor, Body body)
    {
        const boost::shared_ptr<Connection> connection = m_connection.lock();
        if (!connection)
            return refuse(ErrorCode::ConnectionLost, "the connection has ended");
        std::decay_t<std::invoke_result_t<Accessor, Connection &>> proxy;
        try {
            proxy = std::invoke(accessor, *connection);
        } catch (const std::exception &e) {
            return failed(*connection, e);
        }
        if (!proxy)
            return refuse(ErrorCode::ServiceMissing, "the robot does not offer this service");
        try {
            detail::invokeBody(body, *proxy, *connection);
            return true;
        } catch (const std::exception &e) {
            return failed(*connection, e);
        }
    }

    // Tells a failure found outside a call (a reply that makes no sense).
    void fail(ErrorCode code, const QString &details) const
    {
        emitFailure(makeFailure(m_operation, code, details, m_report));
    }

    const char *operation() const { return m_operation; }
    const FailureReport &report() const { return m_report; }
    // The details of the last failure told, for a result that carries them.
    const QString &failureText() const { return m_failure.details; }
    const OperationError &lastFailure() const { return m_failure; }

private:
    // Tells the exception of a call; rethrows it when asked to.
    bool failed(const Connection &connection, const std::exception &e) const
    {
        const auto *known = dynamic_cast<const CallFailure *>(&e);
        fail(known ? known->code() : classifyFailure(&connection, e), QString::fromUtf8(e.what()));
        if (m_rethrow)
            throw;
        return false;
    }

    bool refuse(ErrorCode code, const char *text) const
    {
        failQuietly(code, QString::fromLatin1(text));
        if (m_rethrow)
            throw CallFailure(code, text);
        return false;
    }

    // Before a call is made (no connection, no service) only the typed
    // signal tells it: a log line or a dialog for each request of an
    // interface the application forgot to drop would be noise.
    void failQuietly(ErrorCode code, const QString &details) const
    {
        FailureReport quiet = m_report;
        quiet.category = nullptr;
        quiet.signal = false;
        emitFailure(makeFailure(m_operation, code, details, quiet), false);
    }

    void emitFailure(const OperationError &failure, bool withSignal = true) const
    {
        m_failure = failure;
        if (m_silent)
            return;
        if constexpr (detail::HasErrorSignal<Executer>::value) {
            if (withSignal && m_report.signal)
                emit m_executer->error(failure.title, failure.contents, failure.details);
        }
        emit m_executer->errorOccurred(failure);
    }

    Executer *m_executer;
    const boost::weak_ptr<Connection> &m_connection;
    const char *m_operation;
    FailureReport m_report;
    bool m_silent = false;
    bool m_rethrow = false;
    mutable OperationError m_failure;
};

template<typename Executer>
ExecuterCall<Executer> executerCall(Executer *executer,
                                    const boost::weak_ptr<Connection> &connection,
                                    const char *operation)
{
    return ExecuterCall<Executer>(executer, connection, operation);
}

// Posted calls: the call returns at once and the robot's answer comes later,
// on a framework thread. A failure of it goes to `report` as an
// OperationError, unless the watch has gone by then (its owner, the
// executer, going); a report running then is waited for.
class PostedCallWatch
{
public:
    // The failure, and whether the executer's error signal tells it too.
    using Report = std::function<void(const OperationError &, bool withSignal)>;

    explicit PostedCallWatch(Report report);
    ~PostedCallWatch();
    PostedCallWatch(const PostedCallWatch &) = delete;
    PostedCallWatch &operator=(const PostedCallWatch &) = delete;

    // Throws as VXProxy::pCall does when the call cannot even be sent: the
    // caller's ExecuterCall then tells that failure.
    void post(VX::VXProxy &proxy, const char *operation, const FailureReport &texts,
              const std::string &method, std::vector<wz::AnyValue> args);

private:
    struct State
    {
        std::mutex mutex;
        Report report;
    };
    std::shared_ptr<State> m_state;
};

} // namespace RK
