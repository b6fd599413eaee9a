#pragma once

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
    void tellFinished(QString errorMessage);

private:
    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
