#pragma once

#include <connection/nimiob_export.h>

#include <QObject>

namespace RK {

// What a player of timelines shows to the user interface: its state, its
// current frame, and the commands on them. The behaviour debugger is the
// player of the library.
class NIMIOB_EXPORT TimelinePlayer : public QObject
{
    Q_OBJECT

public:
    explicit TimelinePlayer(QObject *parent = nullptr);
    ~TimelinePlayer() override;

    virtual bool isStarted() = 0;
    virtual bool isPaused() = 0;
    virtual bool isStopped() = 0;
    virtual bool isEnabled() = 0;
    virtual void stop() = 0;
    virtual void enable(bool enabled) = 0;
    virtual int getCurrentFrame() = 0;
    virtual void setCurrentFrame(int frame) = 0;
    virtual void gotoFrame(int frame) = 0;

signals:
    void started();
    void paused();
    void stopped();
    void enabledChanged();
    void enabledChanged(bool enabled);
    void currentFrameChanged(int frame);
    void disconnected();
};

} // namespace RK
