#pragma once

// A connection made by the manager to the shared robot, its desktop module
// interface, and a robot-side box: a module with an enable flag and an input
// method of one to six values, so that calls by name have something to reach.

#include "robot_fixture.h"

#include "connection_manager_p.h"
#include "connection_p.h"
#include "executer_thread_p.h"
#include "sartel_almodule_p.h"
#include "sartel_executer_p.h"
#include <connection/sartel_module.h>

#include <QMetaObject>
#include <QObject>

#include <vx/vxproxies.h>
#include <wz/log.h>

#include <sim/desktop_hooks.h>
#include <sim/frame_manager_service.h>
#include <sim/memory_service.h>
#include <sim/motion_service.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace test {

class BoxService : public sim::Service
{
public:
    static constexpr const char *kName = "TestBox";
    BoxService() : sim::Service(kName) { }
    void describe(sim::ServiceBuilder &b) override
    {
        b.method("_isEnabled", [this]() { return enabled.load(); });
        b.method("isEnabled", [this]() { return enabled.load(); });
        b.method("onInput_go", [](const wz::AnyValue &) {});
        b.method("onInput_go", [](const wz::AnyValue &, const wz::AnyValue &) {});
        b.method("onInput_go",
                 [](const wz::AnyValue &, const wz::AnyValue &, const wz::AnyValue &) {});
        b.method("onInput_go",
                 [](const wz::AnyValue &, const wz::AnyValue &, const wz::AnyValue &,
                    const wz::AnyValue &) {});
        b.method("onInput_go",
                 [](const wz::AnyValue &, const wz::AnyValue &, const wz::AnyValue &,
                    const wz::AnyValue &, const wz::AnyValue &) {});
        b.method("onInput_go",
                 [](const wz::AnyValue &, const wz::AnyValue &, const wz::AnyValue &,
                    const wz::AnyValue &, const wz::AnyValue &, const wz::AnyValue &) {});
    }
    std::atomic<bool> enabled {true};
};

class SartelTest : public RobotTest
{
public:
    // The shared robot, with the box beside the robot's own services.
    static void SetUpTestSuite()
    {
        sim::RobotOptions options;
        options.services = sim::defaultServices();
        options.services.push_back(
            sim::ServiceEntry {BoxService::kName, []() -> std::unique_ptr<sim::Service> {
                                   return std::make_unique<BoxService>();
                               }});
        startRobot(options);
    }

protected:
    void SetUp() override
    {
        RobotTest::SetUp();
        box().enabled = true;
        motion().resetPose();
    }

    void TearDown() override
    {
        module.reset();
        connection.reset();
        recorder.reset();
        RobotTest::TearDown();
    }

    // Connects with the manager (with `timing`) and takes the module
    // interface of the connection; the two-way test is left to run.
    void connect()
    {
        recorder = std::make_unique<Recorder>();
        recorder->manager->setTiming(timing);
        recorder->connectTo(robot());
        const QString established = QStringLiteral("connectionEstablished");
        ASSERT_TRUE(test::waitUntil([this, &established] {
            return recorder->count(established) > 0
                || recorder->count(QStringLiteral("disconnected")) > 0;
        }));
        ASSERT_EQ(recorder->count(established), 1) << recorder->events.join(", ").toStdString();
        connection = RK::currentConnection(*recorder->manager);
        ASSERT_TRUE(connection);
        module = recorder->manager->sartelModuleInterface();
        ASSERT_TRUE(module);
    }

    // Returns once every request emitted so far has run on the executer and
    // what it sent back has reached this thread's queue, then delivers it.
    // A synchronous call over this connection: what the module sent the
    // robot before has reached it when this returns.
    void robotRoundTrip() { ASSERT_TRUE(connection->memory()->getData("MorvaneReady").toBool()); }

    void drain()
    {
        QMetaObject::invokeMethod(
            module->executer(), [] {}, Qt::BlockingQueuedConnection);
        QMetaObject::invokeMethod(
            module.get(), [] {}, Qt::BlockingQueuedConnection);
        QCoreApplication::processEvents();
    }

    static BoxService &box() { return *robot().serviceAs<BoxService>(BoxService::kName); }
    static sim::MotionService &motion()
    {
        return *robot().serviceAs<sim::MotionService>(sim::MotionService::kName);
    }
    static sim::FrameManagerService &frames()
    {
        return *robot().serviceAs<sim::FrameManagerService>(sim::FrameManagerService::kName);
    }
    // Whether the robot's directory lists the service.
    static bool listed(const std::string &name)
    {
        const std::vector<wz::ServiceInfo> services = robot().session().services().value(5000);
        for (const wz::ServiceInfo &s : services) {
            if (s.name == name)
                return true;
        }
        return false;
    }
    static std::vector<sim::Args> calls(const char *service, const char *method)
    {
        return robot().scenario().calls(service, method);
    }
    static uint64_t callCount(const char *service, const char *method)
    {
        return robot().scenario().callCount(service, method);
    }

    RK::ConnectionTiming timing = quickTiming();
    std::unique_ptr<Recorder> recorder;
    boost::shared_ptr<RK::Connection> connection;
    boost::shared_ptr<RK::SartelModuleInterface> module;
};

} // namespace test
