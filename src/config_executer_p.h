#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <string>
#include <vector>

namespace RK {

class Connection;

class ConfigExecuter : public QObject
{
    Q_OBJECT

public:
    explicit ConfigExecuter(boost::shared_ptr<Connection> connection);

public slots:
    void getConfig();
    void getConfigFile();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void configReceived(QString config);
    void configFileReceived(QString configFile);

private:
    boost::weak_ptr<Connection> m_connection;
};

class ResourcesExecuter : public QObject
{
    Q_OBJECT

public:
    explicit ResourcesExecuter(boost::shared_ptr<Connection> connection);
    // Runs on the pool.
    VX::VXValue getOwners();

public slots:
    void getResources();

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void resourcesReceived(VX::VXValue resources);

private:
    boost::weak_ptr<Connection> m_connection;
};

class LauncherExecuter : public QObject
{
    Q_OBJECT

public:
    explicit LauncherExecuter(boost::shared_ptr<Connection> connection);

public slots:
    void launchWait(QString command, std::vector<std::string> args);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
    void launchWaitFinished(QString errorMessage);

private:
    boost::weak_ptr<Connection> m_connection;
};

} // namespace RK
