#pragma once

#include <connection/behavior_instance_manager.h>
#include <connection/meta_types.h>
#include <connection/nimiob_export.h>
#include <connection/operation_error.h>
#include <connection/timeline_player.h>

#include <QMap>
#include <QPointer>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace RK {

class ConnectionManager;

// Runs the behaviour being edited on the robot: loads it, starts and stops
// it, shows which inputs and outputs of which box fire (IOActivated), follows
// its timeline's frame, and fires inputs, outputs and box parameters. Lives
// on the application's thread and works through the behaviour instance, the
// behaviour manager interface and the desktop module interface.
class NIMIOB_EXPORT BehaviorDebugger : public TimelinePlayer
{
    Q_OBJECT

public:
    BehaviorDebugger(ConnectionManager *manager, QObject *parent = nullptr);
    ~BehaviorDebugger() override;

    // A new instance for the behaviour; one that exists is cleared first.
    void initialize(QString behaviorName);
    void loadBehavior();
    void startBehavior();
    void stopBehavior();
    bool isRunning();

    // The behaviour's frame-manager id, empty until it is loaded.
    QString frameManagerId() const { return m_fmId; }
    BehaviorInstanceManager *instance() const { return m_instance; }
    // Event names subscribed now (the id followed by each input or output).
    QStringList subscribedEvents() const { return m_subscribed; }
    // The polled timeline key, empty when none.
    QString frameKey() const { return m_frameKey; }

    bool isStarted() override;
    // True while running: what the timeline view expects of this player.
    bool isPaused() override;
    bool isStopped() override;
    bool isEnabled() override;
    void stop() override;
    void enable(bool enabled) override;
    int getCurrentFrame() override;
    void setCurrentFrame(int frame) override;
    void gotoFrame(int frame) override;

signals:
    void behaviorLoading();
    void behaviorLoaded();
    void behaviorStarted();
    void behaviorStopped();
    void IOActivated(QString name, QString value);
    void errorInBox(QString box, QString error);
    void errorStartingBehavior(QString errorTitle, QString errorMessage, QString errorDetails);
    // The instance's failures, typed, with the operation "startBehavior": a
    // refused start ends in behaviorStopped() after this.
    void errorOccurred(const RK::OperationError &error);

public slots:
    void setLevel(QStringList ios, QString timelinePath);
    void sendParameterValues(QString boxName, QMap<QString, VX::VXValue> paramValues);
    void callBox(QString boxName, QString methodName, VX::VXValue value, bool checkEnable,
                 bool showDialogOnError);
    void callBox(QString boxName, bool checkEnable, bool showDialogOnError, QString methodName,
                 VX::VXValue parameter1 = VX::VXValue(), VX::VXValue parameter2 = VX::VXValue(),
                 VX::VXValue parameter3 = VX::VXValue(), VX::VXValue parameter4 = VX::VXValue(),
                 VX::VXValue parameter5 = VX::VXValue(), VX::VXValue parameter6 = VX::VXValue());
    void callBoxOutput(QString boxName, QString outputMethodName, VX::VXValue value);
    void onStateChanged(BehaviorInstanceManager::State state);
    void onBehaviorFrameManagerIdReceived(QString behaviorName, QString id);
    void onConnectionEstablished();
    void onConnectionInterrupted();
    void onDataChanged(QString name, VX::VXValue value);

private:
    void updateWatchedValues();
    // Lets go of what was subscribed and polled on the robot.
    void releaseWatchedValues();
    void requestFrameManagerId();
    void clear();

    ConnectionManager *m_manager;
    QPointer<BehaviorInstanceManager> m_instance;
    QStringList m_ios;
    QStringList m_subscribed;
    QString m_fmId;
    QString m_timelinePath;
    QString m_frameKey;
    int m_currentFrame = -1;
    bool m_enabled = true;
    BehaviorInstanceManager::State m_lastState = BehaviorInstanceManager::Missing;
    // The id with its pattern characters escaped, anchored at the start;
    // compiled once per load, since every box event is matched against it.
    QRegularExpression m_fmIdPattern;
};

} // namespace RK
