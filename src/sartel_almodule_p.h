#pragma once

#include <connection/meta_types.h>

#include <QObject>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>

#include <atomic>
#include <string>

class QTimer;

namespace wz {
class Session;
}

namespace RK {

// The desktop as a service of the robot ("VXSartel"): the robot's memory
// delivers every subscribed event to dataChanged, and the two-way test
// proves that the robot can call the desktop at all. Registered in the
// connection's own session by RK::VXSartelExecuter.
//
// dataChanged and _connectionTestCallback run on the framework's threads and
// only emit signals; triggerConnectionTest and onTimeout run on the thread
// that built the module.
class VXSartel : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(VXSartel)

public:
    // Object name and service name.
    static const QString a_sartelModuleName;

    // The session may be null: the test then fails at once.
    VXSartel(wz::Session *session, QObject *parent);
    ~VXSartel() override;

    // Remote methods, in the shape VXMemory calls a micro event's subscriber.
    void dataChanged(const std::string &key, const VX::VXValue &value,
                     const std::string &subscriberIdentifier);
    void _connectionTestCallback(const std::string &key, const VX::VXValue &value,
                                 const std::string &subscriberIdentifier);

    // Whether a test has been answered since this module was made.
    bool answered() const { return m_answered; }

public slots:
    void onTimeout();
    void triggerConnectionTest();

signals:
    // Declared so that the interface can forward it; never emitted here.
    void connectionLost();
    void disconnectRequested();
    void dataSubscribedChanged(QString name, VX::VXValue value);
    void connectionTested(bool success);

private:
    wz::Session *m_session;
    boost::shared_ptr<QTimer> m_testTimer;
    // One writer (the callback, on a framework thread) and one later reader
    // (the time-out): atomic only so that the hand-over is well defined.
    std::atomic<bool> m_answered;
};

} // namespace RK
