#pragma once

#include <connection/operation_error.h>

#include <connection/meta_types.h>

#include <QObject>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <string>
#include <vector>

#include <memory>

namespace RK {

class Connection;
template<typename Executer>
class ExecuterCall;
class EventRelay;

// The blocking side of "VXBehaviorManager". Slots run on the executer's
// thread; the plain methods run on pool threads beside them, so nothing here
// keeps state between calls: each call takes its own proxy from the
// connection. Robot events about behaviours come through the desktop module.
class BehaviorManagerExecuter : public QObject
{
    Q_OBJECT

public:
    static const QString a_natureError;

    explicit BehaviorManagerExecuter(boost::shared_ptr<Connection> connection);
    ~BehaviorManagerExecuter() override;

    // Pool calls.
    // Raises the robot's error again so that it reaches the caller's future.
    void preloadBehavior(QString behaviorToPlay);
    // The same for a start: the robot's refusal reaches the caller's future.
    void startBehavior(QString behaviorToPlay);
    QStringList behaviorsInstalled();
    QStringList behaviorTags();
    bool isBehaviorRunning(QString name);
    // A failure of the remote call reads as success (and a changed list).
    bool installBehavior(QString name);
    bool installBehavior(QString first, QString second, bool flag);
    // "" on a robot without natures; a_natureError when it cannot be read.
    QString getBehaviorNature(QString name);

    // "User/" cut from the front of each name.
    static QStringList withoutUserPrefix(const std::vector<std::string> &names);

public slots:
    void getBehaviors();
    void getDefaultBehaviors();
    void getRunningBehaviors();
    void getInstalledBoxLibraries();
    void isBehaviorPresent(QString behavior);
    void playBehavior(QString behaviorToPlay);
    void stopBehavior(QString behaviorToStop);
    void deleteBehavior(QString behaviorToDelete);
    void changeBehaviorDefaultFlag(QString behavior, bool isDefault);
    void getBehaviorFrameManagerID(QString name);
    void stopAllBehaviors();
    void deleteBoxLibrary(QString name);
    void onDataChanged(QString name, VX::VXValue value);

signals:
    // Each failed operation, once; its interface forwards it.
    void errorOccurred(const RK::OperationError &error);
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

private:
    // Every call of this executer logs its failure in the executer's category.
    ExecuterCall<BehaviorManagerExecuter> call(const char *operation);

    boost::weak_ptr<Connection> m_connection;
    std::shared_ptr<EventRelay> m_events;
};

} // namespace RK
