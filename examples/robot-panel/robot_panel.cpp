#include "robot_panel.h"

#include "behavior_pane.h"
#include "camera_pane.h"
#include "joints_pane.h"
#include "log_pane.h"
#include "memory_pane.h"
#include "project_pane.h"

#include <connection/reconnection_manager.h>

#include <QCloseEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace panel {

namespace {

const int k_batteryPeriodMs = 5000;

QString firstLine(const QString &text)
{
    return text.section(QLatin1Char('\n'), 0, 0, QString::SectionSkipEmpty).trimmed();
}

// Whole seconds, or tenths when the tick has been shortened below a second.
QString secondsText(double seconds)
{
    return QString::number(seconds, 'f', seconds < 10 && seconds != qRound(seconds) ? 1 : 0);
}

} // namespace

RobotPanel::RobotPanel(QWidget *parent)
    : QWidget(parent), m_manager(std::make_unique<RK::ConnectionManager>())
{
    setObjectName(QStringLiteral("robotPanel"));
    setWindowTitle(tr("Robot panel"));

    m_host = new QLineEdit(QStringLiteral("127.0.0.1"), this);
    m_host->setObjectName(QStringLiteral("host"));
    m_port = new QSpinBox(this);
    m_port->setObjectName(QStringLiteral("port"));
    m_port->setRange(1, 65535);
    m_port->setValue(9559);
    m_name = new QLineEdit(tr("my robot"), this);
    m_name->setObjectName(QStringLiteral("robotName"));
    m_connect = new QPushButton(tr("Connect"), this);
    m_connect->setObjectName(QStringLiteral("connectButton"));
    m_disconnect = new QPushButton(tr("Disconnect"), this);
    m_disconnect->setObjectName(QStringLiteral("disconnectButton"));
    m_reconnectNow = new QPushButton(tr("Reconnect now"), this);
    m_reconnectNow->setObjectName(QStringLiteral("reconnectNow"));
    m_reconnectNow->setEnabled(false);
    m_state = new QLabel(this);
    m_state->setObjectName(QStringLiteral("connectionState"));
    m_state->setStyleSheet(QStringLiteral("font-weight: bold"));
    m_countdown = new QLabel(this);
    m_countdown->setObjectName(QStringLiteral("reconnectionCountdown"));
    m_services = new QLabel(this);
    m_services->setObjectName(QStringLiteral("services"));
    m_services->setWordWrap(true);
    m_battery = new QProgressBar(this);
    m_battery->setObjectName(QStringLiteral("battery"));
    m_battery->setRange(0, 100);
    m_battery->setValue(0);
    // Until the robot answers, and after a loss: no level is known, and 0 %
    // would say the battery is empty.
    m_battery->setFormat(tr("battery unknown"));
    m_battery->setMinimumWidth(170);
    m_errorList = new QListWidget(this);
    m_errorList->setObjectName(QStringLiteral("errors"));
    m_errorList->setMaximumHeight(70);

    m_camera = new CameraPane(this);
    m_joints = new JointsPane(this);
    m_behaviors = new BehaviorPane(*m_manager, this);
    m_memory = new MemoryPane(this);
    m_project = new ProjectPane(*m_manager, this);
    m_log = new LogPane(this);
    m_panes = {m_camera, m_joints, m_behaviors, m_memory, m_project, m_log};
    for (Pane *pane : m_panes)
        connect(pane, &Pane::errorOccurred, this, &RobotPanel::reportError);

    auto *robot = new QHBoxLayout;
    robot->addWidget(new QLabel(tr("Robot"), this));
    robot->addWidget(m_host);
    robot->addWidget(m_port);
    robot->addWidget(m_name);
    robot->addWidget(m_connect);
    robot->addWidget(m_disconnect);
    robot->addWidget(m_reconnectNow);
    auto *status = new QHBoxLayout;
    status->addWidget(m_state, 1);
    status->addWidget(m_countdown, 1);
    status->addWidget(m_battery);
    auto *panes = new QGridLayout;
    panes->addWidget(m_camera, 0, 0);
    panes->addWidget(m_joints, 0, 1);
    panes->addWidget(m_behaviors, 0, 2);
    panes->addWidget(m_memory, 1, 0);
    panes->addWidget(m_project, 1, 1);
    panes->addWidget(m_log, 1, 2);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(robot);
    layout->addLayout(status);
    layout->addWidget(m_services);
    layout->addLayout(panes, 1);
    layout->addWidget(new QLabel(tr("Errors"), this));
    layout->addWidget(m_errorList);

    connect(m_connect, &QPushButton::clicked, this, &RobotPanel::connectToRobot);
    connect(m_disconnect, &QPushButton::clicked, this, &RobotPanel::disconnectFromRobot);

    // The manager and the reconnection manager live on this thread: plain
    // connections, no queueing.
    RK::ConnectionManager *manager = m_manager.get();
    using M = RK::ConnectionManager;
    connect(manager, &M::connecting, this, [this](bool connecting) {
        if (connecting && !m_reconnecting)
            setState(tr("Connecting to %1:%2...").arg(m_host->text()).arg(m_port->value()));
    });
    connect(manager, &M::connectionEstablished, this, &RobotPanel::onConnectionEstablished);
    connect(manager, &M::disconnected, this, &RobotPanel::onDisconnected);
    connect(manager, &M::connectionLost, this, &RobotPanel::onConnectionLost);
    connect(manager, &M::connectionTested, this, [this](bool success) {
        if (!success)
            reportError({QStringLiteral("testConnection"), RK::ErrorCode::RobotFailed,
                         tr("Connection test"), tr("The robot cannot reach this desktop"),
                         tr("Its calls back to the desktop do not arrive (a firewall?)")});
    });
    // Today the manager reports by this signal; an interface that reports
    // by errorOccurred(const RK::OperationError &) connects straight to
    // reportError.
    connect(manager, &M::displayErrorRequested, this, &RobotPanel::onManagerError);

    using R = RK::ReconnectionManager;
    R *reconnection = manager->reconnectionManager();
    connect(reconnection, &R::refreshTimeBeforeReconnectionRequested, this, [this](int ticks) {
        // The countdown counts ticks of the reconnection manager, one
        // second each unless the settings say otherwise.
        const double seconds = ticks * m_manager->timing().reconnectionTickMs / 1000.0;
        if (ticks < 0 || !m_reconnecting)
            return;
        QString line = tr("reconnecting in %1 s").arg(secondsText(seconds));
        if (!m_lastFailure.isEmpty())
            line += QStringLiteral(" (%1)").arg(m_lastFailure);
        m_countdown->setText(line);
    });
    connect(reconnection, &R::reconnectionRequested, this, [this] {
        ++m_attempt;
        QString line = tr("attempt %1: connecting...").arg(m_attempt);
        if (!m_lastFailure.isEmpty())
            line += QStringLiteral(" (%1)").arg(m_lastFailure);
        m_countdown->setText(line);
    });
    connect(m_reconnectNow, &QPushButton::clicked, reconnection, &R::onReconnectionRequestedByUser);

    m_batteryTimer.setInterval(k_batteryPeriodMs);
    connect(&m_batteryTimer, &QTimer::timeout, this, [this] {
        if (m_batteryInterface)
            m_batteryInterface->getBatteryLevel();
    });
    m_shutdownLimit.setSingleShot(true);
    connect(&m_shutdownLimit, &QTimer::timeout, this, &RobotPanel::finishShutdown);

    resize(1400, 900);
    onDisconnected();
}

RobotPanel::~RobotPanel()
{
    // The panes first: they hold references to the manager.
    for (Pane *pane : m_panes) {
        pane->detach();
        delete pane;
    }
    m_batteryInterface.reset();
}

void RobotPanel::setRobot(const QString &host, int port, const QString &name)
{
    m_host->setText(host);
    m_port->setValue(port);
    m_name->setText(name);
}

void RobotPanel::connectToRobot()
{
    if (m_shuttingDown || m_manager->isConnecting())
        return;
    m_reconnecting = false;
    m_manager->reconnectionManager()->cancelReconnectionProcess();
    // Returns at once: connectionEstablished() or an error and
    // disconnected() follow.
    m_manager->connectRemoteBroker(m_host->text().toStdString(), m_port->value(), m_name->text());
}

void RobotPanel::disconnectFromRobot()
{
    m_reconnecting = false;
    m_manager->reconnectionManager()->cancelReconnectionProcess();
    m_manager->disconnectBroker();
}

void RobotPanel::onConnectionEstablished()
{
    // A success is not seen by the reconnection manager: it is told here.
    m_manager->reconnectionManager()->cancelReconnectionProcess();
    m_reconnecting = false;
    m_countdown->clear();
    m_reconnectNow->setEnabled(false);
    m_connect->setEnabled(false);
    m_disconnect->setEnabled(true);
    QString ip;
    int port = 0;
    QString name;
    m_manager->getCurrentConnection(ip, port, name);
    setState(tr("Connected to \"%1\" at %2:%3, Morvane %4")
                 .arg(name, ip)
                 .arg(port)
                 .arg(m_manager->morvaneVersion()));
    showServices();

    // The interface objects are new at every connection: take them again and
    // connect their signals again, each with this panel as the context so
    // that they arrive on the GUI thread.
    m_batteryInterface = m_manager->batteryInterface();
    if (m_batteryInterface) {
        connect(m_batteryInterface.get(), &RK::BatteryInterface::updateBatteryLevelRequested, this,
                [this](int percent) {
                    m_battery->setFormat(tr("battery %p %"));
                    m_battery->setValue(percent);
                });
        connect(m_batteryInterface.get(), &RK::BatteryInterface::errorOccurred, this,
                [this](const RK::OperationError &error) {
                    if (worthListing(error))
                        reportError(error);
                });
        m_batteryInterface->getBatteryLevel();
        m_batteryTimer.start();
    }
    for (Pane *pane : m_panes)
        pane->attach(*m_manager);
    // Speaks, through displayErrorRequested, only when a required service
    // is missing.
    m_manager->checkAvailableModules();
}

void RobotPanel::onDisconnected()
{
    // Every pointer to an interface goes now: the worker destroys them next.
    for (Pane *pane : m_panes)
        pane->detach();
    if (m_batteryInterface)
        disconnect(m_batteryInterface.get(), nullptr, this, nullptr);
    m_batteryInterface.reset();
    m_batteryTimer.stop();
    m_battery->setValue(0);
    m_battery->setFormat(tr("battery unknown"));
    m_services->setText(tr("Services: not connected"));
    m_connect->setEnabled(!m_shuttingDown);
    m_disconnect->setEnabled(false);
    if (!m_reconnecting && !m_shuttingDown)
        setState(tr("Disconnected"));
}

void RobotPanel::onConnectionLost()
{
    setState(tr("Connection lost"));
    if (m_shuttingDown)
        return;
    // A loss, not a wish: count down and try again. Failed attempts say
    // disconnected() too, which is why this starts on connectionLost().
    QString ip;
    int port = 0;
    QString name;
    m_manager->getLastConnectionInfo(ip, port, name);
    m_reconnecting = true;
    m_attempt = 0;
    m_lastFailure.clear();
    m_reconnectNow->setEnabled(true);
    RK::ReconnectionManager *reconnection = m_manager->reconnectionManager();
    reconnection->startReconnectionProcess(ip.toStdString(), port, name);
    m_countdown->setText(tr("reconnecting in %1 s")
                             .arg(secondsText(reconnection->secondsLeft()
                                              * m_manager->timing().reconnectionTickMs / 1000.0)));
}

void RobotPanel::onManagerError(const QString &title, const QString &contents,
                                const QString &details, bool checkWarningEnable)
{
    RK::OperationError error;
    // The module check is the one report that sets checkWarningEnable.
    error.operation = checkWarningEnable ? QStringLiteral("checkAvailableModules")
                                         : QStringLiteral("connectRemoteBroker");
    error.code = checkWarningEnable ? RK::ErrorCode::ServiceMissing
        : m_reconnecting            ? RK::ErrorCode::ConnectionLost
                                    : RK::ErrorCode::RobotFailed;
    error.title = title;
    error.contents = contents;
    error.details = details;
    reportError(error);
}

void RobotPanel::reportError(const RK::OperationError &error)
{
    QString key
        = error.title + QLatin1Char('\n') + error.contents + QLatin1Char('\n') + error.details;
    QString text = tr("%1: %2").arg(error.title, error.contents);
    if (!error.details.isEmpty())
        text += QStringLiteral(" (%1)").arg(firstLine(error.details));
    int attempt = -1;
    if (m_reconnecting && error.operation == QLatin1String("connectRemoteBroker")) {
        // One entry for the whole series of attempts, counted once each.
        m_lastFailure
            = tr("attempt %1 failed: %2")
                  .arg(m_attempt)
                  .arg(firstLine(error.details.isEmpty() ? error.contents : error.details));
        m_countdown->setText(m_lastFailure);
        key = QStringLiteral("reconnecting\n") + error.contents;
        text = tr("Reconnecting: %1").arg(error.contents);
        attempt = m_attempt;
    }
    auto found = m_errors.find(key);
    if (found == m_errors.end()) {
        auto *item = new QListWidgetItem(text, m_errorList);
        item->setToolTip(error.details);
        m_errors.insert(key, {m_errorList->row(item), 1, attempt});
        m_errorOrder << key;
        m_errorList->scrollToItem(item);
        return;
    }
    if (attempt >= 0 && found->attempt == attempt)
        return;
    found->attempt = attempt;
    ++found->count;
    if (QListWidgetItem *item = m_errorList->item(found->row))
        item->setText(tr("%1 (%2 times)").arg(text).arg(found->count));
}

void RobotPanel::setState(const QString &text)
{
    m_state->setText(text);
}

void RobotPanel::showServices()
{
    if (!m_manager->isConnected())
        return;
    const QStringList bound = m_manager->boundServices();
    const QStringList missing = m_manager->missingServices();
    m_services->setText(
        tr("Bound (%1): %2\nMissing: %3")
            .arg(bound.size())
            .arg(bound.join(QStringLiteral(", ")))
            .arg(missing.isEmpty() ? tr("none") : missing.join(QStringLiteral(", "))));
}

void RobotPanel::shutdown(int limitMs)
{
    if (m_shuttingDown)
        return;
    m_shuttingDown = true;
    setState(tr("Closing..."));
    m_reconnecting = false;
    m_manager->reconnectionManager()->cancelReconnectionProcess();
    m_batteryTimer.stop();
    if (m_camera->isOn())
        m_camera->setOn(false);
    m_project->cancel();
    // disconnected() comes at once; the session is closed on a worker, and
    // teardownFinished() says when the robot has seen this desktop leave.
    const auto maybeDone = [this] {
        if (!m_manager->hasActiveWorkers() && !m_project->isBusy())
            finishShutdown();
    };
    connect(m_manager.get(), &RK::ConnectionManager::teardownFinished, this, maybeDone);
    connect(m_project, &ProjectPane::transferEnded, this, maybeDone);
    m_manager->disconnectBroker();
    // A robot that never answers must not keep the window open.
    m_shutdownLimit.start(limitMs);
    QTimer::singleShot(0, this, maybeDone);
}

void RobotPanel::finishShutdown()
{
    if (m_shutDown)
        return;
    m_shutDown = true;
    m_shutdownLimit.stop();
    setState(m_manager->hasActiveWorkers() ? tr("Closed (the robot did not answer)")
                                           : tr("Closed"));
    emit shutdownFinished();
}

void RobotPanel::closeEvent(QCloseEvent *event)
{
    if (m_shutDown) {
        event->accept();
        return;
    }
    event->ignore();
    if (!m_shuttingDown) {
        connect(this, &RobotPanel::shutdownFinished, this, &QWidget::close, Qt::QueuedConnection);
        shutdown();
    }
}

} // namespace panel
