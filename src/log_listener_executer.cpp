#include "executer_call_p.h"
#include "log_listener_executer_p.h"

#include "connection_p.h"

#include <wz/log.h>
#include <wz/log_listener.h>

#include <QCoreApplication>

#include <algorithm>
#include <climits>
#include <deque>
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
//
// A stalled application must not grow the process: messages wait for the
// application's thread in one bounded queue, the oldest going first when it
// is full, and the application's thread is woken by one posted call however
// many messages wait.
class LogListenerExecuter::Gate : public std::enable_shared_from_this<Gate>
{
public:
    explicit Gate(LogListenerExecuter *executer) : m_executer(executer) { }

    void pass(const wz::LogMessage &message)
    {
        bool wake = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_open)
                return;
            ++m_received;
            if (static_cast<int>(m_queue.size()) >= m_limit) {
                m_queue.pop_front();
                ++m_dropped;
                ++m_droppedTotal;
            }
            m_queue.push_back(message);
            wake = !m_drainPosted;
            m_drainPosted = true;
        }
        if (!wake)
            return;
        QCoreApplication *app = QCoreApplication::instance();
        std::shared_ptr<Gate> self = shared_from_this();
        if (app)
            QMetaObject::invokeMethod(
                app, [self] { self->drain(); }, Qt::QueuedConnection);
        else
            drain();
    }

    // On the application's thread.
    void drain()
    {
        std::deque<wz::LogMessage> batch;
        uint64_t dropped = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            batch.swap(m_queue);
            dropped = m_dropped;
            m_dropped = 0;
            m_drainPosted = false;
        }
        if (dropped > 0) {
            std::lock_guard<std::recursive_mutex> lock(m_emitMutex);
            if (m_executer)
                emit m_executer->messagesDropped(
                    static_cast<int>(std::min<uint64_t>(dropped, INT_MAX)));
        }
        // The lock is taken for each message, so that closing waits for one
        // message at most, never for a whole batch.
        for (const wz::LogMessage &message : batch) {
            std::lock_guard<std::recursive_mutex> lock(m_emitMutex);
            if (!m_executer)
                return;
            emit m_executer->onLogMessage(message);
        }
    }

    void close()
    {
        std::lock_guard<std::recursive_mutex> emitLock(m_emitMutex);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = false;
        m_executer = nullptr;
        m_queue.clear();
    }

    void setLimit(int messages)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_limit = std::max(1, messages);
        while (static_cast<int>(m_queue.size()) > m_limit) {
            m_queue.pop_front();
            ++m_dropped;
            ++m_droppedTotal;
        }
    }
    int limit() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_limit;
    }
    Stats stats() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Stats s;
        s.received = m_received;
        s.dropped = m_droppedTotal;
        s.pending = static_cast<int>(m_queue.size());
        return s;
    }

private:
    // Held while a message is handed to the application, and by close().
    // Recursive: the application may let go of the interface from a slot
    // that a message reached, which closes the gate on the same thread.
    std::recursive_mutex m_emitMutex;
    LogListenerExecuter *m_executer;
    mutable std::mutex m_mutex;
    bool m_open = true;
    std::deque<wz::LogMessage> m_queue;
    int m_limit = a_defaultQueueLimit;
    bool m_drainPosted = false;
    uint64_t m_dropped = 0;
    uint64_t m_droppedTotal = 0;
    uint64_t m_received = 0;
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
    m_gate->pass(mess);
}

void LogListenerExecuter::setQueueLimit(int messages)
{
    m_gate->setLimit(messages);
}

int LogListenerExecuter::queueLimit() const
{
    return m_gate->limit();
}

LogListenerExecuter::Stats LogListenerExecuter::stats() const
{
    return m_gate->stats();
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
