#include "robot_fixture.h"
#include "service_table_p.h"

#include "connection_manager_p.h"
#include "connection_p.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTcpServer>

#include <vx/vxproxies.h>
#include <wz/log.h>

#include <sim/memory_service.h>
#include <sim/service.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using test::Recorder;

namespace {

const QString k_cannotConnect = QStringLiteral("Cannot connect to Morvane");
const QString k_interrupted = QStringLiteral(
    "Morvane disconnected unexpectedly. Verify your network and make sure that no other "
    "Morvane is running.");

class ConnectionManagerTest : public test::RobotTest
{
};

// A port on which nobody listens: taken from the system, then given back.
int closedPort()
{
    QTcpServer server;
    EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    const int port = server.serverPort();
    server.close();
    return port;
}

TEST_F(ConnectionManagerTest, SuccessSequenceAndRequestedDisconnection)
{
    Recorder r;
    RK::ConnectionManager &m = *r.manager;
    EXPECT_TRUE(m.wasDisconnectionRequested());
    EXPECT_FALSE(m.isConnected());

    r.connectTo(robot(), QStringLiteral("pelvon"));
    EXPECT_TRUE(m.isConnecting());
    ASSERT_TRUE(test::waitUntil([&] { return r.tested() == 1; }));
    // The outcome of the two-way test is told after the connection itself;
    // without the desktop module the test fails at once.
    ASSERT_EQ(r.events.size(), 4);
    EXPECT_EQ(r.events.mid(0, 3),
              (QStringList {"connecting(true)", "connectionEstablished", "connecting(false)"}));
    if (!m.sartelModuleInterface()) {
        EXPECT_EQ(r.events[3], QStringLiteral("connectionTested(false)"));
    }
    EXPECT_TRUE(m.isConnected());
    EXPECT_FALSE(m.isConnecting());
    EXPECT_FALSE(m.wasDisconnectionRequested());

    QString ip;
    int port = 0;
    QString name;
    ASSERT_TRUE(m.getCurrentConnection(ip, port, name));
    EXPECT_EQ(ip, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(port, robotPort());
    EXPECT_EQ(name, QStringLiteral("pelvon"));
    EXPECT_TRUE(m.match(ip, port));
    EXPECT_FALSE(m.match(ip, port + 1));
    EXPECT_FALSE(m.match(QString(), port));
    EXPECT_EQ(m.morvaneVersion(), QString::fromStdString(robot().memory().version()));
    EXPECT_TRUE(m.currentConnectionHasDCM());
    EXPECT_TRUE(m.currentConnectionHasAudioDevice());
    std::string httpIp;
    int httpPort = 0;
    ASSERT_TRUE(m.getCurrentConnectionHttp(httpIp, httpPort));
    EXPECT_EQ(httpIp, "127.0.0.1");
    EXPECT_EQ(httpPort, robot().httpTransferPort());
    ASSERT_TRUE(RK::currentConnection(m));
    EXPECT_TRUE(m.missingServices().isEmpty()) << m.missingServices().join(", ").toStdString();
    EXPECT_EQ(m.boundServices().size(), 23);
    EXPECT_EQ(m.boundServices(), RK::currentConnection(m)->boundServices());
    // The worker keeps its thread for as long as the connection lives.
    ASSERT_EQ(r.workerCount(), 1);
    EXPECT_TRUE(r.threadsManager()->threads().first()->workerThread()->isRunning());
    EXPECT_EQ(RK::currentConnection(m)->thread(),
              r.threadsManager()->threads().first()->workerThread());
    EXPECT_EQ(robot().scenario().clients().size(), 1u);

    r.events.clear();
    m.disconnectBroker();
    EXPECT_EQ(r.events, (QStringList {"disconnected"}));
    EXPECT_TRUE(m.wasDisconnectionRequested());
    EXPECT_FALSE(m.isConnected());
    EXPECT_FALSE(RK::currentConnection(m));
    EXPECT_TRUE(m.boundServices().isEmpty());
    EXPECT_TRUE(m.missingServices().isEmpty());
    EXPECT_FALSE(m.getCurrentConnection(ip, port));
    EXPECT_FALSE(m.checkMorvaneCompatibility(ip, name));
    EXPECT_TRUE(m.morvaneVersion().isEmpty());

    // The closing itself happens afterwards, on the worker.
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
    EXPECT_TRUE(test::waitUntil([] { return robot().scenario().clients().empty(); }));

    QString lastIp;
    int lastPort = 0;
    QString lastName;
    m.getLastConnectionInfo(lastIp, lastPort, lastName);
    EXPECT_EQ(lastIp, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(lastPort, robotPort());
    EXPECT_EQ(lastName, QStringLiteral("pelvon"));
}

TEST_F(ConnectionManagerTest, DisconnectWithoutConnectionStillReports)
{
    Recorder r;
    r.manager->disconnectBroker();
    EXPECT_EQ(r.events, (QStringList {"disconnected"}));
    EXPECT_TRUE(r.manager->wasDisconnectionRequested());
    EXPECT_FALSE(r.manager->robotStateReceiver());
    EXPECT_FALSE(r.manager->basicAwarenessInterface());
}

// Releasing the interfaces one by one leaves the log listener and basic
// awareness to the connection's own end, so that their last events arrive.
TEST_F(ConnectionManagerTest, ReleasingTheInterfacesKeepsTheLastListeners)
{
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    const boost::shared_ptr<RK::Connection> c = RK::currentConnection(*r.manager);
    ASSERT_TRUE(c);
    ASSERT_TRUE(c->basicAwarenessInterface());
    ASSERT_TRUE(c->autonomousLifeInterface());
    ASSERT_TRUE(c->peoplePerceptionInterface());
    c->destroyInterfaces();
    EXPECT_TRUE(c->logListenerInterface());
    EXPECT_TRUE(c->basicAwarenessInterface());
    EXPECT_FALSE(c->memoryInterface());
    EXPECT_FALSE(c->recorderModule());
    EXPECT_FALSE(c->videoDeviceInterface());
    EXPECT_FALSE(c->packageManagerInterface());
    EXPECT_FALSE(c->autonomousLifeInterface());
    EXPECT_FALSE(c->engagementZonesInterface());
    EXPECT_FALSE(c->peoplePerceptionInterface());
    // The manager reads the same fields.
    EXPECT_FALSE(r.manager->memoryInterface());
    EXPECT_TRUE(r.manager->logListenerInterface());
}

TEST_F(ConnectionManagerTest, UnreachableRobot)
{
    Recorder r;
    r.manager->connectRemoteBroker("127.0.0.1", closedPort(), QStringLiteral("nobody"));
    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected")));
    EXPECT_EQ(r.events,
              (QStringList {"connecting(true)", "displayErrorRequested", "connecting(false)",
                            "disconnected"}));
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].title, QStringLiteral("ConnectionError"));
    EXPECT_EQ(r.errors[0].contents, k_cannotConnect);
    EXPECT_FALSE(r.errors[0].details.isEmpty());
    EXPECT_FALSE(r.errors[0].checkWarningEnable);
    EXPECT_TRUE(r.manager->wasDisconnectionRequested());
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
}

TEST_F(ConnectionManagerTest, BadPortFailsTheAttempt)
{
    Recorder r;
    r.manager->connectRemoteBroker("127.0.0.1", 70000);
    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected")));
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_TRUE(r.errors[0].details.contains(QStringLiteral("70000")));
}

TEST_F(ConnectionManagerTest, SessionLostWhileWaitingForReadiness)
{
    robot().scenario().holdReadiness();
    Recorder r;
    r.connectTo(robot());
    // The worker is asking for the key: the robot is there but not ready.
    ASSERT_TRUE(robot().scenario().waitForCalls("VXMemory", "getData", 1, test::patience()));
    robot().scenario().dropClients();

    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected")));
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].contents, k_cannotConnect);
    EXPECT_EQ(r.errors[0].details, k_interrupted);
    EXPECT_EQ(r.count(QStringLiteral("connectionEstablished")), 0);
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
}

TEST_F(ConnectionManagerTest, ExceptionWhileBuildingFailsTheAttempt)
{
    robot().scenario().failMethod("VXMemory", "version", "version store unreadable");
    wz::log::LogCapture logs;
    Recorder r;
    r.connectTo(robot());
    ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected")));
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].title, QStringLiteral("ConnectionError"));
    EXPECT_EQ(r.errors[0].contents, k_cannotConnect);
    EXPECT_TRUE(r.errors[0].details.contains(QStringLiteral("version store unreadable")))
        << r.errors[0].details.toStdString();
    EXPECT_TRUE(logs.contains(wz::LogLevel_Error, "Connection",
                              "No proxy on VXMemory cannot check version compatibility"));
    EXPECT_EQ(r.count(QStringLiteral("connectionEstablished")), 0);
    // The half-built connection and its session are gone with the attempt.
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
    EXPECT_TRUE(test::waitUntil([] { return robot().scenario().clients().empty(); }));
}

// Ten attempts to ten robots that take the link and never answer: each
// would hold its place until the heartbeat gives up on it.
TEST_F(ConnectionManagerTest, TenWorkersAtMostAndTheEleventhIsRefused)
{
    std::vector<std::unique_ptr<QTcpServer>> silent;
    Recorder r;
    for (int i = 0; i < 10; ++i) {
        silent.push_back(std::make_unique<QTcpServer>());
        ASSERT_TRUE(silent.back()->listen(QHostAddress::LocalHost, 0));
        r.manager->connectRemoteBroker("127.0.0.1", silent.back()->serverPort(),
                                       QStringLiteral("attempt %1").arg(i));
    }
    EXPECT_EQ(r.workerCount(), 10);
    EXPECT_EQ(r.count(QStringLiteral("connecting(true)")), 1);

    r.connectTo(robot(), QStringLiteral("eleventh"));
    EXPECT_EQ(r.workerCount(), 10) << "no thread for the eleventh attempt";
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].title, QStringLiteral("ConnectionError"));
    EXPECT_EQ(r.errors[0].contents, k_cannotConnect);
    EXPECT_EQ(r.errors[0].details,
              QStringLiteral("Too much parallel connections, please wait a while"));
    EXPECT_FALSE(r.errors[0].checkWarningEnable);
    // A refusal is no teardown: the manager still says it is connecting.
    EXPECT_TRUE(r.manager->isConnecting());
    EXPECT_EQ(r.count(QStringLiteral("disconnected")), 0);

    // Abandoned, every attempt ends at once, silently, and frees its place:
    // far sooner than the heartbeat would have given up on those robots.
    r.manager->disconnectBroker();
    EXPECT_FALSE(r.manager->isConnecting());
    ASSERT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
    EXPECT_EQ(r.count(QStringLiteral("connectionEstablished")), 0);
    EXPECT_EQ(r.count(QStringLiteral("disconnected")), 1);
    EXPECT_EQ(r.errors.size(), 1u);
    EXPECT_FALSE(RK::currentConnection(*r.manager));
    ASSERT_TRUE(r.connectAndWait(robot()));
    EXPECT_EQ(r.errors.size(), 1u);
}

TEST_F(ConnectionManagerTest, DisconnectDuringAnAttempt)
{
    robot().scenario().holdReadiness();
    Recorder r;
    r.connectTo(robot());
    ASSERT_TRUE(robot().scenario().waitForCalls("VXMemory", "getData", 1, test::patience()));
    r.manager->disconnectBroker();
    EXPECT_EQ(r.events, (QStringList {"connecting(true)", "connecting(false)", "disconnected"}));
    EXPECT_TRUE(r.manager->wasDisconnectionRequested());

    robot().scenario().releaseReadiness();
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
    EXPECT_TRUE(test::waitUntil([] { return robot().scenario().clients().empty(); }));
    EXPECT_EQ(r.events, (QStringList {"connecting(true)", "connecting(false)", "disconnected"}));
    EXPECT_FALSE(RK::currentConnection(*r.manager));
}

// Two attempts run side by side, to two robots (two attempts to one robot
// would compete for the names of the desktop's own services).
TEST_F(ConnectionManagerTest, TwoAttemptsSideBySideTheLaterSuccessWins)
{
    sim::Robot other;
    other.start();
    Recorder r;
    r.connectTo(robot(), QStringLiteral("first"));
    r.manager->connectRemoteBroker(other.url().host(), other.url().port(),
                                   QStringLiteral("second"));
    EXPECT_EQ(r.workerCount(), 2);
    ASSERT_TRUE(
        test::waitUntil([&] { return r.count(QStringLiteral("connectionEstablished")) == 2; }));
    EXPECT_TRUE(r.manager->isConnected());
    EXPECT_FALSE(r.manager->isConnecting());

    // The later success holds the fields; the earlier connection was torn
    // down by its own worker, and the end of its session is not taken for a
    // loss.
    QString ip;
    int port = 0;
    ASSERT_TRUE(r.manager->getCurrentConnection(ip, port));
    sim::Robot &kept = port == robotPort() ? robot() : other;
    sim::Robot &released = port == robotPort() ? other : robot();
    EXPECT_TRUE(test::waitUntil([&] { return released.scenario().clients().empty(); }));
    EXPECT_EQ(kept.scenario().clients().size(), 1u);
    // The released worker is gone, and what it told this thread has come.
    ASSERT_TRUE(test::waitUntil([&] { return r.workerCount() == 1; }));
    ASSERT_TRUE(test::barrier(r.manager.get()));
    EXPECT_EQ(r.count(QStringLiteral("connectionLost")), 0);
    EXPECT_EQ(r.count(QStringLiteral("disconnected")), 0);
    EXPECT_TRUE(r.manager->isConnected());

    // The remaining worker closes what it built.
    ASSERT_TRUE(r.disconnectAndWait());
    EXPECT_EQ(r.count(QStringLiteral("disconnected")), 1);
    EXPECT_TRUE(test::waitUntil([&] { return kept.scenario().clients().empty(); }));
}

TEST_F(ConnectionManagerTest, AFailedSecondAttemptLeavesTheWorkingConnectionAlone)
{
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    r.events.clear();
    r.manager->connectRemoteBroker("127.0.0.1", closedPort(), QStringLiteral("nobody"));
    ASSERT_TRUE(r.waitFor(QStringLiteral("connecting(false)")));
    EXPECT_EQ(r.events,
              (QStringList {"connecting(true)", "displayErrorRequested", "connecting(false)"}));
    EXPECT_TRUE(r.manager->isConnected());
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 1; }));
    EXPECT_EQ(robot().scenario().clients().size(), 1u);
    EXPECT_TRUE(RK::currentConnection(*r.manager)->memory()->getData("MorvaneReady").toBool());
}

TEST_F(ConnectionManagerTest, LossAfterSuccess)
{
    wz::log::LogCapture logs;
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    r.events.clear();
    robot().scenario().dropClients();

    ASSERT_TRUE(r.waitFor(QStringLiteral("connectionLost")));
    EXPECT_EQ(r.events, (QStringList {"disconnected", "connectionLost"}));
    EXPECT_FALSE(r.manager->wasDisconnectionRequested());
    EXPECT_FALSE(r.manager->isConnected());
    EXPECT_TRUE(r.errors.empty());
    EXPECT_TRUE(
        logs.contains(wz::LogLevel_Info, "con.connection", "Connection was lost with the robot: "));
    EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
}

// The loss of a session is told to the manager's thread in a queued call. When
// the application disconnects and connects elsewhere before that call runs,
// the report belongs to a session already let go: it must not tear down the
// new attempt nor tell a second end.
TEST_F(ConnectionManagerTest, ALossToldAfterTheApplicationDisconnectedIsDropped)
{
    sim::Robot other;
    other.start();
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    const boost::shared_ptr<wz::Session> session
        = RK::ConnectionManagerPrivate::get(r.manager.get())->session;
    // Behind the manager's own listener, so the report is queued when it fires.
    auto told = std::make_shared<std::promise<void>>();
    auto once = std::make_shared<std::atomic<bool>>(false);
    const wz::SignalLink link = session->disconnected.connect([told, once](const std::string &) {
        if (!once->exchange(true))
            told->set_value();
    });
    r.events.clear();
    robot().scenario().dropClients();
    ASSERT_EQ(told->get_future().wait_for(test::patience()), std::future_status::ready);

    // Without running this thread's events in between.
    r.manager->disconnectBroker();
    r.connectTo(other, QStringLiteral("other"));
    ASSERT_TRUE(r.waitFor(QStringLiteral("connectionEstablished")));
    ASSERT_TRUE(test::barrier(r.manager.get()));
    EXPECT_EQ(r.count(QStringLiteral("disconnected")), 1);
    EXPECT_EQ(r.count(QStringLiteral("connectionLost")), 0);
    EXPECT_TRUE(r.manager->isConnected());
    QString ip;
    int port = 0;
    ASSERT_TRUE(r.manager->getCurrentConnection(ip, port));
    EXPECT_EQ(port, other.url().port());
    session->disconnected.disconnect(link);
    ASSERT_TRUE(r.disconnectAndWait());
}

// The robot's connection dies at several points of the binding: every time
// the attempt ends in the failure message, never in a hang or a crash.
TEST_F(ConnectionManagerTest, ConnectionKilledDuringBinding)
{
    const std::pair<const char *, const char *> points[] = {
        {"LogManager", "getListener"},
        {"VXBattery", "getBatteryCharge"},
        {"PackageManager", "_getHttpTransferPort"},
        {"VXMemory", "version"},
    };
    for (const auto &point : points) {
        SCOPED_TRACE(std::string(point.first) + "." + point.second);
        robot().scenario().reset();
        robot().scenario().delayMethod(point.first, point.second, 300ms);
        const uint64_t before = robot().scenario().callCount(point.first, point.second);
        Recorder r;
        r.connectTo(robot());
        ASSERT_TRUE(robot().scenario().waitForCalls(point.first, point.second, before + 1,
                                                    test::patience()));
        robot().scenario().dropClients();

        ASSERT_TRUE(r.waitFor(QStringLiteral("disconnected"))) << r.events.join(", ").toStdString();
        EXPECT_EQ(r.count(QStringLiteral("connectionEstablished")), 0);
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0].contents, k_cannotConnect);
        EXPECT_TRUE(test::waitUntil([&] { return r.workerCount() == 0; }));
    }
}

TEST_F(ConnectionManagerTest, MissingRequiredServicesAreReportedWithTheOptionalOnes)
{
    robot().scenario().omitService("VXFrameManager");
    robot().scenario().omitService("VXResourceManager");
    robot().scenario().omitService("LogManager");
    robot().scenario().omitService("VXDialog");
    robot().scenario().omitService("VXBattery");
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    r.errors.clear();
    r.manager->checkAvailableModules();
    ASSERT_EQ(r.errors.size(), 1u);
    EXPECT_EQ(r.errors[0].title, QStringLiteral("Error"));
    EXPECT_EQ(r.errors[0].contents,
              QStringLiteral("Some modules are missing, some features may not fully work"));
    EXPECT_EQ(r.errors[0].details.toStdString(),
              "- VXFrameManager: Behaviors cannot be executed.\n"
              "- LogManager\n"
              " - VXResourceManager: The resource explorer will not work as expected.\n"
              "- VXBattery (optional): You will not be able to use it...\n"
              "- VXDialog (optional): You will not be able to simulate speech recognition using "
              "Dialog widget...\n");
    EXPECT_TRUE(r.errors[0].checkWarningEnable);
}

TEST_F(ConnectionManagerTest, MissingOptionalServicesAloneAreNotReported)
{
    for (const char *name :
         {"VXMotionRecorder", "VXVideoDevice", "VXRobotPosture", "VXMemoryWatcher", "VXAudioDevice",
          "VXTextToSpeech", "VXBattery", "VXLauncher", "VXDialog", "VXWorldRepresentation"})
        robot().scenario().omitService(name);
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    EXPECT_FALSE(r.manager->currentConnectionHasAudioDevice());
    EXPECT_EQ(r.manager->missingServices(),
              (QStringList {"VXMotionRecorder", "VXVideoDevice", "VXRobotPosture",
                            "VXMemoryWatcher", "VXAudioDevice", "VXTextToSpeech", "VXBattery",
                            "VXLauncher", "VXDialog", "VXWorldRepresentation"}));
    // Interfaces that need their service are not built without it; the others are.
    EXPECT_FALSE(r.manager->videoDeviceInterface());
    EXPECT_FALSE(r.manager->robotPostureInterface());
    EXPECT_FALSE(r.manager->dialogInterface());
    EXPECT_FALSE(r.manager->worldRepresentationInterface());
    EXPECT_TRUE(r.manager->audioInterface());
    EXPECT_TRUE(r.manager->batteryInterface());
    EXPECT_TRUE(r.manager->launcherInterface());
    EXPECT_TRUE(r.manager->packageManagerInterface());
    r.errors.clear();
    r.manager->checkAvailableModules();
    EXPECT_TRUE(r.errors.empty());
}

// (Without VXMemory no robot can say that it is ready, so its line is never
// seen on a connection.)
TEST_F(ConnectionManagerTest, EveryRequiredServiceHasItsLine)
{
    const std::pair<const char *, const char *> rows[] = {
        {"VXBehaviorManager", "- VXBehaviorManager: Behaviors cannot be executed.\n"},
        {"VXRobotModel", "- VXRobotModel: The motion module may not work as expected.\n"},
        {"VXMotion", "- VXMotion: The robot will not move...\n"},
        {"VXPreferences", "- VXPreferences\n"},
        {"PackageManager",
         "- PackageManager: You will not be able to send application to the robot...\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.first);
        robot().scenario().reset();
        robot().scenario().omitService(row.first);
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        r.errors.clear();
        r.manager->checkAvailableModules();
        ASSERT_EQ(r.errors.size(), 1u);
        EXPECT_EQ(r.errors[0].details.toStdString(), row.second);
    }
}

TEST_F(ConnectionManagerTest, BatteryIsKeptOnlyIfItAnswers)
{
    {
        robot().scenario().omitService("VXBattery");
        wz::log::LogCapture logs;
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        EXPECT_FALSE(RK::currentConnection(*r.manager)->batteryDevice());
        EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection",
                                  "Error while creating proxy to VXBattery:\n"));
        EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection",
                                  "trying to connect to Sentinel instead..."));
    }
    {
        robot().scenario().reset();
        robot().scenario().failMethod("VXBattery", "getBatteryCharge", "gauge not calibrated");
        const uint64_t before = robot().scenario().callCount("VXBattery", "getBatteryCharge");
        wz::log::LogCapture logs;
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        EXPECT_FALSE(RK::currentConnection(*r.manager)->batteryDevice());
        EXPECT_EQ(robot().scenario().callCount("VXBattery", "getBatteryCharge"), before + 1);
        EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection", "gauge not calibrated"));
        EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection",
                                  "trying to connect to Sentinel instead..."));
    }
    {
        robot().scenario().reset();
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        EXPECT_TRUE(RK::currentConnection(*r.manager)->batteryDevice());
    }
}

TEST_F(ConnectionManagerTest, HttpTransferPortFollowsThePackageManager)
{
    {
        robot().scenario().omitService("PackageManager");
        wz::log::LogCapture logs;
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        std::string ip;
        int port = -1;
        ASSERT_TRUE(r.manager->getCurrentConnectionHttp(ip, port));
        EXPECT_EQ(port, 0) << "never assigned without a package manager";
        EXPECT_TRUE(logs.contains(wz::LogLevel_Warning, "con.connection",
                                  "Error while creating proxy to PackageManager:\n"));
    }
    {
        robot().scenario().reset();
        robot().scenario().removeMethod("PackageManager", "_getHttpTransferPort");
        wz::log::LogCapture logs;
        Recorder r;
        ASSERT_TRUE(r.connectAndWait(robot()));
        EXPECT_TRUE(RK::currentConnection(*r.manager)->packageManager());
        std::string ip;
        int port = -1;
        ASSERT_TRUE(r.manager->getCurrentConnectionHttp(ip, port));
        EXPECT_EQ(port, robotPort()) << "an older package manager: the session's port";
        EXPECT_FALSE(logs.contains("con.connection", "PackageManager"));
    }
}

TEST_F(ConnectionManagerTest, MissingServicesAreLoggedAtTheirLevel)
{
    robot().scenario().omitService("VXFrameManager");
    robot().scenario().omitService("VXResourceManager");
    robot().scenario().omitService("VXVideoDevice");
    robot().scenario().omitService("VXWorldRepresentation");
    wz::log::LogCapture logs;
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    EXPECT_TRUE(logs.contains(wz::LogLevel_Warning, "con.connection",
                              "Error while creating proxy to VXFrameManager:\n"));
    EXPECT_TRUE(logs.contains(wz::LogLevel_Warning, "con.connection",
                              "Error while creating proxy to VXResourcesManager:\n"));
    EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection",
                              "Error while creating proxy to VXVideoDevice:\n"));
    EXPECT_TRUE(logs.contains(wz::LogLevel_Info, "con.connection",
                              "Error while creating proxy to VXWorldRepresentation:\n"));
    // The text of the failure follows, naming the service.
    const auto lines = logs.find("con.connection", "VXFrameManager:\n");
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.front().message.find("VXFrameManager\" not found"), std::string::npos)
        << lines.front().message;
    const boost::shared_ptr<RK::Connection> c = RK::currentConnection(*r.manager);
    EXPECT_FALSE(c->frameManager());
    EXPECT_FALSE(c->worldRepresentation());
    EXPECT_TRUE(c->missingServices().contains(QStringLiteral("VXResourceManager")));
}

TEST_F(ConnectionManagerTest, VersionCompatibility)
{
    const std::string original = robot().memory().version();
    robot().memory().setVersion("2.1.2.17");
    const QString appVersion = QCoreApplication::applicationVersion();
    Recorder r;
    ASSERT_TRUE(r.connectAndWait(robot()));
    EXPECT_EQ(r.manager->morvaneVersion(), QStringLiteral("2.1.2.17"));

    const struct
    {
        const char *client;
        bool compatible;
        bool warned;
    } cases[] = {
        {"2.1.2-rc1", true, false}, // the fourth field is never looked at
        {"2.1.2", true, false},
        {"2.1.3", true, true}, // a third field apart: tolerated, with a warning
        {"2.2.0", false, true}, // a second field apart: refused
        {"3.1.2", false, true},
        {"2.1", true, true}, // fewer fields: compared as they are
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.client);
        QCoreApplication::setApplicationVersion(QString::fromLatin1(c.client));
        wz::log::LogCapture logs;
        QString client;
        QString robotVersion;
        EXPECT_EQ(r.manager->checkMorvaneCompatibility(client, robotVersion), c.compatible);
        EXPECT_EQ(client, QString::fromLatin1(c.client));
        EXPECT_EQ(robotVersion, QStringLiteral("2.1.2.17"));
        EXPECT_EQ(logs.contains(wz::LogLevel_Warning, "con.connection", "Client version "),
                  c.warned);
    }
    QCoreApplication::setApplicationVersion(QStringLiteral("2.1.3"));
    wz::log::LogCapture logs;
    QString client;
    QString robotVersion;
    r.manager->checkMorvaneCompatibility(client, robotVersion);
    EXPECT_TRUE(logs.contains(wz::LogLevel_Warning, "con.connection",
                              "Client version 2.1.3 connected to Morvane version 2.1.2"));

    QCoreApplication::setApplicationVersion(appVersion);
    robot().memory().setVersion(original);
}

} // namespace

namespace {

// The robot is an independent peer with its own catalogue; the two must still
// agree on what a connection binds, or a service silently stays unbound.
TEST(ServiceTable, NamesTheServicesTheSimulatedRobotOffers)
{
    std::set<std::string> bound;
    for (const RK::ServiceRow &row : RK::k_serviceTable)
        EXPECT_TRUE(bound.insert(row.name).second) << row.name << " has two rows";

    std::set<std::string> offered;
    for (const sim::ServiceEntry &entry : sim::defaultServices())
        offered.insert(entry.name);
    // Asked of the session directly, at the moment they are needed.
    for (const char *direct : {"DCM", "VXAutonomousLife", "VXAnimatedSpeech"})
        offered.erase(direct);

    EXPECT_EQ(bound, offered);
    EXPECT_EQ(bound.size(), 23u);
}

} // namespace
