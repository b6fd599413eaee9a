#pragma once

#include <QObject>
#include <QThread>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {

class Connection;

// The thread of one executer. Its run() is QThread's own event loop; it keeps
// the executer alive for as long as it exists.
class ExecuterThread : public QThread
{
    Q_OBJECT

public:
    ExecuterThread(boost::shared_ptr<Connection> connection, boost::shared_ptr<QObject> executer);
    ~ExecuterThread() override;

private:
    boost::weak_ptr<Connection> m_connection;
    boost::shared_ptr<QObject> m_executer;
};

} // namespace RK
