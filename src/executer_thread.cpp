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
        join();
    }
}

void ExecuterThread::atLoopEnd(std::function<void()> step)
{
    std::lock_guard<std::mutex> lock(m_endMutex);
    m_atLoopEnd.push_back(std::move(step));
}

void ExecuterThread::join()
{
    wait();
    std::lock_guard<std::mutex> lock(m_endMutex);
}

void ExecuterThread::run()
{
    exec();
    std::vector<std::function<void()>> steps;
    {
        std::lock_guard<std::mutex> lock(m_endMutex);
        steps.swap(m_atLoopEnd);
    }
    for (const std::function<void()> &step : steps)
        step();
    // The last thing this thread does with the executer: join() takes the
    // lock after it.
    std::lock_guard<std::mutex> lock(m_endMutex);
}

} // namespace RK
