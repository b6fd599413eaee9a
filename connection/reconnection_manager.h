#pragma once

/// \file
/// RK::ReconnectionManager, the countdown to a new attempt after a loss.

#include <connection/meta_types.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <string>

class QTimer;

namespace RK {

class ConnectionManager;

/// Counts down to a new attempt after a connection was lost, starts it, and
/// backs off when it fails.
///
/// **Thread and ownership.** The ConnectionManager makes and owns it
/// (ConnectionManager::reconnectionManager()); it lives on the GUI thread,
/// where its signals arrive, and is valid as long as the manager.
///
/// **Use.** The application starts it on ConnectionManager::connectionLost()
/// (never on disconnected(), which each failed attempt emits too) and
/// cancels it on connectionEstablished(): a success is not seen here.
///
/// **Units.** The countdown counts ticks of
/// ConnectionTiming::reconnectionTickMs (1000 ms, one second, unless set by
/// ConnectionManager::setTiming()); it starts at
/// ConnectionTiming::reconnectionFirstDelay ticks and each failed automatic
/// attempt doubles it, up to ConnectionTiming::reconnectionMaxDelay. The
/// manager's timing is read at each start of the countdown.
///
/// **Errors.** Every automatic attempt connects the manager's
/// displayErrorRequested() to this object once more, and only
/// cancelReconnectionProcess() removes those links (the user's attempt's
/// link goes with its failure): after N attempts one
/// error counts N times, so repeated failures back off faster. An
/// application that shows a dialog for each displayErrorRequested() gets one
/// for each failed attempt: while counting, show reconnectionFailed()
/// instead.
class NIMIOB_EXPORT ReconnectionManager : public QObject
{
    Q_OBJECT

public:
    /// Made by \a manager, which it starts attempts on and takes its delays
    /// from; it has no parent (the manager deletes it).
    explicit ReconnectionManager(ConnectionManager *manager);
    ~ReconnectionManager() override;

    /// Keeps \a address, \a port and \a name for the attempts, starts the
    /// countdown at the first delay and emits
    /// refreshTimeBeforeReconnectionRequested() with it.
    void startReconnectionProcess(const std::string &address, int port, const QString &name);
    /// Doubles the delay (up to the maximum) and counts it down again.
    void restartReconnectionProcess();
    /// Stops the countdown and forgets the failures counted so far; no effect
    /// while idle.
    void cancelReconnectionProcess();
    /// Stops the countdown and starts an attempt with the kept values at once
    /// (the empty address and port -1 before any start).
    void reconnect();

    /// Ticks left before the next attempt (below 0 while it runs).
    int secondsLeft() const { return m_timeBeforeReconnection; }
    /// The current delay, in ticks.
    int delay() const { return m_delay; }
    /// True while the countdown runs.
    bool isCounting() const;

public slots:
    /// One tick of the countdown: at the end of it, an automatic attempt.
    void onUpdateTimeBeforeReconnection();
    /// An attempt at once, asked for by the user; its failure starts the
    /// countdown afresh at the first delay.
    void onReconnectionRequestedByUser();
    /// An automatic attempt, at once; its failure doubles the delay.
    void onReconnectionRequested();
    /// An automatic attempt failed with the manager's error (\a title,
    /// \a contents, \a details): reconnectionFailed(false), and a longer delay.
    void onReconnectionFailed(QString title, QString contents, QString details);
    /// The user's attempt failed with the manager's error (\a title,
    /// \a contents, \a details): reconnectionFailed(true), and the countdown
    /// starts afresh.
    void onReconnectionByUserFailed(QString title, QString contents, QString details);

signals:
    /// Declared for the application (the robot at \a IP and \a port); never
    /// emitted by the library.
    void displayReconnectionDialogRequested(std::string IP, int port);
    /// The countdown moved: \a timeBeforeReconnection ticks are left (see the
    /// class description for their length).
    void refreshTimeBeforeReconnectionRequested(int timeBeforeReconnection);
    /// An attempt starts now.
    void reconnectionRequested();
    /// An attempt failed; \a userRequest tells whether the user asked for it.
    void reconnectionFailed(bool userRequest);

private:
    void restartTimer();

    ConnectionManager *m_manager;
    QTimer *m_timer;
    int m_timeBeforeReconnection = 0;
    int m_delay = 0;
    int m_port = -1;
    std::string m_address;
    QString m_name;
};

} // namespace RK
