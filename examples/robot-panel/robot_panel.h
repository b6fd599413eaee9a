#pragma once

#include <connection/battery_interface.h>
#include <connection/connection_manager.h>
#include <connection/operation_error.h>

#include <QHash>
#include <QTimer>
#include <QWidget>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <vector>

class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QSpinBox;

namespace panel {

class BehaviorPane;
class CameraPane;
class JointsPane;
class LogPane;
class MemoryPane;
class Pane;
class ProjectPane;

// One window over one robot: the connection and its services, the battery,
// and the panes. Owns the ConnectionManager. Lives on the GUI thread, as
// every object of the library it talks to directly.
class RobotPanel : public QWidget
{
    Q_OBJECT

public:
    explicit RobotPanel(QWidget *parent = nullptr);
    ~RobotPanel() override;

    RK::ConnectionManager &manager() { return *m_manager; }
    CameraPane *camera() const { return m_camera; }
    BehaviorPane *behaviors() const { return m_behaviors; }
    MemoryPane *memory() const { return m_memory; }
    ProjectPane *project() const { return m_project; }
    LogPane *log() const { return m_log; }

    void setRobot(const QString &host, int port, const QString &name);
    void connectToRobot();
    void disconnectFromRobot();

    // Stops the camera and any transfer, disconnects, and waits (without
    // blocking) for the workers to close the session, at most `limitMs`;
    // then emits shutdownFinished(). Closing the window does the same.
    void shutdown(int limitMs = 10000);
    bool isShutDown() const { return m_shutDown; }

    // The one place where failures are shown. An error already on the list
    // is counted, not shown again, and while the panel reconnects by itself
    // each attempt's failure goes to the reconnection line: one entry for
    // the whole series, however many attempts it takes.
    void reportError(const RK::OperationError &error);
    // Distinct errors shown so far.
    int errorsShown() const { return int(m_errorOrder.size()); }

signals:
    void shutdownFinished();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    void onConnectionEstablished();
    void onDisconnected();
    void onConnectionLost();
    void onManagerError(const QString &title, const QString &contents, const QString &details,
                        bool checkWarningEnable);
    void setState(const QString &text);
    void showServices();
    void finishShutdown();

    std::unique_ptr<RK::ConnectionManager> m_manager;
    std::vector<Pane *> m_panes;
    boost::shared_ptr<RK::BatteryInterface> m_batteryInterface;
    QTimer m_batteryTimer;
    QTimer m_shutdownLimit;
    bool m_shuttingDown = false;
    bool m_shutDown = false;
    bool m_reconnecting = false;
    int m_attempt = 0;
    QString m_lastFailure;
    // Error text to its row in the error list and its count.
    struct Shown
    {
        int row = 0;
        int count = 0;
        int attempt = -1;
    };
    QHash<QString, Shown> m_errors;
    QStringList m_errorOrder;

    QLineEdit *m_host;
    QSpinBox *m_port;
    QLineEdit *m_name;
    QPushButton *m_connect;
    QPushButton *m_disconnect;
    QPushButton *m_reconnectNow;
    QLabel *m_state;
    QLabel *m_countdown;
    QLabel *m_services;
    QProgressBar *m_battery;
    QListWidget *m_errorList;
    CameraPane *m_camera;
    JointsPane *m_joints;
    BehaviorPane *m_behaviors;
    MemoryPane *m_memory;
    ProjectPane *m_project;
    LogPane *m_log;
};

} // namespace panel
