#include "executer_call_p.h"
#include "log_listener_executer_p.h"

#include <connection/connection.h>

#include <wz/log.h>
#include <wz/log_listener.h>

#include <mutex>
#include <stdexcept>

namespace RK {

namespace {
const char *const k_category = "con.LogListenerE";
}

// The listener's subscription is never disconnected and ends only with the
// session, after this executer may be gone. The callback holds the gate, not
// the executer; the executer's destructor closes the gate, and waits for a
// message being handed over, before anything else of it goes.
class LogListenerExecuter::Gate
{
public:
    explicit Gate(LogListenerExecuter *executer) : m_executer(executer) { }
    void pass(const wz::LogMessage &message)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_executer)
            m_executer->onMessage(message);
    }
    void close()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_executer = nullptr;
    }

private:
    std::mutex m_mutex;
    LogListenerExecuter *m_executer;
};

LogListenerExecuter::LogListenerExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection), m_gate(std::make_shared<Gate>(this))
{
    if (!connection)
        return;
    const boost::shared_ptr<wz::LogListenerProxy> listener = connection->logListener();
    if (!listener)
        return;
    std::shared_ptr<Gate> gate = m_gate;
    try {
        listener->onLogMessage.connect([gate](const wz::LogMessage &m) { gate->pass(m); }).value();
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, k_category, __FUNCTION__)
            << "Error: couldn't subscribe to log messages. " << e.what();
    }
}

LogListenerExecuter::~LogListenerExecuter()
{
    m_gate->close();
}

void LogListenerExecuter::onMessage(wz::LogMessage mess)
{
    emit onLogMessage(mess);
}

wz::LogLevel LogListenerExecuter::logLevel()
{
    return executerCall(this, m_connection, "logLevel")
        .log(k_category)
        .run(
            &Connection::logListener,
            [](wz::LogListenerProxy &listener) { return listener.verbosity.get().value(); },
            wz::LogLevel_Info);
}

void LogListenerExecuter::setLogLevel(wz::LogLevel level)
{
    executerCall(this, m_connection, "setLogLevel")
        .log(k_category)
        .run(&Connection::logListener,
             [&](wz::LogListenerProxy &listener) { listener.setCategory("*", level).value(); });
}

void LogListenerExecuter::setCategory(QString cat, wz::LogLevel level)
{
    executerCall(this, m_connection, "setCategory")
        .log(k_category)
        .run(&Connection::logListener, [&](wz::LogListenerProxy &listener) {
            listener.setCategory(cat.toUtf8().toStdString(), level).value();
        });
}

void LogListenerExecuter::clearFilters()
{
    // The proxy throws "This object is null" itself for a null object.
    executerCall(this, m_connection, "clearFilters")
        .log(k_category)
        .run(&Connection::logListener,
             [](wz::LogListenerProxy &listener) { listener.clearFilters().value(); });
}

} // namespace RK
