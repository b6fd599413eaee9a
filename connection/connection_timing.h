#pragma once

/// \file
/// The time limits and periods of a connection and of its reconnection.

namespace RK {

/// The time limits and polling periods of a connection, and the delays of
/// the reconnection countdown: every delay a test or a benchmark would wait
/// out, in one place.
///
/// A plain value: copy it, change the fields you need, and hand it to
/// ConnectionManager::setTiming() on the GUI thread. The defaults are the ones
/// the library is made for; tests shorten them so as not to wait them out.
/// A connection takes a copy when its attempt starts, so a change applies to
/// the next attempt; the reconnection fields apply at the next start of the
/// countdown.
struct ConnectionTiming
{
    /// Period, in milliseconds, at which the robot's "MorvaneReady" is asked
    /// while a connection waits for the robot.
    int readinessStepMs = 250;
    /// How long, in milliseconds, a connection waits for the robot to be
    /// ready; then the attempt fails with "Morvane was not ready yet.".
    int readinessLimitMs = 20000;

    /// The two-way test fails when the robot has not called the desktop back
    /// within this many milliseconds.
    int connectionTestLimitMs = 15000;

    /// Pose polling, fast tick in milliseconds: joint angles and torso (with
    /// the pose flag), and the watched keys.
    int fastPollMs = 60;
    /// Pose polling, medium tick in milliseconds: stiffness and awake state.
    int mediumPollMs = 500;

    /// Teardown: how long, in milliseconds, the robot may take to confirm that
    /// the desktop's own services (the recorder) are gone before the session
    /// is closed anyway. The robot drops them itself when the session ends, so
    /// waiting longer gains nothing on a robot that does not answer.
    int unregisterLimitMs = 300;

    /// Reconnection countdown: length of one tick, in milliseconds. The
    /// countdown's figures (ReconnectionManager::secondsLeft(),
    /// refreshTimeBeforeReconnectionRequested()) count these ticks, which are
    /// seconds only with this default.
    int reconnectionTickMs = 1000;
    /// Ticks before the first automatic attempt after a loss.
    int reconnectionFirstDelay = 30;
    /// Each failed automatic attempt doubles the delay, up to this many ticks.
    int reconnectionMaxDelay = 1200;
};

} // namespace RK
