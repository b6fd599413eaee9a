#pragma once

#include <connection/meta_types.h>
#include <connection/nimiob_export.h>

#include <QObject>
#include <QString>

#include <string>

class QTimer;

namespace RK {

class ConnectionManager;

// Time limits of the reconnection countdown. The countdown counts in ticks
// of one second; tests and benchmarks shorten the tick.
struct NIMIOB_EXPORT ReconnectionSettings
{
    int tickMs = 1000;
    // Ticks before the first attempt; each failure doubles it up to maxDelay.
    int firstDelay = 30;
    int maxDelay = 1200;
};

// Counts down to a new attempt after a connection was lost, starts it, and
// backs off when it fails. The application starts it on connectionLost()
// (never on disconnected(), which each failed attempt emits too) and cancels
// it on connectionEstablished(): a success is not seen here.
//
// Every automatic attempt connects the manager's displayErrorRequested once
// more and only cancelReconnectionProcess() removes those links, so after N
// attempts one error counts N times. That is how the process is meant to
// behave: repeated failures back off faster.
class NIMIOB_EXPORT ReconnectionManager : public QObject
{
    Q_OBJECT

public:
    explicit ReconnectionManager(ConnectionManager *manager,
                                 const ReconnectionSettings &settings = ReconnectionSettings());
    ~ReconnectionManager() override;

    // Takes effect at the next start of the timer.
    void setSettings(const ReconnectionSettings &settings);
    ReconnectionSettings settings() const { return m_settings; }

    void startReconnectionProcess(const std::string &address, int port, const QString &name);
    void restartReconnectionProcess();
    void cancelReconnectionProcess();
    void reconnect();

    int secondsLeft() const { return m_timeBeforeReconnection; }
    int delay() const { return m_delay; }
    bool isCounting() const;

public slots:
    void onUpdateTimeBeforeReconnection();
    void onReconnectionRequestedByUser();
    void onReconnectionRequested();
    void onReconnectionFailed(QString title, QString contents, QString details);
    void onReconnectionByUserFailed(QString title, QString contents, QString details);

signals:
    // Declared for the application; never emitted here.
    void displayReconnectionDialogRequested(std::string IP, int port);
    void refreshTimeBeforeReconnectionRequested(int timeBeforeReconnection);
    void reconnectionRequested();
    void reconnectionFailed(bool userRequest);

private:
    ConnectionManager *m_manager;
    QTimer *m_timer;
    int m_timeBeforeReconnection = 0;
    int m_delay = 0;
    int m_port = -1;
    std::string m_address;
    QString m_name;
    ReconnectionSettings m_settings;
};

} // namespace RK
