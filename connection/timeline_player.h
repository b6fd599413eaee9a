#pragma once

#include <connection/nimiob_export.h>

#include <QObject>

namespace RK {

/// What a player of timelines shows to the user interface: its state, its
/// current frame, and the commands on them. BehaviorDebugger is the player of
/// the library; a timeline view holds a pointer to this base.
///
/// Frames are the timeline's own frame numbers (the behaviour's timeline
/// counts them from 0 at its own frame rate), not milliseconds.
///
/// \b Thread: a player lives on the thread that makes it (the application's,
/// for BehaviorDebugger) and emits its signals there; call it from that
/// thread only. \b Ownership: the application's, through the QObject parent.
class NIMIOB_EXPORT TimelinePlayer : public QObject
{
    Q_OBJECT

public:
    /// A player owned by \p parent, if any.
    explicit TimelinePlayer(QObject *parent = nullptr);
    ~TimelinePlayer() override;

    /// Whether something is loaded to play.
    virtual bool isStarted() = 0;
    /// Whether the timeline is paused.
    virtual bool isPaused() = 0;
    /// Whether nothing plays.
    virtual bool isStopped() = 0;
    /// Whether the player follows the robot (see enable()).
    virtual bool isEnabled() = 0;
    /// Stops playing.
    virtual void stop() = 0;
    /// Lets the player follow the robot, or not; enabledChanged() follows a
    /// change.
    virtual void enable(bool enabled) = 0;
    /// The frame shown now; -1 when none is known.
    virtual int getCurrentFrame() = 0;
    /// Sets the frame shown, without moving what plays.
    virtual void setCurrentFrame(int frame) = 0;
    /// Moves what plays to \p frame.
    virtual void gotoFrame(int frame) = 0;

signals:
    /// Playing started.
    void started();
    /// Playing paused.
    void paused();
    /// Playing stopped.
    void stopped();
    /// isEnabled() changed.
    void enabledChanged();
    /// isEnabled() changed to \p enabled.
    void enabledChanged(bool enabled);
    /// The robot's timeline reached \p frame.
    void currentFrameChanged(int frame);
    /// For players that follow a link of their own: the link is gone.
    /// BehaviorDebugger never emits it (it says stopped() when the
    /// connection goes).
    void disconnected();
};

} // namespace RK
