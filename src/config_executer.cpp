#include "config_executer_p.h"
#include "executer_call_p.h"
#include "text_p.h"

#include "connection_p.h"
#include <connection/platform.h>

#include <wz/log.h>

namespace RK {

namespace { } // namespace

ConfigExecuter::ConfigExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void ConfigExecuter::getConfig()
{
    executerCall(this, m_connection, "getConfig")
        .run(&Connection::config, [this](VX::VXProxy &config) {
            emit configReceived(fromUtf8(config.call<std::string>("getConfig")));
        });
}

void ConfigExecuter::getConfigFile()
{
    executerCall(this, m_connection, "getConfigFile")
        .run(&Connection::config, [this](VX::VXProxy &config) {
            emit configFileReceived(fromUtf8(config.call<std::string>("getConfigFile")));
        });
}

ResourcesExecuter::ResourcesExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void ResourcesExecuter::getResources()
{
    executerCall(this, m_connection, "getResources")
        .log("con.resourcesE", wz::LogLevel_Error,
             "VXPreferences::readPrefFile(\"vxresourcemanager\") call failed : ")
        .run(&Connection::preferences, [this](VX::VXPreferencesProxy &preferences) {
            emit resourcesReceived(preferences.readPrefFile("vxresourcemanager", true));
        });
}

VX::VXValue ResourcesExecuter::getOwners()
{
    return executerCall(this, m_connection, "getOwners")
        .run(&Connection::resourceManager,
             [](VX::VXProxy &manager) { return manager.call<VX::VXValue>("ownersGet"); });
}

LauncherExecuter::LauncherExecuter(boost::shared_ptr<Connection> connection)
    : QObject(nullptr), m_connection(connection)
{ }

void LauncherExecuter::launchWait(QString command, std::vector<std::string> args)
{
    executerCall(this, m_connection, "launchWait")
        .run(&Connection::launcher, [&](VX::VXProxy &launcher) {
            const int code
                = launcher.call<int>("_launchWait", command.toUtf8().toStdString(), args);
            // The command ran: its own failure is an answer, not the call's.
            emit launchWaitFinished(
                code > 0 ? tr("Command `%1` returned an error code (%2).").arg(command).arg(code)
                         : QString());
        });
}

} // namespace RK
