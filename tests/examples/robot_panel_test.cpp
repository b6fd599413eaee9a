// The robot panel, headless, against the in-process simulated robot: a user's
// session step by step (connect, camera, memory, a behaviour, a push, the
// robot lost and found again, quit), with a screenshot of the window after
// each step; a robot that keeps refusing reconnections; and a project pushed,
// pulled back and cancelled, with bad input on the way; the robot's log
// filtered.

#include "behavior_pane.h"
#include "camera_pane.h"
#include "log_pane.h"
#include "memory_pane.h"
#include "project_pane.h"
#include "robot_panel.h"

#include <connection/reconnection_manager.h>

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include "shared_robot.h"
#include "wait_until.h"

#include <sim/device_services.h>

#include <wz/log.h>

#include <filesystem>
#include <functional>

namespace {

// Runs the event loop until `done` holds.
bool waitFor(const std::function<bool()> &done)
{
    return test::waitUntil(done);
}

template<typename T>
T *child(QWidget &panel, const char *name)
{
    T *widget = panel.findChild<T *>(QString::fromLatin1(name));
    EXPECT_NE(widget, nullptr) << name;
    return widget;
}

QString text(QWidget &panel, const char *name)
{
    QLabel *label = child<QLabel>(panel, name);
    return label ? label->text() : QString();
}

// What the Errors box lists, with each entry's details, for a failure message.
std::string errorsListed(QWidget &panel)
{
    QListWidget *errors = child<QListWidget>(panel, "errors");
    QStringList listed;
    for (int row = 0; errors && row < errors->count(); ++row)
        listed << errors->item(row)->text() + " / " + errors->item(row)->toolTip();
    return listed.join("\n").toStdString();
}

// Distinct colours in the widget as drawn on screen.
int distinctColours(QWidget *widget)
{
    const QImage image = widget->grab().toImage();
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 4)
        for (int x = 0; x < image.width(); x += 4)
            colours.insert(image.pixel(x, y));
    return int(colours.size());
}

class RobotPanelTest : public test::SharedRobotTest
{
public:
    static void SetUpTestSuite()
    {
        wz::log::setLogLevel(wz::LogLevel_Error);
        startRobot(sim::RobotOptions());
    }

protected:
    void SetUp() override
    {
        robot().scenario().reset();
        robot().scenario().releaseReadiness();
        panel = std::make_unique<panel::RobotPanel>();
        // No time limit is waited out: a short readiness step, a 50 ms tick.
        RK::ConnectionTiming timing;
        timing.readinessStepMs = 10;
        timing.readinessLimitMs = 2000;
        timing.reconnectionTickMs = 50;
        timing.reconnectionFirstDelay = 3;
        timing.reconnectionMaxDelay = 6;
        panel->manager().setTiming(timing);
        panel->setRobot(QString::fromStdString(robot().url().host()), robot().url().port(),
                        QStringLiteral("test robot"));
        panel->show();
        QDir().mkpath(QStringLiteral(ROBOT_PANEL_SHOTS));
    }

    void TearDown() override
    {
        if (panel && !panel->isShutDown()) {
            panel->shutdown(5000);
            EXPECT_TRUE(waitFor([this] { return panel->isShutDown(); }));
        }
        panel.reset();
    }

    void shot(const char *name)
    {
        const QString path = QStringLiteral(ROBOT_PANEL_SHOTS "/%1.png").arg(name);
        EXPECT_TRUE(panel->grab().save(path)) << path.toStdString();
    }

    // Connected, and the two-way test that follows has its outcome: a robot
    // lost before then would also fail that test, which is another case.
    void connectPanel()
    {
        QObject context;
        bool tested = false;
        QObject::connect(&panel->manager(), &RK::ConnectionManager::connectionTested, &context,
                         [&tested](bool) { tested = true; });
        child<QPushButton>(*panel, "connectButton")->click();
        ASSERT_TRUE(waitFor([this, &tested] {
            return tested && text(*panel, "connectionState").contains("Connected");
        })) << text(*panel, "connectionState").toStdString();
    }

    std::unique_ptr<panel::RobotPanel> panel;
};

TEST_F(RobotPanelTest, ScriptedSession)
{
    // Connect: state, services and battery.
    connectPanel();
    EXPECT_TRUE(text(*panel, "connectionState").contains("test robot"));
    EXPECT_TRUE(text(*panel, "services").contains("VXVideoDevice"));
    EXPECT_TRUE(text(*panel, "services").contains("Missing: none"));
    QProgressBar *battery = child<QProgressBar>(*panel, "battery");
    ASSERT_TRUE(waitFor([battery] { return battery->value() == 87; }))
        << "battery shows " << battery->value();
    shot("01-connected");

    // The camera: images at the chosen resolution, on screen.
    QLabel *view = child<QLabel>(*panel, "cameraView");
    const int blank = distinctColours(view);
    panel->camera()->setResolution(1);
    child<QPushButton>(*panel, "cameraButton")->click();
    ASSERT_TRUE(waitFor([this] { return panel->camera()->imagesReceived() >= 5; }));
    EXPECT_TRUE(waitFor([this] { return text(*panel, "cameraInfo").startsWith("320x240"); }))
        << text(*panel, "cameraInfo").toStdString();
    const int live = distinctColours(view);
    EXPECT_GT(live, 50) << "the camera pane looks blank";
    EXPECT_GT(live, blank * 10);

    // Two memory keys, one of them moving, plotted.
    robot().scenario().setKey("Panel/Level", wz::AnyValue(1.0));
    robot().scenario().setKey("Panel/Other", wz::AnyValue(3));
    panel->memory()->watch({QStringLiteral("Panel/Level"), QStringLiteral("Panel/Other")});
    double level = 1.0;
    QElapsedTimer step;
    step.start();
    EXPECT_TRUE(waitFor([&] {
        if (step.elapsed() >= 100) {
            step.restart();
            level += 0.25;
            robot().scenario().setKey("Panel/Level", wz::AnyValue(level));
        }
        return panel->memory()->plot()->pointCount("Panel/Level") >= 5
            && panel->memory()->plot()->pointCount("Panel/Other") >= 5;
    }));
    shot("02-camera-and-memory");

    // A behaviour run from the list: its states as they change.
    QListWidget *list = child<QListWidget>(*panel, "behaviorList");
    ASSERT_TRUE(
        waitFor([list] { return !list->findItems("User/wave", Qt::MatchExactly).isEmpty(); }));
    list->setCurrentItem(list->findItems("User/wave", Qt::MatchExactly).first());
    child<QPushButton>(*panel, "behaviorRun")->click();
    ASSERT_TRUE(waitFor([this] { return panel->behaviors()->stateHistory().contains("Running"); }))
        << panel->behaviors()->stateHistory().join(' ').toStdString();
    EXPECT_TRUE(text(*panel, "behaviorState").contains("Running"));
    shot("03-behaviour-running");
    // The wave ends by itself after 1.2 s.
    EXPECT_TRUE(waitFor([this] {
        const QStringList h = panel->behaviors()->stateHistory();
        return h.indexOf("Stopped", h.indexOf("Running")) > 0;
    })) << panel->behaviors()->stateHistory().join(' ').toStdString();

    // A small project pushed: progress to its end, files on the robot.
    QTemporaryDir local;
    ASSERT_TRUE(local.isValid());
    for (int i = 0; i < 3; ++i) {
        QFile f(local.filePath(QStringLiteral("file%1.txt").arg(i)));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(QByteArray(20000 * (i + 1), char('a' + i)));
    }
    child<QLineEdit>(*panel, "projectLocal")->setText(local.path());
    child<QLineEdit>(*panel, "projectRemote")->setText("/projects/panel");
    child<QPushButton>(*panel, "projectPush")->click();
    ASSERT_TRUE(waitFor([this] { return text(*panel, "projectState") == "push: done"; }))
        << text(*panel, "projectState").toStdString();
    QProgressBar *progress = child<QProgressBar>(*panel, "projectProgress");
    EXPECT_GE(progress->maximum(), 120000);
    EXPECT_EQ(progress->value(), progress->maximum());
    const std::string store
        = robot().serviceAs<sim::PackageManagerService>("PackageManager")->storeDir();
    EXPECT_EQ(std::filesystem::file_size(store + "/projects/panel/file2.txt"), 60000u);
    shot("04-pushed");

    // The robot lost: the panel says so and counts down.
    robot().scenario().dropClients();
    ASSERT_TRUE(waitFor([this] { return text(*panel, "connectionState").contains("lost"); }));
    EXPECT_FALSE(text(*panel, "reconnectionCountdown").isEmpty());
    EXPECT_TRUE(text(*panel, "services").contains("not connected"));
    // No level is known any more: not an empty battery.
    EXPECT_EQ(battery->text(), "battery unknown");
    shot("05-lost");

    // Found again by itself: the camera comes back on, nothing to report.
    ASSERT_TRUE(waitFor([this] { return text(*panel, "connectionState").contains("Connected"); }));
    const int before = panel->camera()->imagesReceived();
    EXPECT_TRUE(waitFor([&] { return panel->camera()->imagesReceived() > before + 3; }));
    EXPECT_EQ(panel->errorsShown(), 0) << errorsListed(*panel);
    shot("06-reconnected");

    // Quit: the window goes once the robot has seen the desktop leave.
    panel->close();
    EXPECT_TRUE(panel->isVisible()) << "closed before the session was";
    ASSERT_TRUE(waitFor([this] { return !panel->isVisible(); }));
    EXPECT_TRUE(panel->isShutDown());
    EXPECT_FALSE(panel->manager().hasActiveWorkers());
    EXPECT_TRUE(waitFor([] { return robot().scenario().clients().empty(); }));
}

TEST_F(RobotPanelTest, RefusedReconnectionsAreOneError)
{
    RK::ConnectionTiming timing;
    timing.readinessStepMs = 10;
    timing.readinessLimitMs = 60;
    // Attempts close together: 80 ms before the first, at most 160 ms apart.
    timing.reconnectionTickMs = 40;
    timing.reconnectionFirstDelay = 2;
    timing.reconnectionMaxDelay = 4;
    panel->manager().setTiming(timing);
    connectPanel();
    int attempts = 0;
    QObject::connect(panel->manager().reconnectionManager(),
                     &RK::ReconnectionManager::reconnectionRequested, [&attempts] { ++attempts; });

    robot().scenario().holdReadiness();
    robot().scenario().dropClients();
    // Three attempts have failed once the fourth starts.
    ASSERT_TRUE(waitFor([&attempts] { return attempts >= 4; }));
    QListWidget *errors = child<QListWidget>(*panel, "errors");
    EXPECT_EQ(panel->errorsShown(), 1) << errorsListed(*panel);
    ASSERT_EQ(errors->count(), 1);
    const QString entry = errors->item(0)->text();
    EXPECT_TRUE(entry.startsWith("Reconnecting: Cannot connect to Morvane")) << entry.toStdString();
    const QRegularExpressionMatch times
        = QRegularExpression(QStringLiteral("\\((\\d+) times\\)$")).match(entry);
    ASSERT_TRUE(times.hasMatch()) << entry.toStdString();
    EXPECT_GE(times.captured(1).toInt(), 3);
    EXPECT_LE(times.captured(1).toInt(), attempts);
    EXPECT_TRUE(text(*panel, "reconnectionCountdown").contains("Morvane was not ready yet."))
        << text(*panel, "reconnectionCountdown").toStdString();
    shot("07-refused-reconnections");

    robot().scenario().releaseReadiness();
    ASSERT_TRUE(waitFor([this] { return text(*panel, "connectionState").contains("Connected"); }));
    EXPECT_EQ(panel->errorsShown(), 1) << errorsListed(*panel);
}

TEST_F(RobotPanelTest, ProjectRoundTripCancelAndBadInput)
{
    connectPanel();
    auto *files = robot().serviceAs<sim::PackageManagerService>("PackageManager");
    ASSERT_NE(files, nullptr);
    QTemporaryDir local;
    ASSERT_TRUE(local.isValid());
    QFile f(local.filePath(QStringLiteral("behavior.txt")));
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("a small project");
    f.close();
    QLineEdit *localEdit = child<QLineEdit>(*panel, "projectLocal");
    child<QLineEdit>(*panel, "projectRemote")->setText("/projects/round");
    const auto state = [this] { return text(*panel, "projectState"); };

    // Bad input: each is one error, and the pane stays usable.
    localEdit->setText(local.filePath(QStringLiteral("no such directory")));
    child<QPushButton>(*panel, "projectPush")->click();
    EXPECT_EQ(panel->errorsShown(), 1) << errorsListed(*panel);
    localEdit->setText(local.path()); // not empty: a pull never mixes into local files
    child<QPushButton>(*panel, "projectPull")->click();
    EXPECT_EQ(panel->errorsShown(), 2) << errorsListed(*panel);
    QListWidget *errors = child<QListWidget>(*panel, "errors");
    ASSERT_EQ(errors->count(), 2);
    EXPECT_TRUE(errors->item(0)->text().startsWith("Project: Cannot open the project"))
        << errors->item(0)->text().toStdString();
    EXPECT_TRUE(errors->item(1)->text().startsWith("Project: Cannot create the project"))
        << errors->item(1)->text().toStdString();

    // Pushed, then pulled back into a new directory: the same bytes.
    child<QPushButton>(*panel, "projectPush")->click();
    ASSERT_TRUE(waitFor([&] { return state() == "push: done"; })) << state().toStdString();
    const QString back = local.filePath(QStringLiteral("back"));
    localEdit->setText(back);
    child<QPushButton>(*panel, "projectPull")->click();
    ASSERT_TRUE(waitFor([&] { return state() == "pull: done"; })) << state().toStdString();
    QFile pulled(back + QStringLiteral("/behavior.txt"));
    ASSERT_TRUE(pulled.open(QIODevice::ReadOnly));
    EXPECT_EQ(pulled.readAll(), QByteArray("a small project"));

    // Cancelled while the robot holds the upload without answering.
    sim::HttpFault stall;
    stall.kind = sim::HttpFault::Kind::Stall;
    stall.method = "PUT";
    files->setHttpFault(stall);
    localEdit->setText(local.path());
    child<QPushButton>(*panel, "projectPush")->click();
    ASSERT_TRUE(waitFor([files] { return files->httpFaultsTaken() >= 1; }));
    QPushButton *cancel = child<QPushButton>(*panel, "projectCancel");
    EXPECT_TRUE(cancel->isEnabled());
    cancel->click();
    EXPECT_TRUE(waitFor([&] { return state() == "push: cancelled"; })) << state().toStdString();
    files->clearHttpFault();
    EXPECT_FALSE(cancel->isEnabled());
    EXPECT_TRUE(child<QPushButton>(*panel, "projectPush")->isEnabled());
    EXPECT_EQ(panel->errorsShown(), 2) << "a cancel is not an error";
}

TEST_F(RobotPanelTest, BehaviourStoppedByTheUser)
{
    connectPanel();
    // "User/idle" runs until it is stopped; the running list names it without
    // its "User/" prefix.
    panel->behaviors()->run(QStringLiteral("User/idle"));
    ASSERT_TRUE(waitFor([this] { return panel->behaviors()->stateHistory().contains("Running"); }))
        << panel->behaviors()->stateHistory().join(' ').toStdString();
    EXPECT_TRUE(waitFor([this] { return text(*panel, "behaviorRunning").contains("idle"); }))
        << text(*panel, "behaviorRunning").toStdString();
    child<QPushButton>(*panel, "behaviorStop")->click();
    EXPECT_TRUE(waitFor([this] {
        const QStringList h = panel->behaviors()->stateHistory();
        return h.indexOf("Stopped", h.indexOf("Running")) > 0;
    })) << panel->behaviors()->stateHistory().join(' ').toStdString();
    EXPECT_TRUE(waitFor([this] { return text(*panel, "behaviorRunning") == "running: none"; }))
        << text(*panel, "behaviorRunning").toStdString();
}

TEST_F(RobotPanelTest, RobotLogFilteredByLevelAndText)
{
    connectPanel();
    auto *logs = robot().serviceAs<sim::LogManagerService>("LogManager");
    ASSERT_NE(logs, nullptr);
    // The robot shares this process and its log: its chatter, at error level,
    // passes the process's filter; this process's standard error stays quiet.
    wz::log::setStderrEnabled(false);
    logs->setChatter({100, "sim.chatter", wz::LogLevel_Error});
    panel::LogPane *pane = panel->log();
    ASSERT_TRUE(waitFor([pane] { return pane->received() >= 5; }));
    logs->setChatter({0, "sim.chatter", wz::LogLevel_Error});

    pane->setFilter(6, QStringLiteral("CHATTER"));
    EXPECT_GE(pane->shown(), 5);
    EXPECT_TRUE(child<QPlainTextEdit>(*panel, "logView")->toPlainText().contains("sim.chatter"));
    pane->setFilter(6, QStringLiteral("no such text"));
    EXPECT_EQ(pane->shown(), 0);
    EXPECT_TRUE(child<QPlainTextEdit>(*panel, "logView")->toPlainText().isEmpty());
    pane->setFilter(1, QString()); // fatal only: the chatter is an error
    EXPECT_EQ(pane->shown(), 0);
    pane->setFilter(2, QStringLiteral("chatter"));
    EXPECT_GE(pane->shown(), 5);
    wz::log::setStderrEnabled(true);
}

} // namespace

int main(int argc, char **argv)
{
    // Headless unless told otherwise.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
