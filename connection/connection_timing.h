#pragma once

namespace RK {

// The time limits and polling periods of a connection, in milliseconds. The
// defaults are the ones the library is made for; tests shorten them so as
// not to wait them out. A connection takes a copy when its attempt starts.
struct ConnectionTiming
{
    // The robot's "MorvaneReady" is asked once a step until the limit; then
    // the attempt fails with "Morvane was not ready yet.".
    int readinessStepMs = 250;
    int readinessLimitMs = 20000;

    // The two-way test fails when the robot has not called back within this.
    int connectionTestLimitMs = 15000;

    // Pose polling: angles and torso on the fast tick (with the pose flag),
    // stiffness, awake state and watched keys on the medium one.
    int fastPollMs = 60;
    int mediumPollMs = 500;

    // Teardown: how long the robot may take to confirm that the desktop's
    // own services (the recorder) are gone before the session is closed
    // anyway. The robot drops them itself when the session ends, so waiting
    // longer gains nothing on a robot that does not answer.
    int unregisterLimitMs = 300;

    // The reconnection manager's delays belong here too, beside the limits
    // above, so that one struct carries every delay a test would wait out.
};

} // namespace RK
