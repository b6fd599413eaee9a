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

/// The application's door to the robot's behaviours: lists, start and stop,
/// defaults, box libraries, and the robot's events about behaviours. Every
/// method returns at once; answers come as signals or futures.
///
/// \b Thread and \b ownership as for every interface (see MorvaneInterface):
/// it lives on the connection's worker thread and its signals come on library
/// threads, so connect them with a receiver object on the GUI thread. It is
/// new at every connection, shared by the connection and the holders of
/// ConnectionManager::behaviorManagerInterface(): drop the pointer on
/// ConnectionManager::disconnected(). Its methods return at once and may be
/// called from any thread.
class NIMIOB_EXPORT BehaviorManagerInterface
    : public QObject,
      public MorvaneInterface<BehaviorManagerExecuter, ExecuterThread>
{
    Q_OBJECT

public:
    /// Made by the connection's worker thread; applications take it from
    /// ConnectionManager::behaviorManagerInterface().
    explicit BehaviorManagerInterface(boost::shared_ptr<Connection> connection);
    /// Waits for the calls it started and for its executer's thread.
    ~BehaviorManagerInterface() override;

    /// Asks for the behaviours installed on the robot; behaviorsReceived()
    /// answers.
    void requestBehaviors();
    /// Asks whether \p behavior is installed; behaviorPresent() answers.
    void isBehaviorPresent(QString behavior);
    /// Asks for the running behaviours; runningBehaviorsUpdated() answers.
    void requestRunningBehaviors();
    /// Asks for the behaviours started at boot; defaultBehaviorsReceived()
    /// answers.
    void requestDefaultBehaviors();
    /// Asks for the box libraries installed; installedBoxLibrariesReceived()
    /// answers.
    void requestInstalledBoxLibraries();
    /// Asks for the frame-manager id of the loaded behaviour \p name;
    /// behaviorFrameManagerIDReceived() answers.
    void requestBehaviorFrameManagerID(QString name);

    /// The robot's error, if any, comes out of the future's wait.
    QFuture<void> stopBehavior(QString behavior);
    /// playBehavior() with an outcome: the robot's refusal (a preload error,
    /// already running) comes out of the future's wait, and only there (no
    /// errorOccurred()): the caller reports it.
    QFuture<void> startBehavior(QString behavior);
    /// Makes \p behavior start at boot, or not.
    QFuture<void> setBehaviorDefaultFlag(QString behavior, bool isDefault);
    /// Whether \p behavior runs; false after a failure.
    QFuture<bool> isBehaviorRunning(QString behavior);
    /// Installs the behaviour \p name, already on the robot; true when the
    /// robot did. behaviorListChanged() follows a success.
    QFuture<bool> installBehavior(QString name);
    /// The robot's three-argument "installBehavior", with the arguments as
    /// they are; true when the robot installed it.
    QFuture<bool> installBehavior(QString first, QString second, bool flag);
    /// "" when the robot has no natures, "getBehaviorNatureError" when it failed.
    QFuture<QString> behaviorNature(QString behavior);
    /// The behaviours installed, as the robot names them ("User/" kept);
    /// empty after a failure.
    QFuture<QStringList> behaviorsInstalled();
    /// The tags of the installed behaviours; empty after a failure.
    QFuture<QStringList> behaviorTags();

public slots:
    /// Fails with the robot's own text when the behaviour cannot be loaded.
    QFuture<void> preloadBehavior(QString behavior);
    /// Starts \p behavior; success has no signal (runningBehaviorsUpdated()
    /// shows it), a refusal comes as errorOccurred().
    void playBehavior(QString behavior);
    /// Removes \p behavior from the robot.
    void deleteBehavior(QString behavior);
    /// Makes \p behavior start at boot, or not; no result.
    void changeBehaviorDefaultFlag(QString behavior, bool isDefault);
    /// Stops every running behaviour.
    void stopAll();
    /// Removes the box library \p name; installedBoxLibrariesReceived() then
    /// follows, failure or not.
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
    /// Carries requestBehaviors() to the executer's thread.
    void behaviorsRequested();
    /// Carries isBehaviorPresent() to the executer's thread.
    void isBehaviorPresentRequested(QString behavior);
    /// Carries requestRunningBehaviors() to the executer's thread.
    void runningBehaviorsRequested();
    /// Carries requestDefaultBehaviors() to the executer's thread.
    void defaultBehaviorsRequested();
    /// Carries requestInstalledBoxLibraries() to the executer's thread.
    void installedBoxLibrariesRequested();
    /// Carries requestBehaviorFrameManagerID() to the executer's thread.
    void behaviorFrameManagerIDRequested(QString name);
    /// Carries playBehavior() to the executer's thread.
    void playBehaviorRequested(QString behavior);
    /// Carries deleteBehavior() to the executer's thread.
    void deleteBehaviorRequested(QString behavior);
    /// Carries changeBehaviorDefaultFlag() to the executer's thread.
    void changeBehaviorDefaultFlagRequested(QString behavior, bool isDefault);
    /// Carries stopAll() to the executer's thread.
    void stopAllBehaviorsRequested();
    /// Carries deleteBoxLibrary() to the executer's thread.
    void deleteBoxLibraryRequested(QString name);
    /// Does nothing: nothing in the library listens to it, and emitting it
    /// stops no behaviour. Use stopBehavior(). Kept for the interface's sake.
    void stopBehaviorRequested(QString behavior);

    /// The behaviours installed on the robot.
    void behaviorsReceived(QStringList behaviors);
    /// Whether \p behavior is installed.
    void behaviorPresent(QString behavior, bool isPresent);
    /// The behaviours started at boot ("User/" cut).
    void defaultBehaviorsReceived(QStringList behaviors);
    /// The running behaviours ("User/" cut), as asked for or whenever the
    /// robot's list changes.
    void runningBehaviorsUpdated(QStringList behaviors);
    /// The box libraries installed.
    void installedBoxLibrariesReceived(QStringList libraries);
    /// The frame-manager id of the loaded behaviour \p name.
    void behaviorFrameManagerIDReceived(QString name, QString id);
    /// A behaviour was installed, removed or updated on the robot.
    void behaviorListChanged();
    /// The robot installed \p behaviorName.
    void behaviorAdded(QString behaviorName);
    /// The robot removed \p behaviorName.
    void behaviorRemoved(QString behaviorName);
    /// The box \p box of the running \p behaviorName failed with \p error.
    void behaviorFailed(QString behaviorName, QString box, QString error);
    /// Never emitted: failures come as errorOccurred(). Declared for the
    /// interface's sake.
    void displayErrorRequested(QString title, QString contents, QString details,
                               bool checkWarningEnable = false);
};

} // namespace RK
