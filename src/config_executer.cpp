#include "config_executer_p.h"

#include <connection/connection.h>
#include <connection/platform.h>

#include <wz/log.h>

#include <iostream>

namespace RK {

namespace {
QString fromUtf8(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}
} // namespace

ConfigExecuter::ConfigExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void ConfigExecuter::getConfig()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> config = connection->config();
    if (!config)
        return;
    try {
        emit configReceived(fromUtf8(config->call<std::string>("getConfig")));
    } catch (const std::exception &e) {
        std::cout << e.what() << "\n";
    }
}

void ConfigExecuter::getConfigFile()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> config = connection->config();
    if (!config)
        return;
    try {
        emit configFileReceived(fromUtf8(config->call<std::string>("getConfigFile")));
    } catch (const std::exception &e) {
        std::cout << e.what() << "\n";
        // Unlike getConfig, a listener of the file always gets an answer.
        emit configFileReceived(QString());
    }
}

ResourcesExecuter::ResourcesExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void ResourcesExecuter::getResources()
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXPreferencesProxy> preferences = connection->preferences();
    if (!preferences)
        return;
    try {
        emit resourcesReceived(preferences->readPrefFile("vxresourcemanager", true));
    } catch (const std::exception &e) {
        wz::log::LogStream(wz::LogLevel_Error, "con.resourcesE", __FUNCTION__)
            << "VXPreferences::readPrefFile(\"vxresourcemanager\") call failed : " << e.what();
    }
}

VX::VXValue ResourcesExecuter::getOwners() const
{
    VX::VXValue owners;
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return owners;
    const boost::shared_ptr<VX::VXProxy> manager = connection->resourceManager();
    if (!manager)
        return owners;
    try {
        owners = manager->call<VX::VXValue>("ownersGet");
    } catch (const std::exception &) {
        // An empty value says it all.
    }
    return owners;
}

LauncherExecuter::LauncherExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void LauncherExecuter::launchWait(QString command, std::vector<std::string> args)
{
    const boost::shared_ptr<Connection> connection = m_connection.lock();
    if (!connection)
        return;
    const boost::shared_ptr<VX::VXProxy> launcher = connection->launcher();
    if (!launcher)
        return;
    QString errorMessage;
    try {
        const int code = launcher->call<int>("_launchWait", command.toUtf8().toStdString(), args);
        if (code > 0)
            errorMessage = tr("Command `%1` returned an error code (%2).").arg(command).arg(code);
    } catch (const std::exception &e) {
        errorMessage = QString::fromUtf8(e.what());
    }
    emit launchWaitFinished(errorMessage);
}

} // namespace RK
