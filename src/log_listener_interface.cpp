#include "log_listener_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/log_listener_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<LogListenerExecuter, ExecuterThread>;

LogListenerInterface::LogListenerInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("LogListenerInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<wz::LogMessage>("wz::LogMessage");
    qRegisterMetaType<wz::LogLevel>("wz::LogLevel");
    // Direct: the executer emits on the application's thread already, and a
    // second queued hop would be a second, unbounded queue.
    QObject::connect(m_executer.get(), &LogListenerExecuter::onLogMessage, this,
                     &LogListenerInterface::onLogMessageReceived, Qt::DirectConnection);
    QObject::connect(m_executer.get(), &LogListenerExecuter::messagesDropped, this,
                     &LogListenerInterface::logMessagesDropped, Qt::DirectConnection);
}

void LogListenerInterface::setQueueLimit(int messages)
{
    m_executer->setQueueLimit(messages);
}

int LogListenerInterface::queueLimit() const
{
    return m_executer->queueLimit();
}

LogListenerInterface::~LogListenerInterface() = default;

QFuture<void> LogListenerInterface::setLogLevel(wz::LogLevel level)
{
    return run(&LogListenerExecuter::setLogLevel, level);
}

QFuture<void> LogListenerInterface::setCategory(const QString &cat, wz::LogLevel level)
{
    return run(&LogListenerExecuter::setCategory, cat, level);
}

QFuture<void> LogListenerInterface::clearFilters()
{
    return run(&LogListenerExecuter::clearFilters);
}

QFuture<wz::LogLevel> LogListenerInterface::logLevel()
{
    return run(&LogListenerExecuter::logLevel);
}

} // namespace RK
