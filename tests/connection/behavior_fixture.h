#pragma once

// A connected application and the simulated robot's behaviour services, with
// short behaviours installed for each case.

#include "robot_fixture.h"

#include <connection/autonomous_life_interface.h>
#include <connection/behavior_instance_manager.h>
#include <connection/behavior_manager_interface.h>

#include <sim/behavior_manager_service.h>
#include <sim/memory_service.h>

#include <QFuture>
#include <QFutureWatcher>

namespace test {

// Runs until the future has finished, without blocking the loop it needs.
template<typename T>
bool waitForFuture(const QFuture<T> &future, std::chrono::milliseconds deadline = test::patience())
{
    return test::waitUntil([&future] { return future.isFinished(); }, deadline);
}

class BehaviorTest : public RobotTest
{
protected:
    void SetUp() override
    {
        RobotTest::SetUp();
        behaviors().reset();
        life().setState("disabled");
        // Without nature, and with one; both run until stopped.
        behaviors().install("plain",
                            "length forever\n"
                            "box Say in onStart out said\n"
                            "timeline Main fps 50 frames 1000\n"
                            "output 0.05 Say said hi\n"
                            "answer Say onStart said\n");
        behaviors().install("lively", "nature interactive\nlength forever\nbox Arm in go\n");
    }
    void TearDown() override
    {
        app.reset();
        behaviors().reset();
        life().setState("disabled");
        RobotTest::TearDown();
    }
    void connect()
    {
        app = std::make_unique<Recorder>();
        ASSERT_TRUE(app->connectAndWait(robot()));
        // The connection is announced only once the interfaces' event
        // subscriptions have reached the robot: an event raised before them
        // would be lost. So they are there already, with no wait.
        ASSERT_TRUE(([] {
            const bool life = !robot().scenario().isOmitted("VXAutonomousLife");
            for (const char *key : {"BehaviorsRun", "VXBehaviorManager/BehaviorAdded",
                                    "VXBehaviorManager/BehaviorRemoved",
                                    "VXBehaviorManager/BehaviorFailed", "AutonomousLife/State"}) {
                const bool lifeKey = std::string(key) == "AutonomousLife/State";
                if ((life || !lifeKey) && robot().memory().subscribers(key).empty())
                    return false;
            }
            return true;
        })());
    }
    static sim::BehaviorManagerService &behaviors()
    {
        return *robot().serviceAs<sim::BehaviorManagerService>("VXBehaviorManager");
    }
    static sim::AutonomousLifeService &life()
    {
        return *robot().serviceAs<sim::AutonomousLifeService>("VXAutonomousLife");
    }
    RK::ConnectionManager *manager() const { return app->manager.get(); }

    std::unique_ptr<Recorder> app;
};

// Every state an instance goes through, in order.
struct StateLog
{
    explicit StateLog(RK::BehaviorInstanceManager *instance)
    {
        QObject::connect(instance, &RK::BehaviorInstanceManager::stateChanged,
                         [this](RK::BehaviorInstanceManager::State s) { states.push_back(s); });
    }
    bool waitFor(RK::BehaviorInstanceManager::State s,
                 std::chrono::milliseconds deadline = test::patience())
    {
        return test::waitUntil(
            [this, s] { return std::find(states.begin(), states.end(), s) != states.end(); },
            deadline);
    }
    // For a failed wait: the states seen, as numbers in the enum's order.
    std::string seen() const
    {
        std::string text;
        for (RK::BehaviorInstanceManager::State s : states)
            text += std::to_string(static_cast<int>(s)) + ' ';
        return text;
    }
    std::vector<RK::BehaviorInstanceManager::State> states;
};

} // namespace test
