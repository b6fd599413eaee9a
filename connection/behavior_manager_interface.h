#pragma once

#include <connection/operation_error.h>

#include <connection/morvane_interface.h>
#include <connection/nimiob_export.h>

#include <QFuture>
#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace RK {

class Connection;
class BehaviorManagerExecuter;
class ExecuterThread;

// The application's door to the robot's behaviours: lists, start and stop,
// defaults, box libraries, and the robot's events about behaviours. Every
// method returns at once; answers come as signals or futures.
class NIMIOB_EXPORT BehaviorManagerInterface
    : public QObject,
      public MorvaneInterface<BehaviorManagerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    explicit BehaviorManagerInterface(boost::shared_ptr<Connection> connection);
    ~BehaviorManagerInterface() override;

    void requestBehaviors();
    void isBehaviorPresent(QString behavior);
    void requestRunningBehaviors();
    void requestDefaultBehaviors();
    void requestInstalledBoxLibraries();
    void requestBehaviorFrameManagerID(QString name);

    // The robot's error, if any, comes out of the future's wait.
    QFuture<void> stopBehavior(QString behavior);
    // playBehavior() with an outcome: the robot's refusal (a preload error,
    // already running) comes out of the future's wait.
    QFuture<void> startBehavior(QString behavior);
    QFuture<void> setBehaviorDefaultFlag(QString behavior, bool isDefault);
    QFuture<bool> isBehaviorRunning(QString behavior);
    QFuture<bool> installBehavior(QString name);
    QFuture<bool> installBehavior(QString first, QString second, bool flag);
    // "" when the robot has no natures, "getBehaviorNatureError" when it failed.
    QFuture<QString> behaviorNature(QString behavior);
    QFuture<QStringList> behaviorsInstalled();
    QFuture<QStringList> behaviorTags();

public slots:
    // Fails with the robot's own text when the behaviour cannot be loaded.
    QFuture<void> preloadBehavior(QString behavior);
    void playBehavior(QString behavior);
    void deleteBehavior(QString behavior);
    void changeBehaviorDefaultFlag(QString behavior, bool isDefault);
    void stopAll();
    void deleteBoxLibrary(QString name);

signals:
    /// An operation of this interface failed (a request slot, or a method
    /// returning a future, which then finishes with its default value).
    /// Emitted exactly once for each failed operation, on a library thread
    /// (the executer's, or a pool thread): connect it with a receiver object,
    /// and it arrives queued on that object's thread.
    void errorOccurred(const RK::OperationError &error);
    /// The connection this interface belongs to has ended: from now on
    /// every request fails at once with RK::ErrorCode::ConnectionLost, and
    /// the application may drop the object. Emitted once, on the thread that
    /// destroys the connection.
    void connectionEnded();
    void behaviorsRequested();
    void isBehaviorPresentRequested(QString behavior);
    void runningBehaviorsRequested();
    void defaultBehaviorsRequested();
    void installedBoxLibrariesRequested();
    void behaviorFrameManagerIDRequested(QString name);
    void playBehaviorRequested(QString behavior);
    void deleteBehaviorRequested(QString behavior);
    void changeBehaviorDefaultFlagRequested(QString behavior, bool isDefault);
    void stopAllBehaviorsRequested();
    void deleteBoxLibraryRequested(QString name);
    // Declared for applications that connect it themselves; nothing listens here.
    void stopBehaviorRequested(QString behavior);

    void behaviorsReceived(QStringList behaviors);
    void behaviorPresent(QString behavior, bool isPresent);
    void defaultBehaviorsReceived(QStringList behaviors);
    void runningBehaviorsUpdated(QStringList behaviors);
    void installedBoxLibrariesReceived(QStringList libraries);
    void behaviorFrameManagerIDReceived(QString name, QString id);
    void behaviorListChanged();
    void behaviorAdded(QString behaviorName);
    void behaviorRemoved(QString behaviorName);
    void behaviorFailed(QString behaviorName, QString box, QString error);
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
};

} // namespace RK
