#pragma once

#include <QObject>
#include <QThread>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <functional>
#include <mutex>
#include <vector>

namespace RK {

class Connection;

// The thread of one executer: QThread's own event loop, then the executer's
// last steps on this thread. It keeps the executer alive for as long as it
// exists.
class ExecuterThread : public QThread
{
    Q_OBJECT

public:
    ExecuterThread(boost::shared_ptr<Connection> connection, boost::shared_ptr<QObject> executer);
    ~ExecuterThread() override;

    // Runs `step` on this thread once its event loop has ended, before the
    // thread finishes: where an executer stops the timers it owns, which no
    // other thread may touch. Call before the loop ends.
    void atLoopEnd(std::function<void()> step);

    // wait(), then takes the lock the thread released last, so that what it
    // did is ordered before what the caller does next (the executer's
    // deletion) for the thread sanitizer too, which cannot see Qt's own lock.
    void join();

protected:
    void run() override;

private:
    boost::weak_ptr<Connection> m_connection;
    boost::shared_ptr<QObject> m_executer;
    std::mutex m_endMutex;
    std::vector<std::function<void()>> m_atLoopEnd;
};

} // namespace RK
