#include <connection/behavior_manager_interface.h>

#include "behavior_manager_executer_p.h"
#include "morvane_interface_p.h"

namespace RK {

using E = BehaviorManagerExecuter;
using I = BehaviorManagerInterface;

BehaviorManagerInterface::BehaviorManagerInterface(boost::shared_ptr<Connection> connection)
    : MorvaneInterface(connection, QStringLiteral("BehaviorManagerInterface"))
{
    forwardFailures(this);
    request(this, &I::behaviorsRequested, &E::getBehaviors);
    request(this, &I::isBehaviorPresentRequested, &E::isBehaviorPresent);
    request(this, &I::runningBehaviorsRequested, &E::getRunningBehaviors);
    request(this, &I::defaultBehaviorsRequested, &E::getDefaultBehaviors);
    request(this, &I::installedBoxLibrariesRequested, &E::getInstalledBoxLibraries);
    request(this, &I::behaviorFrameManagerIDRequested, &E::getBehaviorFrameManagerID);
    request(this, &I::playBehaviorRequested, &E::playBehavior);
    request(this, &I::deleteBehaviorRequested, &E::deleteBehavior);
    request(this, &I::changeBehaviorDefaultFlagRequested, &E::changeBehaviorDefaultFlag);
    request(this, &I::stopAllBehaviorsRequested, &E::stopAllBehaviors);
    request(this, &I::deleteBoxLibraryRequested, &E::deleteBoxLibrary);

    forward(&E::behaviorsReceived, this, &I::behaviorsReceived);
    forward(&E::behaviorPresent, this, &I::behaviorPresent);
    forward(&E::defaultBehaviorsReceived, this, &I::defaultBehaviorsReceived);
    forward(&E::runningBehaviorsUpdated, this, &I::runningBehaviorsUpdated);
    forward(&E::installedBoxLibrariesReceived, this, &I::installedBoxLibrariesReceived);
    forward(&E::behaviorFrameManagerIDReceived, this, &I::behaviorFrameManagerIDReceived);
    forward(&E::behaviorListChanged, this, &I::behaviorListChanged);
    forward(&E::behaviorAdded, this, &I::behaviorAdded);
    forward(&E::behaviorRemoved, this, &I::behaviorRemoved);
    forward(&E::behaviorFailed, this, &I::behaviorFailed);
}

BehaviorManagerInterface::~BehaviorManagerInterface() = default;

void BehaviorManagerInterface::requestBehaviors()
{
    emit behaviorsRequested();
}

void BehaviorManagerInterface::isBehaviorPresent(QString behavior)
{
    emit isBehaviorPresentRequested(behavior);
}

void BehaviorManagerInterface::requestRunningBehaviors()
{
    emit runningBehaviorsRequested();
}

void BehaviorManagerInterface::requestDefaultBehaviors()
{
    emit defaultBehaviorsRequested();
}

void BehaviorManagerInterface::requestInstalledBoxLibraries()
{
    emit installedBoxLibrariesRequested();
}

void BehaviorManagerInterface::requestBehaviorFrameManagerID(QString name)
{
    emit behaviorFrameManagerIDRequested(name);
}

void BehaviorManagerInterface::playBehavior(QString behavior)
{
    emit playBehaviorRequested(behavior);
}

void BehaviorManagerInterface::deleteBehavior(QString behavior)
{
    emit deleteBehaviorRequested(behavior);
}

void BehaviorManagerInterface::changeBehaviorDefaultFlag(QString behavior, bool isDefault)
{
    emit changeBehaviorDefaultFlagRequested(behavior, isDefault);
}

void BehaviorManagerInterface::stopAll()
{
    emit stopAllBehaviorsRequested();
}

void BehaviorManagerInterface::deleteBoxLibrary(QString name)
{
    emit deleteBoxLibraryRequested(name);
}

// Watched like the other calls, so that a disconnection during a preload
// waits for it instead of leaving it on a destroyed executer.
QFuture<void> BehaviorManagerInterface::preloadBehavior(QString behavior)
{
    return run(&E::preloadBehavior, behavior);
}

QFuture<void> BehaviorManagerInterface::startBehavior(QString behavior)
{
    return run(&E::startBehavior, behavior);
}

QFuture<void> BehaviorManagerInterface::stopBehavior(QString behavior)
{
    return run(&E::stopBehavior, behavior);
}

QFuture<void> BehaviorManagerInterface::setBehaviorDefaultFlag(QString behavior, bool isDefault)
{
    return run(&E::changeBehaviorDefaultFlag, behavior, isDefault);
}

QFuture<bool> BehaviorManagerInterface::isBehaviorRunning(QString behavior)
{
    return run(&E::isBehaviorRunning, behavior);
}

QFuture<bool> BehaviorManagerInterface::installBehavior(QString name)
{
    return run(qOverload<QString>(&E::installBehavior), name);
}

QFuture<bool> BehaviorManagerInterface::installBehavior(QString first, QString second, bool flag)
{
    return run(qOverload<QString, QString, bool>(&E::installBehavior), first, second, flag);
}

QFuture<QString> BehaviorManagerInterface::behaviorNature(QString behavior)
{
    return run(&E::getBehaviorNature, behavior);
}

QFuture<QStringList> BehaviorManagerInterface::behaviorsInstalled()
{
    return run(&E::behaviorsInstalled);
}

QFuture<QStringList> BehaviorManagerInterface::behaviorTags()
{
    return run(&E::behaviorTags);
}

} // namespace RK
