#pragma once

// One simulated robot for a whole test suite: cases share it, so that the
// suite pays for one start and one stop.

#include <sim/robot.h>

#include <gtest/gtest.h>

namespace test {

class SharedRobotTest : public ::testing::Test
{
public:
    static void SetUpTestSuite() { startRobot(sim::RobotOptions()); }
    static void TearDownTestSuite()
    {
        delete s_robot;
        s_robot = nullptr;
    }

protected:
    static sim::Robot &robot() { return *s_robot; }
    // For a suite whose robot offers something of its own.
    static void startRobot(const sim::RobotOptions &options)
    {
        s_robot = new sim::Robot(options);
        s_robot->start();
    }

private:
    inline static sim::Robot *s_robot = nullptr;
};

} // namespace test
