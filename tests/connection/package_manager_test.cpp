// The package manager against the simulated robot, on both generations of
// its remote service.
#include "robot_fixture.h"

#include <connection/http_project_synchronizer.h>
#include <connection/package_manager_interface.h>

#include <sim/device_services.h>
#include <sim/memory_service.h>

#include <QFile>
#include <QFuture>
#include <QImage>
#include <QTemporaryDir>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

template<typename T>
T result(const QFuture<T> &future)
{
    EXPECT_TRUE(test::waitUntil([&] { return future.isFinished(); }));
    return future.result();
}

class PackageManagerTest : public test::RobotTest, public ::testing::WithParamInterface<int>
{
protected:
    void SetUp() override
    {
        RobotTest::SetUp();
        service = robot().serviceAs<sim::PackageManagerService>("PackageManager");
        service->clearPackages();
        service->clearHttpFault();
        service->setGeneration(GetParam());
        ASSERT_TRUE(recorder.connectAndWait(robot()));
        packages = recorder.manager->packageManagerInterface();
        ASSERT_TRUE(packages);
        QObject::connect(
            packages.get(), &RK::PackageManagerInterface::packageInstalled, recorder.manager.get(),
            [this](const wz::PackageInfo &p) { installed << QString::fromStdString(p.uuid()); });
        QObject::connect(
            packages.get(), &RK::PackageManagerInterface::packageRemoved, recorder.manager.get(),
            [this](const wz::PackageInfo &p) { removed << QString::fromStdString(p.uuid()); });
        // The micro event subscriptions are in place once one event has come
        // through; one raised before them is lost, so the probe is raised again
        // every few turns until one arrives.
        int turns = 0;
        ASSERT_TRUE(test::waitUntil([this, &turns] {
            if (removed.contains("probe"))
                return true;
            if (turns++ % 25 == 0)
                robot().memory().raiseMicroEvent(
                    "packageRemoved", wz::AnyValue(wz::AnyValue::Map {{"uuid", "probe"}}));
            return false;
        }));
        removed.clear();
    }
    void TearDown() override
    {
        service->clearHttpFault();
        packages.reset();
        recorder.disconnectAndWait();
        RobotTest::TearDown();
    }
    QString manifest(const QString &uuid, const QString &fileName = QString())
    {
        const QString path = dir.filePath(fileName.isEmpty() ? uuid + ".pkg" : fileName);
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(("uuid: " + uuid + "\nversion: 1.0\nname: App " + uuid + "\n").toUtf8());
        return path;
    }
    QString installFromRemote(const QString &source)
    {
        return result(packages->installFromRemote(&sync, source, QString()));
    }

    test::Recorder recorder;
    sim::PackageManagerService *service = nullptr;
    boost::shared_ptr<RK::PackageManagerInterface> packages;
    RK::HttpProjectSynchronizer sync;
    QTemporaryDir dir;
    QStringList installed, removed;
};

TEST_P(PackageManagerTest, InstallListIconAndRemove)
{
    EXPECT_EQ(installFromRemote(manifest("dance-42")), QString());
    EXPECT_EQ(installFromRemote(manifest("wave-7")), QString());
    ASSERT_TRUE(test::waitUntil([this] { return installed.size() == 2; }));
    EXPECT_EQ(installed, (QStringList {"dance-42", "wave-7"}));
    EXPECT_TRUE(service->openSessions().empty());

    const QVector<wz::PackageInfo> all = result(packages->getPackages());
    ASSERT_EQ(all.size(), 2);
    EXPECT_EQ(all[0].uuid(), "dance-42");
    EXPECT_EQ(result(packages->getPackage("wave-7")).uuid(), "wave-7");
    EXPECT_FALSE(result(packages->getPackage("nothing")).isValid());
    const QImage icon = result(packages->getPackageIcon("dance-42"));
    EXPECT_EQ(icon.size(), QSize(4, 4));
    EXPECT_TRUE(result(packages->getPackageIcon("nothing")).isNull());

    // Installed again: refused as already there, the session closed all the same.
    const QString again = installFromRemote(manifest("dance-42"));
    EXPECT_TRUE(again.startsWith(
        "An error occurred during application's installation: Package /sessions/appSync-"));
    EXPECT_TRUE(again.endsWith("/dance-42.pkg already installed."));
    EXPECT_TRUE(service->openSessions().empty());

    EXPECT_EQ(result(packages->remove("dance-42")), QString());
    ASSERT_TRUE(test::waitUntil([this] { return removed == QStringList {"dance-42"}; }));
    EXPECT_EQ(result(packages->remove("dance-42")),
              "An error occurred during application's uninstallation: Cannot remove dance-42");
    EXPECT_EQ(result(packages->removeSeveral({"wave-7"})), QStringList());
    EXPECT_EQ(result(packages->removeSeveral({"x", "y"})),
              (QStringList {"2 error(s) occurred during uninstallation", "x: remove failed",
                            "y: remove failed"}));
    EXPECT_TRUE(result(packages->getPackages()).isEmpty());
}

TEST_P(PackageManagerTest, InstallFailuresCloseTheSession)
{
    const auto opened
        = [] { return robot().scenario().callCount("PackageManager", "_openFileTransferSession"); };
    const uint64_t before = opened();
    EXPECT_EQ(installFromRemote(dir.filePath("missing.pkg")),
              "An error occurred during application's installation: Source file "
                  + dir.filePath("missing.pkg") + " doesn't exist");
    EXPECT_EQ(opened(), before);

    // A failed push.
    sim::HttpFault fault;
    fault.kind = sim::HttpFault::Kind::Status;
    fault.method = "PUT";
    fault.status = 507;
    fault.body = "full";
    service->setHttpFault(fault);
    EXPECT_EQ(
        installFromRemote(manifest("a")),
        "An error occurred during application's installation: Could not PUT file a.pkg:\nfull");
    EXPECT_TRUE(service->openSessions().empty());
    service->clearHttpFault();

    // A file the robot cannot install.
    QFile bad(dir.filePath("bad.pkg"));
    ASSERT_TRUE(bad.open(QIODevice::WriteOnly));
    bad.write("no uuid here\n");
    bad.close();
    const QString text = installFromRemote(bad.fileName());
    if (GetParam() == 1) {
        EXPECT_EQ(text, "An error occurred during application's installation: Installation failed");
    } else {
        EXPECT_TRUE(text.startsWith("An error occurred during application's installation: "));
        EXPECT_TRUE(text.endsWith("/bad.pkg has no valid uuid")) << text.toStdString();
    }
    EXPECT_TRUE(service->openSessions().empty());

    // A second install while one transfers is refused and leaves the first alone;
    // the first, held by the robot, ends by its synchronizer's cancel.
    fault.kind = sim::HttpFault::Kind::Stall;
    fault.times = 1;
    service->setHttpFault(fault);
    RK::HttpProjectSynchronizer other;
    const QFuture<QString> first = packages->installFromRemote(&sync, manifest("first"), QString());
    // Held by the robot: its server has taken the stalled request.
    ASSERT_TRUE(test::waitUntil([this] { return service->httpFaultsTaken() == 1; }));
    EXPECT_EQ(result(packages->installFromRemote(&other, manifest("second"), QString())),
              "An error occurred during application's installation: Another transfer task is "
              "already running");
    EXPECT_FALSE(first.isFinished());
    sync.cancel();
    EXPECT_EQ(result(first), "An error occurred during application's installation: cancelled");
    EXPECT_TRUE(service->openSessions().empty());
    EXPECT_EQ(installFromRemote(manifest("first")), QString());

    // Installing a file already on the robot.
    const fs::path store = service->storeDir();
    fs::create_directories(store / "pkgs");
    std::ofstream(store / "pkgs/c.pkg") << "uuid: c\n";
    EXPECT_EQ(result(packages->install("/pkgs/c.pkg", "", "")), QString());
    EXPECT_EQ(result(packages->install("/pkgs/c.pkg", "", "")),
              "An error occurred during application's installation: Package /pkgs/c.pkg already "
              "installed.");
}

// The upload has a connection of its own, which the session's end does not
// cut: a disconnection during it cancels it rather than wait for the robot.
TEST_P(PackageManagerTest, ADisconnectionCancelsAnUploadTheRobotHolds)
{
    sim::HttpFault fault;
    fault.method = "PUT";
    fault.kind = sim::HttpFault::Kind::Stall;
    fault.times = 1;
    service->setHttpFault(fault);
    const QFuture<QString> install
        = packages->installFromRemote(&sync, manifest("held"), QString());
    ASSERT_TRUE(test::waitUntil([this] { return service->httpFaultsTaken() == 1; }));
    // The application lets go of the interface; the connection ends it.
    packages.reset();
    recorder.disconnectAndWait();
    EXPECT_EQ(result(install), "An error occurred during application's installation: cancelled");
    EXPECT_TRUE(installed.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Generations, PackageManagerTest, ::testing::Values(1, 2));

} // namespace
