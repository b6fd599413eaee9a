#include "config_executer_p.h"
#include "morvane_interface_p.h"

#include <connection/config_interface.h>
#include <connection/launcher_interface.h>
#include <connection/resources_interface.h>

namespace RK {

// Every member of the frame, for tests and diagnostics that reach them.
template class MorvaneInterface<ConfigExecuter, ExecuterThread>;
template class MorvaneInterface<ResourcesExecuter, ExecuterThread>;
template class MorvaneInterface<LauncherExecuter, ExecuterThread>;

ConfigInterface::ConfigInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("ConfigInterface"))
{
    forwardFailures(this);
    request(this, &ConfigInterface::getConfigRequested, &ConfigExecuter::getConfig);
    request(this, &ConfigInterface::configFileRequested, &ConfigExecuter::getConfigFile);
    forward(&ConfigExecuter::configReceived, this, &ConfigInterface::configReceived);
    forward(&ConfigExecuter::configFileReceived, this, &ConfigInterface::configFileReceived);
}

ConfigInterface::~ConfigInterface() = default;

void ConfigInterface::getConfig()
{
    emit getConfigRequested();
}

void ConfigInterface::getConfigFile()
{
    emit configFileRequested();
}

ResourcesInterface::ResourcesInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("ResourcesInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<VX::VXValue>("VX::VXValue");
    request(this, &ResourcesInterface::resourcesRequested, &ResourcesExecuter::getResources);
    forward(&ResourcesExecuter::resourcesReceived, this, &ResourcesInterface::resourcesReceived);
}

ResourcesInterface::~ResourcesInterface() = default;

void ResourcesInterface::getResources()
{
    emit resourcesRequested();
}

QFuture<VX::VXValue> ResourcesInterface::getOwners()
{
    return run(&ResourcesExecuter::getOwners);
}

LauncherInterface::LauncherInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("LauncherInterface"))
{
    forwardFailures(this);
    qRegisterMetaType<std::vector<std::string>>("std::vector<std::string>");
    request(this, &LauncherInterface::launchWaitRequested, &LauncherExecuter::launchWait);
    forward(&LauncherExecuter::launchWaitFinished, this, &LauncherInterface::launchWaitFinished);
}

LauncherInterface::~LauncherInterface() = default;

void LauncherInterface::launchWait(const QString &command, const std::vector<std::string> &args)
{
    emit launchWaitRequested(command, args);
}

} // namespace RK
