#include <connection/connection_manager.h>
#include <connection/reconnection_manager.h>

#include <QTimer>

#include <algorithm>

namespace RK {

ReconnectionManager::ReconnectionManager(ConnectionManager *manager)
    : QObject(nullptr), m_manager(manager), m_timer(new QTimer(this))
{
    m_timer->setInterval(std::max(1, m_manager->timing().reconnectionTickMs));
    m_timer->setSingleShot(false);
    connect(m_timer, &QTimer::timeout, this, &ReconnectionManager::onUpdateTimeBeforeReconnection);
}

ReconnectionManager::~ReconnectionManager() = default;

// The manager's timing may have changed since the last start.
void ReconnectionManager::restartTimer()
{
    m_timer->setInterval(std::max(1, m_manager->timing().reconnectionTickMs));
    m_timer->start();
}

bool ReconnectionManager::isCounting() const
{
    return m_timer->isActive();
}

void ReconnectionManager::startReconnectionProcess(const std::string &address, int port,
                                                   const QString &name)
{
    m_address = address;
    m_port = port;
    m_name = name;
    m_timeBeforeReconnection = m_manager->timing().reconnectionFirstDelay;
    m_delay = m_timeBeforeReconnection;
    emit refreshTimeBeforeReconnectionRequested(m_timeBeforeReconnection);
    restartTimer();
}

void ReconnectionManager::restartReconnectionProcess()
{
    m_delay = std::min(m_delay * 2, m_manager->timing().reconnectionMaxDelay);
    m_timeBeforeReconnection = m_delay;
    emit refreshTimeBeforeReconnectionRequested(m_timeBeforeReconnection);
    restartTimer();
}

void ReconnectionManager::cancelReconnectionProcess()
{
    disconnect(m_manager, SIGNAL(displayErrorRequested(QString, QString, QString)), this,
               SLOT(onReconnectionFailed(QString, QString, QString)));
    disconnect(m_manager, SIGNAL(displayErrorRequested(QString, QString, QString)), this,
               SLOT(onReconnectionByUserFailed(QString, QString, QString)));
    m_timer->stop();
}

void ReconnectionManager::reconnect()
{
    m_timer->stop();
    emit reconnectionRequested();
    m_manager->connectRemoteBroker(m_address, m_port, m_name);
}

void ReconnectionManager::onUpdateTimeBeforeReconnection()
{
    --m_timeBeforeReconnection;
    if (m_timeBeforeReconnection < 0) {
        onReconnectionRequested();
        emit refreshTimeBeforeReconnectionRequested(m_timeBeforeReconnection);
    } else {
        emit refreshTimeBeforeReconnectionRequested(m_timeBeforeReconnection);
    }
}

void ReconnectionManager::onReconnectionRequestedByUser()
{
    connect(m_manager, SIGNAL(displayErrorRequested(QString, QString, QString)), this,
            SLOT(onReconnectionByUserFailed(QString, QString, QString)));
    reconnect();
}

void ReconnectionManager::onReconnectionRequested()
{
    // Deliberately no check for an existing link: see the class comment.
    connect(m_manager, SIGNAL(displayErrorRequested(QString, QString, QString)), this,
            SLOT(onReconnectionFailed(QString, QString, QString)));
    reconnect();
}

void ReconnectionManager::onReconnectionFailed(QString, QString, QString)
{
    emit reconnectionFailed(false);
    restartReconnectionProcess();
}

void ReconnectionManager::onReconnectionByUserFailed(QString, QString, QString)
{
    // The user's attempt is over: later failures are the countdown's own.
    disconnect(m_manager, SIGNAL(displayErrorRequested(QString, QString, QString)), this,
               SLOT(onReconnectionByUserFailed(QString, QString, QString)));
    emit reconnectionFailed(true);
    startReconnectionProcess(m_address, m_port, m_name);
}

} // namespace RK
