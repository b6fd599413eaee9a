#include "executer_thread_p.h"

namespace RK {

ExecuterThread::ExecuterThread(boost::shared_ptr<Connection> connection,
                               boost::shared_ptr<QObject> executer)
    : m_connection(connection), m_executer(executer)
{
    setObjectName(QStringLiteral("ExecuterThread"));
    m_executer->moveToThread(this);
}

// The frame stops the thread before letting go of it; this only guards
// against a thread destroyed while running, which Qt does not survive.
ExecuterThread::~ExecuterThread()
{
    if (isRunning()) {
        quit();
        wait();
    }
}

} // namespace RK
