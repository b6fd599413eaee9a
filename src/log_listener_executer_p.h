#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <memory>

namespace RK {

class Connection;

class LogListenerExecuter : public QObject
{
    Q_OBJECT

public:
    explicit LogListenerExecuter(boost::shared_ptr<Connection> connection);
    // Closes the gate first: the subscription may outlive this object.
    ~LogListenerExecuter() override;

    wz::LogLevel logLevel();
    void setLogLevel(wz::LogLevel level);
    void clearFilters();
    void setCategory(QString cat, wz::LogLevel level);

    // The gate between the framework's callback and this object.
    class Gate;

public slots:
    // On a framework thread.
    void onMessage(wz::LogMessage mess);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void onLogMessage(wz::LogMessage message);

private:
    boost::weak_ptr<Connection> m_connection;
    std::shared_ptr<Gate> m_gate;
};

} // namespace RK
