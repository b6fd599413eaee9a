#pragma once

#include <connection/operation_error.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace RK {

class Connection;

class DialogExecuter : public QObject
{
    Q_OBJECT

public:
    explicit DialogExecuter(boost::shared_ptr<Connection> connection);

public slots:
    void tell(QString sentence);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void tellFinished(QString errorMessage);

private:
    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
